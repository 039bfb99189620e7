#include "providers/smart_reader.h"

#include "tests/providers/fake_smart_device_io.h"
#include "tests/providers/private_system_bus.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korv::providers {
namespace {

using core::MetricAvailability;
using core::ProvenanceTier;

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kAmpleBudgetNs = 20 * kSecond;  // generous: the VM may be slow, the bus local
const std::filesystem::path kTemplate = std::filesystem::path(KORV_TEST_FIXTURES) / "smart" / "udisks2_template.py";

std::vector<std::uint8_t> NvmeLog(std::uint16_t kelvin, std::uint8_t powerCycles) {
    std::vector<std::uint8_t> log(512, 0);
    log[1] = static_cast<std::uint8_t>(kelvin);
    log[2] = static_cast<std::uint8_t>(kelvin >> 8);
    log[112] = powerCycles;
    return log;
}

class SmartReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::path(::testing::TempDir()) / "korv-smart-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        root_ = pattern;
        io_ = std::make_shared<test_support::FakeSmartDeviceIo>();
        io_->nvmeLog = NvmeLog(318, 9);
        frame_.devices.push_back({"storage:linux-block:path:nvme0n1", core::TelemetryDeviceKind::storageDevice,
                                  "Example NVMe", "", "", {}});
    }
    void TearDown() override { std::filesystem::remove_all(root_); }

    void SetRuntimeStatus(const std::string& blockName, const std::string& status) {
        const auto folder = root_ / "sys" / "class" / "block" / blockName / "device" / "power";
        std::filesystem::create_directories(folder);
        std::ofstream(folder / "runtime_status") << status << "\n";
    }

    SmartReader MakeReader() {
        ProviderRoots roots;
        roots.sys = root_ / "sys";
        roots.proc = root_ / "proc";
        return SmartReader(roots, SmartPaths{root_ / "dev"}, io_);
    }

    static SmartDrive Drive(const std::string& name) { return {name, "storage:linux-block:path:" + name}; }

    SmartStageResult CollectAt(SmartReader& reader, std::uint64_t monotonicNs, const std::vector<SmartDrive>& drives,
                               std::uint64_t budgetNs = kAmpleBudgetNs) {
        frame_.metrics.clear();
        CollectContext ctx;
        ctx.generation = monotonicNs / kSecond + 1;
        ctx.monotonicNs = monotonicNs;
        return reader.Collect(ctx, drives, budgetNs, frame_);
    }

    std::filesystem::path root_;
    std::shared_ptr<test_support::FakeSmartDeviceIo> io_;
    core::HardwareTelemetryFrame frame_;
};

TEST_F(SmartReaderTest, AnNvmeDriveReadByIoctlGetsItsSensorsInTheFrame) {
    SetRuntimeStatus("nvme0n1", "active");
    SmartReader reader = MakeReader();
    const SmartStageResult stage = CollectAt(reader, 100 * kSecond, {Drive("nvme0n1")});
    EXPECT_TRUE(stage.result.ok);
    EXPECT_EQ(stage.result.message, "SMART data read for 1 drive (nvme)");
    EXPECT_EQ(stage.capability, core::ProviderSupport::supported);
    ASSERT_EQ(io_->opened.size(), 1u);
    EXPECT_EQ(io_->opened[0].first, (root_ / "dev" / "nvme0").string());

    const core::TelemetryMetric* temperature =
        frame_.Find("storage.temperature.composite_c", "storage:linux-block:path:nvme0n1");
    ASSERT_NE(temperature, nullptr);
    EXPECT_NEAR(*temperature->numericValue, 44.85, 1e-9);
    EXPECT_EQ(temperature->category, core::MetricCategory::temperatures);
    EXPECT_EQ(temperature->unit, core::MetricUnit::celsius);
    EXPECT_EQ(temperature->provenance, ProvenanceTier::nativeOs);
    EXPECT_EQ(temperature->sourceName, "NVMe SMART / Health Information Log");
    EXPECT_EQ(temperature->availability, MetricAvailability::valid);
    const core::TelemetryMetric* media = frame_.Find("storage.smart.media_errors");
    ASSERT_NE(media, nullptr);
    EXPECT_EQ(media->availability, MetricAvailability::zero);
    EXPECT_EQ(media->kind, core::MetricKind::monotonicCounter);
    const core::TelemetryDevice* device = frame_.FindDevice("storage:linux-block:path:nvme0n1");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->displayName, "Example NVMe") << "an existing device keeps its entry";
    EXPECT_TRUE(core::IsValid(frame_));
}

TEST_F(SmartReaderTest, AnAtaDriveMissingFromTheFrameGetsAStorageDeviceEntry) {
    SmartReader reader = MakeReader();
    io_->ataData[2] = 194;
    io_->ataData[2 + 5] = 35;
    const SmartStageResult stage = CollectAt(reader, 100 * kSecond, {Drive("sda")});
    EXPECT_EQ(stage.result.message, "SMART data read for 1 drive (ata)");
    const core::TelemetryDevice* device = frame_.FindDevice("storage:linux-block:path:sda");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->kind, core::TelemetryDeviceKind::storageDevice);
    const core::TelemetryMetric* temperature = frame_.Find("storage.temperature.composite_c", device->id);
    ASSERT_NE(temperature, nullptr);
    EXPECT_DOUBLE_EQ(*temperature->numericValue, 35.0);
    EXPECT_EQ(temperature->sourceName, "ATA SMART data via SAT SG_IO");
    EXPECT_EQ(temperature->displayName, "Drive Temperature");
    EXPECT_TRUE(core::IsValid(frame_));
}

