#include "host/linux_client/display_tint.h"
#include "host/linux_client/uptime_odometer_widget.h"
#include "host/linux_client/vfd_geometry.h"
#include "host/linux_client/vfd_grid.h"
#include "host/linux_client/vfd_meter_widget.h"

#include <gtest/gtest.h>

#include <QImage>
#include <QTest>

namespace korv::host::linux_client {
namespace {

class VfdMeterWidgetTest : public ::testing::Test {
protected:
    VfdMeterWidgetTest() {
        meter.resize(220, 30);
        meter.SetCaption(QStringLiteral("CPU"));
        meter.SetValueText(QStringLiteral("50%"));
        meter.show();
    }
    VfdMeterWidget meter;
};

TEST_F(VfdMeterWidgetTest, AHiddenMeterTakesItsValueAtOnceAndRunsNoTimer) {
    meter.SetValue(80.0);
    meter.SetValue(20.0);
    ASSERT_TRUE(meter.TimerRunning());
    meter.hide();
    EXPECT_FALSE(meter.TimerRunning()) << "hiding stops the motion";
    EXPECT_DOUBLE_EQ(meter.DisplayedValue(), 20.0);
    meter.SetValue(60.0);
    EXPECT_FALSE(meter.TimerRunning());
    EXPECT_DOUBLE_EQ(meter.DisplayedValue(), 60.0);
}

TEST_F(VfdMeterWidgetTest, AtRestNoTimerRuns) {
    meter.SetValue(50.0);
    EXPECT_FALSE(meter.TimerRunning());  // the first value snaps
    EXPECT_FALSE(meter.Segments().empty());
    meter.SetValue(10.0);
    EXPECT_TRUE(meter.TimerRunning());
    EXPECT_TRUE(QTest::qWaitFor([this] { return !meter.IsAnimating(); }, 10000));
    EXPECT_FALSE(meter.TimerRunning());
    EXPECT_DOUBLE_EQ(meter.DisplayedValue(), 10.0);
}

TEST_F(VfdMeterWidgetTest, FrameRateZeroShowsEveryChangeAtOnce) {
    meter.SetAnimationFps(0);
    meter.SetValue(90.0);
    meter.SetValue(5.0);
    EXPECT_DOUBLE_EQ(meter.DisplayedValue(), 5.0);
    EXPECT_FALSE(meter.TimerRunning());
    EXPECT_FALSE(meter.IsAnimating());
    for (double b : meter.Segments()) EXPECT_TRUE(b == 0.0 || b == 1.0);
}

TEST_F(VfdMeterWidgetTest, DroppingToZeroFpsMidMotionSnaps) {
    meter.SetValue(100.0);
    meter.SetValue(0.0);
    ASSERT_TRUE(meter.TimerRunning());
    meter.SetAnimationFps(0);
    EXPECT_FALSE(meter.TimerRunning());
    EXPECT_DOUBLE_EQ(meter.DisplayedValue(), 0.0);
    for (double b : meter.Segments()) EXPECT_EQ(b, 0.0);
}

TEST_F(VfdMeterWidgetTest, ClampsAndTreatsNotFiniteAsZero) {
    meter.SetAnimationFps(0);
    meter.SetValue(180.0);
    EXPECT_DOUBLE_EQ(meter.Value(), 100.0);
    meter.SetValue(std::numeric_limits<double>::quiet_NaN());
    EXPECT_DOUBLE_EQ(meter.Value(), 0.0);
}

// Lit segments are brighter than the unlit ground, and bloom 0 keeps the gaps dark.
TEST_F(VfdMeterWidgetTest, PaintsLitAndUnlitSegments) {
    QPalette dark = meter.palette();
    dark.setColor(QPalette::Window, Qt::black);
    meter.setPalette(dark);
    meter.SetCaption(QString());
    meter.SetValueText(QString());
    meter.SetColorRamp(false);
    meter.SetDisplayColor(QColor(0, 255, 0));
    meter.SetAnimationFps(0);
    meter.SetBloom(0.0);
    meter.SetValue(50.0);
    const QImage image = meter.grab().toImage();
    const int y = image.height() / 2;
    const int litGreen = qGreen(image.pixel(15, y));  // the first segment's middle
    const int unlitGreen = qGreen(image.pixel(image.width() - 15, y));  // the last one's
    EXPECT_GT(litGreen, 200);
    EXPECT_LT(unlitGreen, 80);
    EXPECT_GT(unlitGreen, 20);  // dark segments stay faintly visible
}

// A bare meter on black with only the first of its segments lit, drawn in pure green.
class VfdPaintTest : public ::testing::Test {
protected:
    VfdPaintTest() {
        SetDisplayTint(TintMode::color, 1.0);
        QPalette dark = meter.palette();
        dark.setColor(QPalette::Window, Qt::black);
        meter.setPalette(dark);
        meter.SetColorRamp(false);
        meter.SetDisplayColor(QColor(0, 255, 0));
        meter.SetAnimationFps(0);
    }
    QImage Paint(double value) {
        meter.SetValue(value);
        return meter.grab().toImage();
    }
    VfdMeterWidget meter;
};

// The widest halo reaches 15.75 px beyond the segment with alpha b x 0.32 x bloom; the inner ones
// stop at 9 px, so 12.5 px above the segment only the widest one shows.
TEST_F(VfdPaintTest, TheHaloReachesItsRadiusAtItsFullWeight) {
    struct Case {
        double bloom;
        int green;
    };
    for (const Case c : {Case{1.0, 82}, Case{0.5, 41}, Case{5.0, 98}, Case{0.0, 0}}) {
        meter.resize(200, 44);
        meter.SetBloom(c.bloom);
        const QImage image = Paint(3.0);
        const std::vector<QRectF> segments = VfdSegmentRects(QRectF(0, 0, 200, 44), false);
        ASSERT_GT(segments.size(), 3U);
        const QRectF first = segments.front();
        const int x = static_cast<int>(first.center().x());
        const int y = static_cast<int>(first.top() - 12.5);
        ASSERT_GE(y, 0);
        EXPECT_NEAR(qGreen(image.pixel(x, y)), c.green, 4) << "bloom " << c.bloom;
        EXPECT_EQ(qRed(image.pixel(x, y)), 0) << "bloom " << c.bloom;
        // Next to the segment all three halos add up and saturate the green.
        if (c.bloom >= 0.5) {
            EXPECT_GT(qGreen(image.pixel(x, static_cast<int>(first.top()) - 3)), 240);
        }
    }
}

// The sheen runs from the top of a segment to its bottom in either layout.
TEST_F(VfdPaintTest, TheSheenRunsDownEachSegmentInBothLayouts) {
    meter.SetBloom(0.0);
    for (const bool stacked : {false, true}) {
        meter.SetLayout(stacked ? VfdMeterWidget::Layout::stacked : VfdMeterWidget::Layout::horizontal);
        meter.resize(stacked ? QSize(60, 200) : QSize(200, 44));
        const QImage image = Paint(100.0);
        QRectF segment = VfdSegmentRects(QRectF(0, 0, 200, 44), false).front();
        if (stacked) {
            // The stacked bar ends above the value line: find the topmost lit cell in the middle.
            int y = 0;
            while (y < image.height() && qGreen(image.pixel(30, y)) < 150) ++y;
            ASSERT_LT(y, image.height());
            segment = QRectF(StackedVfdMargin(60), y, 60 - 2 * StackedVfdMargin(60), 8);
        }
        const int left = static_cast<int>(segment.left()) + 2;
        const int right = static_cast<int>(segment.right()) - 2;
        const int top = static_cast<int>(segment.top()) + 1;
        const int bottom = static_cast<int>(segment.bottom()) - 2;
        // White light over pure green shows in the red channel.
        EXPECT_GT(qRed(image.pixel(left, top)), qRed(image.pixel(left, bottom)) + 15) << "stacked " << stacked;
        EXPECT_NEAR(qRed(image.pixel(left, top)), qRed(image.pixel(right, top)), 6) << "stacked " << stacked;
    }
}

// Dark segments keep a fine edge line, so the cells stay outlined.
TEST_F(VfdPaintTest, UnlitSegmentsHaveTheirEdgeLine) {
    meter.SetBloom(0.0);
    meter.resize(200, 44);
    const QImage image = Paint(0.0);
    const QRectF segment = VfdSegmentRects(QRectF(0, 0, 200, 44), false).back();
    const int x = static_cast<int>(segment.center().x());
    const int middle = qGreen(image.pixel(x, static_cast<int>(segment.center().y())));
    int edge = 0;
    for (int y = static_cast<int>(segment.top()); y <= static_cast<int>(segment.top()) + 1; ++y) {
        edge = std::max(edge, qGreen(image.pixel(x, y)));
    }
    EXPECT_GT(middle, 20);
    EXPECT_GT(edge, middle + 8);
}

TEST(VfdGridTest, TintsByLuminanceAndKeepsAlpha) {
    QImage source(2, 1, QImage::Format_ARGB32);
    source.setPixel(0, 0, qRgba(255, 255, 255, 200));
    source.setPixel(1, 0, qRgba(0, 0, 255, 255));
    const QImage tinted = TintImageByLuminance(source, QColor(100, 200, 50));
    EXPECT_EQ(tinted.pixel(0, 0), qRgba(100, 200, 50, 200));
    EXPECT_EQ(tinted.pixel(1, 0), qRgba(11, 23, 6, 255));
    EXPECT_FALSE(VfdGridImage().isNull());
    EXPECT_EQ(TintedVfdGrid(QColor(10, 20, 30)).size(), VfdGridImage().size());
}

TEST(UptimeOdometerWidgetTest, TimerOnlyWhileShownAndIdleOncePerSecond) {
    UptimeOdometerWidget odometer;
    odometer.resize(183, 36);
    odometer.SetAnimationFps(0);
    odometer.SetUptimeSeconds(3661);
    EXPECT_FALSE(odometer.TimerRunning());  // hidden
    odometer.show();
    EXPECT_TRUE(odometer.TimerRunning());
    EXPECT_GT(odometer.TimerIntervalMs(), 900);
    EXPECT_TRUE(odometer.Text().startsWith(QStringLiteral("00000010")));
    odometer.hide();
    EXPECT_FALSE(odometer.TimerRunning());
}

}  // namespace
}  // namespace korv::host::linux_client
