#pragma once
// The log records of the archive loader's Install, as its tests compare them: category, text and
// source line. Every record of an installation must come from Install in the archive loader's
// source file, on the module's channel; the reference platform's records (channel Platform) of
// why a service call failed are left out.

#include <ostream>
#include <string>
#include <vector>

#include "LogCapture.h"

struct TInstallLine {
    logging::categories::TCategory category;
    std::string text;
    int line;

    bool operator==(const TInstallLine& other) const {
        return category == other.category && text == other.text && line == other.line;
    }
};
void PrintTo(const TInstallLine& line, std::ostream* stream);

TInstallLine InstallError(const std::string& message, int line);
TInstallLine InstallAlways(const std::string& message, int line);

// The captured module records as install lines; one from anywhere but Install is a test failure.
std::vector<TInstallLine> ArchiveInstallRecords(const CLogCapture& log);