TEST_F(SmartReaderTest, ADriveIsAskedAtMostOnceAMinuteAndKeepsItsReadingsBetween) {
    SmartReader reader = MakeReader();
    CollectAt(reader, 100 * kSecond, {Drive("nvme0n1")});
    ASSERT_EQ(io_->CommandCount(), 1u);

    io_->nvmeLog = NvmeLog(330, 10);
    CollectAt(reader, 130 * kSecond, {Drive("nvme0n1")});
    EXPECT_EQ(io_->CommandCount(), 1u);
    const core::TelemetryMetric* cycles = frame_.Find("storage.power_cycle_count");
    ASSERT_NE(cycles, nullptr);
    EXPECT_DOUBLE_EQ(*cycles->numericValue, 9.0);
    EXPECT_EQ(cycles->availability, MetricAvailability::valid);

    CollectAt(reader, 160 * kSecond, {Drive("nvme0n1")});
    EXPECT_EQ(io_->CommandCount(), 2u);
    EXPECT_DOUBLE_EQ(*frame_.Find("storage.power_cycle_count")->numericValue, 10.0);
}

class SmartSleepRule : public SmartReaderTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(SmartSleepRule, ARuntimeSuspendedDriveIsNotTouchedAndKeepsItsLastValues) {
    SmartReader reader = MakeReader();
    SetRuntimeStatus("nvme0n1", "active");
    SetRuntimeStatus("sda", GetParam());
    CollectAt(reader, 100 * kSecond, {Drive("nvme0n1"), Drive("sda")});
    ASSERT_EQ(io_->opened.size(), 1u) << "only the awake drive is opened";
    EXPECT_EQ(frame_.FindDevice("storage:linux-block:path:sda"), nullptr);

    SetRuntimeStatus("nvme0n1", GetParam());
    const std::size_t opens = io_->opened.size();
    const std::size_t commands = io_->CommandCount();
    const SmartStageResult stage = CollectAt(reader, 200 * kSecond, {Drive("nvme0n1"), Drive("sda")});
    EXPECT_EQ(io_->opened.size(), opens);
    EXPECT_EQ(io_->CommandCount(), commands);
    const core::TelemetryMetric* temperature = frame_.Find("storage.temperature.composite_c");
    ASSERT_NE(temperature, nullptr);
    EXPECT_NEAR(*temperature->numericValue, 44.85, 1e-9);
    EXPECT_EQ(temperature->availability, MetricAvailability::stale);
    EXPECT_EQ(stage.capability, core::ProviderSupport::degraded);
    EXPECT_TRUE(core::IsValid(frame_));
}

INSTANTIATE_TEST_SUITE_P(States, SmartSleepRule, ::testing::Values("suspended", "suspending"));

TEST_F(SmartReaderTest, AStopRequestLeavesTheFrameAlone) {
    SmartReader reader = MakeReader();
    std::stop_source stop;
    stop.request_stop();
    CollectContext ctx;
    ctx.monotonicNs = 100 * kSecond;
    ctx.stop = stop.get_token();
    const SmartStageResult stage = reader.Collect(ctx, {Drive("nvme0n1")}, kAmpleBudgetNs, frame_);
    EXPECT_FALSE(stage.result.ok);
    EXPECT_EQ(io_->CommandCount(), 0u);
    EXPECT_TRUE(frame_.metrics.empty());
}

// The D-Bus route, with a UDisks2 stand-in on a private system bus.
class SmartReaderOverBusTest : public SmartReaderTest {
protected:
    void SetUp() override {
        SmartReaderTest::SetUp();
        const std::string missing = test_support::PrivateSystemBus::MissingTool();
        if (!missing.empty()) GTEST_SKIP() << missing;
        bus_.emplace();
        const std::string failure = bus_->Start("org.freedesktop.UDisks2", kTemplate);
        ASSERT_TRUE(failure.empty()) << failure;
        for (const char* name : {"nvme0", "sda", "vda"}) io_->openErrors[(root_ / "dev" / name).string()] = EACCES;
    }
    void TearDown() override {
        bus_.reset();
        SmartReaderTest::TearDown();
    }

    int SmartCalls(const std::string& drive) const {
        return bus_->MockCallCount("org.freedesktop.UDisks2", "/org/freedesktop/UDisks2/drives/" + drive,
                                   "SmartGetAttributes");
    }

    std::optional<test_support::PrivateSystemBus> bus_;
};

