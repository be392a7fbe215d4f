#include "FuzzClock.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "PowerWorkers.h"

namespace {
std::mutex sMutex;
std::function<void()> sWorkerAction;
std::atomic<bool> sActive{false};
std::thread::id sInputThread;

void RealSleep(time_t seconds, long nanoseconds) {
    timespec remaining{seconds, nanoseconds};
    while (nanosleep(&remaining, &remaining) != 0) {
    }
}
}  // namespace

void CFuzzClock::Enter() {
    std::lock_guard<std::mutex> lock(sMutex);
    sInputThread = std::this_thread::get_id();
    sActive.store(true);
}

void CFuzzClock::Leave() { sActive.store(false); }

void CFuzzClock::OnWorkerSleep(std::function<void()> action) {
    std::lock_guard<std::mutex> lock(sMutex);
    sWorkerAction = std::move(action);
}

bool CFuzzClock::Virtual() {
    if (CPowerWorkers::OnPowerWorker()) {
        std::function<void()> action;
        {
            std::lock_guard<std::mutex> lock(sMutex);
            action = sWorkerAction;
        }
        if (action) {
            action();
        }
        return true;
    }
    std::lock_guard<std::mutex> lock(sMutex);
    return sActive.load() && std::this_thread::get_id() == sInputThread;
}

// The replacements, reached by every object of the executable (the plug-in's included). A
// virtual sleep still yields the processor: the loader's sync loop probes the line while it
// waits for the power worker, which must get to run.
extern "C" unsigned int sleep(unsigned int seconds) {
    if (CFuzzClock::Virtual()) {
        sched_yield();
    } else {
        RealSleep(static_cast<time_t>(seconds), 0);
    }
    return 0;
}

extern "C" int usleep(useconds_t microseconds) {
    if (CFuzzClock::Virtual()) {
        sched_yield();
    } else {
        RealSleep(static_cast<time_t>(microseconds / 1000000),
                  static_cast<long>(microseconds % 1000000) * 1000);
    }
    return 0;
}
