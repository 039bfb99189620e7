#pragma once

#include <chrono>
#include <cstdint>

namespace korv::providers {

// Nanoseconds of the monotonic clock, for stage durations and the ages of kept figures.
inline std::uint64_t SteadyNowNs() noexcept {
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
    return ns > 0 ? static_cast<std::uint64_t>(ns) : 0;
}

}  // namespace korv::providers
