#include "ArchiveInstallRecords.h"

#include <gtest/gtest.h>

void PrintTo(const TInstallLine& line, std::ostream* stream) {
    *stream << "{" << logging::IControl::CategoryName(line.category) << ", \"" << line.text
            << "\", " << line.line << "}";
}

TInstallLine InstallError(const std::string& message, int line) {
    return {logging::categories::Error, LogText(message), line};
}

TInstallLine InstallAlways(const std::string& message, int line) {
    return {logging::categories::Always, LogText(message), line};
}

std::vector<TInstallLine> ArchiveInstallRecords(const CLogCapture& log) {
    std::vector<TInstallLine> lines;
    for (const logging::TLogRecord& record : log.Records()) {
        // The reference platform's own records of why a call failed are its tests' concern.
        if (record.channel == logging::Platform) {
            continue;
        }
        EXPECT_EQ(record.function, "Install");
        EXPECT_EQ(record.file, "features/component/ModemLoader/src/ArchiveLoader");
        EXPECT_EQ(record.channel, logging::ModemLoader);
        lines.push_back({record.category, record.text, record.line});
    }
    return lines;
}
