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

}  // namespace korv::providers
