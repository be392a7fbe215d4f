#include "Samples.h"

#include <algorithm>

double CSamples::Median() const {
    if (m_values.empty()) {
        return 0;
    }
    std::vector<double> sorted = m_values;
    std::sort(sorted.begin(), sorted.end());
    const std::size_t middle = sorted.size() / 2;
    return sorted.size() % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

double CSamples::Minimum() const {
    return m_values.empty() ? 0 : *std::min_element(m_values.begin(), m_values.end());
}

double CSamples::Maximum() const {
    return m_values.empty() ? 0 : *std::max_element(m_values.begin(), m_values.end());
}
