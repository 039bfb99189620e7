#pragma once

#include <cstdint>
#include <filesystem>
#include <stop_token>

namespace korv::providers {

// Where the provider reads the machine. Tests point these at fixture trees.
struct ProviderRoots {
    std::filesystem::path proc = "/proc";
    std::filesystem::path sys = "/sys";
    std::filesystem::path cgroup = "/sys/fs/cgroup";
    std::filesystem::path etc = "/etc";
};

// What one Collect tick hands to each collector.
struct CollectContext {
    std::uint64_t generation = 0;   // the snapshot's generation
    std::uint64_t monotonicNs = 0;  // steady clock at the start of the tick
    std::int64_t intervalNs = 0;    // the engine's interval; 0 when it has none
    std::int64_t elapsedNs = 0;     // time since the previous tick
    bool resetBaselines = false;
    std::stop_token stop;  // polled between items; a stopped stage discards its work
};

// Time since a baseline taken at sampleNs: by the monotonic clock when both times are known (0 if it
// did not move on), else the engine's time since the previous tick.
inline std::uint64_t ElapsedSinceNs(const CollectContext& ctx, std::uint64_t sampleNs) noexcept {
    if (ctx.monotonicNs != 0 && sampleNs != 0) return ctx.monotonicNs > sampleNs ? ctx.monotonicNs - sampleNs : 0;
    return ctx.elapsedNs > 0 ? static_cast<std::uint64_t>(ctx.elapsedNs) : 0;
}

}  // namespace korv::providers
