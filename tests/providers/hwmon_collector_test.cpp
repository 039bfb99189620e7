#include "providers/hwmon_collector.h"
#include "providers/sensor_collector.h"
#include "providers/sensor_ids.h"
#include "tests/core/temp_folder_test_base.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;
using core::MetricAvailability;
using core::MetricCategory;
using core::MetricUnit;

const fs::path kSensorFixtures = fs::path(KORV_TEST_FIXTURES) / "sensors";

// A copy of the sensor tree with the `device` links that sysfs has and git does not keep.
class SensorTreeTest : public core::TempFolderTest {
protected:
    SensorTreeTest() : TempFolderTest("korv-hwmon") {}

    void SetUp() override {
        TempFolderTest::SetUp();
        fs::copy(kSensorFixtures / "sys", dir / "sys", fs::copy_options::recursive);
        std::ifstream links(kSensorFixtures / "links.txt");
        std::string line;
        while (std::getline(links, line)) {
            if (line.empty() || line.front() == '#') continue;
            std::istringstream fields(line);
            std::string link;
            std::string target;
            fields >> link >> target;
            fs::remove(dir / link);
            fs::create_symlink(target, dir / link);
        }
    }

    ProviderRoots Roots() const { return {dir / "proc", dir / "sys", dir / "cgroup", dir / "etc"}; }

    std::vector<SensorOwnerHint> Hints() const {
        return {{dir / "sys/devices/pci0000:00/0000:00:03.1/0000:0a:00.0", "gpu:card0", SensorOwnerKind::gpu},
                {dir / "sys/devices/pci0000:00/0000:00:01.1/0000:01:00.0/nvme/nvme0/nvme0n1", "storage:nvme0n1",
                 SensorOwnerKind::storage}};
    }

    // What the frame holds when the sensor stage runs: the machine-wide devices, and the GPU
    // stage's own reading of the card's main temperature.
    static core::HardwareTelemetryFrame BaseFrame() {
        core::HardwareTelemetryFrame frame;
        EnsureDevice(frame, "system", core::TelemetryDeviceKind::system, "Whole system");
        EnsureDevice(frame, "cpu:package:0", core::TelemetryDeviceKind::cpuPackage, "CPU package");
        EnsureDevice(frame, "gpu:card0", core::TelemetryDeviceKind::gpu, "Radeon");
        EnsureDevice(frame, "storage:nvme0n1", core::TelemetryDeviceKind::storageDevice, "NVMe disk");
        AddSensor(frame, {"gpu.temperature.main_c", "gpu:card0", "GPU temperature", "linux.gpu.drm",
                          UnitsOf(SensorType::temperature), 50.0});
        return frame;
    }

    HwmonStageResult Collect(core::HardwareTelemetryFrame& frame, const std::vector<SensorOwnerHint>& hints) {
        HwmonCollector collector(Roots());
        CollectContext context;
        context.generation = 1;
        return collector.Collect(context, hints, frame);
    }

    static std::optional<double> Value(const core::HardwareTelemetryFrame& frame, std::string_view id,
                                       std::string_view device) {
        const core::TelemetryMetric* metric = frame.Find(id, device);
        return metric != nullptr ? metric->numericValue : std::nullopt;
    }

    static std::size_t Count(const core::HardwareTelemetryFrame& frame, std::string_view id, std::string_view device) {
        std::size_t count = 0;
        for (const auto& metric : frame.metrics) count += metric.id == id && metric.deviceId == device;
        return count;
    }
};

struct CanonicalCase {
    SensorOwner owner;
    SensorType type;
    std::uint32_t number;
    const char* label;
    const char* expected;
};

