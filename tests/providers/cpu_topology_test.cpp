#include "providers/cpu_topology.h"

#include "providers/cpu_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>
#include <unistd.h>

namespace korv::providers {
namespace {

using core::MetricAvailability;
using core::ProcessorClass;
using ::testing::ElementsAre;

const std::filesystem::path kFixtures = std::filesystem::path(KORV_TEST_FIXTURES) / "cpu";

ProviderRoots FixtureRoots(const std::string& machine) {
    return {kFixtures / machine / "proc", kFixtures / machine / "sys", "/nonexistent", "/nonexistent"};
}

CollectContext Tick(std::uint64_t generation) {
    CollectContext context;
    context.generation = generation;
    return context;
}

TEST(ParseCpuList, ReadsRangesAndSingles) {
    std::vector<std::uint32_t> cpus;
    ASSERT_TRUE(ParseCpuList("0-3,8,10-11\n", cpus));
    EXPECT_THAT(cpus, ElementsAre(0, 1, 2, 3, 8, 10, 11));
    cpus.clear();
    ASSERT_TRUE(ParseCpuList("\n", cpus));
    EXPECT_TRUE(cpus.empty());
    ASSERT_TRUE(ParseCpuList("5,1-2,2", cpus));
    EXPECT_THAT(cpus, ElementsAre(1, 2, 5));
}

TEST(ParseCpuList, RefusesMalformedLists) {
    for (const char* text : {"3-1", "1,", ",1", "a", "1-", "-1", "0-65536", "1--2", "1;2"}) {
        std::vector<std::uint32_t> cpus;
        EXPECT_FALSE(ParseCpuList(text, cpus)) << text;
    }
}

TEST(ParseCacheSize, ScalesSuffixes) {
    EXPECT_EQ(ParseCacheSize("32K\n"), 32768u);
    EXPECT_EQ(ParseCacheSize("8M"), 8388608u);
    EXPECT_EQ(ParseCacheSize("512"), 512u);
    EXPECT_EQ(ParseCacheSize("K"), std::nullopt);
    EXPECT_EQ(ParseCacheSize("12Q"), std::nullopt);
}

TEST(ParseCpuInfo, PrefersModelNameThenHardwareModelProcessor) {
    EXPECT_EQ(ParseCpuInfo("Processor\t: ARMv7\nModel\t: Pi 4\nHardware\t: BCM2835\n").modelName, "BCM2835");
    EXPECT_EQ(ParseCpuInfo("Processor\t: ARMv7\nModel\t: Pi 4\n").modelName, "Pi 4");
    EXPECT_EQ(ParseCpuInfo("processor\t: 0\nProcessor\t: ARMv7\n").modelName, "ARMv7");
    EXPECT_EQ(ParseCpuInfo("Hardware : X\nmodel name\t: First\nmodel name\t: Second\n").modelName, "First");
    EXPECT_EQ(ParseCpuInfo("processor\t: 0\n").modelName, "");
}

TEST(ParseCpuInfo, ReadsVirtualisationFlagsAsWholeWords) {
    const auto host = ParseCpuInfo("flags\t\t: fpu vmx sse\n");
    EXPECT_EQ(host.VirtualizationText(), "Hardware virtualization supported");
    EXPECT_FALSE(host.hypervisor);
    EXPECT_TRUE(ParseCpuInfo("flags : svm\n").hardwareVirtualization);
    const auto guest = ParseCpuInfo("flags\t\t: fpu svm_lock hypervisor\n");
    EXPECT_EQ(guest.VirtualizationText(), "Not reported by procfs");
    EXPECT_TRUE(guest.hypervisor);
    EXPECT_FALSE(ParseCpuInfo("flags : hypervisorx\n").hypervisor);
    EXPECT_FALSE(ParseCpuInfo("model name : X\n").flagsPresent);
}

TEST(ParseCpuInfo, ReadsNominalClockPerProcessor) {
    const auto info = ParseCpuInfo("processor : 1\ncpu MHz : 2445.5\n\nprocessor : 0\ncpu MHz\t\t: 1000.000\n");
    EXPECT_EQ(info.nominalHz, 2445500000u);
    ASSERT_EQ(info.processorNominalHz.size(), 2u);
    EXPECT_EQ(info.processorNominalHz[0], std::make_pair(0u, std::uint64_t{1000000000}));
}

TEST(ClassifyHybrid, FollowsCapacitiesWhenAllAreKnown) {
    const std::vector<std::uint32_t> cpus{0, 1, 2, 3};
    const std::vector<std::optional<std::uint64_t>> capacities{1024, 700, 512, 1024};
    const auto classes = ClassifyHybrid(cpus, capacities, {}, {});
    EXPECT_TRUE(classes.hybrid);
    EXPECT_THAT(classes.classes, ElementsAre(ProcessorClass::performance, ProcessorClass::unknown,
                                             ProcessorClass::efficiency, ProcessorClass::performance));
}

TEST(ClassifyHybrid, OneCapacityValueMeansNoClassesEvenWithLists) {
    const std::vector<std::uint32_t> cpus{0, 1};
    const std::vector<std::optional<std::uint64_t>> capacities{1024, 1024};
    const std::vector<std::uint32_t> core{0};
    const std::vector<std::uint32_t> atom{1};
    const auto classes = ClassifyHybrid(cpus, capacities, core, atom);
    EXPECT_FALSE(classes.hybrid);
    EXPECT_THAT(classes.classes, ElementsAre(ProcessorClass::unknown, ProcessorClass::unknown));
}

TEST(ClassifyHybrid, FallsBackToEventSourceListsWhenACapacityIsMissing) {
    const std::vector<std::uint32_t> cpus{3, 0, 1, 2};
    const std::vector<std::optional<std::uint64_t>> capacities{1024, std::nullopt, 512, 512};
    const std::vector<std::uint32_t> core{0, 1};
    const std::vector<std::uint32_t> atom{2, 3};
    const auto classes = ClassifyHybrid(cpus, capacities, core, atom);
    EXPECT_TRUE(classes.hybrid);
    EXPECT_EQ(classes.ClassOf(0), ProcessorClass::performance);
    EXPECT_EQ(classes.ClassOf(3), ProcessorClass::efficiency);
    EXPECT_EQ(classes.ClassOf(9), ProcessorClass::unknown);
    EXPECT_FALSE(ClassifyHybrid(cpus, capacities, core, {}).hybrid);
}

TEST(HybridClassCache, ComputesOnceForTheRun) {
    const std::filesystem::path root =
        std::filesystem::path(::testing::TempDir()) / ("korv-hybrid-" + std::to_string(::getpid()));
    const std::filesystem::path cpuDir = root / "devices/system/cpu";
    const auto write = [&](int cpu, int capacity) {
        std::filesystem::create_directories(cpuDir / ("cpu" + std::to_string(cpu)));
        std::ofstream(cpuDir / ("cpu" + std::to_string(cpu)) / "cpu_capacity") << capacity << "\n";
    };
    write(0, 1024);
    write(1, 400);
    HybridClassCache cache;
    const std::vector<std::uint32_t> cpus{0, 1};
    EXPECT_TRUE(cache.Get(root, cpus).hybrid);
    write(1, 1024);
    EXPECT_EQ(cache.Get(root, cpus).ClassOf(1), ProcessorClass::efficiency);
    EXPECT_FALSE(HybridClassCache{}.Get(root, cpus).hybrid);
    std::filesystem::remove_all(root);
}

TEST(ReadCpuTopology, CountsCoresPackagesAndDistinctCaches) {
    const auto hybrid = ReadCpuTopology(kFixtures / "hybrid/sys/devices/system/cpu");
    ASSERT_EQ(hybrid.error, 0);
    ASSERT_EQ(hybrid.cpus.size(), 4u);
    EXPECT_EQ(hybrid.physicalCoreCount, 3u);  // cpu0 and cpu1 are threads of one core
    EXPECT_EQ(hybrid.socketCount, 1u);
    EXPECT_EQ(hybrid.caches.l1Bytes, (48 + 32 + 32 + 32 + 64 + 64) * 1024u);
    EXPECT_EQ(hybrid.caches.l2Bytes, (1280 + 2048) * 1024u);
    EXPECT_EQ(hybrid.caches.l3Bytes, 18432 * 1024u);
    EXPECT_EQ(hybrid.Find(2)->numaNode, 0u);
    EXPECT_TRUE(hybrid.Find(2)->hasCpufreq);

    const auto vm = ReadCpuTopology(kFixtures / "vm/sys/devices/system/cpu");
    EXPECT_EQ(vm.caches.l1Bytes, 128 * 1024u);
    EXPECT_EQ(vm.caches.l3Bytes, 32768 * 1024u);
    EXPECT_FALSE(vm.Find(0)->hasCpufreq);

    EXPECT_NE(ReadCpuTopology(kFixtures / "missing").error, 0);
}

// An offline CPU keeps its cpuN directory but loses topology/: the counts are of the CPUs that tell.
TEST(CpuCollectorMetadata, OfflineCpusLeaveTheCountsOfTheOthers) {
    const struct {
        std::vector<std::string> offline;
        std::optional<std::uint64_t> cores;
        std::optional<std::uint64_t> sockets;
    } cases[] = {
        {{}, 3, 1},
        {{"cpu1"}, 3, 1},               // the other thread of core 0 is still there
        {{"cpu2", "cpu3"}, 1, 1},       // cpu0 and cpu1 are threads of one core
        {{"cpu0", "cpu1", "cpu2", "cpu3"}, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.offline));
        const std::filesystem::path root =
            std::filesystem::path(::testing::TempDir()) / ("korv-offline-cpus-" + std::to_string(::getpid()));
        std::filesystem::remove_all(root);
        std::filesystem::copy(kFixtures / "hybrid", root, std::filesystem::copy_options::recursive);
        for (const auto& cpu : c.offline) std::filesystem::remove_all(root / "sys/devices/system/cpu" / cpu / "topology");

        CpuCollector collector({root / "proc", root / "sys", "/nonexistent", "/nonexistent"});
        core::SystemSnapshot snapshot;
        collector.FillMetadata(snapshot, Tick(2));
        std::filesystem::remove_all(root);

        EXPECT_EQ(snapshot.physicalCoreCount.value, c.cores);
        EXPECT_EQ(snapshot.socketCount.value, c.sockets);
        const auto expected = c.cores ? MetricAvailability::valid : MetricAvailability::unsupported;
        EXPECT_EQ(snapshot.physicalCoreCount.availability, expected);
        EXPECT_EQ(snapshot.socketCount.availability, expected);
    }
}

TEST(CpuCollectorMetadata, HybridLaptopFromFixture) {
    CpuCollector collector(FixtureRoots("hybrid"));
    ASSERT_TRUE(collector.ReadProcStat(Tick(3)).ok);
    core::SystemSnapshot snapshot;
    collector.FillMetadata(snapshot, Tick(3));
    collector.FillUtilization(snapshot, Tick(3));

    EXPECT_EQ(snapshot.cpuModel.value, "12th Gen Intel(R) Core(TM) i7-1260P");
    EXPECT_EQ(snapshot.virtualization.value, "Hardware virtualization supported");
    EXPECT_EQ(snapshot.virtualMachine.value, false);
    EXPECT_EQ(snapshot.cpuHybrid.value, true);
    EXPECT_EQ(snapshot.cpuFrequencyHz.value, 2'000'000'000u);  // mean of the four scaling_cur_freq
    EXPECT_EQ(snapshot.cpuFrequencyHz.source, "linux.cpu.cpufreq");
    EXPECT_EQ(snapshot.cpuBaseFrequencyHz.value, 2'100'000'000u);
    EXPECT_EQ(snapshot.frequencyDriver.value, "intel_pstate");
    EXPECT_EQ(snapshot.frequencyGovernor.value, "powersave");
    EXPECT_EQ(snapshot.powerPreference.value, "balance_performance");
    EXPECT_EQ(snapshot.cacheL3Bytes.source, "linux.cpu.metadata");
    EXPECT_EQ(snapshot.cacheL3Bytes.lastGoodGeneration, 3u);

    ASSERT_EQ(snapshot.logicalProcessorCount, 4u);
    EXPECT_EQ(snapshot.logicalProcessors[0].processorClass, ProcessorClass::performance);
    EXPECT_EQ(snapshot.logicalProcessors[3].processorClass, ProcessorClass::efficiency);
    EXPECT_EQ(snapshot.logicalProcessors[1].frequencyHz.value, 2'500'000'000u);
    EXPECT_EQ(snapshot.logicalProcessors[2].numaNode.value, 0u);

    core::HardwareTelemetryFrame frame;
    frame.devices.push_back({"cpu:package:0", core::TelemetryDeviceKind::cpuPackage, "CPU package", "", "", {}});
    collector.AppendTelemetry(frame, snapshot);
    EXPECT_TRUE(core::IsValid(frame));
    ASSERT_EQ(frame.devices.size(), 5u);  // the existing package and four logical processors
    EXPECT_EQ(frame.devices[0].displayName, "CPU package");
    EXPECT_THAT(frame.devices[0].properties,
                ::testing::IsSupersetOf({std::pair<std::string, std::string>{"frequencyDriver", "intel_pstate"},
                                         {"logicalProcessorCount", "4"},
                                         {"virtualMachine", "false"}}));

    const auto* clock = frame.Find("cpu.logical.3.frequency.reported_hz", "cpu:logical:3");
    ASSERT_NE(clock, nullptr);
    EXPECT_EQ(clock->displayName, "CPU 3 Clock");
    EXPECT_EQ(clock->numericValue, 1.6e9);
    const auto* logical = frame.FindDevice("cpu:logical:3");
    EXPECT_THAT(logical->properties,
                ::testing::IsSupersetOf({std::pair<std::string, std::string>{"description", "Linux logical processor"},
                                         {"processorClass", "efficiency"},
                                         {"physicalPackageId", "0"},
                                         {"numaNode", "0"}}));

    EXPECT_EQ(frame.Find("cpu.policy.maximum_frequency_hz", "cpu:package:0")->numericValue, 4.7e9);
    EXPECT_EQ(frame.Find("cpu.policy.minimum_frequency_hz")->displayName, "Minimum requested clock");
    const auto* bias = frame.Find("cpu.policy.energy_performance_bias", "cpu:package:0");
    EXPECT_EQ(bias->numericValue, 6.0);
    EXPECT_EQ(bias->sourceName, (kFixtures / "hybrid/sys/devices/system/cpu").string() +
                                    "/cpu0/power/energy_perf_bias; 0 is performance, 15 is energy saving");

    const std::size_t metrics = frame.metrics.size();
    collector.AppendTelemetry(frame, snapshot);  // a second pass updates in place
    EXPECT_EQ(frame.metrics.size(), metrics);
}

TEST(CpuCollectorMetadata, EqualCapacitiesAreNotHybridDespiteEventLists) {
    CpuCollector collector(FixtureRoots("equal_capacity"));
    core::SystemSnapshot snapshot;
    collector.FillMetadata(snapshot, Tick(1));
    collector.FillUtilization(snapshot, Tick(1));
    EXPECT_EQ(snapshot.cpuHybrid.value, false);
    for (const auto& processor : snapshot.logicalProcessors) {
        EXPECT_EQ(processor.processorClass, ProcessorClass::unknown);
    }
    EXPECT_EQ(snapshot.cpuFrequencyHz.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.frequencyDriver.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.virtualization.value, "Not reported by procfs");
}

TEST(CpuCollectorMetadata, VirtualMachineWithoutCpufreqUsesNominalClock) {
    CpuCollector collector(FixtureRoots("vm"));
    core::SystemSnapshot snapshot;
    collector.FillMetadata(snapshot, Tick(1));
    collector.FillUtilization(snapshot, Tick(1));
    EXPECT_EQ(snapshot.virtualMachine.value, true);
    EXPECT_EQ(snapshot.cpuFrequencyHz.value, 2'445'430'000u);
    EXPECT_EQ(snapshot.cpuFrequencyHz.source, "linux.cpu.procfs.nominal");
    EXPECT_EQ(snapshot.cpuBaseFrequencyHz.source, "linux.cpu.procfs.nominal");
    ASSERT_EQ(snapshot.logicalProcessors.size(), 2u);
    EXPECT_EQ(snapshot.logicalProcessors[1].frequencyHz.value, 2'445'500'000u);
    EXPECT_EQ(snapshot.logicalProcessors[1].frequencyHz.quality, core::MetricQuality::fallback);
    EXPECT_EQ(snapshot.powerPreference.availability, MetricAvailability::unsupported);

    core::HardwareTelemetryFrame frame;
    collector.AppendTelemetry(frame, snapshot);
    EXPECT_TRUE(core::IsValid(frame));
    const auto* package = frame.FindDevice("cpu:package:0");
    ASSERT_NE(package, nullptr);
    EXPECT_EQ(package->displayName, "CPU Package 0 (system totals)");
    EXPECT_EQ(frame.Find("cpu.policy.minimum_frequency_hz")->availability, MetricAvailability::unsupported);
    EXPECT_EQ(frame.Find("cpu.logical.1.frequency.reported_hz")->numericValue, 2.4455e9);
}

}  // namespace
}  // namespace korv::providers
