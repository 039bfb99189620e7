#pragma once

#include <cstdint>

namespace korv::providers {

// The budget for synchronous D-Bus work inside one tick, from the engine's interval: 200 ms when
// the engine has no interval, a flat 40 ms up to 319,999,999 ns, else an eighth of the interval,
// at most 200 ms.
constexpr std::int64_t DbusBudgetNs(std::int64_t intervalNs) noexcept {
    constexpr std::int64_t kMaximum = 200'000'000;
    if (intervalNs <= 0) return kMaximum;
    if (intervalNs <= 319'999'999) return 40'000'000;
    const std::int64_t eighth = intervalNs / 8;
    return eighth < kMaximum ? eighth : kMaximum;
}

}  // namespace korv::providers
