#pragma once
// Virtual time for the plug-in's sleeps in a fuzz executable, which defines sleep and usleep for
// everything linked into it.
//
// The thread running an input (between Enter and Leave) and the power workers do not wait at
// all: a power-up attempt's 1.25 s of acknowledge polls and the loader's 25 ms read retries take
// no time, so thousands of updates run per minute. Every other thread (libFuzzer's own, which
// sleeps to watch the memory limit) keeps real sleeps.
//
// On a power worker, each sleep first runs the action set with OnWorkerSleep (the fuzzed modem
// uses it to answer within the worker's window, whatever the scheduling).

#include <functional>

class CFuzzClock {
public:
    static void Enter();
    static void Leave();
    // Empty removes it. Set and removed only while no power worker runs.
    static void OnWorkerSleep(std::function<void()> action);

    // Called by the sleep and usleep replacements; false when the caller must really wait.
    static bool Virtual();
};
