#include "providers/memory_collector.h"

#include "core/saturating.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <unistd.h>

namespace korv::providers {
namespace {

using core::MetricAvailability;

const std::filesystem::path kFixtures = std::filesystem::path(KORV_TEST_FIXTURES) / "memory";
constexpr std::uint64_t KiB = 1024;

CollectContext Tick(std::uint64_t generation) {
    CollectContext context;
    context.generation = generation;
    return context;
}

core::SystemSnapshot FillFrom(const std::filesystem::path& proc, MemoryStageResult* result = nullptr) {
    MemoryCollector collector(ProviderRoots{proc, "/nonexistent", "/nonexistent", "/nonexistent"});
    core::SystemSnapshot snapshot;
    const MemoryStageResult stage = collector.Fill(snapshot, Tick(7));
    if (result != nullptr) *result = stage;
    return snapshot;
}

TEST(ParseMeminfo, ReadsKeysAndKeepsOverlongNumbersAtTheMaximum) {
    const auto fields = ParseMeminfo(
        "MemTotal:       16 kB\nMemTotalX: 5 kB\nSlab: 123456789012345678901234 kB\nCached: x kB\nHugePages_Total: 4\n");
    EXPECT_TRUE(fields.memTotal.present);
    EXPECT_EQ(fields.memTotal.kib, 16u);
    EXPECT_EQ(fields.slab.kib, std::numeric_limits<std::uint64_t>::max());
    EXPECT_FALSE(fields.cached.present);
    EXPECT_FALSE(fields.zswap.present);
}

TEST(ParsePsiSomeAvg10, TakesTheFigureBehindAvg10OnTheSomeLine) {
    EXPECT_EQ(ParsePsiSomeAvg10("some avg10=12.50 avg60=1 avg300=0 total=5\nfull avg10=3.00\n"), 12.5);
    EXPECT_EQ(ParsePsiSomeAvg10("full avg10=3.00 total=1\nsome avg10=0.25\n"), 0.25);
    EXPECT_EQ(ParsePsiSomeAvg10("some avg60=1.0\n"), std::nullopt);
    EXPECT_EQ(ParsePsiSomeAvg10("some avg10=abc avg60=1\n"), std::nullopt);
    EXPECT_EQ(ParsePsiSomeAvg10("full avg10=3.00\n"), std::nullopt);
}

TEST(ParseVmstatSwap, FindsBothCounters) {
    const auto swap = ParseVmstatSwap("pswpin_x 9\npswpin 12\npgfault 3\npswpout 0\n");
    EXPECT_EQ(swap.pswpin, 12u);
    EXPECT_EQ(swap.pswpout, 0u);
    EXPECT_EQ(ParseVmstatSwap("pgfault 3\n").pswpin, std::nullopt);
}

TEST(MemoryCollector, FillsTheTableFromATypicalMachine) {
    MemoryStageResult result;
    const auto snapshot = FillFrom(kFixtures / "typical/proc", &result);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.message, "procfs meminfo collected");

    EXPECT_EQ(snapshot.memoryTotalBytes.value, 16000000 * KiB);
    EXPECT_EQ(snapshot.memoryAvailableBytes.value, 6000000 * KiB);
    EXPECT_EQ(snapshot.memoryInUseBytes.value, 10000000 * KiB);
    EXPECT_EQ(snapshot.memoryFreeBytes.value, 2000000 * KiB);
    EXPECT_EQ(snapshot.memoryCachedBytes.value, (100000 + 400000 + 3000000) * KiB);
    EXPECT_EQ(snapshot.memoryCompressedBytes.value, 12000 * KiB);
    EXPECT_EQ(snapshot.memorySharedBytesTotal.value, 250000 * KiB);
    EXPECT_EQ(snapshot.memorySharedBytes.value, 250000 * KiB);
    EXPECT_EQ(snapshot.memoryAnonymousBytes.value, 5000000 * KiB);
    EXPECT_EQ(snapshot.swapTotalBytes.value, 4000000 * KiB);
    EXPECT_EQ(snapshot.swapUsedBytes.value, 1000000 * KiB);
    EXPECT_EQ(snapshot.memoryCommitLimitBytes.value, 12000000 * KiB);
    EXPECT_EQ(snapshot.memoryCommittedBytes.availability, MetricAvailability::zero);
    EXPECT_EQ(snapshot.memoryCommittedBytes.value, 0u);
    EXPECT_EQ(snapshot.memoryBuffersBytes.value, 100000 * KiB);
    EXPECT_EQ(snapshot.memoryKernelSlabBytes.value, 600000 * KiB);
    EXPECT_DOUBLE_EQ(*snapshot.memoryPressurePercent.value, 62.5);
    EXPECT_EQ(snapshot.memoryTotalBytes.source, "linux.procfs.meminfo");
    EXPECT_EQ(snapshot.memoryTotalBytes.lastGoodGeneration, 7u);

