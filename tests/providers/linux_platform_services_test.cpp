#include "core/sampling_engine.h"
#include "core/snapshot_coherence.h"
#include "core/telemetry_frame.h"
#include "providers/platform_services.h"
#include "tests/core/temp_folder_test_base.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <unistd.h>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;
using core::MetricAvailability;

core::SampleRequest Request(std::uint64_t sequence, bool reset = false, std::stop_token stop = {}) {
    core::SampleRequest request;
    request.sequence = sequence;
    request.intervalNs = 250'000'000;
    request.elapsedNs = 250'000'000;
    request.resetBaselines = reset;
    request.stopState = std::move(stop);
    return request;
}

std::vector<std::string> ProviderNames(const core::SystemSnapshot& s) {
    std::vector<std::string> names;
    for (const auto& row : s.providers) names.push_back(row.provider);
    return names;
}

const core::ProcessSnapshot* FindPid(const core::SystemSnapshot& s, std::uint32_t pid) {
    for (const auto& p : s.processes) {
        if (p.key.pid == pid) return &p;
    }
    return nullptr;
}

TEST(LinuxPlatformServices, RealMachineSnapshotsNeedNoRepairAndCarryTheirRows) {
    auto services = CreatePlatformServices();
    auto& source = services->SnapshotSource();
    auto first = source.Collect(Request(1, true));
    ASSERT_NE(first, nullptr);
    usleep(100'000);
    auto second = source.Collect(Request(2));
    ASSERT_NE(second, nullptr);

    // What the provider publishes must already obey every rule the engine would otherwise repair.
    for (const auto& snapshot : {first, second}) {
        core::SystemSnapshot copy = *snapshot;
        const core::RepairCounts repairs = core::RepairSnapshot(copy);
        EXPECT_EQ(repairs.Sum(), 0u) << "clamped " << repairs.percentagesClamped << ", unavailable "
                                     << repairs.metricsMarkedUnavailable << ", parents " << repairs.parentLinksDetached;
        EXPECT_TRUE(core::IsCoherent(*snapshot));
    }

    EXPECT_EQ(ProviderNames(*second),
              (std::vector<std::string>{"linux.cpu", "linux.process", "linux.system", "linux.disk", "linux.network",
                                        "linux.gpu.drm", "linux.gpu.nvml", "linux.hwmon", "linux.power_supply",
                                        "linux.powercap", "linux.smart"}));
    // This machine's disk and interface are listed, each once, and reach the telemetry frame.
    std::size_t disks = 0;
    std::size_t interfaces = 0;
    for (const auto& device : second->devices) {
        if (device.kind == core::DeviceKind::disk) {
            ++disks;
            EXPECT_NE(second->telemetry->FindDevice("storage:" + device.id), nullptr) << device.id;
        }
        if (device.kind == core::DeviceKind::network) {
            ++interfaces;
            EXPECT_NE(device.displayName, "lo");
            EXPECT_NE(second->telemetry->FindDevice("network:" + device.id), nullptr) << device.id;
        }
    }
    EXPECT_GE(disks, 1u);
    EXPECT_GE(interfaces, 1u);
    EXPECT_TRUE(core::IsValid(*second->telemetry));
    EXPECT_EQ(second->generation, 2u);
    EXPECT_GT(second->uptimeNs, 0u);
    EXPECT_GT(second->wallClockNs, 0u);
    EXPECT_EQ(second->capabilities.size(), 24u);
    EXPECT_EQ(services->Capabilities().size(), 24u);

    ASSERT_TRUE(second->cpuUtilization.value.has_value());
    EXPECT_FALSE(first->cpuUtilization.value.has_value()) << "the first sample has no delta";
    ASSERT_TRUE(second->memoryTotalBytes.value.has_value());
    EXPECT_GT(*second->memoryTotalBytes.value, 0u);

    const auto* self = FindPid(*second, static_cast<std::uint32_t>(::getpid()));
    ASSERT_NE(self, nullptr);
    EXPECT_NE(self->key.startTime, 0u);
    EXPECT_EQ(self->parentKey.pid, static_cast<std::uint32_t>(::getppid()));

    ASSERT_NE(second->telemetry, nullptr);
    EXPECT_TRUE(core::IsValid(*second->telemetry));
    EXPECT_EQ(second->telemetry->generation, 2u);
    const auto* system = second->telemetry->FindDevice("system");
    ASSERT_NE(system, nullptr);
    bool sawModel = false;
    for (const auto& [name, value] : system->properties) {
        if (name == "model") sawModel = value == "Linux PC";
    }
    EXPECT_TRUE(sawModel);
}

TEST(LinuxPlatformServices, ResetSampleHasCountersButNoRates) {
    auto services = CreatePlatformServices();
    auto& source = services->SnapshotSource();
    ASSERT_NE(source.Collect(Request(1, true)), nullptr);
    usleep(50'000);
    auto reset = source.Collect(Request(2, true));
    ASSERT_NE(reset, nullptr);
    EXPECT_FALSE(reset->cpuUtilization.value.has_value());
    const auto* self = FindPid(*reset, static_cast<std::uint32_t>(::getpid()));
    ASSERT_NE(self, nullptr);
    EXPECT_TRUE(self->totalCpuTimeNs.value.has_value());
    EXPECT_FALSE(self->cpuPercent.value.has_value());
}

TEST(LinuxPlatformServices, StopRequestedReturnsNothing) {
    auto services = CreatePlatformServices();
    std::stop_source stop;
    stop.request_stop();
    EXPECT_EQ(services->SnapshotSource().Collect(Request(1, false, stop.get_token())), nullptr);
}

std::map<std::string, core::ProviderHealthRecord> RowsByProvider(const core::SystemSnapshot& s) {
    std::map<std::string, core::ProviderHealthRecord> rows;
    for (const auto& row : s.providers) rows[row.provider] = row;
    return rows;
}

// A private copy of tests/fixtures/<name> with the symbolic links its "links" file lists, as sysfs has
// them; git keeps no links.
class FixtureMachineTest : public core::TempFolderTest {
protected:
    FixtureMachineTest() : TempFolderTest("korv-services") {}

    void CopyFixture(const std::string& name) {
        const fs::path source = fs::path(KORV_TEST_FIXTURES) / name;
        fs::copy(source, dir, fs::copy_options::recursive);
        std::ifstream links(source / "links");
        std::string link;
        std::string target;
        while (links >> link >> target) {
            fs::create_directories((dir / link).parent_path());
            fs::create_symlink(target, dir / link);
        }
    }

    ProviderRoots Roots() const { return {dir / "proc", dir / "sys", dir / "cgroup", dir / "etc"}; }
};

TEST_F(FixtureMachineTest, MissingProcfsIsReportedPerProvider) {
    // Neither /proc/stat nor /proc/meminfo: the machine cannot be measured at all. With meminfo alone
    // it can be, in part.
    const struct {
        const char* meminfo;
        const char* systemRow;
        const char* absentRow;
        const char* diagnostic;
    } cases[] = {
        {nullptr, "linux.system.unsupported", "linux.system", "Linux system metrics are unavailable on this platform"},
        {"MemTotal:       16384000 kB\nMemFree:         8192000 kB\nMemAvailable:   12288000 kB\n", "linux.system",
         "linux.system.unsupported", "Linux system metrics partially unavailable"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.systemRow);
        fs::remove_all(dir / "proc");
        fs::create_directories(dir / "proc");
        fs::create_directories(dir / "sys");
        if (c.meminfo != nullptr) std::ofstream(dir / "proc/meminfo") << c.meminfo;
        auto services = CreatePlatformServices(Roots());
        auto snapshot = services->SnapshotSource().Collect(Request(1, true));
        ASSERT_NE(snapshot, nullptr);
        EXPECT_TRUE(core::IsCoherent(*snapshot));
        EXPECT_TRUE(snapshot->processes.empty());

        auto rows = RowsByProvider(*snapshot);
        ASSERT_TRUE(rows.contains("linux.cpu"));
        EXPECT_NE(rows["linux.cpu"].state, core::ProviderHealth::healthy);
        EXPECT_EQ(rows["linux.cpu"].consecutiveFailures, 1u);
        ASSERT_TRUE(rows.contains("linux.process"));
        EXPECT_NE(rows["linux.process"].state, core::ProviderHealth::healthy);
        ASSERT_TRUE(rows.contains(c.systemRow));
        EXPECT_FALSE(rows.contains(c.absentRow));
        EXPECT_NE(rows[c.systemRow].state, core::ProviderHealth::healthy);
        EXPECT_EQ(rows[c.systemRow].diagnostic, c.diagnostic);
        EXPECT_EQ(snapshot->memoryTotalBytes.value.has_value(), c.meminfo != nullptr);
    }
}

TEST_F(FixtureMachineTest, MountedVolumesAndTheAppearanceStampReachTheFrame) {
    fs::create_directories(dir / "proc/self");
    fs::create_directories(dir / "sys");
    const auto writeMounts = [&](const std::string& text) { std::ofstream(dir / "proc/self/mountinfo") << text; };
    writeMounts("22 1 8:2 / " + dir.string() + " rw - ext4 /dev/sda2 rw\n23 22 0:5 / /run rw - tmpfs tmpfs rw\n");
    auto services = CreatePlatformServices(Roots());
    auto& source = services->SnapshotSource();

    const auto appearance = [](const core::HardwareTelemetryFrame& frame) {
        std::set<std::string> stamps;
        for (const auto& device : frame.devices) stamps.insert(device.appearanceGeneration);
        return stamps;
    };
    for (std::uint64_t sequence : {1u, 2u}) {
        auto snapshot = source.Collect(Request(sequence, sequence == 1));
        ASSERT_NE(snapshot, nullptr);
        ASSERT_NE(snapshot->telemetry, nullptr);
        const core::HardwareTelemetryFrame& frame = *snapshot->telemetry;
        const core::TelemetryDevice* volume = frame.FindDevice("volume:/dev/sda2");
        ASSERT_NE(volume, nullptr);
        EXPECT_EQ(volume->kind, core::TelemetryDeviceKind::volume);
        EXPECT_EQ(volume->displayName, dir.string());
        const core::TelemetryMetric* used = frame.Find("volume.used_pct", "volume:/dev/sda2");
        ASSERT_NE(used, nullptr);
        ASSERT_TRUE(used->numericValue.has_value());
        EXPECT_GE(*used->numericValue, 0.0);
        EXPECT_LE(*used->numericValue, 100.0);
        EXPECT_EQ(appearance(frame), std::set<std::string>{":appearance:1"});
    }

    writeMounts("23 22 0:5 / /run rw - tmpfs tmpfs rw\n");
    auto unmounted = source.Collect(Request(3));
    ASSERT_NE(unmounted, nullptr);
    EXPECT_EQ(unmounted->telemetry->FindDevice("volume:/dev/sda2"), nullptr);
    EXPECT_EQ(appearance(*unmounted->telemetry), std::set<std::string>{":appearance:2"});
}

// An NVMe drive and an amdgpu card, each with its hwmon chip, as sysfs lays them out.
TEST_F(FixtureMachineTest, HwmonChipsOfDrivesAndGraphicsCardsJoinTheirDevices) {
    CopyFixture("sensor_owners");
    auto services = CreatePlatformServices(Roots());
    auto snapshot = services->SnapshotSource().Collect(Request(1, true));
    ASSERT_NE(snapshot, nullptr);
    ASSERT_NE(snapshot->telemetry, nullptr);
    const core::HardwareTelemetryFrame& frame = *snapshot->telemetry;
    EXPECT_TRUE(core::IsValid(frame));

    const std::string drive = "storage:linux-block:path:nvme0n1";
    const std::string card = "gpu:linux-drm-pci:0000:0a:00.0";
    ASSERT_NE(frame.FindDevice(drive), nullptr);
    ASSERT_NE(frame.FindDevice(card), nullptr);
    const struct {
        const char* id;
        const std::string& device;
        double value;
        core::MetricUnit unit;
    } expected[] = {
        {"storage.temperature.composite_c", drive, 38.85, core::MetricUnit::celsius},
        {"storage.temperature.sensor.1", drive, 45.85, core::MetricUnit::celsius},
        {"hwmon.amdgpu.fan1", card, 1200.0, core::MetricUnit::rpm},
        {"hwmon.amdgpu.in0", card, 0.85, core::MetricUnit::volts},
    };
    for (const auto& sensor : expected) {
        const core::TelemetryMetric* metric = frame.Find(sensor.id, sensor.device);
        ASSERT_NE(metric, nullptr) << sensor.id << " on " << sensor.device;
        ASSERT_TRUE(metric->numericValue.has_value()) << sensor.id;
        EXPECT_DOUBLE_EQ(*metric->numericValue, sensor.value) << sensor.id;
        EXPECT_EQ(metric->unit, sensor.unit) << sensor.id;
    }
    EXPECT_EQ(frame.Find("hwmon.amdgpu.in0", card)->displayName, "vddgfx");

    // The card's edge sensor is the GPU stage's main temperature, listed once.
    std::size_t mainTemperatures = 0;
    for (const auto& metric : frame.metrics) {
        mainTemperatures += metric.id == "gpu.temperature.main_c" && metric.deviceId == card;
        EXPECT_NE(metric.id, "hwmon.nvme.temp1");
    }
    EXPECT_EQ(mainTemperatures, 1u);
    for (const auto& device : frame.devices) EXPECT_FALSE(device.id.starts_with("system/hwmon/")) << device.id;

    auto rows = RowsByProvider(*snapshot);
    ASSERT_TRUE(rows.contains("linux.hwmon"));
    EXPECT_EQ(rows["linux.hwmon"].state, core::ProviderHealth::healthy) << rows["linux.hwmon"].diagnostic;
    EXPECT_EQ(snapshot->capabilities.at("thermal.sensors").support, core::ProviderSupport::supported);
}

TEST(LinuxPlatformServices, RunsThroughTheEngineWithoutDropsOrRepairs) {
    auto services = CreatePlatformServices();
    std::mutex mutex;
    std::condition_variable published;
    std::vector<std::shared_ptr<const core::SystemSnapshot>> snapshots;
    core::SamplingEngine engine(
        services->SnapshotSource(),
        [&](std::shared_ptr<const core::SystemSnapshot> snapshot) {
            std::lock_guard lock(mutex);
            snapshots.push_back(std::move(snapshot));
            published.notify_all();
        },
        core::Cadence::high);
    engine.Start();
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(published.wait_for(lock, std::chrono::seconds(30), [&] { return snapshots.size() >= 3; }));
    }
    engine.Stop();
    const auto stats = engine.Stats();
    EXPECT_EQ(stats.collectFailures, 0u);
    EXPECT_EQ(stats.incoherentSnapshots, 0u);
    EXPECT_EQ(stats.repairedSamples, 0u);
    EXPECT_EQ(snapshots.back()->providers.back().provider, "sampling-engine");
}

}  // namespace
}  // namespace korv::providers
