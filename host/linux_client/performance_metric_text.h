#pragma once

#include "core/metric.h"
#include "host/linux_client/unit_formats.h"

#include <QString>

#include <optional>

namespace korv::host::linux_client {

// The value of a metric as shown, through `format`, with " (stale)" for a stale reading; the
// availability's words when there is no value.
template <typename T, typename Format>
QString MetricText(const core::Metric<T>& metric, Format format) {
    if (!core::CarriesValue(metric.availability) || !metric.value.has_value()) {
        return FormatAvailability(metric.availability);
    }
    return AppendStale(format(*metric.value), metric.availability);
}

// The value of a metric as shown, or nothing when it has no value (a field that is then left out).
template <typename T, typename Format>
std::optional<QString> OptionalMetricText(const core::Metric<T>& metric, Format format) {
    if (!core::CarriesValue(metric.availability) || !metric.value.has_value()) {
        return std::nullopt;
    }
    return AppendStale(format(*metric.value), metric.availability);
}

template <typename T>
bool HasReading(const core::Metric<T>& metric) {
    return core::CarriesValue(metric.availability) && metric.value.has_value();
}

}  // namespace korv::host::linux_client
