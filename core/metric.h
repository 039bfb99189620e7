#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace korv::core {

// Why a value is or is not there. The numbers are part of exported files.
enum class MetricAvailability : std::uint32_t {
    valid = 0,
    zero = 1,
    notApplicable = 2,
    unsupported = 3,
    accessDenied = 4,
    notYetAvailable = 5,
    stale = 6,
    transientError = 7,
};

enum class MetricQuality : std::uint32_t {
    authoritative = 0,
    estimated = 1,
    fallback = 2,
    unknown = 3,
};

std::string_view ToString(MetricAvailability availability) noexcept;
std::string_view ToString(MetricQuality quality) noexcept;

// True for the states that carry a value: valid, zero and stale.
constexpr bool CarriesValue(MetricAvailability availability) noexcept {
    return availability == MetricAvailability::valid || availability == MetricAvailability::zero ||
           availability == MetricAvailability::stale;
}

// A measured value that always says why it may be missing.
template <typename T>
struct Metric {
    using value_type = T;

    MetricAvailability availability = MetricAvailability::notYetAvailable;
    std::optional<T> value;
    std::string source;
    std::uint64_t lastGoodGeneration = 0;
    std::uint64_t sampleAgeNs = 0;
    std::uint64_t sampleDurationNs = 0;
    MetricQuality quality = MetricQuality::unknown;

    bool HasValue() const noexcept { return value.has_value(); }

    // Sets a read value; a numeric zero becomes the zero state.
    void Set(T newValue, std::uint64_t generation = 0) {
        if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) {
            availability = newValue == T{} ? MetricAvailability::zero : MetricAvailability::valid;
        } else {
            availability = MetricAvailability::valid;
        }
        value = std::move(newValue);
        if (generation != 0) lastGoodGeneration = generation;
    }

    // Marks the metric missing for the given reason; any value goes.
    void MarkMissing(MetricAvailability reason) noexcept {
        availability = reason;
        value.reset();
    }
};

}  // namespace korv::core
