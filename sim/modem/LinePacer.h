#pragma once
// One direction of a serial line at a given baud rate: 10 bit times a byte (start, 8 data,
// stop). The pseudo-terminal moves bytes instantly; the pacer tells how many of them a real line
// would have carried by now, so a benchmark sees a real line's timing. With baud 0 the line is
// as fast as the pseudo-terminal. Pure; single-threaded.
//
// Use: ask Allowance(now), move at most that many bytes, then Passed(moved, drained) with
// drained = nothing more was waiting. An idle line starts afresh: its first byte takes a whole
// byte time, and idle time earns no credit. While a stream is under way the next wake is at least
// a millisecond away, so a fast line is served a dozen bytes a wake instead of one (the byte count
// stays exact; only the grouping changes).

#include <chrono>
#include <cstddef>
#include <optional>

class CLinePacer {
public:
    using TTime = std::chrono::steady_clock::time_point;

    explicit CLinePacer(unsigned baud);

    bool Paced() const { return m_baud != 0; }
    std::chrono::nanoseconds ByteTime() const { return m_byteTime; }

    size_t Allowance(TTime now);
    void Passed(size_t count, bool drained);
    // When the next byte is due on a busy line; none while idle or unpaced.
    std::optional<TTime> NextDue() const;

    static constexpr std::chrono::microseconds kStreamingWake{1000};

private:
    const unsigned m_baud;
    const std::chrono::nanoseconds m_byteTime;
    bool m_idle = true;
    bool m_streaming = false;  // bytes have passed since the line last went idle
    TTime m_cursor{};          // when the last byte passed
};
