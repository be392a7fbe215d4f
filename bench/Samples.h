#pragma once
// The values one figure took over repeated runs. Every figure of the benchmark table is reported
// as the median of its runs, with the smallest and largest value beside it, so that one run
// disturbed by the other work on a shared machine neither hides nor invents a trend.

#include <cstddef>
#include <vector>

class CSamples {
public:
    void Add(double value) { m_values.push_back(value); }
    std::size_t Count() const { return m_values.size(); }

    // The middle value (the mean of the two middle ones for an even count); 0 without values.
    double Median() const;
    double Minimum() const;
    double Maximum() const;

private:
    std::vector<double> m_values;
};