TEST_F(SmartReaderOverBusTest, ADeniedDeviceNodeFallsBackToUDisks2) {
    SmartReader reader = MakeReader();
    const SmartStageResult stage = CollectAt(reader, 100 * kSecond, {Drive("nvme0n1"), Drive("sda")});
    EXPECT_TRUE(stage.result.ok);
    EXPECT_EQ(stage.result.message, "SMART data read for 2 drives (udisks2)");
    EXPECT_EQ(io_->CommandCount(), 0u);
    const core::TelemetryMetric* spare =
        frame_.Find("storage.health.available_spare_pct", "storage:linux-block:path:nvme0n1");
    ASSERT_NE(spare, nullptr);
    EXPECT_DOUBLE_EQ(*spare->numericValue, 97.0);
    EXPECT_EQ(spare->provenance, ProvenanceTier::privilegedHelper);
    EXPECT_EQ(spare->sourceName, "UDisks2 SMART data on the system bus");
    const core::TelemetryMetric* ataTemperature =
        frame_.Find("storage.temperature.composite_c", "storage:linux-block:path:sda");
    ASSERT_NE(ataTemperature, nullptr);
    EXPECT_NEAR(*ataTemperature->numericValue, 36.0, 1e-9);
    const core::TelemetryDevice* device = frame_.FindDevice("storage:linux-block:path:sda");
    ASSERT_NE(device, nullptr);
    bool provider = false;
    for (const auto& [name, value] : device->properties)
        provider |= name == "smartProvider" && value == "linux.udisks2.smart";
    EXPECT_TRUE(provider);
    EXPECT_TRUE(core::IsValid(frame_));
}

TEST_F(SmartReaderOverBusTest, AnExhaustedBudgetMakesNoBusCallAndKeepsTheLastValues) {
    SmartReader reader = MakeReader();
    CollectAt(reader, 100 * kSecond, {Drive("nvme0n1")});
    ASSERT_EQ(SmartCalls("Example_NVMe_SSD_S1"), 1);

    const SmartStageResult stage = CollectAt(reader, 200 * kSecond, {Drive("nvme0n1")}, 0);
    EXPECT_EQ(SmartCalls("Example_NVMe_SSD_S1"), 1);
    const core::TelemetryMetric* spare = frame_.Find("storage.health.available_spare_pct");
    ASSERT_NE(spare, nullptr);
    EXPECT_DOUBLE_EQ(*spare->numericValue, 97.0);
    EXPECT_EQ(spare->availability, MetricAvailability::stale);
    EXPECT_EQ(stage.result.message, "SMART data read for 1 drive (udisks2)");

    CollectAt(reader, 201 * kSecond, {Drive("nvme0n1")});
    EXPECT_EQ(SmartCalls("Example_NVMe_SSD_S1"), 2) << "with budget again, the due refresh is made";
    EXPECT_EQ(frame_.Find("storage.health.available_spare_pct")->availability, MetricAvailability::valid);
}

TEST_F(SmartReaderOverBusTest, ADriveWithoutSmartIsRetriedOnlyEveryTenMinutes) {
    SmartReader reader = MakeReader();
    const SmartStageResult stage = CollectAt(reader, 100 * kSecond, {Drive("vda")});
    EXPECT_TRUE(stage.result.ok);
    EXPECT_EQ(stage.result.message, "No drive answered a SMART query; UDisks2 knows no drive behind vda");
    EXPECT_EQ(stage.capability, core::ProviderSupport::degraded);
    ASSERT_EQ(io_->opened.size(), 1u);

    CollectAt(reader, 161 * kSecond, {Drive("vda")});
    CollectAt(reader, 699 * kSecond, {Drive("vda")});
    EXPECT_EQ(io_->opened.size(), 1u);
    CollectAt(reader, 700 * kSecond, {Drive("vda")});
    EXPECT_EQ(io_->opened.size(), 2u);
}

TEST(SmartReaderWithoutBus, AnUnreachableBusGivesAPlainMessage) {
    const std::string previous =
        std::getenv("DBUS_SYSTEM_BUS_ADDRESS") != nullptr ? std::getenv("DBUS_SYSTEM_BUS_ADDRESS") : "";
    const bool hadPrevious = std::getenv("DBUS_SYSTEM_BUS_ADDRESS") != nullptr;
    const auto socket = std::filesystem::path(::testing::TempDir()) / "korv-no-bus-here";
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socket.string()).c_str(), 1);
    auto io = std::make_shared<test_support::FakeSmartDeviceIo>();
    io->sgIoError = ENOTTY;
    {
        SmartReader reader(ProviderRoots{}, SmartPaths{"/nonexistent-dev"}, io);
        core::HardwareTelemetryFrame frame;
        CollectContext ctx;
        ctx.monotonicNs = 5 * kSecond;
        const SmartStageResult stage =
            reader.Collect(ctx, {{"vdb", "storage:linux-block:path:vdb"}}, kAmpleBudgetNs, frame);
        EXPECT_TRUE(stage.result.ok);
        EXPECT_TRUE(
            stage.result.message.starts_with("No drive answered a SMART query; The system bus could not be used"))
            << stage.result.message;
        EXPECT_NE(stage.result.error, 0);
        EXPECT_TRUE(frame.metrics.empty());
    }
    if (hadPrevious) {
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", previous.c_str(), 1);
    } else {
        ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
}

}  // namespace
}  // namespace korv::providers
