#pragma once
// The host's side of the modem's boot protocol, as bytes, for the tests that play the host
// against the emulator (in-process and on a pseudo-terminal).

#include <cstdint>
#include <vector>

// A command that names a flash range: the command byte, the start address 0x90000000 (little
// endian) and the length in bytes (little endian).
inline std::vector<uint8_t> RangeCommand(uint8_t command, uint32_t length) {
    return {command,
            0x00,
            0x00,
            0x00,
            0x90,
            static_cast<uint8_t>(length),
            static_cast<uint8_t>(length >> 8),
            static_cast<uint8_t>(length >> 16),
            static_cast<uint8_t>(length >> 24)};
}
