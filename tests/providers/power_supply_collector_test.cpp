#include "providers/power_supply_collector.h"
#include "providers/sensor_ids.h"
#include "tests/core/temp_folder_test_base.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;
using core::MetricAvailability;

TEST(BatteryHealth, ComparesFullWithDesignCapacity) {
    const struct {
        BatteryCapacityFigures figures;
        std::optional<double> ratio;
    } cases[] = {
        {{40, 50, std::nullopt, std::nullopt}, 0.8},
        {{40, 50, 1, 4}, 0.8},                            // energy figures first
        {{40, 0, 3, 4}, 0.75},                            // no design energy: the charge figures
        {{std::nullopt, std::nullopt, 3, 4}, 0.75},
        {{40, std::nullopt, std::nullopt, 4}, std::nullopt},
        {{}, std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(BatteryHealthRatio(c.figures), c.ratio);
    EXPECT_EQ(BatteryConditionText(0.8), "Normal");
    EXPECT_EQ(BatteryConditionText(1.02), "Normal");
    EXPECT_EQ(BatteryConditionText(0.7999), "Service Recommended");
}

class PowerSupplyTest : public core::TempFolderTest {
protected:
    PowerSupplyTest() : TempFolderTest("korv-power-supply") {}

    void SetUp() override {
        TempFolderTest::SetUp();
        fs::copy(fs::path(KORV_TEST_FIXTURES) / "sensors/sys", dir / "sys", fs::copy_options::recursive);
    }

    fs::path Supply(const char* name) const { return dir / "sys/class/power_supply" / name; }
    void Write(const char* supply, const char* file, const std::string& text) const {
        fs::create_directories(Supply(supply));
        std::ofstream(Supply(supply) / file) << text << '\n';
    }

    StageResult Collect(const fs::path& sys = {}) {
        PowerSupplyCollector collector(ProviderRoots{dir / "proc", sys.empty() ? dir / "sys" : sys, dir, dir});
        EnsureDevice(frame, "system", core::TelemetryDeviceKind::system, "Whole system");
        CollectContext context;
        context.generation = 9;
        const StageResult result = collector.Collect(context, frame, snapshot);
        EXPECT_TRUE(core::IsValid(frame));
        return result;
    }

    std::string SystemProperty(std::string_view name) const {
        for (const auto& [key, value] : frame.FindDevice("system")->properties) {
            if (key == name) return value;
        }
        return "(none)";
    }

    core::HardwareTelemetryFrame frame;
    core::SystemSnapshot snapshot;
};

TEST_F(PowerSupplyTest, ALaptopOnMainsShowsItsBatteryAndNotTheMouse) {
    const StageResult result = Collect();
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.message, "Read 1 battery and 2 external power sources");

    const core::TelemetryDevice* battery = frame.FindDevice("system/battery/BAT0");
    ASSERT_NE(battery, nullptr);
    EXPECT_EQ(battery->kind, core::TelemetryDeviceKind::battery);
    const std::vector<std::pair<std::string, std::string>> expected{
        {"parent", "system"}, {"description", "Battery power supply"}, {"source", "sysfs"}, {"status", "Charging"},
        {"model", "5B10W13930"}, {"condition", "Normal"}};
    EXPECT_EQ(battery->properties, expected);
    EXPECT_EQ(frame.Find("battery.charge_pct", "system/battery/BAT0")->numericValue, 76.0);
    const core::TelemetryMetric* power = frame.Find("battery.power_w", "system/battery/BAT0");
    ASSERT_NE(power, nullptr);
    EXPECT_EQ(power->numericValue, 9.5);
    EXPECT_EQ(power->sourceName, "power_now or voltage_now * current_now");
    EXPECT_EQ(frame.Find("battery.cycle_count", "system/battery/BAT0")->availability, MetricAvailability::zero);
    EXPECT_EQ(frame.FindDevice("system/battery/hidpp_battery_0"), nullptr);
    EXPECT_EQ(frame.devices.size(), 2u);

    EXPECT_EQ(snapshot.powerSource.value, "AC Power");
    EXPECT_EQ(snapshot.powerSource.source, "linux.power_supply");
    EXPECT_EQ(SystemProperty("powerSource"), "AC Power");
    EXPECT_EQ(snapshot.batteryPresent.value, true);
    EXPECT_EQ(snapshot.batteryChargePercent.value, 76.0);
    EXPECT_EQ(snapshot.batteryChargePercent.lastGoodGeneration, 9u);
    EXPECT_EQ(snapshot.batteryCharging.value, true);
    EXPECT_EQ(snapshot.batteryCycleCount.availability, MetricAvailability::zero);  // 0 is a true zero
    EXPECT_EQ(snapshot.batteryCondition.value, "Normal");  // 50 of 57 Wh
    EXPECT_EQ(snapshot.batteryTimeRemainingSeconds.availability, MetricAvailability::notApplicable);
}

TEST_F(PowerSupplyTest, OnBatteryPowerComesFromVoltageAndCurrentWhenPowerNowIsAbsent) {
    Write("AC", "online", "0");
    Write("BAT0", "status", "Discharging");
    fs::remove(Supply("BAT0") / "power_now");
    Write("BAT0", "current_now", "-791666");  // some drivers sign the current by its direction
    Collect();

    const core::TelemetryMetric* power = frame.Find("battery.power_w", "system/battery/BAT0");
    ASSERT_NE(power, nullptr);
    EXPECT_NEAR(*power->numericValue, 12.0 * 0.791666, 1e-9);
    EXPECT_EQ(snapshot.powerSource.value, "Battery");
    EXPECT_EQ(snapshot.batteryCharging.value, false);
    // 38 Wh at 9.499992 W.
    EXPECT_EQ(snapshot.batteryTimeRemainingSeconds.value, 14400u);
}

TEST_F(PowerSupplyTest, PowerIsReadOnlyWhileChargingOrDischarging) {
    for (const char* status : {"Full", "Not charging", "Unknown"}) {
        SCOPED_TRACE(status);
        frame = {};
        Write("BAT0", "status", status);
        Collect();
        EXPECT_EQ(frame.Find("battery.power_w", "system/battery/BAT0"), nullptr);
        EXPECT_NE(frame.Find("battery.charge_pct", "system/battery/BAT0"), nullptr);
        EXPECT_EQ(snapshot.batteryCharging.value, false);
    }
}

TEST_F(PowerSupplyTest, APeripheralBatteryAloneIsNoMachineBattery) {
    fs::remove_all(Supply("BAT0"));
    Write("AC", "online", "0");  // and the mouse discharging does not put the machine on battery
    const StageResult result = Collect();
    EXPECT_EQ(result.message, "Read 0 batteries and 2 external power sources");
    EXPECT_EQ(snapshot.batteryPresent.availability, MetricAvailability::valid);
    EXPECT_EQ(snapshot.batteryPresent.value, false);
    EXPECT_EQ(snapshot.batteryChargePercent.availability, MetricAvailability::notApplicable);
    EXPECT_EQ(snapshot.batteryCycleCount.availability, MetricAvailability::notApplicable);
    EXPECT_FALSE(snapshot.powerSource.value.has_value());
    EXPECT_EQ(frame.devices.size(), 1u);
}

TEST_F(PowerSupplyTest, TheWorstOfSeveralBatteriesStandsForTheMachine) {
    Write("BAT1", "type", "Battery");
    Write("BAT1", "status", "Discharging");
    Write("BAT1", "capacity", "50");
    Write("BAT1", "energy_now", "12000000");
    Write("BAT1", "energy_full", "24000000");
    Write("BAT1", "charge_full", "3000000");  // energy_full_design absent: the charge figures count
    Write("BAT1", "charge_full_design", "4000000");
    Write("BAT1", "cycle_count", "311");
    Write("BAT2", "type", "Battery");  // an empty bay
    Write("BAT2", "present", "0");
    Write("BAT2", "capacity", "1");
    Collect();

    EXPECT_NE(frame.FindDevice("system/battery/BAT1"), nullptr);
    EXPECT_EQ(frame.FindDevice("system/battery/BAT2"), nullptr);
    EXPECT_EQ(snapshot.batteryCondition.value, "Service Recommended");
    EXPECT_EQ(snapshot.batteryCycleCount.value, 311u);
    EXPECT_EQ(snapshot.batteryChargePercent.value, 100.0 * 50.0 / 74.0);  // (38 + 12) of (50 + 24) Wh
    EXPECT_EQ(snapshot.powerSource.value, "AC Power");
}

TEST_F(PowerSupplyTest, AMissingClassDirectoryLeavesEveryFigureMissingWithItsReason) {
    const StageResult result = Collect(dir / "absent");
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error, ENOENT);
    EXPECT_EQ(result.message, "This system has no power supply directory");
    EXPECT_EQ(snapshot.batteryPresent.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(snapshot.powerSource.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(frame.devices.size(), 1u);
}

}  // namespace
}  // namespace korv::providers
