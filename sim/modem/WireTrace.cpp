#include "WireTrace.h"

#include <cerrno>
#include <cstring>

namespace {
constexpr size_t kBytesPerLine = 32;
}

CStatus CWireTrace::Open(const std::string& path) {
    m_file.reset(std::fopen(path.c_str(), "we"));
    if (!m_file) {
        return CStatus::Failure("opening the trace file " + path + ": " + std::strerror(errno));
    }
    return CStatus::Ok();
}

void CWireTrace::Stamp(TTime now) {
    const double milliseconds = std::chrono::duration<double, std::milli>(now - m_start).count();
    std::fprintf(m_file.get(), "%12.3f ", milliseconds);
}

void CWireTrace::Note(const std::string& text, TTime now) {
    if (!m_file) {
        return;
    }
    Stamp(now);
    std::fprintf(m_file.get(), "%s\n", text.c_str());
    std::fflush(m_file.get());
}

void CWireTrace::Bytes(const char* direction, const uint8_t* data, size_t count, TTime now) {
    if (!m_file) {
        return;
    }
    for (size_t line = 0; line < count; line += kBytesPerLine) {
        Stamp(now);
        std::fputs(direction, m_file.get());
        for (size_t index = line; index < count && index < line + kBytesPerLine; ++index) {
            std::fprintf(m_file.get(), " %02x", data[index]);
        }
        std::fputc('\n', m_file.get());
    }
    std::fflush(m_file.get());
}
