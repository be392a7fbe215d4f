#include "ProcessThreads.h"

#include <dirent.h>

#include <memory>
#include <thread>

std::size_t CProcessThreads::Count() {
    std::unique_ptr<DIR, int (*)(DIR*)> tasks(::opendir("/proc/self/task"), &::closedir);
    if (!tasks) {
        return 0;
    }
    std::size_t threads = 0;
    while (const dirent* entry = ::readdir(tasks.get())) {
        if (entry->d_name[0] != '.') {
            ++threads;
        }
    }
    return threads;
}

bool CProcessThreads::AwaitAtMost(std::size_t threads, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const std::size_t now = Count();
        if (now == 0 || now <= threads) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        // A thread's end has no event to wait on from outside it; the task list is looked at
        // again every 10 ms.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}
