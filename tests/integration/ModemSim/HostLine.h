#pragma once
// The host's end of the emulated serial line for a test: the pseudo-terminal's slave opened
// through the emulator's link, raw at 115200 baud as the image loader opens it.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "UniqueFd.h"

class CHostLine {
public:
    [[nodiscard]] bool Open(const std::string& path);

    // Writes everything, waiting for room as long as `timeout` allows.
    [[nodiscard]] bool Write(const std::vector<uint8_t>& bytes,
                             std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // Up to `count` bytes, waiting at most `timeout` for them all; fewer on a time-out.
    std::vector<uint8_t> Read(size_t count, std::chrono::milliseconds timeout);

    // Waits up to `timeout` for the other end to hang up: then the line polls with POLLHUP and
    // a read finds the end of the file (or EIO), as a serial port whose adapter was pulled.
    [[nodiscard]] bool AwaitHangUp(std::chrono::milliseconds timeout);

private:
    CUniqueFd m_line;
};
