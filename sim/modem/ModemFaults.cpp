#include "ModemFaults.h"

#include <cerrno>
#include <cstdlib>

namespace {

bool ParseUnsigned(const std::string& text, int base, unsigned long max, unsigned long& value) {
    if (text.empty() || text.find_first_of("+- ") != std::string::npos) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long parsed = std::strtoul(text.c_str(), &end, base);
    if (errno != 0 || *end != '\0' || parsed > max) {
        return false;
    }
    value = parsed;
    return true;
}

}  // namespace

CStatus AddFault(TModemFaults& faults, const std::string& faultText) {
    const auto equals = faultText.find('=');
    const std::string name = faultText.substr(0, equals);
    const bool hasArgument = equals != std::string::npos;
    const std::string argument = hasArgument ? faultText.substr(equals + 1) : std::string();
    const auto bad = [&](const std::string& why) {
        return CStatus::Failure("fault \"" + faultText + "\": " + why);
    };

    if (name == "no-sync" || name == "loader-silent" || name == "erase-never-done" ||
        name == "write-silent") {
        if (hasArgument) {
            return bad("takes no argument");
        }
        if (name == "no-sync") {
            faults.noSync = true;
        } else if (name == "loader-silent") {
            faults.loaderSilent = true;
        } else if (name == "erase-never-done") {
            faults.eraseNeverDone = true;
        } else {
            faults.writeSilent = true;
        }
        return CStatus::Ok();
    }
    if (name == "sync-after") {
        unsigned long powerUp = 0;
        if (!ParseUnsigned(argument, 10, 1000000, powerUp) || powerUp == 0) {
            return bad("needs a power-up number of 1 or more");
        }
        faults.syncAfter = static_cast<unsigned>(powerUp);
        return CStatus::Ok();
    }
    if (name == "loader-status") {
        if (argument != "1" && argument != "2" && argument != "3") {
            return bad("needs 1, 2 or 3");
        }
        faults.loaderStatus = argument[0];
        return CStatus::Ok();
    }
    if (name == "write-status") {
        if (argument != "1" && argument != "2" && argument != "3" && argument != "X") {
            return bad("needs 1, 2, 3 or X");
        }
        faults.writeStatus = argument[0];
        return CStatus::Ok();
    }
    if (name == "nak") {
        std::string digits = argument;
        if (digits.size() > 2 &&
            (digits.compare(0, 2, "0x") == 0 || digits.compare(0, 2, "0X") == 0)) {
            digits = digits.substr(2);
        }
        unsigned long command = 0;
        if (digits.size() > 2 || !ParseUnsigned(digits, 16, 0xff, command)) {
            return bad("needs a command byte in hex, such as 07");
        }
        faults.nakCommands.insert(static_cast<uint8_t>(command));
        return CStatus::Ok();
    }
    if (name == "drop-bytes") {
        unsigned long count = 0;
        if (!ParseUnsigned(argument, 10, UINT32_MAX, count)) {
            return bad("needs a byte count");
        }
        faults.dropBytes = static_cast<uint32_t>(count);
        return CStatus::Ok();
    }
    if (name == "hang-up-after") {
        unsigned long count = 0;
        if (!ParseUnsigned(argument, 10, UINT32_MAX, count) || count == 0) {
            return bad("needs a firmware byte count of 1 or more");
        }
        faults.hangUpAfter = static_cast<uint32_t>(count);
        return CStatus::Ok();
    }
    return bad("unknown fault");
}
