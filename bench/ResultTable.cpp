#include "ResultTable.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

std::string FormatValue(double value, int decimals, const std::string& unit) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return unit.empty() ? std::string(text) : std::string(text) + " " + unit;
}

std::string CResultTable::Markdown() const {
    std::ostringstream table;
    table << "| # | Figure | Median | Min | Max | Runs | Limit | Ratio |\n"
          << "|---|---|---:|---:|---:|---:|---|---:|\n";
    // In the order of docs/performance.md, whatever order the figures were measured in.
    std::vector<const TResultRow*> rows;
    for (const TResultRow& row : m_rows) {
        rows.push_back(&row);
    }
    std::stable_sort(rows.begin(), rows.end(), [](const TResultRow* left, const TResultRow* right) {
        return left->number < right->number;
    });
    for (const TResultRow* entry : rows) {
        const TResultRow& row = *entry;
        const double median = row.samples.Median();
        // Three decimals read well near 1; a figure far below its limit keeps two digits.
        const double share = row.limit > 0 ? median / row.limit : 0.0;
        char ratio[32];
        std::snprintf(ratio, sizeof ratio, share >= 0.1 ? "%.3f" : "%.2g", share);
        table << "| " << row.number << " | " << row.figure << " | "
              << FormatValue(median, row.decimals, row.unit) << " | "
              << FormatValue(row.samples.Minimum(), row.decimals, row.unit) << " | "
              << FormatValue(row.samples.Maximum(), row.decimals, row.unit) << " | "
              << row.samples.Count() << " | " << FormatValue(row.limit, row.decimals, row.unit)
              << " (" << row.limitText << ") | " << (row.limit > 0 ? ratio : "-") << " |\n";
    }
    return table.str();
}
