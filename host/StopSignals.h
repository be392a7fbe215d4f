#pragma once
// SIGINT and SIGTERM as a designed stop of `update` (a supervisor stopping the daemon, Ctrl-C at
// a desk). Both are blocked in every thread of the process, so the object must be made before any
// other thread starts, or Block called then (threads inherit the mask), and are read from a
// signalfd by a watcher thread: nothing runs inside a signal handler. The first one calls `onFirst`
// with the signal and writes one line on stderr, "modemloader-host: stopping on SIGTERM; <what
// onFirst returned>; a second signal leaves at once". A second one, while that stop is under way,
// writes one line and ends the process at once with 128 + the signal, waiting for nothing: a
// feature stuck in a delivery may never end, so neither the broker nor the feature's threads can be
// waited for.
//
// The signals stay blocked when the object goes (the process is about to end then; unblocking
// a pending one would kill it with its default action).

#include <signal.h>

#include <functional>
#include <string>
#include <thread>

#include "Status.h"
#include "UniqueFd.h"

class CStopSignals {
public:
    // Returns what the stop does, for the stderr line.
    using TOnFirst = std::function<std::string(int signal)>;

    // Blocks SIGINT and SIGTERM in the calling thread and the threads it starts from now on. Call
    // it before any thread starts; a signal that comes then waits for the watcher.
    static void Block();

    // Blocks them too (see Block).
    CStopSignals();
    // Stops the watcher.
    ~CStopSignals();
    CStopSignals(const CStopSignals&) = delete;
    CStopSignals& operator=(const CStopSignals&) = delete;

    // Starts the watcher; a signal that came since the constructor is handled at once.
    [[nodiscard]] CStatus Start(TOnFirst onFirst);

    // "SIGINT", "SIGTERM", else "signal N".
    static std::string Name(int signal);

private:
    void Watch();
    static sigset_t Signals();

    CUniqueFd m_signalFd;
    CUniqueFd m_wake;  // eventfd: written by the destructor to end the watcher
    TOnFirst m_onFirst;
    std::thread m_watcher;
};
