#include "host/linux_client/display_tint.h"
#include "host/linux_client/uptime_odometer_widget.h"
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