TEST(CanonicalSensorId, FollowsTheIdTableForEachOwnerAndType) {
    using enum SensorOwner;
    using enum SensorType;
    const CanonicalCase cases[] = {
        {cpu, temperature, 1, "Tdie", "cpu.package.temperature_c"},
        {cpu, temperature, 1, "TCTL", "cpu.package.temperature_c"},
        {cpu, temperature, 1, "Package id 1", "cpu.package.temperature_c"},
        {cpu, temperature, 1, "package temperature", "cpu.package.temperature_c"},
        {cpu, temperature, 2, "Core 0", ""},
        {cpu, temperature, 1, "Package id", ""},
        {cpu, temperature, 1, "PPT", ""},
        {cpu, power, 1, "PPT", "cpu.package.power_w"},
        {cpu, power, 1, "Package Power", "cpu.package.power_w"},
        {cpu, power, 1, "pp0", "cpu.cores.power_w"},
        {cpu, power, 1, "Core Power", "cpu.cores.power_w"},
        {cpu, voltage, 0, "VCore", "cpu.voltage.average_core_v"},
        {cpu, voltage, 0, "core voltage", "cpu.voltage.average_core_v"},
        {cpu, energy, 1, "package", ""},
        {gpu, temperature, 2, "junction", "gpu.temperature.hotspot_c"},
        {gpu, temperature, 2, "GPU Hotspot", "gpu.temperature.hotspot_c"},
        {gpu, temperature, 4, "SoC", "gpu.temperature.soc_c"},
        {gpu, temperature, 1, "temp1", "gpu.temperature.main_c"},
        {gpu, temperature, 1, "edge", "gpu.temperature.main_c"},
        {gpu, temperature, 3, "mem", ""},
        {gpu, power, 1, "edge", ""},
        {storage, temperature, 1, "Composite", "storage.temperature.composite_c"},
        {storage, temperature, 3, "Sensor 2", "storage.temperature.sensor.2"},
        {storage, temperature, 5, "temp5", "storage.temperature.sensor.5"},
        {storage, fan, 1, "Composite", ""},
        {other, temperature, 1, "Package id 0", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CanonicalSensorId(c.owner, {c.type, c.number}, c.label), c.expected) << c.label;
    }
    EXPECT_GT(PackageTemperatureRank("Tdie"), PackageTemperatureRank("Package id 0"));
    EXPECT_GT(PackageTemperatureRank("Package id 0"), PackageTemperatureRank("Tctl"));
    EXPECT_GT(PackageTemperatureRank("Tctl"), PackageTemperatureRank("Tccd1"));
}

TEST(ParseHwmonKey, AcceptsTheSixPrefixesWithANumberOnly) {
    const struct {
        const char* key;
        std::optional<SensorType> type;
        std::uint32_t number;
    } cases[] = {
        {"temp12", SensorType::temperature, 12}, {"in0", SensorType::voltage, 0},  {"fan3", SensorType::fan, 3},
        {"power1", SensorType::power, 1},        {"energy2", SensorType::energy, 2}, {"freq1", SensorType::frequency, 1},
        {"curr1", std::nullopt, 0},              {"temp", std::nullopt, 0},          {"tempx", std::nullopt, 0},
        {"fan1a", std::nullopt, 0},              {"temp-1", std::nullopt, 0},        {"intrusion0", std::nullopt, 0},
    };
    for (const auto& c : cases) {
        const auto key = ParseHwmonKey(c.key);
        ASSERT_EQ(key.has_value(), c.type.has_value()) << c.key;
        if (!key) continue;
        EXPECT_EQ(key->type, *c.type) << c.key;
        EXPECT_EQ(key->number, c.number) << c.key;
    }
}

TEST_F(SensorTreeTest, CpuChipsGoToTheirPackageWithOnlyThePackageLabelCanonical) {
    auto frame = BaseFrame();
    const auto result = Collect(frame, Hints());
    ASSERT_TRUE(result.stage.ok) << result.stage.message;
    EXPECT_TRUE(result.anyTemperature);

    const core::TelemetryMetric* package = frame.Find("cpu.package.temperature_c", "cpu:package:0");
    ASSERT_NE(package, nullptr);
    EXPECT_DOUBLE_EQ(*package->numericValue, 45.0);
    EXPECT_EQ(package->sourceName, "coretemp");
    EXPECT_EQ(package->unit, MetricUnit::celsius);
    EXPECT_EQ(package->category, MetricCategory::temperatures);
    EXPECT_EQ(package->provenance, core::ProvenanceTier::nativeOs);
    const core::TelemetryMetric* core0 = frame.Find("hwmon.coretemp.temp2", "cpu:package:0");
    ASSERT_NE(core0, nullptr);
    EXPECT_EQ(core0->displayName, "Core 0");
    EXPECT_DOUBLE_EQ(*core0->numericValue, 43.0);
}

TEST_F(SensorTreeTest, TdieBeatsTctlOnTheSamePackageAndTctlAloneIsCanonical) {
    auto frame = BaseFrame();
    Collect(frame, Hints());

    const core::TelemetryDevice* second = frame.FindDevice("cpu:package:1");
    ASSERT_NE(second, nullptr);  // from the chip's local_cpulist: CPU 8 sits on package 1
    EXPECT_EQ(second->kind, core::TelemetryDeviceKind::cpuPackage);
    EXPECT_EQ(second->displayName, "CPU package 1");
    EXPECT_EQ(Count(frame, "cpu.package.temperature_c", "cpu:package:1"), 1u);
    EXPECT_EQ(frame.Find("cpu.package.temperature_c", "cpu:package:1")->displayName, "Tdie");
    EXPECT_EQ(Value(frame, "cpu.package.temperature_c", "cpu:package:1"), 51.25);
    EXPECT_EQ(Value(frame, "hwmon.k10temp.temp1", "cpu:package:1"), 61.25);  // Tctl keeps its reading
    EXPECT_EQ(Value(frame, "hwmon.k10temp.temp3", "cpu:package:1"), 49.5);

    // From cpulist when local_cpulist is absent: CPU 16 sits on package 2.
    EXPECT_EQ(Value(frame, "cpu.package.temperature_c", "cpu:package:2"), 58.0);
    EXPECT_EQ(frame.Find("hwmon.k10temp.temp1", "cpu:package:2"), nullptr);
}

