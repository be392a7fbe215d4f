// The modem's power key on the control pin and its ready line, in simulated time.

#include <gtest/gtest.h>

#include "PowerModel.h"

namespace {

using namespace std::chrono_literals;
using TChange = CPowerModel::TChange;

class PowerModelTest : public ::testing::Test {
protected:
    CPowerModel::TTime At(std::chrono::milliseconds offset) const { return m_start + offset; }

    const CPowerModel::TTime m_start = CPowerModel::TTime{} + 500s;
};

TEST_F(PowerModelTest, PressWhileOffIsReadyAfterThePowerOnDelay) {
    CPowerModel power(100ms, false, '1');
    EXPECT_FALSE(power.NextDeadline());
    power.SetPin('0', At(25ms));
    ASSERT_TRUE(power.NextDeadline());
    EXPECT_EQ(*power.NextDeadline(), At(125ms));
    EXPECT_EQ(power.Advance(At(124ms)).change, TChange::eNone);
    EXPECT_FALSE(power.IsOn());

    const auto event = power.Advance(At(130ms));
    EXPECT_EQ(event.change, TChange::ePoweredOn);
    EXPECT_EQ(event.at, At(125ms)) << "the boot window counts from the real power-on";
    EXPECT_TRUE(power.IsOn());
    EXPECT_EQ(power.Advance(At(130ms)).change, TChange::eNone);
    EXPECT_EQ(power.PowerUps(), 1u);
}

TEST_F(PowerModelTest, ThePressThatSwitchedItOnNeverSwitchesItOff) {
    CPowerModel power(100ms, false, '1');
    power.SetPin('0', At(0ms));
    EXPECT_EQ(power.Advance(At(100ms)).change, TChange::ePoweredOn);
    EXPECT_FALSE(power.NextDeadline());
    EXPECT_EQ(power.Advance(At(600000ms)).change, TChange::eNone);
    EXPECT_TRUE(power.IsOn());
}

TEST_F(PowerModelTest, PressWhileOnHeldFiveSecondsSwitchesOffAtTheFiveSecondMark) {
    CPowerModel power(100ms, true, '1');
    power.SetPin('0', At(1000ms));
    ASSERT_TRUE(power.NextDeadline());
    EXPECT_EQ(*power.NextDeadline(), At(6000ms));
    EXPECT_EQ(power.Advance(At(5999ms)).change, TChange::eNone);
    const auto event = power.Advance(At(6500ms));
    EXPECT_EQ(event.change, TChange::ePoweredOff);
    EXPECT_EQ(event.at, At(6000ms));
    EXPECT_FALSE(power.IsOn());

    power.SetPin('1', At(7000ms));
    EXPECT_EQ(power.Advance(At(20000ms)).change, TChange::eNone) << "a release does nothing";
    EXPECT_EQ(power.PowerOffs(), 1u);
}

TEST_F(PowerModelTest, PressWhileOnReleasedEarlierLeavesItOn) {
    CPowerModel power(100ms, true, '1');
    power.SetPin('0', At(0ms));
    power.SetPin('1', At(4999ms));
    EXPECT_FALSE(power.NextDeadline());
    EXPECT_EQ(power.Advance(At(10000ms)).change, TChange::eNone);
    EXPECT_TRUE(power.IsOn());
}

TEST_F(PowerModelTest, LevelHeldSinceBeforeTheStartIsNoPress) {
    CPowerModel power(100ms, false, '0');
    power.SetPin('0', At(0ms));
    EXPECT_FALSE(power.NextDeadline());
    power.SetPin('1', At(10ms));
    power.SetPin('0', At(20ms));
    EXPECT_EQ(power.Advance(At(120ms)).change, TChange::ePoweredOn);
}

TEST_F(PowerModelTest, OtherPinContentsAreIgnored) {
    CPowerModel power(100ms, false, '1');
    power.SetPin('x', At(0ms));
    power.SetPin('\n', At(0ms));
    EXPECT_FALSE(power.NextDeadline());
}

// The image loader's failed attempt: pin "0" for about 1.25 s, "1", then its re-prepare holds
// "0" for 6 s because the ready line says on, "1" again, and the next attempt presses again.
TEST_F(PowerModelTest, FailedSyncAttemptThenSwitchOffThenNextAttemptPowersUpAgain) {
    CPowerModel power(100ms, false, '1');
    power.SetPin('0', At(25ms));
    EXPECT_EQ(power.Advance(At(125ms)).change, TChange::ePoweredOn);
    power.SetPin('1', At(1300ms));
    EXPECT_EQ(power.Advance(At(2300ms)).change, TChange::eNone);
    power.SetPin('0', At(2300ms));
    EXPECT_EQ(power.Advance(At(7299ms)).change, TChange::eNone);
    EXPECT_EQ(power.Advance(At(7300ms)).change, TChange::ePoweredOff);
    power.SetPin('1', At(8300ms));
    power.SetPin('0', At(9325ms));
    const auto event = power.Advance(At(9425ms));
    EXPECT_EQ(event.change, TChange::ePoweredOn);
    EXPECT_EQ(event.at, At(9425ms));
    EXPECT_EQ(power.PowerUps(), 2u);
    EXPECT_EQ(power.PowerOffs(), 1u);
}

}  // namespace
