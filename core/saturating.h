#pragma once

#include <cstdint>
#include <limits>
#include <type_traits>

namespace korv::core {

// Counters and scaled figures saturate instead of wrapping.

template <typename T>
    requires std::is_unsigned_v<T>
constexpr T SaturatingAdd(T a, T b) noexcept {
    return a > std::numeric_limits<T>::max() - b ? std::numeric_limits<T>::max() : static_cast<T>(a + b);
}

template <typename T>
    requires std::is_unsigned_v<T>
constexpr T SaturatingMultiply(T a, T b) noexcept {
    if (a == 0 || b == 0) return 0;
    return a > std::numeric_limits<T>::max() / b ? std::numeric_limits<T>::max() : static_cast<T>(a * b);
}

// An increment is skipped at the maximum.
template <typename T>
    requires std::is_unsigned_v<T>
constexpr void SaturatingIncrement(T& counter) noexcept {
    if (counter != std::numeric_limits<T>::max()) ++counter;
}

// Kernel figures in kB: a value of 2^54 or more cannot be scaled by 1024 and saturates.
struct ScaledKib {
    std::uint64_t bytes = 0;
    bool saturated = false;
};

constexpr ScaledKib KibToBytes(std::uint64_t kib) noexcept {
    if (kib >= (std::uint64_t{1} << 54)) return {std::numeric_limits<std::uint64_t>::max(), true};
    return {kib * 1024, false};
}

}  // namespace korv::core
