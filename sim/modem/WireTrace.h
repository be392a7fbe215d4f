#pragma once
// A log of the line traffic in both directions and of the power events, one line each, for
// "--trace". Each line starts with the milliseconds since the emulator started:
//        12.345 host>modem 07 00 c2 01 00
//        12.400 modem>host 07
//       100.002 power on
// Long transfers are split into lines of 32 bytes. Without Open the trace writes nothing.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "Status.h"

class CWireTrace {
public:
    using TTime = std::chrono::steady_clock::time_point;

    explicit CWireTrace(TTime start) : m_start(start) {}

    [[nodiscard]] CStatus Open(const std::string& path);

    void HostToModem(const uint8_t* data, size_t count, TTime now) {
        Bytes("host>modem", data, count, now);
    }
    void ModemToHost(const uint8_t* data, size_t count, TTime now) {
        Bytes("modem>host", data, count, now);
    }
    void Note(const std::string& text, TTime now);

private:
    struct TCloser {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    void Bytes(const char* direction, const uint8_t* data, size_t count, TTime now);
    void Stamp(TTime now);

    const TTime m_start;
    std::unique_ptr<std::FILE, TCloser> m_file;
};
