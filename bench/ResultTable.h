#pragma once
// The benchmark table: one row per figure, with its median, minimum and maximum over the runs,
// the limit the figure is compared with and the ratio of the median to that limit. Rendered once
// as a Markdown table, which reads the same on a terminal and in bench/results.md.

#include <string>
#include <vector>

#include "Samples.h"

struct TResultRow {
    std::string number;  // "1", "3a": the figure's place in docs/performance.md
    std::string figure;  // what was measured, and how
    std::string unit;    // "B/s", "KiB", ...
    int decimals = 0;    // for the figure and its limit
    CSamples samples;
    double limit = 0;       // what the figure is compared with, in the same unit
    std::string limitText;  // where the limit comes from ("115200 baud, 10 bits a byte")
};

class CResultTable {
public:
    void Add(TResultRow row) { m_rows.push_back(std::move(row)); }
    bool Empty() const { return m_rows.empty(); }
    std::string Markdown() const;

private:
    std::vector<TResultRow> m_rows;
};

// `value` with `decimals` digits after the point and the unit after a blank.
std::string FormatValue(double value, int decimals, const std::string& unit);