    EXPECT_DOUBLE_EQ(*snapshot.memoryPsiSomeAvg10.value, 1.25);
    EXPECT_EQ(snapshot.memoryPsiSomeAvg10.source, "linux.psi.memory");
    EXPECT_EQ(snapshot.pageIns.availability, MetricAvailability::zero);
    EXPECT_EQ(snapshot.pageOuts.value, 4096u);

    EXPECT_EQ(snapshot.memorySpeed.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.memoryType.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.memorySlotsTotal.source, "linux.memory.hardware");
}

TEST(MemoryCollector, SeventeenDigitKilobytesSaturateAndMissingFilesAreUnsupported) {
    MemoryStageResult result;
    const auto snapshot = FillFrom(kFixtures / "saturated/proc", &result);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(snapshot.memoryTotalBytes.availability, MetricAvailability::transientError);
    EXPECT_FALSE(snapshot.memoryTotalBytes.HasValue());
    EXPECT_EQ(snapshot.memoryInUseBytes.availability, MetricAvailability::transientError);
    EXPECT_EQ(snapshot.memoryPressurePercent.availability, MetricAvailability::transientError);
    EXPECT_EQ(core::KibToBytes(99999999999999999ULL).bytes, 18446744073709551615ULL);

    EXPECT_EQ(snapshot.memoryAvailableBytes.value, 500000 * KiB);
    EXPECT_EQ(snapshot.memoryCompressedBytes.availability, MetricAvailability::notApplicable);
    EXPECT_EQ(snapshot.memoryKernelSlabBytes.value, 50000 * KiB);  // SUnreclaim + SReclaimable
    EXPECT_EQ(snapshot.memoryBuffersBytes.availability, MetricAvailability::zero);
    EXPECT_EQ(snapshot.swapUsedBytes.availability, MetricAvailability::zero);
    EXPECT_EQ(snapshot.memoryPsiSomeAvg10.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.pageIns.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.pageOuts.availability, MetricAvailability::unsupported);
}

TEST(MemoryCollector, ReportsAMissingMeminfo) {
    MemoryStageResult result;
    const auto proc = kFixtures / "absent/proc";
    const auto snapshot = FillFrom(proc, &result);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error, ENOENT);
    EXPECT_EQ(result.message, (proc / "meminfo").string() + " could not be read: No such file or directory");
    EXPECT_EQ(snapshot.memoryTotalBytes.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(snapshot.memorySpeed.availability, MetricAvailability::unsupported);
}

TEST(MemoryCollector, ReportsAMeminfoWithoutTotal) {
    const auto root = std::filesystem::path(::testing::TempDir()) / ("korv-meminfo-no-total-" + std::to_string(::getpid()));
    std::filesystem::create_directories(root);
    { std::ofstream(root / "meminfo") << "MemFree: 5 kB\n"; }
    MemoryStageResult result;
    const auto snapshot = FillFrom(root, &result);
    std::filesystem::remove_all(root);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error, kMeminfoMalformed);
    EXPECT_EQ(result.message, (root / "meminfo").string() + " has no MemTotal line");
    EXPECT_EQ(snapshot.memoryFreeBytes.value, 5 * KiB);
    EXPECT_EQ(snapshot.memoryTotalBytes.availability, MetricAvailability::unsupported);
}

TEST(MemoryCollectorLive, ThisMachineGivesPlausibleFigures) {
    MemoryStageResult result;
    const auto snapshot = FillFrom("/proc", &result);
    ASSERT_TRUE(result.ok) << result.message;
    ASSERT_TRUE(snapshot.memoryTotalBytes.HasValue());
    ASSERT_TRUE(snapshot.memoryAvailableBytes.HasValue());
    EXPECT_GT(*snapshot.memoryTotalBytes.value, 64u * 1024 * 1024);
    EXPECT_LE(*snapshot.memoryAvailableBytes.value, *snapshot.memoryTotalBytes.value);
    EXPECT_EQ(*snapshot.memoryInUseBytes.value, *snapshot.memoryTotalBytes.value - *snapshot.memoryAvailableBytes.value);
    EXPECT_GE(*snapshot.memoryPressurePercent.value, 0.0);
    EXPECT_LE(*snapshot.memoryPressurePercent.value, 100.0);
    EXPECT_TRUE(snapshot.pageIns.HasValue() || snapshot.pageIns.availability == MetricAvailability::unsupported);
}

}  // namespace
}  // namespace korv::providers