TEST_F(SensorTreeTest, GpuAndNvmeChipsJoinTheHintedDevices) {
    auto frame = BaseFrame();
    Collect(frame, Hints());

    EXPECT_EQ(Count(frame, "gpu.temperature.main_c", "gpu:card0"), 1u);
    EXPECT_EQ(Value(frame, "gpu.temperature.main_c", "gpu:card0"), 50.0);  // the GPU stage's reading stays
    EXPECT_EQ(Value(frame, "gpu.temperature.hotspot_c", "gpu:card0"), 60.0);
    EXPECT_EQ(frame.Find("hwmon.amdgpu.temp1", "gpu:card0"), nullptr);
    EXPECT_EQ(frame.Find("hwmon.amdgpu.temp3", "gpu:card0")->displayName, "mem");
    const struct {
        const char* id;
        double value;
        MetricUnit unit;
        MetricCategory category;
    } gpuSensors[] = {
        {"hwmon.amdgpu.fan1", 1200.0, MetricUnit::rpm, MetricCategory::speed},
        {"hwmon.amdgpu.in0", 0.85, MetricUnit::volts, MetricCategory::voltages},
        {"hwmon.amdgpu.power1", 35.0, MetricUnit::watts, MetricCategory::powers},
        {"hwmon.amdgpu.freq1", 2e9, MetricUnit::hertz, MetricCategory::clocks},
    };
    for (const auto& expected : gpuSensors) {
        const core::TelemetryMetric* metric = frame.Find(expected.id, "gpu:card0");
        ASSERT_NE(metric, nullptr) << expected.id;
        EXPECT_DOUBLE_EQ(*metric->numericValue, expected.value) << expected.id;
        EXPECT_EQ(metric->unit, expected.unit) << expected.id;
        EXPECT_EQ(metric->category, expected.category) << expected.id;
    }

    EXPECT_EQ(Value(frame, "storage.temperature.composite_c", "storage:nvme0n1"), 38.85);
    EXPECT_EQ(Value(frame, "storage.temperature.sensor.1", "storage:nvme0n1"), 38.85);
    EXPECT_EQ(Value(frame, "storage.temperature.sensor.2", "storage:nvme0n1"), 45.85);
    EXPECT_EQ(frame.FindDevice("system/hwmon/nvme"), nullptr);
    EXPECT_EQ(frame.FindDevice("system/hwmon/amdgpu"), nullptr);
    EXPECT_TRUE(core::IsValid(frame));
}

TEST_F(SensorTreeTest, WithoutHintsTheGpuChipIsSkippedAndTheNvmeChipStandsAlone) {
    auto frame = BaseFrame();
    Collect(frame, {});
    for (const auto& metric : frame.metrics) EXPECT_NE(metric.sourceName, "amdgpu") << metric.id;
    EXPECT_EQ(frame.Find("gpu.temperature.hotspot_c"), nullptr);
    EXPECT_EQ(Value(frame, "hwmon.nvme.temp1", "system/hwmon/nvme"), 38.85);
    EXPECT_EQ(frame.Find("storage.temperature.composite_c"), nullptr);
    EXPECT_TRUE(core::IsValid(frame));
}

