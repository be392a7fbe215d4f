#include "VirtualClock.h"

#include <unistd.h>

#include <chrono>
#include <map>
#include <mutex>
#include <ostream>

namespace {
struct TClockState {
    std::mutex mutex;
    uint64_t divisor = 1000;
    std::function<void(const TSleep&)> action;
    std::vector<TSleep> sleeps;
    std::map<std::thread::id, std::size_t> sleepsPerThread;
};

TClockState& State() {
    static TClockState state;
    return state;
}
}  // namespace

void PrintTo(const TSleep& sleep, std::ostream* stream) {
    *stream << (sleep.unit == TSleep::eSeconds ? "sleep(" : "usleep(") << sleep.amount << ")";
}

TSleep Seconds(uint64_t seconds) { return {TSleep::eSeconds, seconds, {}, 0}; }

TSleep Microseconds(uint64_t microseconds) { return {TSleep::eMicroseconds, microseconds, {}, 0}; }

void CVirtualClock::SetRealTimeDivisor(uint64_t divisor) {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().divisor = divisor;
}

void CVirtualClock::OnSleep(std::function<void(const TSleep&)> action) {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().action = std::move(action);
}

std::vector<TSleep> CVirtualClock::Sleeps() {
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().sleeps;
}

std::vector<TSleep> CVirtualClock::SleepsOf(std::thread::id thread) {
    std::vector<TSleep> sleeps;
    for (const TSleep& sleep : Sleeps()) {
        if (sleep.thread == thread) {
            sleeps.push_back(sleep);
        }
    }
    return sleeps;
}

std::vector<std::thread::id> CVirtualClock::Threads() {
    std::vector<std::thread::id> threads;
    for (const TSleep& sleep : Sleeps()) {
        bool known = false;
        for (const std::thread::id& thread : threads) {
            known = known || thread == sleep.thread;
        }
        if (!known) {
            threads.push_back(sleep.thread);
        }
    }
    return threads;
}

uint64_t CVirtualClock::ElapsedMicroseconds(std::thread::id thread) {
    uint64_t elapsed = 0;
    for (const TSleep& sleep : SleepsOf(thread)) {
        elapsed += sleep.Microseconds();
    }
    return elapsed;
}

void CVirtualClock::Clear() {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().sleeps.clear();
    State().sleepsPerThread.clear();
}

void CVirtualClock::Sleep(TSleep::TUnit unit, uint64_t amount) {
    TSleep sleep{unit, amount, std::this_thread::get_id(), 0};
    std::function<void(const TSleep&)> action;
    uint64_t divisor = 0;
    {
        std::lock_guard<std::mutex> lock(State().mutex);
        sleep.index = State().sleepsPerThread[sleep.thread]++;
        State().sleeps.push_back(sleep);
        action = State().action;
        divisor = State().divisor;
    }
    if (action) {
        action(sleep);
    }
    if (divisor != 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(sleep.Microseconds() / divisor));
    }
}

// The replacements. They stand in for libc's in every object of the executable that links this
// library, the plug-in's included.
extern "C" unsigned int sleep(unsigned int seconds) {
    CVirtualClock::Sleep(TSleep::eSeconds, seconds);
    return 0;
}

extern "C" int usleep(useconds_t microseconds) {
    CVirtualClock::Sleep(TSleep::eMicroseconds, microseconds);
    return 0;
}
