#include "providers/powercap_collector.h"
#include "providers/sensor_ids.h"
#include "tests/core/temp_folder_test_base.h"
#include "tests/providers/unprivileged_helper.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;
using core::MetricAvailability;

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kSecond = 1'000'000'000;

TEST(EnergyDeltaMicrojoules, CountsForwardAndAcrossAWrapWithoutOverflow) {
    const struct {
        std::uint64_t previous;
        std::uint64_t current;
        std::optional<std::uint64_t> maxRange;
        std::optional<std::uint64_t> expected;
    } cases[] = {
        {100, 150, std::nullopt, 50},
        {100, 100, 1000, 0},
        {900, 100, 1000, 200},            // wrapped: max - previous + current
        {1000, 0, 1000, 0},               // previous at the very top of the range
        {900, 100, std::nullopt, std::nullopt},
        {900, 100, 800, std::nullopt},    // a range below the previous reading is no range
        {kMax - 10, 5, kMax, 15},         // max + current would overflow before the subtraction
        {kMax - 1, kMax - 2, kMax, kMax - 1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(EnergyDeltaMicrojoules(c.previous, c.current, c.maxRange), c.expected)
            << c.previous << " -> " << c.current;
    }
}

TEST(PowerFromEnergy, DividesJoulesBySecondsAndNeedsAnInterval) {
    EXPECT_EQ(PowerFromEnergy(1'000'000, kSecond), 1.0);
    EXPECT_EQ(PowerFromEnergy(500'000, kSecond / 2), 1.0);
    EXPECT_EQ(PowerFromEnergy(0, kSecond), 0.0);
    EXPECT_EQ(PowerFromEnergy(1'000'000, 0), std::nullopt);
}

class PowercapTest : public core::TempFolderTest {
protected:
    PowercapTest() : TempFolderTest("korv-powercap") {}

    void SetUp() override {
        TempFolderTest::SetUp();
        fs::copy(fs::path(KORV_TEST_FIXTURES) / "sensors/sys", dir / "sys", fs::copy_options::recursive);
    }

    fs::path Zone(const char* name) const { return dir / "sys/class/powercap" / name; }
    void Write(const char* zone, const char* file, const std::string& text) const {
        std::ofstream(Zone(zone) / file) << text << '\n';
    }

    core::HardwareTelemetryFrame Sample(PowercapCollector& collector, std::uint64_t atNs,
                                        PowercapStageResult* result = nullptr, bool resetFlag = false) {
        core::HardwareTelemetryFrame frame;
        EnsureDevice(frame, "cpu:package:0", core::TelemetryDeviceKind::cpuPackage, "CPU package");
        CollectContext context;
        context.generation = ++generation_;
        context.monotonicNs = atNs;
        context.resetBaselines = resetFlag;
        const auto stage = collector.Collect(context, frame, snapshot);
        if (result != nullptr) *result = stage;
        EXPECT_TRUE(core::IsValid(frame));
        return frame;
    }

    static std::optional<double> Value(const core::HardwareTelemetryFrame& frame, std::string_view id,
                                       std::string_view device = "cpu:package:0") {
        const core::TelemetryMetric* metric = frame.Find(id, device);
        return metric != nullptr ? metric->numericValue : std::nullopt;
    }

    ProviderRoots Roots() const { return {dir / "proc", dir / "sys", dir / "cgroup", dir / "etc"}; }

    core::SystemSnapshot snapshot;

private:
    std::uint64_t generation_ = 0;
};

TEST_F(PowercapTest, AFirstSampleHasEnergyButNoPower) {
    PowercapCollector collector(Roots());
    PowercapStageResult result;
    const auto frame = Sample(collector, kSecond, &result);
    EXPECT_TRUE(result.stage.ok) << result.stage.message;
    EXPECT_EQ(result.stage.message, "Read 5 powercap zones");

    EXPECT_EQ(Value(frame, "cpu.package.energy_j"), 262143.0);  // not the MMIO copy's 9999 µJ
    EXPECT_EQ(frame.Find("cpu.package.energy_j", "cpu:package:0")->displayName, "package-0 Energy");
    EXPECT_EQ(frame.Find("cpu.package.energy_j", "cpu:package:0")->kind, core::MetricKind::monotonicCounter);
    EXPECT_EQ(Value(frame, "cpu.cores.energy_j"), 1.0);
    EXPECT_EQ(Value(frame, "cpu.energy.dram"), 5.0);
    // Package 1 and its subzone, which takes the parent's package.
    ASSERT_NE(frame.FindDevice("cpu:package:1"), nullptr);
    EXPECT_EQ(frame.FindDevice("cpu:package:1")->displayName, "CPU package 1");
    EXPECT_EQ(Value(frame, "cpu.package.energy_j", "cpu:package:1"), 2.0);
    EXPECT_EQ(frame.Find("cpu.energy.uncore", "cpu:package:1")->availability, MetricAvailability::zero);

    for (const auto& metric : frame.metrics) EXPECT_EQ(metric.unit, core::MetricUnit::joules) << metric.id;
    EXPECT_EQ(snapshot.cpuPowerWatts.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(snapshot.cpuPowerWatts.source, "linux.powercap");
}

TEST_F(PowercapTest, TheSecondSampleGivesPowerAcrossAWrappedCounter) {
    PowercapCollector collector(Roots());
    Sample(collector, kSecond);
    Write("intel-rapl:0", "energy_uj", "171150");  // wrapped: 328850 µJ to the top, 171150 after it
    Write("intel-rapl:0:0", "energy_uj", "3000000");
    Write("intel-rapl:0:1", "energy_uj", "5500000");
    const auto frame = Sample(collector, kSecond + kSecond / 2);

    EXPECT_EQ(Value(frame, "cpu.package.power_w"), 1.0);
    const core::TelemetryMetric* power = frame.Find("cpu.package.power_w", "cpu:package:0");
    EXPECT_EQ(power->sourceName, "delta energy_uj / sample interval");
    EXPECT_EQ(power->displayName, "package-0 Power");
    EXPECT_EQ(power->unit, core::MetricUnit::watts);
    EXPECT_EQ(Value(frame, "cpu.cores.power_w"), 4.0);
    EXPECT_EQ(Value(frame, "cpu.power.dram"), 1.0);
    EXPECT_EQ(frame.Find("cpu.package.power_w", "cpu:package:1")->availability, MetricAvailability::zero);

    // Both packages together: 1 W and 0 W.
    EXPECT_EQ(snapshot.cpuPowerWatts.availability, MetricAvailability::valid);
    EXPECT_EQ(snapshot.cpuPowerWatts.value, 1.0);
    EXPECT_EQ(snapshot.cpuPowerWatts.lastGoodGeneration, 2u);
    EXPECT_EQ(snapshot.dramPowerWatts.value, 1.0);
}

TEST_F(PowercapTest, NoPowerWithoutAUsableIntervalRangeOrBaseline) {
    enum class Between { nothing, removeRange, resetBaselines, unreadableCounter };
    const struct {
        const char* name;
        std::uint64_t secondAtNs;
        const char* packageEnergy;
        Between between;
        bool resetFlag;
    } cases[] = {
        {"zero interval", kSecond, "262143100000", Between::nothing, false},
        {"clock going back", kSecond / 2, "262143100000", Between::nothing, false},
        {"wrap without a range", 2 * kSecond, "171150", Between::removeRange, false},
        {"baselines forgotten", 2 * kSecond, "262143100000", Between::resetBaselines, false},
        {"reset flag in the tick", 2 * kSecond, "262143100000", Between::nothing, true},
        {"counter unreadable once", 2 * kSecond, "262143100000", Between::unreadableCounter, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Write("intel-rapl:0", "energy_uj", "262143000000");
        Write("intel-rapl:0", "max_energy_range_uj", "262143328850");
        PowercapCollector collector(Roots());
        Sample(collector, kSecond);
        if (c.between == Between::removeRange) fs::remove(Zone("intel-rapl:0") / "max_energy_range_uj");
        if (c.between == Between::resetBaselines) collector.ResetBaselines();
        if (c.between == Between::unreadableCounter) {
            Write("intel-rapl:0", "energy_uj", "garbage");
            // The MMIO interface to the same domain stands in while the MSR counter cannot be read.
            const auto gap = Sample(collector, kSecond + 1);
            EXPECT_EQ(Value(gap, "cpu.package.energy_j"), 0.009999);
        }
        Write("intel-rapl:0", "energy_uj", c.packageEnergy);
        const auto frame = Sample(collector, c.secondAtNs, nullptr, c.resetFlag);
        EXPECT_NE(Value(frame, "cpu.package.energy_j"), std::nullopt);
        EXPECT_EQ(frame.Find("cpu.package.power_w", "cpu:package:0"), nullptr);
        EXPECT_EQ(snapshot.cpuPowerWatts.availability, MetricAvailability::notYetAvailable);

        // The sample without power is the next baseline all the same.
        Write("intel-rapl:0", "energy_uj", "262143300000");
        Write("intel-rapl:0", "max_energy_range_uj", "262143328850");
        const auto after = Sample(collector, c.secondAtNs + kSecond);
        EXPECT_NE(Value(after, "cpu.package.power_w"), std::nullopt);
    }
}

struct DeniedReport {
    bool dropped;
    bool accessDenied;
    bool ok;
    int error;
    std::size_t metrics;
    MetricAvailability cpuPower;
    char message[200];
};

TEST_F(PowercapTest, RootOnlyCountersLeaveBothSensorsOutAndSaySo) {
    for (const char* zone : {"intel-rapl:0", "intel-rapl:0:0", "intel-rapl:0:1", "intel-rapl-mmio:0", "intel-rapl:1",
                             "intel-rapl:1:0"}) {
        fs::permissions(Zone(zone) / "energy_uj", fs::perms::owner_read);
    }
    fs::permissions(dir, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    const auto run = [this](DeniedReport& report) {
        PowercapCollector collector(Roots());
        core::HardwareTelemetryFrame frame;
        CollectContext context;
        context.generation = 1;
        const auto result = collector.Collect(context, frame, snapshot);
        report.accessDenied = result.accessDenied;
        report.ok = result.stage.ok;
        report.error = result.stage.error;
        report.metrics = frame.metrics.size();
        report.cpuPower = snapshot.cpuPowerWatts.availability;
        std::strncpy(report.message, result.stage.message.c_str(), sizeof(report.message) - 1);
    };
    DeniedReport report{};
    if (::geteuid() == 0) {
        const auto helper = test_support::RunAsNobody<DeniedReport>(run);
        ASSERT_TRUE(helper.has_value());
        ASSERT_TRUE(helper->dropped);
        report = *helper;
    } else {
        run(report);
    }
    EXPECT_TRUE(report.accessDenied);
    EXPECT_FALSE(report.ok);
    EXPECT_EQ(report.error, EACCES);
    EXPECT_EQ(report.metrics, 0u);
    EXPECT_EQ(report.cpuPower, MetricAvailability::accessDenied);
    EXPECT_STREQ(report.message, "The powercap energy counters are readable only by root, so CPU power is not shown");
}

TEST_F(PowercapTest, AMissingClassDirectoryMarksThePowerFiguresUnsupported) {
    PowercapCollector collector(ProviderRoots{dir / "proc", dir / "absent", dir / "cgroup", dir / "etc"});
    PowercapStageResult result;
    const auto frame = Sample(collector, kSecond, &result);
    EXPECT_FALSE(result.stage.ok);
    EXPECT_EQ(result.stage.error, ENOENT);
    EXPECT_EQ(result.stage.message, "This system has no powercap interface");
    EXPECT_TRUE(frame.metrics.empty());
    EXPECT_EQ(snapshot.cpuPowerWatts.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.dramPowerWatts.availability, MetricAvailability::unsupported);
}

}  // namespace
}  // namespace korv::providers
