#include "LinePacer.h"

#include <limits>

namespace {
constexpr long long kBitsPerByte = 10;
}

CLinePacer::CLinePacer(unsigned baud)
    : m_baud(baud),
      m_byteTime(baud == 0 ? std::chrono::nanoseconds(0)
                           : std::chrono::nanoseconds(kBitsPerByte * 1000000000LL / baud)) {}

size_t CLinePacer::Allowance(TTime now) {
    if (!Paced()) {
        return std::numeric_limits<size_t>::max();
    }
    if (m_idle) {
        m_idle = false;
        m_cursor = now;
        return 0;
    }
    if (now < m_cursor) {
        return 0;
    }
    return static_cast<size_t>((now - m_cursor) / m_byteTime);
}

void CLinePacer::Passed(size_t count, bool drained) {
    if (!Paced()) {
        return;
    }
    m_cursor += m_byteTime * static_cast<long long>(count);
    m_idle = drained;
    m_streaming = !drained && (m_streaming || count > 0);
}

std::optional<CLinePacer::TTime> CLinePacer::NextDue() const {
    if (!Paced() || m_idle) {
        return std::nullopt;
    }
    if (m_streaming && m_byteTime < kStreamingWake) {
        return m_cursor + kStreamingWake;
    }
    return m_cursor + m_byteTime;
}
