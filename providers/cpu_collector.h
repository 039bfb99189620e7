#pragma once

#include "core/metric.h"
#include "core/snapshot.h"
#include "core/telemetry_frame.h"
#include "providers/cpu_topology.h"
#include "providers/proc_stat.h"
#include "providers/provider_context.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korv::providers {

struct CpuStageResult {
    bool ok = false;
    std::string message;  // shown as it stands in the provider health row
    int error = 0;        // errno of the read, or kProcStatMalformed / kProcStatIndexOutOfRange
    std::uint64_t durationNs = 0;
};

// The CPU part of the snapshot: /proc/stat counters and their deltas, sysfs topology, cpufreq
// clocks and policy, /proc/cpuinfo model and flags. One Collect thread calls it, in the order
// ReadProcStat, FillMetadata, FillUtilization, AppendTelemetry. Static facts (topology, caches,
// model, hybrid classes) are read on first use and kept; clocks and policy are read every tick.
class CpuCollector {
public:
    explicit CpuCollector(ProviderRoots roots);

    // Forgets the previous /proc/stat counters: the next sample has no utilisation.
    void ResetBaselines();

    // Reads <proc>/stat and keeps the previous counters. A failed read keeps the last good
    // counters as the baseline and leaves this tick's utilisation notYetAvailable.
    CpuStageResult ReadProcStat(const CollectContext& context);

    // Model, topology, clocks, caches, virtualisation, driver, governor, preference, cpuHybrid.
    void FillMetadata(core::SystemSnapshot& snapshot, const CollectContext& context);

    // Utilisation of the machine and of each logical processor, with class, NUMA node and clock;
    // sets logicalProcessorCount to the size of the list.
    void FillUtilization(core::SystemSnapshot& snapshot, const CollectContext& context);

    // The cpufreq clock of each logical processor and the policy values of each package. Adds a
    // device the frame lacks, else adds its properties to the existing one. Reads no files.
    void AppendTelemetry(core::HardwareTelemetryFrame& frame, const core::SystemSnapshot& snapshot) const;

private:
    struct FrequencyReading {
        std::uint32_t index = 0;
        std::uint64_t hz = 0;
        core::MetricAvailability availability = core::MetricAvailability::notYetAvailable;
        bool nominal = false;  // /proc/cpuinfo's figure, for CPUs without cpufreq
    };
    struct PackagePolicy {
        std::uint32_t firstCpu = 0;
        std::uint32_t logicalCount = 0;
        core::Metric<std::uint64_t> minimumHz;
        core::Metric<std::uint64_t> maximumHz;
        core::Metric<std::uint64_t> energyPerfBias;
    };

    void EnsureStaticFacts();
    int ReadCpuValue(std::uint32_t cpu, const char* leaf);
    void ReadStringValue(std::uint32_t cpu, const char* leaf, core::Metric<std::string>& metric,
                         std::uint64_t generation);
    void ReadPolicies(std::uint64_t generation);
    void FillFrequencies(core::SystemSnapshot& snapshot, std::uint64_t generation);
    const std::vector<std::uint32_t>& LogicalCpuList();

    ProviderRoots roots_;
    std::string cpuDirectory_;  // <sys>/devices/system/cpu
    std::string statPath_;

    std::string buffer_;
    std::string pathBuffer_;
    ProcStatSnapshot scratch_;
    ProcStatSnapshot current_;
    ProcStatSnapshot previous_;
    bool haveCurrent_ = false;
    bool havePrevious_ = false;
    bool statOk_ = false;  // this tick's read
    std::uint64_t statDurationNs_ = 0;

    std::optional<CpuTopology> topology_;
    std::optional<CpuInfoSummary> cpuInfo_;
    int cpuInfoError_ = 0;
    HybridClassCache hybrid_;

    std::vector<std::uint32_t> cpuList_;
    std::vector<FrequencyReading> frequencies_;
    std::vector<PackagePolicy> policies_;
};

}  // namespace korv::providers
