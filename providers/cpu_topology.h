#pragma once

#include "core/snapshot_enums.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korv::providers {

// What the CPU's sysfs directories and /proc/cpuinfo say about the machine: logical processors,
// packages, cores, caches, model and flags, hybrid classes. Read once per run and cached by the
// collector; the per-tick clocks are read by the collector itself.

inline constexpr std::size_t kCpuInfoLimit = 4194304;
inline constexpr std::size_t kSysfsValueLimit = 4096;  // a sysfs attribute is at most one page

inline constexpr std::string_view kHardwareVirtualizationText = "Hardware virtualization supported";
inline constexpr std::string_view kVirtualizationNotReportedText = "Not reported by procfs";

// Kernel CPU list syntax ("0-3,8,10-11", white space and a trailing newline allowed; empty is an
// empty list). Appends sorted, distinct indices. False for a malformed list or an index above 65535.
bool ParseCpuList(std::string_view text, std::vector<std::uint32_t>& out);

// A cache size such as "32K", "512K" or "8M" in bytes; nothing for anything else.
std::optional<std::uint64_t> ParseCacheSize(std::string_view text);

struct CpuInfoSummary {
    std::string modelName;  // "model name", else "Hardware", else "Model", else "Processor"; may be empty
    bool flagsPresent = false;
    bool hardwareVirtualization = false;  // " vmx " or " svm " among the flags
    bool hypervisor = false;              // " hypervisor " among the flags: a virtual machine
    std::uint64_t nominalHz = 0;          // first "cpu MHz"; 0 when absent
    std::vector<std::pair<std::uint32_t, std::uint64_t>> processorNominalHz;  // by "processor" number

    std::string_view VirtualizationText() const noexcept {
        return hardwareVirtualization ? kHardwareVirtualizationText : kVirtualizationNotReportedText;
    }
};

CpuInfoSummary ParseCpuInfo(std::string_view text);

struct LogicalCpuTopology {
    std::uint32_t index = 0;
    std::optional<std::int64_t> packageId;  // topology/physical_package_id (-1 on some boards)
    std::optional<std::int64_t> coreId;     // topology/core_id
    std::optional<std::uint64_t> numaNode;  // from the cpuN/nodeK entry
    std::uint32_t packageOrdinal = 0;       // position of packageId among the distinct ids
    bool hasCpufreq = false;
};

struct CpuCacheTotals {
    std::optional<std::uint64_t> l1Bytes;  // data plus instruction caches
    std::optional<std::uint64_t> l2Bytes;
    std::optional<std::uint64_t> l3Bytes;
};

struct CpuTopology {
    int error = 0;  // errno of listing the cpu directory
    std::vector<LogicalCpuTopology> cpus;  // by index
    std::vector<std::int64_t> packageIds;  // distinct, ascending; a CPU without an id has ordinal 0
    // Counted over the CPUs whose topology/ can be read (an offline CPU has none); nothing when none can.
    std::optional<std::uint64_t> physicalCoreCount;  // distinct (package, core) pairs
    std::optional<std::uint64_t> socketCount;        // distinct package ids
    CpuCacheTotals caches;

    const LogicalCpuTopology* Find(std::uint32_t index) const noexcept;
};

// Reads <cpuDirectory> (normally <sys>/devices/system/cpu): every cpuN, its topology, node and
// caches. A cache counts once for each distinct shared_cpu_map within its level and type.
CpuTopology ReadCpuTopology(const std::filesystem::path& cpuDirectory);

// Hybrid classes in the order of the cpus handed in.
struct HybridClasses {
    std::vector<std::uint32_t> cpus;
    std::vector<core::ProcessorClass> classes;
    bool hybrid = false;  // some CPU is performance and some is efficiency

    core::ProcessorClass ClassOf(std::uint32_t index) const noexcept;
};

// capacities[i] belongs to cpus[i]. When every capacity is known: fewer than two distinct values
// assign no class; otherwise the highest is performance, the lowest efficiency, between unknown.
// When some is missing, the cpu_core list is performance and the cpu_atom list efficiency.
HybridClasses ClassifyHybrid(std::span<const std::uint32_t> cpus,
                             std::span<const std::optional<std::uint64_t>> capacities,
                             std::span<const std::uint32_t> coreList, std::span<const std::uint32_t> atomList);

// Computes the classes on first use and keeps them: a machine's topology does not change during a
// run. Safe to call from any thread.
class HybridClassCache {
public:
    const HybridClasses& Get(const std::filesystem::path& sysRoot, std::span<const std::uint32_t> cpus);

private:
    std::mutex mutex_;
    std::optional<HybridClasses> classes_;
};

}  // namespace korv::providers
