#include "ResultTable.h"

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
    for (const TResultRow& row : m_rows) {
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
