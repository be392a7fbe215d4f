// A power-up attempt whose worker thread cannot be created: pthread_create fails (LibcFaults.h)
// and nothing notices, so the power state stays eWaitingForAck and no later sync starts another
// attempt.

#include <gtest/gtest.h>

#include <cerrno>

#include "ImageLoaderTestHost.h"
#include "LibcFaults.h"
#include "ModemPower.h"

namespace imageloadertest {
namespace {

class ThreadCreateFailureTest : public ImageLoaderTestHost {};

TEST_F(ThreadCreateFailureTest, TheStateStaysWaitingForAckAndNoWorkerRuns) {
    CModemPower power;
    power.Init(m_readyPath, kControlPin);
    CThreadCreateFault fault(EAGAIN);
    power.Start();
    EXPECT_EQ(fault.Calls(), 1u);
    EXPECT_EQ(power.GetState(), CModemPower::eWaitingForAck);
    // No worker: no pin command, no sleep on any thread, no "Finished ACK thread".
    EXPECT_TRUE(m_commands.Lines().empty());
    EXPECT_TRUE(CVirtualClock::Sleeps().empty());
    EXPECT_TRUE(m_log.Entries().empty());
    EXPECT_EQ(power.GetState(), CModemPower::eWaitingForAck);
}

TEST_F(ThreadCreateFailureTest, LaterSyncsStartNoFurtherAttempt) {
    CImageLoader& loader = PreparedLoader();
    CVirtualClock::Clear();
    CThreadCreateFault fault(EAGAIN);
    loader.Power().Start();  // as the first sync's attempt does
    ASSERT_EQ(fault.Calls(), 1u);
    // More syncs than there are attempts: each finds an attempt under way and waits for it.
    for (int sync = 0; sync < 10; ++sync) {
        loader.Sync();
        EXPECT_TRUE(loader.StepPending());
        EXPECT_NE(loader.Step(), eStepTerminate) << "the attempt counter was not touched";
    }
    EXPECT_EQ(fault.Calls(), 1u) << "no further attempt";
    EXPECT_EQ(loader.Power().GetState(), CModemPower::eWaitingForAck);
    EXPECT_EQ(m_port.WriteCalls(), 0u) << "no probe is sent";
    EXPECT_EQ(m_port.Reads(), 0u) << "no flush";
    EXPECT_TRUE(m_commands.Lines().empty());
    EXPECT_TRUE(m_callback.Calls().empty());
    EXPECT_TRUE(m_log.Entries().empty());
}

}  // namespace
}  // namespace imageloadertest
