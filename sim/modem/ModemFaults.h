#pragma once
// The ways a test can make the emulated modem misbehave, one "--fault NAME[=ARG]" each.

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "Status.h"

struct TModemFaults {
    bool noSync = false;               // "no-sync": the boot code never echoes a sync byte
    unsigned syncAfter = 1;            // "sync-after=N": only the Nth power-up and later answer
    std::optional<char> loaderStatus;  // "loader-status=1|2|3": status after the loader download
    bool loaderSilent = false;         // "loader-silent": no status after the loader download
    std::set<uint8_t> nakCommands;     // "nak=HH": that command byte is never echoed
    bool eraseNeverDone = false;       // "erase-never-done": erase echoed, "0" never follows
    std::optional<char> writeStatus;   // "write-status=1|2|3|X": final write status
    bool writeSilent = false;          // "write-silent": no "." and no final status
    uint32_t dropBytes = 0;            // "drop-bytes=N": the first N firmware bytes are lost
    // "hang-up-after=N": the serial adapter vanishes once N firmware bytes arrived; the line is
    // closed and nothing after them reaches the modem.
    std::optional<uint32_t> hangUpAfter;
};

// Adds one fault given as "NAME" or "NAME=ARG" (command bytes in hex, "07" or "0x07").
[[nodiscard]] CStatus AddFault(TModemFaults& faults, const std::string& faultText);
