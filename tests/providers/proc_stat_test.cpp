#include "providers/proc_stat.h"

#include "providers/cpu_collector.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>

namespace korv::providers {
namespace {

TEST(ParseProcStat, ReadsAggregateAndPerCpuLinesUpToSteal) {
    const auto snapshot = ParseProcStat(
        "cpu  10 1 20 300 4 5 6 7 8 9\n"
        "cpu0 1 2 3 4 5 6 7 8 100 100\n"
        "cpu1 9 8 7 6\n"
        "intr 1 2 3\n"
        "cpu2 1 1 1 1\n");
    ASSERT_EQ(snapshot.error, 0);
    EXPECT_EQ(snapshot.aggregate, (ProcStatCpuCounters{10, 1, 20, 300, 4, 5, 6, 7}));
    ASSERT_EQ(snapshot.cpus.size(), 2u);  // the parse stops at "intr"
    EXPECT_EQ(*snapshot.Find(0), (ProcStatCpuCounters{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(*snapshot.Find(1), (ProcStatCpuCounters{9, 8, 7, 6, 0, 0, 0, 0}));
    EXPECT_EQ(snapshot.Find(2), nullptr);
}

TEST(ParseProcStat, SkipsLeadingLinesAndOverwritesARepeatedIndex) {
    const auto snapshot = ParseProcStat("btime 5\n\ncpu 1 1 1 1\ncpu3 1 1 1 1\ncpu1 2 2 2 2\ncpu3 9 9 9 9\n");
    ASSERT_EQ(snapshot.error, 0);
    ASSERT_EQ(snapshot.cpus.size(), 2u);
    EXPECT_EQ(snapshot.cpus[0].index, 1u);
    EXPECT_EQ(snapshot.cpus[1].index, 3u);
    EXPECT_EQ(snapshot.Find(3)->user, 9u);
}

TEST(ParseProcStat, AcceptsIndex65535) {
    const auto snapshot = ParseProcStat("cpu 1 1 1 1\ncpu65535 1 1 1 1\n");
    ASSERT_EQ(snapshot.error, 0);
    EXPECT_NE(snapshot.Find(65535), nullptr);
}

struct BadStat {
    const char* name;
    const char* text;
    int error;
};

class ParseProcStatErrors : public ::testing::TestWithParam<BadStat> {};

TEST_P(ParseProcStatErrors, GiveTheirCodeAndNoCounters) {
    const auto snapshot = ParseProcStat(GetParam().text);
    EXPECT_EQ(snapshot.error, GetParam().error);
    EXPECT_TRUE(snapshot.cpus.empty());
    EXPECT_EQ(snapshot.aggregate, ProcStatCpuCounters{});
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ParseProcStatErrors,
    ::testing::Values(BadStat{"FourTokens", "cpu 1 1 1 1\ncpu0 1 1 1\n", kProcStatMalformed},
                      BadStat{"NoAggregate", "cpu0 1 1 1 1\n", kProcStatMalformed},
                      BadStat{"Empty", "", kProcStatMalformed},
                      BadStat{"NoCpuLines", "intr 1\nctxt 2\n", kProcStatMalformed},
                      BadStat{"LetterInName", "cpu 1 1 1 1\ncpux 1 1 1 1\n", kProcStatMalformed},
                      BadStat{"SignInName", "cpu 1 1 1 1\ncpu+1 1 1 1 1\n", kProcStatMalformed},
                      BadStat{"NegativeCounter", "cpu 1 -1 1 1\n", kProcStatMalformed},
                      BadStat{"GarbageCounter", "cpu 1 1 1 1 7x\n", kProcStatMalformed},
                      BadStat{"Index65536", "cpu 1 1 1 1\ncpu65536 1 1 1 1\n", kProcStatIndexOutOfRange},
                      BadStat{"HugeIndex", "cpu 1 1 1 1\ncpu99999999999999999999999 1 1 1 1\n",
                              kProcStatIndexOutOfRange}),
    [](const auto& testInfo) { return std::string(testInfo.param.name); });

TEST(ParseProcStat, ReusedSnapshotIsClearedBetweenParses) {
    ProcStatSnapshot snapshot;
    ParseProcStat("cpu 1 1 1 1\ncpu0 1 1 1 1\ncpu1 1 1 1 1\n", snapshot);
    ASSERT_EQ(snapshot.cpus.size(), 2u);
    ParseProcStat("cpu 2 2 2 2\ncpu0 2 2 2 2\n", snapshot);
    EXPECT_EQ(snapshot.error, 0);
    EXPECT_EQ(snapshot.cpus.size(), 1u);
    ParseProcStat("cpu 2 2 2\n", snapshot);
    EXPECT_EQ(snapshot.error, kProcStatMalformed);
    EXPECT_TRUE(snapshot.cpus.empty());
}

TEST(ComputeCpuUtilization, CountsIowaitAsIdleAndKernelAsSystemIrqSoftirq) {
    const ProcStatCpuCounters before{100, 0, 50, 1000, 10, 0, 0, 0};
    // +30 user, +10 nice, +20 system, +25 idle, +5 iowait, +4 irq, +6 softirq, +0 steal = 100
    const ProcStatCpuCounters after{130, 10, 70, 1025, 15, 4, 6, 0};
    const auto delta = ComputeCpuUtilization(before, after);
    ASSERT_EQ(delta.status, CpuDeltaStatus::ok);
    EXPECT_DOUBLE_EQ(delta.busyPercent, 70.0);
    EXPECT_DOUBLE_EQ(delta.kernelPercent, 30.0);
}

TEST(ComputeCpuUtilization, StealIsBusyTime) {
    const auto delta = ComputeCpuUtilization({}, {0, 0, 0, 50, 0, 0, 0, 50});
    ASSERT_EQ(delta.status, CpuDeltaStatus::ok);
    EXPECT_DOUBLE_EQ(delta.busyPercent, 50.0);
    EXPECT_DOUBLE_EQ(delta.kernelPercent, 0.0);
}

TEST(ComputeCpuUtilization, NoTicksAndBackwardsCountersGiveNoFigure) {
    const ProcStatCpuCounters counters{5, 5, 5, 5, 5, 5, 5, 5};
    EXPECT_EQ(ComputeCpuUtilization(counters, counters).status, CpuDeltaStatus::noElapsedTicks);
    ProcStatCpuCounters wrapped = counters;
    wrapped.user = 100;
    wrapped.idle = 4;
    EXPECT_EQ(ComputeCpuUtilization(counters, wrapped).status, CpuDeltaStatus::counterWentBackwards);
}

// A /proc root of its own in the test's temp folder, removed afterwards.
class ProcTree {
public:
    ProcTree() : root_(std::filesystem::path(::testing::TempDir()) / ("korv-proc-stat-" + std::to_string(::getpid()))) {
        std::filesystem::create_directories(root_ / "proc");
    }
    ~ProcTree() { std::filesystem::remove_all(root_); }
    ProcTree(const ProcTree&) = delete;
    ProcTree& operator=(const ProcTree&) = delete;

    void WriteStat(const std::string& text) const { std::ofstream(root_ / "proc/stat") << text; }
    ProviderRoots Roots() const { return {root_ / "proc", root_ / "sys", root_ / "cgroup", root_ / "etc"}; }

private:
    std::filesystem::path root_;
};

CollectContext Tick(std::uint64_t generation) {
    CollectContext context;
    context.generation = generation;
    return context;
}

TEST(CpuCollectorProcStat, UtilisationIsTheDeltaBetweenTwoSamples) {
    ProcTree tree;
    CpuCollector collector(tree.Roots());
    tree.WriteStat("cpu  100 0 100 800 0 0 0 0\ncpu0 50 0 50 400 0 0 0 0\ncpu1 50 0 50 400 0 0 0 0\n");
    ASSERT_TRUE(collector.ReadProcStat(Tick(1)).ok);
    core::SystemSnapshot first;
    collector.FillUtilization(first, Tick(1));
    EXPECT_EQ(first.cpuUtilization.availability, core::MetricAvailability::notYetAvailable);
    ASSERT_EQ(first.logicalProcessorCount, 2u);  // no sysfs here: the list comes from /proc/stat
    EXPECT_EQ(first.logicalProcessors[1].utilization.availability, core::MetricAvailability::notYetAvailable);

    // cpu0: +75 user, +25 idle; cpu1: +10 system, +10 irq, +80 idle.
    tree.WriteStat("cpu  175 0 110 905 0 10 0 0\ncpu0 125 0 50 425 0 0 0 0\ncpu1 50 0 60 480 0 10 0 0\n");
    const CpuStageResult result = collector.ReadProcStat(Tick(2));
    ASSERT_TRUE(result.ok) << result.message;
    core::SystemSnapshot second;
    collector.FillUtilization(second, Tick(2));
    ASSERT_TRUE(second.cpuUtilization.HasValue());
    EXPECT_DOUBLE_EQ(*second.cpuUtilization.value, 47.5);
    EXPECT_DOUBLE_EQ(*second.cpuKernelUtilization.value, 10.0);
    EXPECT_EQ(second.cpuUtilization.source, "linux.cpu");
    EXPECT_EQ(second.cpuUtilization.lastGoodGeneration, 2u);
    ASSERT_EQ(second.logicalProcessors.size(), 2u);
    EXPECT_DOUBLE_EQ(*second.logicalProcessors[0].utilization.value, 75.0);
    EXPECT_EQ(second.logicalProcessors[0].kernelUtilization.availability, core::MetricAvailability::zero);
    EXPECT_DOUBLE_EQ(*second.logicalProcessors[1].utilization.value, 20.0);
    EXPECT_DOUBLE_EQ(*second.logicalProcessors[1].kernelUtilization.value, 20.0);

    // Counters that went backwards (a CPU was re-plugged) give no figure and become the baseline.
    tree.WriteStat("cpu  175 0 110 905 0 10 0 0\ncpu0 10 0 0 10 0 0 0 0\ncpu1 50 0 60 480 0 10 0 0\n");
    ASSERT_TRUE(collector.ReadProcStat(Tick(3)).ok);
    core::SystemSnapshot third;
    collector.FillUtilization(third, Tick(3));
    EXPECT_EQ(third.logicalProcessors[0].utilization.availability, core::MetricAvailability::notYetAvailable);
    EXPECT_EQ(third.cpuUtilization.availability, core::MetricAvailability::notYetAvailable);  // no ticks passed
    tree.WriteStat("cpu  185 0 110 915 0 10 0 0\ncpu0 20 0 0 20 0 0 0 0\ncpu1 50 0 60 480 0 10 0 0\n");
    ASSERT_TRUE(collector.ReadProcStat(Tick(4)).ok);
    core::SystemSnapshot fourth;
    collector.FillUtilization(fourth, Tick(4));
    EXPECT_DOUBLE_EQ(*fourth.logicalProcessors[0].utilization.value, 50.0);
}

TEST(CpuCollectorProcStat, ResetAndFailedReadsLeaveUtilisationUnavailable) {
    ProcTree tree;
    CpuCollector collector(tree.Roots());
    tree.WriteStat("cpu  100 0 0 100 0 0 0 0\ncpu0 100 0 0 100 0 0 0 0\n");
    ASSERT_TRUE(collector.ReadProcStat(Tick(1)).ok);
    collector.ResetBaselines();
    tree.WriteStat("cpu  200 0 0 200 0 0 0 0\ncpu0 200 0 0 200 0 0 0 0\n");
    ASSERT_TRUE(collector.ReadProcStat(Tick(2)).ok);
    core::SystemSnapshot afterReset;
    collector.FillUtilization(afterReset, Tick(2));
    EXPECT_EQ(afterReset.cpuUtilization.availability, core::MetricAvailability::notYetAvailable);

    // A malformed file fails this tick only; the last good counters stay the baseline.
    tree.WriteStat("cpu  1 1 1\n");
    EXPECT_FALSE(collector.ReadProcStat(Tick(3)).ok);
    core::SystemSnapshot failed;
    collector.FillUtilization(failed, Tick(3));
    EXPECT_EQ(failed.cpuUtilization.availability, core::MetricAvailability::notYetAvailable);
    tree.WriteStat("cpu  300 0 0 300 0 0 0 0\ncpu0 300 0 0 300 0 0 0 0\n");
    ASSERT_TRUE(collector.ReadProcStat(Tick(4)).ok);
    core::SystemSnapshot recovered;
    collector.FillUtilization(recovered, Tick(4));
    EXPECT_DOUBLE_EQ(*recovered.cpuUtilization.value, 50.0);

    CollectContext reset = Tick(5);
    reset.resetBaselines = true;
    ASSERT_TRUE(collector.ReadProcStat(reset).ok);
    core::SystemSnapshot flagged;
    collector.FillUtilization(flagged, reset);
    EXPECT_EQ(flagged.cpuUtilization.availability, core::MetricAvailability::notYetAvailable);
}

struct StageCase {
    const char* fixture;
    int error;
    const char* message;  // the text behind the file's path
};

class CpuCollectorStageErrors : public ::testing::TestWithParam<StageCase> {};

TEST_P(CpuCollectorStageErrors, ReportCodeAndSentence) {
    const std::filesystem::path proc = std::filesystem::path(KORV_TEST_FIXTURES) / GetParam().fixture / "proc";
    CpuCollector collector(ProviderRoots{proc, "/nonexistent-sys", "/nonexistent", "/nonexistent"});
    const CpuStageResult result = collector.ReadProcStat(Tick(1));
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error, GetParam().error);
    EXPECT_EQ(result.message, (proc / "stat").string() + GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, CpuCollectorStageErrors,
    ::testing::Values(
        StageCase{"cpu/stat_four_counters", kProcStatMalformed,
                  " is malformed: a cpu line needs a cpu name and at least four counters"},
        StageCase{"cpu/stat_index_65536", kProcStatIndexOutOfRange, " names a logical processor above index 65535"},
        StageCase{"cpu/no_such_tree", ENOENT, " could not be read: No such file or directory"}));

std::size_t CountCpuDirectories() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/devices/system/cpu")) {
        const std::string name = entry.path().filename().string();
        if (name.size() > 3 && name.starts_with("cpu") && name.find_first_not_of("0123456789", 3) == std::string::npos) {
            ++count;
        }
    }
    return count;
}

TEST(CpuCollectorLive, ThisMachineGivesPlausibleFigures) {
    CpuCollector collector{ProviderRoots{}};
    const CpuStageResult first = collector.ReadProcStat(Tick(1));
    ASSERT_TRUE(first.ok) << first.message;
    EXPECT_EQ(first.message, "procfs aggregate and per-logical-processor counters collected");

    core::SystemSnapshot snapshot;
    // The kernel counts in clock ticks: wait, with a generous bound, until one has passed.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::uint64_t generation = 1;
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ASSERT_TRUE(collector.ReadProcStat(Tick(++generation)).ok);
        snapshot = core::SystemSnapshot{};
        collector.FillMetadata(snapshot, Tick(generation));
        collector.FillUtilization(snapshot, Tick(generation));
    } while (!snapshot.cpuUtilization.HasValue() && std::chrono::steady_clock::now() < deadline);

    ASSERT_TRUE(snapshot.cpuUtilization.HasValue());
    EXPECT_GE(*snapshot.cpuUtilization.value, 0.0);
    EXPECT_LE(*snapshot.cpuUtilization.value, 100.0);
    EXPECT_LE(*snapshot.cpuKernelUtilization.value, *snapshot.cpuUtilization.value);

    const long configured = ::sysconf(_SC_NPROCESSORS_CONF);
    const std::size_t directories = CountCpuDirectories();
    EXPECT_TRUE(snapshot.logicalProcessorCount == static_cast<std::uint32_t>(configured) ||
                snapshot.logicalProcessorCount == directories)
        << snapshot.logicalProcessorCount << " vs " << configured << " and " << directories;
    EXPECT_EQ(snapshot.logicalProcessors.size(), snapshot.logicalProcessorCount);
    for (const auto& processor : snapshot.logicalProcessors) {
        if (processor.utilization.HasValue()) {
            EXPECT_LE(*processor.utilization.value, 100.0);
            EXPECT_LE(*processor.kernelUtilization.value, *processor.utilization.value);
        }
        if (processor.frequencyHz.HasValue()) {
            EXPECT_GT(*processor.frequencyHz.value, 10'000'000u);       // 10 MHz
            EXPECT_LT(*processor.frequencyHz.value, 10'000'000'000u);  // 10 GHz
        }
    }
    ASSERT_TRUE(snapshot.cpuModel.HasValue());
    EXPECT_FALSE(snapshot.cpuModel.value->empty());
    ASSERT_TRUE(snapshot.physicalCoreCount.HasValue());
    EXPECT_GE(*snapshot.physicalCoreCount.value, 1u);
    EXPECT_LE(*snapshot.physicalCoreCount.value, snapshot.logicalProcessorCount);
}

}  // namespace
}  // namespace korv::providers
