#pragma once

#include "core/metric.h"

#include <QString>

#include <cstdint>

namespace korv::host::linux_client {

// The one set of unit texts every page and instrument uses, so that a size or a rate reads the same
// everywhere. Sizes and rates step by 1024 under the names "KB", "MB", "GB", "TB" on purpose.

QString FormatBytes(std::uint64_t bytes);
QString FormatRate(double bytesPerSecond);
QString FormatPercent(double value);
QString FormatClock(double hz);
QString FormatPower(double watts);
// In the unit of the temperature setting ("°C" or "°F").
QString FormatTemperature(double celsius);

// The words shown in place of a value that is missing: nothing for valid and zero, "Unavailable",
// "Access denied", "Stale", or "—".
QString FormatAvailability(core::MetricAvailability availability);
// Adds " (stale)" to a value whose reading is stale.
QString AppendStale(const QString& text, core::MetricAvailability availability);

enum class TemperatureScale : int { celsius = 0, fahrenheit = 1 };
// GUI thread: the process-wide unit that FormatTemperature follows.
void SetTemperatureScale(TemperatureScale scale);
TemperatureScale CurrentTemperatureScale() noexcept;
// Celsius converted to the current unit, for instruments that draw their own digits.
double ToDisplayTemperature(double celsius) noexcept;

}  // namespace korv::host::linux_client
