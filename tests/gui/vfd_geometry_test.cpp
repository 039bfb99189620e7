#include "host/linux_client/vfd_color_ramp.h"
#include "host/linux_client/vfd_geometry.h"

#include <gtest/gtest.h>

#include <set>

namespace korv::host::linux_client {
namespace {

struct RunCase {
    double length;
    int count;
    double thickness;
    double offset;
};

class VfdRunTest : public ::testing::TestWithParam<RunCase> {};

TEST_P(VfdRunTest, CountsThicknessAndCentring) {
    const RunCase c = GetParam();
    const VfdSegmentRun run = LayoutVfdSegments(c.length);
    EXPECT_EQ(run.count, c.count) << c.length;
    EXPECT_DOUBLE_EQ(run.thickness, c.thickness) << c.length;
    EXPECT_DOUBLE_EQ(run.offset, c.offset) << c.length;
}

INSTANTIATE_TEST_SUITE_P(Lengths, VfdRunTest,
                         ::testing::Values(RunCase{6.0, 1, 6.0, 0.0}, RunCase{3.0, 1, 3.0, 0.0},
                                           RunCase{8.0, 1, 8.0, 0.0}, RunCase{17.0, 1, 8.0, 4.5},
                                           RunCase{18.0, 2, 8.0, 0.0}, RunCase{23.0, 2, 8.0, 2.5},
                                           RunCase{98.0, 10, 8.0, 0.0}, RunCase{105.0, 10, 8.0, 3.5}));

TEST(VfdGeometryTest, MarginsAreClamped) {
    EXPECT_DOUBLE_EQ(HorizontalVfdMargin(10.0), 0.0);
    EXPECT_DOUBLE_EQ(HorizontalVfdMargin(20.0), 4.0);
    EXPECT_DOUBLE_EQ(HorizontalVfdMargin(100.0), 15.75);
    EXPECT_DOUBLE_EQ(StackedVfdMargin(40.0), 8.0);
    EXPECT_DOUBLE_EQ(StackedVfdMargin(200.0), 15.75);
}

TEST(VfdGeometryTest, HorizontalRunGrowsRightwardWithinTheArea) {
    const QRectF area(10, 5, 200, 20);  // margin 4: length 200 - 8 = 192 -> 19 segments
    const std::vector<QRectF> rects = VfdSegmentRects(area, false);
    ASSERT_EQ(rects.size(), 19U);
    for (std::size_t i = 0; i < rects.size(); ++i) {
        EXPECT_TRUE(area.contains(rects[i])) << i;
        EXPECT_DOUBLE_EQ(rects[i].width(), 8.0);
        EXPECT_DOUBLE_EQ(rects[i].height(), 12.0);
        if (i > 0) {
            EXPECT_DOUBLE_EQ(rects[i].left() - rects[i - 1].right(), 2.0);
        }
    }
}

TEST(VfdGeometryTest, StackedRunStartsAtTheBottom) {
    const QRectF area(0, 0, 40, 100);
    const std::vector<QRectF> rects = VfdSegmentRects(area, true);
    ASSERT_EQ(rects.size(), 10U);
    EXPECT_DOUBLE_EQ(rects.front().bottom(), 99.0);  // 98 pixels of segments centred in 100
    EXPECT_DOUBLE_EQ(rects.front().left(), 8.0);
    EXPECT_DOUBLE_EQ(rects.front().width(), 24.0);
    for (std::size_t i = 1; i < rects.size(); ++i) EXPECT_DOUBLE_EQ(rects[i - 1].top() - rects[i].bottom(), 2.0);
    EXPECT_GE(rects.back().top(), 0.0);
}

TEST(VfdGeometryTest, EmptyAreaHasNoSegments) {
    EXPECT_TRUE(VfdSegmentRects(QRectF(0, 0, 0, 20), false).empty());
}

// Sixteen steps whatever the count, green first, red last, yellow in the middle band.
TEST(VfdColorRampTest, SixteenStepsGreenToRed) {
    for (int count : {1, 7, 16, 40, 200}) {
        std::set<int> steps;
        for (int i = 0; i < count; ++i) steps.insert(VfdRampStep(i, count));
        EXPECT_LE(steps.size(), 16U) << count;
        EXPECT_GE(*steps.begin(), 0);
        EXPECT_LE(*steps.rbegin(), 15);
    }
    EXPECT_EQ(VfdRampColor(0, 160), QColor(48, 209, 88));
    EXPECT_EQ(VfdRampColor(159, 160), QColor(255, 69, 58));
    EXPECT_EQ(VfdRampColor(9 * 10, 160), QColor(255, 214, 10));  // step 9: t = 0.6
    const QColor mid = VfdRampColor(11 * 10, 160);                 // step 11: t = 0.733
    EXPECT_EQ(mid.red(), 255);
    EXPECT_GT(mid.green(), 69);
    EXPECT_LT(mid.green(), 214);
    EXPECT_EQ(VfdRampStep(0, 1), 8);
}

TEST(VfdColorRampTest, GroundEdgeAndBloom) {
    EXPECT_EQ(VfdUnlitColor(QColor(255, 100, 0)), QColor(48, 19, 0));
    const QColor edge = VfdEdgeColor(QColor(0, 255, 100));
    EXPECT_EQ(edge.red(), 56);
    EXPECT_EQ(edge.green(), 255);
    EXPECT_EQ(edge.blue(), 134);
    EXPECT_NEAR(edge.alphaF(), 0.5, 0.01);
    EXPECT_DOUBLE_EQ(VfdBloomMultiplier(-1.0), 0.0);
    EXPECT_DOUBLE_EQ(VfdBloomMultiplier(0.0), 0.0);
    EXPECT_DOUBLE_EQ(VfdBloomMultiplier(0.5), 0.5);
    EXPECT_DOUBLE_EQ(VfdBloomMultiplier(1.5), 1.1);
    EXPECT_DOUBLE_EQ(VfdBloomMultiplier(5.0), 1.2);
    EXPECT_DOUBLE_EQ(VfdBloomForLevel(1), 0.0);
    EXPECT_DOUBLE_EQ(VfdBloomForLevel(6), 1.0);
    EXPECT_DOUBLE_EQ(VfdBloomForLevel(11), 2.0);
    EXPECT_DOUBLE_EQ(VfdBloomForLevel(50), 2.0);
}

}  // namespace
}  // namespace korv::host::linux_client
