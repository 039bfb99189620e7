#include "host/linux_client/uptime_odometer_widget.h"
#include "host/linux_client/vfd_motion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace korv::host::linux_client {
namespace {

VfdMotionState Bar(int count) {
    VfdMotionState state;
    state.segments.assign(static_cast<std::size_t>(count), 0.0);
    return state;
}

TEST(VfdMotionTest, FirstUpdateSnaps) {
    VfdMotionState state = Bar(10);
    state.value = 45.0;
    EXPECT_FALSE(StepVfdMotion(state, 3.0));
    EXPECT_TRUE(state.hasValue);
    EXPECT_DOUBLE_EQ(state.displayedValue, 45.0);
    for (int i = 0; i < 10; ++i) EXPECT_DOUBLE_EQ(state.segments[static_cast<std::size_t>(i)], i < 5 ? 1.0 : 0.0) << i;
}

TEST(VfdMotionTest, ApproachIsExponentialAndSnapsNearTheTarget) {
    VfdMotionState state = Bar(10);
    state.value = 100.0;
    StepVfdMotion(state, 0.0);
    state.value = 0.0;
    EXPECT_TRUE(StepVfdMotion(state, 0.05));
    EXPECT_NEAR(state.displayedValue, 100.0 * std::exp(-kVfdApproachRate * 0.05), 1e-9);
    StepVfdMotion(state, 0.05);
    EXPECT_NEAR(state.displayedValue, 5.0, 1e-6);  // 95% of the way in a tenth of a second
    StepVfdMotion(state, 0.2);
    EXPECT_EQ(state.displayedValue, 0.0);
}

// Light comes on at once; a dark segment fades over 220 ms behind the falling value.
TEST(VfdMotionTest, LightIsInstantDecayTakes220Ms) {
    VfdMotionState state = Bar(10);
    state.value = 100.0;
    StepVfdMotion(state, 0.0);
    state.value = 0.0;
    StepVfdMotion(state, 0.011);  // displayed ~71.9: 8 lit
    EXPECT_EQ(VfdLitCount(state.displayedValue, 10), 8);
    EXPECT_DOUBLE_EQ(state.segments[7], 1.0);
    EXPECT_NEAR(state.segments[8], 1.0 - 0.011 / 0.22, 1e-9);
    EXPECT_NEAR(state.segments[9], 1.0 - 0.011 / 0.22, 1e-9);
    double elapsed = 0.011;
    while (elapsed < 0.23) {
        StepVfdMotion(state, 0.01);
        elapsed += 0.01;
        for (double b : state.segments) EXPECT_TRUE(b >= 0.0 && b <= 1.0);
    }
    EXPECT_DOUBLE_EQ(state.segments[9], 0.0);
    EXPECT_TRUE(StepVfdMotion(state, 0.01));  // lower segments still fading
    for (int i = 0; i < 30; ++i) StepVfdMotion(state, 0.01);
    EXPECT_FALSE(VfdMotionAnimating(state));
    for (double b : state.segments) EXPECT_EQ(b, 0.0);

    state.value = 100.0;
    StepVfdMotion(state, 0.001);
    EXPECT_DOUBLE_EQ(state.segments[0], 1.0);  // rises with no delay
}

TEST(VfdMotionTest, LitCountAndClamp) {
    EXPECT_EQ(VfdLitCount(0.0, 10), 0);
    EXPECT_EQ(VfdLitCount(0.5, 10), 1);
    EXPECT_EQ(VfdLitCount(10.0, 10), 1);
    EXPECT_EQ(VfdLitCount(10.01, 10), 2);
    EXPECT_EQ(VfdLitCount(100.0, 10), 10);
    EXPECT_EQ(VfdLitCount(250.0, 10), 10);
    EXPECT_DOUBLE_EQ(ClampVfdValue(-4.0), 0.0);
    EXPECT_DOUBLE_EQ(ClampVfdValue(130.0), 100.0);
    EXPECT_DOUBLE_EQ(ClampVfdValue(std::numeric_limits<double>::quiet_NaN()), 0.0);
}

TEST(VfdMotionTest, TimerIntervals) {
    EXPECT_EQ(VfdTimerIntervalMs(60), 17);
    EXPECT_EQ(VfdTimerIntervalMs(30), 34);
    EXPECT_EQ(VfdTimerIntervalMs(15), 67);
    EXPECT_EQ(VfdTimerIntervalMs(0), 0);
}

TEST(OdometerTest, ElevenWheels) {
    EXPECT_EQ(OdometerText(0), QStringLiteral("00000000000"));
    EXPECT_EQ(OdometerText(86400 * 3 + 3600 * 4 + 60 * 5 + 6), QStringLiteral("00003040506"));
    EXPECT_EQ(OdometerText(86400ULL * 123456), QStringLiteral("99999000000"));
    EXPECT_EQ(OdometerText(86399).size(), 11);
}

TEST(OdometerTest, RollIsSmoothstepOverQuarterSecond) {
    EXPECT_DOUBLE_EQ(OdometerRollProgress(0.0), 0.0);
    EXPECT_DOUBLE_EQ(OdometerRollProgress(0.12), 0.5);
    EXPECT_NEAR(OdometerRollProgress(0.06), 0.15625, 1e-12);
    EXPECT_DOUBLE_EQ(OdometerRollProgress(0.24), 1.0);
    EXPECT_DOUBLE_EQ(OdometerRollProgress(0.9), 1.0);
}

TEST(OdometerTest, TicksFastOnlyDuringARoll) {
    EXPECT_EQ(OdometerNextTickMs(0.1, 60), 17);
    EXPECT_EQ(OdometerNextTickMs(0.5, 60), 501);
    EXPECT_EQ(OdometerNextTickMs(0.1, 0), 901);
    EXPECT_EQ(OdometerNextTickMs(0.0, 0), 1001);
}

}  // namespace
}  // namespace korv::host::linux_client
