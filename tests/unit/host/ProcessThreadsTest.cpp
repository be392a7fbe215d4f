#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "ProcessThreads.h"

using namespace std::chrono_literals;

namespace {
// A thread that runs until it is told to end, as a feature's worker outlives its attempt.
class CWorker {
public:
    CWorker()
        : m_thread([this] {
              std::unique_lock<std::mutex> lock(m_mutex);
              m_changed.wait(lock, [this] { return m_end; });
          }) {}
    ~CWorker() {
        End();
        m_thread.join();
    }
    void End() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_end = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_end = false;
    std::thread m_thread;
};
}  // namespace

TEST(ProcessThreadsTest, CountsEveryThreadOfTheProcess) {
    const std::size_t before = CProcessThreads::Count();
    ASSERT_GE(before, 1u);
    CWorker worker;
    EXPECT_EQ(CProcessThreads::Count(), before + 1);
}

TEST(ProcessThreadsTest, AwaitGivesUpWhileAThreadBeyondTheCountStillRuns) {
    const std::size_t before = CProcessThreads::Count();
    CWorker worker;
    EXPECT_FALSE(CProcessThreads::AwaitAtMost(before, 50ms));
}

TEST(ProcessThreadsTest, AwaitReturnsOnceTheThreadsBeyondTheCountHaveEnded) {
    const std::size_t before = CProcessThreads::Count();
    std::unique_ptr<CWorker> worker = std::make_unique<CWorker>();
    // Ended, not joined: a thread nobody joins still leaves the count when it returns.
    worker->End();
    EXPECT_TRUE(CProcessThreads::AwaitAtMost(before, 10s));
    worker.reset();
    EXPECT_TRUE(CProcessThreads::AwaitAtMost(before, 10s));
    EXPECT_EQ(CProcessThreads::Count(), before);
}
