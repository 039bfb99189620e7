#include "host/linux_client/power_freq_model.h"
#include "host/linux_client/power_freq_page.h"
#include "host/linux_client/unit_formats.h"

#include <gtest/gtest.h>

#include <QPushButton>
#include <QTreeWidget>

#include <memory>
#include <optional>
#include <vector>

namespace korv::host::linux_client {
namespace {

using core::MetricAvailability;
using core::MetricCategory;
using core::MetricUnit;

core::TelemetryMetric Sensor(const char* device, const char* id, MetricCategory category, MetricUnit unit,
                             std::optional<double> value, MetricAvailability availability = MetricAvailability::valid) {
    core::TelemetryMetric metric;
    metric.id = id;
    metric.deviceId = device;
    metric.displayName = id;
    metric.category = category;
    metric.unit = unit;
    metric.numericValue = value;
    metric.availability = value ? availability : MetricAvailability::unsupported;
    return metric;
}

core::HardwareTelemetryFrame Frame(double cpuTemp, double cpuClock, bool withGpu = true, double gpuPower = 50.0) {
    core::HardwareTelemetryFrame frame;
    frame.devices.push_back(core::TelemetryDevice{"cpu:package", core::TelemetryDeviceKind::cpuPackage, "CPU", "", "", {}});
    frame.metrics.push_back(Sensor("cpu:package", "cpu.package.frequency.average_reported_hz", MetricCategory::clocks,
                                   MetricUnit::hertz, cpuClock));
    frame.metrics.push_back(Sensor("cpu:package", "cpu.package.temperature_c", MetricCategory::temperatures,
                                   MetricUnit::celsius, cpuTemp));
    if (withGpu) {
        frame.devices.push_back(core::TelemetryDevice{"gpu:0", core::TelemetryDeviceKind::gpu, "GPU 0", "", "", {}});
        frame.metrics.push_back(
            Sensor("gpu:0", "gpu.power_w", MetricCategory::powers, MetricUnit::watts, gpuPower));
    }
    return frame;
}

TEST(PowerFreqModelTest, TracksMinimumAndMaximumOverASequence) {
    PowerFreqModel model;
    const std::vector<double> temperatures{50.0, 62.5, 45.0, 58.0};
    for (double t : temperatures) model.Update(Frame(t, 3.0e9));
    const PowerFreqReading* reading = model.Find("cpu:package", "cpu.package.temperature_c");
    ASSERT_NE(reading, nullptr);
    EXPECT_EQ(reading->value, 58.0);
    EXPECT_EQ(reading->minimum, 45.0);
    EXPECT_EQ(reading->maximum, 62.5);
}

TEST(PowerFreqModelTest, GroupsByDeviceThenCategoryInCategoryOrder) {
    PowerFreqModel model;
    model.Update(Frame(50.0, 3.0e9));
    ASSERT_EQ(model.Devices().size(), 2U);
    const PowerFreqDevice& cpu = model.Devices()[0];
    EXPECT_EQ(cpu.name, QStringLiteral("CPU"));
    ASSERT_EQ(cpu.categories.size(), 2U);
    // Temperatures come before clocks whatever order the frame lists them in.
    EXPECT_EQ(cpu.categories[0].category, MetricCategory::temperatures);
    EXPECT_EQ(cpu.categories[1].category, MetricCategory::clocks);
    EXPECT_EQ(model.Devices()[1].categories[0].readings[0].metricId, "gpu.power_w");
}

TEST(PowerFreqModelTest, ResetStartsAgainFromTheCurrentValue) {
    PowerFreqModel model;
    model.Update(Frame(40.0, 1.0e9));
    model.Update(Frame(80.0, 4.0e9));
    model.Update(Frame(60.0, 2.0e9));
    model.Reset();
    const PowerFreqReading* reading = model.Find("cpu:package", "cpu.package.temperature_c");
    ASSERT_NE(reading, nullptr);
    EXPECT_EQ(reading->minimum, 60.0);
    EXPECT_EQ(reading->maximum, 60.0);
    model.Update(Frame(55.0, 2.0e9));
    reading = model.Find("cpu:package", "cpu.package.temperature_c");
    EXPECT_EQ(reading->minimum, 55.0);
    EXPECT_EQ(reading->maximum, 60.0);
}

TEST(PowerFreqModelTest, DeviceThatLeavesForgetsItsExtremes) {
    PowerFreqModel model;
    model.Update(Frame(50.0, 3.0e9, true, 200.0));
    model.Update(Frame(50.0, 3.0e9, false));
    EXPECT_EQ(model.Devices().size(), 1U);
    EXPECT_EQ(model.Find("gpu:0", "gpu.power_w"), nullptr);
    model.Update(Frame(50.0, 3.0e9, true, 30.0));
    const PowerFreqReading* power = model.Find("gpu:0", "gpu.power_w");
    ASSERT_NE(power, nullptr);
    EXPECT_EQ(power->maximum, 30.0);
    EXPECT_EQ(power->minimum, 30.0);
}

TEST(PowerFreqModelTest, StaleAndMissingValuesDoNotMoveTheExtremes) {
    PowerFreqModel model;
    model.Update(Frame(50.0, 3.0e9));
    core::HardwareTelemetryFrame frame = Frame(99.0, 3.0e9);
    frame.metrics[1].availability = MetricAvailability::stale;
    model.Update(frame);
    const PowerFreqReading* reading = model.Find("cpu:package", "cpu.package.temperature_c");
    EXPECT_EQ(reading->value, 99.0);
    EXPECT_EQ(reading->maximum, 50.0);
    frame = Frame(50.0, 3.0e9);
    frame.metrics[1] = Sensor("cpu:package", "cpu.package.temperature_c", MetricCategory::temperatures,
                              MetricUnit::celsius, std::nullopt);
    model.Update(frame);
    reading = model.Find("cpu:package", "cpu.package.temperature_c");
    EXPECT_FALSE(reading->value.has_value());
    EXPECT_EQ(reading->minimum, 50.0);
}

struct ValueCase {
    double value;
    MetricUnit unit;
    const char* text;
};

class TelemetryValueTest : public ::testing::TestWithParam<ValueCase> {};

TEST_P(TelemetryValueTest, UsesTheSharedUnits) {
    EXPECT_EQ(FormatTelemetryValue(GetParam().value, GetParam().unit).toStdString(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Units, TelemetryValueTest,
                         ::testing::Values(ValueCase{3.2e9, MetricUnit::hertz, "3.20 GHz"},
                                           ValueCase{12.5, MetricUnit::percent, "12.5%"},
                                           ValueCase{15.5, MetricUnit::watts, "15.5 W"},
                                           ValueCase{2048.0, MetricUnit::bytes, "2.0 KB"},
                                           ValueCase{1.2, MetricUnit::volts, "1.200 V"},
                                           ValueCase{1800.0, MetricUnit::rpm, "1800 RPM"},
                                           ValueCase{45.0, MetricUnit::celsius, "45.0 °C"}));

TEST(PowerFreqModelTest, TemperaturesFollowTheUnitSetting) {
    SetTemperatureScale(TemperatureScale::fahrenheit);
    EXPECT_EQ(FormatTelemetryValue(100.0, MetricUnit::celsius), QStringLiteral("212.0 °F"));
    SetTemperatureScale(TemperatureScale::celsius);
    EXPECT_EQ(FormatTelemetryValue(100.0, MetricUnit::celsius), QStringLiteral("100.0 °C"));
}

TEST(PowerFreqPageTest, TreeShowsValueMinimumAndMaximumAndResets) {
    core::Settings settings;
    PageEnvironment environment;
    environment.settings = &settings;
    PowerFreqPage page(environment);
    for (double t : {50.0, 70.0, 60.0}) {
        auto snapshot = std::make_shared<core::SystemSnapshot>();
        snapshot->telemetry = std::make_shared<const core::HardwareTelemetryFrame>(Frame(t, 3.0e9));
        page.ApplySnapshot(snapshot);
    }
    auto* tree = page.findChild<QTreeWidget*>(QStringLiteral("PowerFreqTree"));
    ASSERT_NE(tree, nullptr);
    ASSERT_EQ(tree->topLevelItemCount(), 2);
    QTreeWidgetItem* cpu = tree->topLevelItem(0);
    EXPECT_EQ(cpu->text(0), QStringLiteral("CPU"));
    EXPECT_EQ(cpu->child(0)->text(0), QStringLiteral("Temperatures"));
    QTreeWidgetItem* temperature = cpu->child(0)->child(0);
    EXPECT_EQ(temperature->text(1), QStringLiteral("60.0 °C"));
    EXPECT_EQ(temperature->text(2), QStringLiteral("50.0 °C"));
    EXPECT_EQ(temperature->text(3), QStringLiteral("70.0 °C"));

    settings.temperatureUnit = core::TemperatureUnit::fahrenheit;
    page.SettingsChanged();
    EXPECT_EQ(tree->topLevelItem(0)->child(0)->child(0)->text(3), QStringLiteral("158.0 °F"));
    settings.temperatureUnit = core::TemperatureUnit::celsius;
    page.SettingsChanged();

    auto* reset = page.findChild<QPushButton*>(QStringLiteral("PowerFreqResetButton"));
    ASSERT_NE(reset, nullptr);
    reset->click();
    temperature = tree->topLevelItem(0)->child(0)->child(0);
    EXPECT_EQ(temperature->text(2), QStringLiteral("60.0 °C"));
    EXPECT_EQ(temperature->text(3), QStringLiteral("60.0 °C"));
}

}  // namespace
}  // namespace korv::host::linux_client
