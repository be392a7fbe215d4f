#pragma once
// The host's side of the modem's boot protocol, byte for byte (docs/serial-protocol.md): what
// the image loader must write and what the tests write when they play the host against the
// emulator. Written down here independently of both, so that each is checked against the
// protocol rather than against the other.

#include <cstdint>
#include <vector>

namespace wire {

using TBytes = std::vector<uint8_t>;

// The probe the boot code echoes while it waits for a loader.
constexpr uint8_t kSync = 0x16;
// The boot code's command bytes; each is acknowledged by echoing it.
constexpr uint8_t kWrite = 0x01;
constexpr uint8_t kRead = 0x02;
constexpr uint8_t kErase = 0x03;
constexpr uint8_t kSetRange = 0x04;
constexpr uint8_t kSetFlowControl = 0x05;
constexpr uint8_t kSetBaudrate = 0x07;
constexpr uint8_t kSetEraseRange = 0x09;
// The flash is written in chunks of this many bytes.
constexpr uint32_t kChunkBytes = 25600;

// A command that names a flash range: the command byte, the start address 0x90000000 (little
// endian) and the length in bytes (little endian).
inline TBytes RangeCommand(uint8_t command, uint32_t length) {
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

// 115200 baud, little endian.
inline TBytes BaudrateCommand() { return {kSetBaudrate, 0x00, 0xC2, 0x01, 0x00}; }
// No flow control.
inline TBytes FlowControlCommand() { return {kSetFlowControl, 0x00}; }
// The empty range set before the read.
inline TBytes ReadRangeCommand() { return RangeCommand(kSetRange, 0); }
inline TBytes EraseRangeCommand(uint32_t length) { return RangeCommand(kSetEraseRange, length); }
inline TBytes WriteRangeCommand(uint32_t length) { return RangeCommand(kSetRange, length); }
inline TBytes ReadCommand() { return {kRead}; }
inline TBytes EraseCommand() { return {kErase}; }
inline TBytes WriteCommand() { return {kWrite}; }

}  // namespace wire
