#pragma once
// Waiting for something another thread or process brings about (a worker that ends, a link that
// appears, a loop device the kernel clears): the condition is polled, and the wait is bounded so
// that a run that never gets there fails instead of hanging.

#include <chrono>
#include <functional>
#include <thread>

// Polls `condition` every `interval` until it holds (true) or `timeout` has passed (false).
inline bool Await(const std::function<bool()>& condition,
                  std::chrono::milliseconds timeout = std::chrono::seconds(20),
                  std::chrono::microseconds interval = std::chrono::milliseconds(1)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(interval);
    }
    return true;
}
