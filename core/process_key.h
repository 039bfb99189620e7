#pragma once

#include <compare>
#include <cstdint>
#include <functional>

namespace korv::core {

// A process is named by its pid together with its start time (clock ticks since boot), never by a
// bare pid: the pair survives pid reuse.
struct ProcessKey {
    std::uint32_t pid = 0;
    std::uint64_t startTime = 0;

    friend constexpr bool operator==(const ProcessKey&, const ProcessKey&) = default;
    friend constexpr auto operator<=>(const ProcessKey&, const ProcessKey&) = default;
};

struct ProcessKeyHash {
    std::size_t operator()(const ProcessKey& key) const noexcept {
        return std::hash<std::uint64_t>{}((static_cast<std::uint64_t>(key.pid) * 0x9E3779B97F4A7C15ULL) ^ key.startTime);
    }
};

}  // namespace korv::core
