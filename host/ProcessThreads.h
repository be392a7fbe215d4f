#pragma once
// The threads of this process, counted from /proc/self/task. The host uses the count to learn
// when a feature's own threads have ended: a feature may start threads that it never joins (the
// modem loader's power workers run on for up to about nine seconds after the attempt that started
// them has been given up), and such a thread must not outlive the module object it works on.

#include <chrono>
#include <cstddef>

class CProcessThreads {
public:
    // How many threads this process has now; 0 when /proc/self/task cannot be read.
    static std::size_t Count();

    // Waits until the process has at most `threads` threads, or `timeout` has passed. True when
    // the count came down in time (also when it cannot be read, as there is nothing to wait for).
    [[nodiscard]] static bool AwaitAtMost(std::size_t threads, std::chrono::milliseconds timeout);
};
