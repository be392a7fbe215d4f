#pragma once
// A virtual clock for the plug-in's sleeps. Linking the "virtualclock" library into a test
// executable replaces libc's sleep and usleep for everything in it (the plug-in's power pulse,
// acknowledge polls and read retries): each call is recorded with its thread and advances that
// thread's virtual time, and then waits only a scaled-down real time (1/1000 by default), so a
// 6 s pulse takes 6 ms and a 1.25 s acknowledge window 1.25 ms while the threads still
// interleave as they would.
//
// Only the executables that want it link it: every other one keeps the real sleeps.

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <thread>
#include <vector>

struct TSleep {
    enum TUnit { eSeconds, eMicroseconds } unit;
    uint64_t amount;  // in `unit`
    std::thread::id thread;
    std::size_t index;  // the how-many-th sleep of its thread, from 0

    uint64_t Microseconds() const { return unit == eSeconds ? amount * 1000000 : amount; }
    bool operator==(const TSleep& other) const {
        return unit == other.unit && amount == other.amount;
    }
};
void PrintTo(const TSleep& sleep, std::ostream* stream);

// Shorthands for expectations: Seconds(6), Microseconds(25000). Compared by unit and amount.
TSleep Seconds(uint64_t seconds);
TSleep Microseconds(uint64_t microseconds);

class CVirtualClock {
public:
    // Real time waited is the virtual time divided by `divisor`; 0 waits no real time at all.
    static void SetRealTimeDivisor(uint64_t divisor);
    // Runs on the sleeping thread for every sleep, after it is recorded and before the real wait
    // (for example to act at a chosen poll of a worker). Empty removes it.
    static void OnSleep(std::function<void(const TSleep&)> action);

    static std::vector<TSleep> Sleeps();  // all, in the order they began
    static std::vector<TSleep> SleepsOf(std::thread::id thread);
    static std::vector<std::thread::id> Threads();  // in the order of their first sleep
    static uint64_t ElapsedMicroseconds(std::thread::id thread);
    static void Clear();

    // Called by the sleep and usleep replacements.
    static void Sleep(TSleep::TUnit unit, uint64_t amount);
};
