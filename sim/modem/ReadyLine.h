#pragma once
// The modem's ready line: a file whose first character is "1" while the modem is on and "0"
// while it is off. Each change replaces the file whole (write aside, then rename), so a reader
// never finds it empty or half written.

#include <string>

#include "Status.h"

class CReadyLine {
public:
    [[nodiscard]] CStatus Open(const std::string& path, bool on);
    [[nodiscard]] CStatus Set(bool on);

private:
    std::string m_path;
};
