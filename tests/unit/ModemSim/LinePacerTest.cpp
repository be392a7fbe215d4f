// The serial line's pace: 10 bit times a byte at the chosen baud rate.

#include <gtest/gtest.h>

#include <limits>

#include "LinePacer.h"

namespace {

using namespace std::chrono_literals;

TEST(LinePacerTest, UnpacedLetsEverythingThrough) {
    CLinePacer pacer(0);
    EXPECT_FALSE(pacer.Paced());
    EXPECT_EQ(pacer.Allowance(CLinePacer::TTime{}), std::numeric_limits<size_t>::max());
    pacer.Passed(100000, false);
    EXPECT_FALSE(pacer.NextDue());
}

TEST(LinePacerTest, TenThousandBaudCarriesOneByteAMillisecond) {
    CLinePacer pacer(10000);
    EXPECT_EQ(pacer.ByteTime(), 1ms);
    const CLinePacer::TTime start = CLinePacer::TTime{} + 10s;

    EXPECT_EQ(pacer.Allowance(start), 0u) << "the first byte of an idle line takes a byte time";
    ASSERT_TRUE(pacer.NextDue());
    EXPECT_EQ(*pacer.NextDue(), start + 1ms);
    EXPECT_EQ(pacer.Allowance(start + 999us), 0u);
    EXPECT_EQ(pacer.Allowance(start + 3500us), 3u);
    pacer.Passed(3, false);
    EXPECT_EQ(*pacer.NextDue(), start + 4ms);
    EXPECT_EQ(pacer.Allowance(start + 4ms), 1u);
    pacer.Passed(1, true);
    EXPECT_FALSE(pacer.NextDue()) << "drained: the line is idle";

    EXPECT_EQ(pacer.Allowance(start + 1000ms), 0u) << "idle time earns no credit";
    EXPECT_EQ(*pacer.NextDue(), start + 1001ms);
}

TEST(LinePacerTest, FastStreamWakesEveryMillisecondAndStillCountsEveryByteTime) {
    CLinePacer pacer(100000);  // 100 us a byte
    const CLinePacer::TTime start = CLinePacer::TTime{} + 10s;
    EXPECT_EQ(pacer.Allowance(start), 0u);
    EXPECT_EQ(*pacer.NextDue(), start + 100us) << "a lone byte is not held back";
    EXPECT_EQ(pacer.Allowance(start + 100us), 1u);
    pacer.Passed(1, false);
    EXPECT_EQ(*pacer.NextDue(), start + 1100us);
    EXPECT_EQ(pacer.Allowance(start + 1100us), 10u);
    pacer.Passed(10, false);
    EXPECT_EQ(*pacer.NextDue(), start + 2100us);
    pacer.Passed(0, true);
    EXPECT_EQ(pacer.Allowance(start + 5000us), 0u);
    EXPECT_EQ(*pacer.NextDue(), start + 5100us) << "idle again: the next lone byte is exact";
}

TEST(LinePacerTest, ByteTimeAtTheLoadersRate) { EXPECT_EQ(CLinePacer(115200).ByteTime(), 86805ns); }

}  // namespace