TEST_F(SensorTreeTest, OtherChipsGetTheirOwnDevicesAndUnreadableInputsStayOut) {
    auto frame = BaseFrame();
    Collect(frame, Hints());

    // Two identical chips stay apart by their device path.
    const std::string first = "system/hwmon/it8686:it87.2624";
    ASSERT_NE(frame.FindDevice(first), nullptr);
    ASSERT_NE(frame.FindDevice("system/hwmon/it8686:it87.2656"), nullptr);
    EXPECT_EQ(Value(frame, "hwmon.it8686.temp1", "system/hwmon/it8686:it87.2656"), 30.0);
    const core::TelemetryDevice* device = frame.FindDevice(first);
    const auto property = [&](std::string_view name) {
        for (const auto& [key, value] : device->properties) {
            if (key == name) return value;
        }
        return std::string("(none)");
    };
    EXPECT_EQ(property("parent"), "system");
    EXPECT_EQ(property("description"), "Linux hwmon sensor device");
    EXPECT_EQ(property("source"), "sysfs");

    const core::TelemetryMetric* idleFan = frame.Find("hwmon.it8686.fan2", first);
    ASSERT_NE(idleFan, nullptr);
    EXPECT_EQ(idleFan->availability, MetricAvailability::zero);
    EXPECT_EQ(idleFan->displayName, "Fan 2");
    EXPECT_EQ(frame.Find("hwmon.it8686.fan1", first)->availability, MetricAvailability::valid);
    EXPECT_EQ(frame.Find("hwmon.it8686.in0", first)->displayName, "Voltage 0");
    EXPECT_DOUBLE_EQ(*frame.Find("hwmon.it8686.in0", first)->numericValue, 1.212);
    EXPECT_EQ(frame.Find("hwmon.it8686.in1", first)->displayName, "+3.3V");
    const core::TelemetryMetric* energy = frame.Find("hwmon.it8686.energy1", first);
    ASSERT_NE(energy, nullptr);
    EXPECT_DOUBLE_EQ(*energy->numericValue, 123.0);
    EXPECT_EQ(energy->kind, core::MetricKind::monotonicCounter);
    EXPECT_EQ(energy->unit, MetricUnit::joules);
    EXPECT_EQ(frame.Find("hwmon.it8686.temp2", first), nullptr);  // "N/A"
    EXPECT_EQ(frame.Find("hwmon.it8686.temp3", first), nullptr);  // read fails
    EXPECT_EQ(frame.Find("hwmon.it8686.curr1", first), nullptr);  // not a sensor type read here

    EXPECT_EQ(Value(frame, "hwmon.acpitz.temp1", "system/hwmon/acpitz"), 27.8);  // no device link
    for (const auto& metric : frame.metrics) EXPECT_NE(metric.numericValue, 99.0) << metric.id;  // hwmon8 has no name
    EXPECT_TRUE(core::IsValid(frame));
}

TEST_F(SensorTreeTest, AMissingClassDirectoryLeavesTheFrameAlone) {
    auto frame = BaseFrame();
    HwmonCollector collector(ProviderRoots{dir / "proc", dir / "absent", dir / "cgroup", dir / "etc"});
    const auto result = collector.Collect(CollectContext{}, Hints(), frame);
    EXPECT_FALSE(result.stage.ok);
    EXPECT_EQ(result.stage.error, ENOENT);
    EXPECT_EQ(result.stage.message, "This system has no hwmon sensor directory");
    EXPECT_FALSE(result.anyTemperature);
    EXPECT_EQ(frame.devices.size(), BaseFrame().devices.size());
    EXPECT_EQ(frame.metrics.size(), 1u);
}

TEST_F(SensorTreeTest, TheWholeSensorStageKeepsTheFrameValid) {
    auto frame = BaseFrame();
    core::SystemSnapshot snapshot;
    SensorCollector sensors(Roots());
    CollectContext context;
    context.generation = 4;
    context.monotonicNs = 1'000'000'000;
    SensorStageResult first;
    sensors.CollectPower(context, frame, snapshot, first);
    sensors.CollectHwmon(context, Hints(), frame, first);
    EXPECT_TRUE(first.hwmon.ok) << first.hwmon.message;
    EXPECT_TRUE(first.powerSupply.ok) << first.powerSupply.message;
    EXPECT_TRUE(first.powercap.ok) << first.powercap.message;
    EXPECT_TRUE(first.anyTemperature);
    EXPECT_FALSE(first.powercapAccessDenied);
    EXPECT_TRUE(core::IsValid(frame));
    EXPECT_NE(frame.FindDevice("system/battery/BAT0"), nullptr);
    EXPECT_NE(frame.Find("cpu.package.energy_j", "cpu:package:0"), nullptr);
    EXPECT_EQ(snapshot.batteryPresent.value, true);

    // The next tick, with a fresh frame, has power from the kept baselines.
    std::ofstream(dir / "sys/class/powercap/intel-rapl:1/energy_uj") << "3000000\n";
    auto next = BaseFrame();
    context.monotonicNs += 1'000'000'000;
    SensorStageResult stage;
    sensors.CollectPower(context, next, snapshot, stage);
    EXPECT_EQ(Value(next, "cpu.package.power_w", "cpu:package:1"), 1.0);
    EXPECT_TRUE(core::IsValid(next));

    sensors.ResetBaselines();
    auto afterReset = BaseFrame();
    context.monotonicNs += 1'000'000'000;
    sensors.CollectPower(context, afterReset, snapshot, stage);
    EXPECT_EQ(afterReset.Find("cpu.package.power_w", "cpu:package:1"), nullptr);
}

}  // namespace
}  // namespace korv::providers
