#pragma once

#include "core/snapshot.h"
#include "providers/provider_context.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korv::providers {

inline constexpr std::size_t kMeminfoLimit = 1048576;
inline constexpr std::size_t kVmstatLimit = 4194304;
inline constexpr std::size_t kPressureLimit = 65536;
inline constexpr int kMeminfoMalformed = 71;  // EPROTO: no MemTotal line

// One "Key: value kB" figure of /proc/meminfo. A number too large for 64 bits is kept as the
// maximum, which the scaling to bytes then saturates.
struct MeminfoValue {
    std::uint64_t kib = 0;
    bool present = false;
};

struct MeminfoFields {
    MeminfoValue memTotal, memFree, memAvailable, buffers, cached, swapTotal, swapFree, zswap, anonPages, shmem,
        slab, sReclaimable, sUnreclaim, commitLimit, committedAs;
};

MeminfoFields ParseMeminfo(std::string_view text);

// The figure behind "avg10=" on the "some " line of /proc/pressure/memory.
std::optional<double> ParsePsiSomeAvg10(std::string_view text);

struct VmstatSwap {
    std::optional<std::uint64_t> pswpin;
    std::optional<std::uint64_t> pswpout;
};

VmstatSwap ParseVmstatSwap(std::string_view text);

struct MemoryStageResult {
    bool ok = false;
    std::string message;  // shown as it stands in the provider health row
    int error = 0;        // errno of the meminfo read, or kMeminfoMalformed
    std::uint64_t durationNs = 0;
};

// The memory part of the snapshot from <proc>/meminfo, <proc>/pressure/memory and <proc>/vmstat.
// Called by the Collect thread once a tick; the read buffer is reused between ticks.
// memoryPressurePercent is the share of physical memory in use, (total - available) / total; the
// kernel's stall figure goes to memoryPsiSomeAvg10. memoryFreeBytes is MemFree.
class MemoryCollector {
public:
    explicit MemoryCollector(ProviderRoots roots);

    MemoryStageResult Fill(core::SystemSnapshot& snapshot, const CollectContext& context);

private:
    void FillPressure(core::SystemSnapshot& snapshot, std::uint64_t generation);
    void FillPaging(core::SystemSnapshot& snapshot, std::uint64_t generation);

    std::string meminfoPath_;
    std::string pressurePath_;
    std::string vmstatPath_;
    std::string buffer_;
};

}  // namespace korv::providers
