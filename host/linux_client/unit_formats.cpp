#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>

#include <array>
#include <cmath>

namespace korv::host::linux_client {
namespace {

TemperatureScale g_temperatureScale = TemperatureScale::celsius;

QString Printf(const char* format, double value, const char* unit) {
    return QString::asprintf(format, value, unit);
}

}  // namespace

QString FormatBytes(std::uint64_t bytes) {
    if (bytes == 0) return QStringLiteral("0 B");
    if (bytes < 1024) return Printf("%.0f %s", static_cast<double>(bytes), "B");
    static constexpr std::array<const char*, 4> kUnits{"KB", "MB", "GB", "TB"};
    double value = static_cast<double>(bytes) / 1024.0;
    std::size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < kUnits.size()) {
        value /= 1024.0;
        ++unit;
    }
    return Printf("%.1f %s", value, kUnits[unit]);
}

QString FormatRate(double bytesPerSecond) {
    if (!std::isfinite(bytesPerSecond) || !(bytesPerSecond > 0.0)) return QStringLiteral("0 B/sec");
    if (bytesPerSecond < 1024.0) return Printf("%.0f %s", bytesPerSecond, "B/sec");
    static constexpr std::array<const char*, 4> kUnits{"KB/sec", "MB/sec", "GB/sec", "TB/sec"};
    double value = bytesPerSecond / 1024.0;
    std::size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < kUnits.size()) {
        value /= 1024.0;
        ++unit;
    }
    const char* format = value >= 100.0 ? "%.0f %s" : value >= 10.0 ? "%.1f %s" : "%.2f %s";
    return Printf(format, value, kUnits[unit]);
}

QString FormatPercent(double value) {
    return QString::asprintf("%.1f%%", value);
}

QString FormatClock(double hz) {
    struct Step {
        double scale;
        const char* suffix;
    };
    static constexpr std::array<Step, 3> kSteps{{{1e9, " GHz"}, {1e6, " MHz"}, {1e3, " kHz"}}};
    for (const Step& step : kSteps) {
        if (step.scale <= hz) {
            const double scaled = hz / step.scale;
            return QString::number(scaled, 'f', scaled < 10.0 ? 2 : 1) + QLatin1String(step.suffix);
        }
    }
    return QString::number(hz, 'f', hz < 10.0 ? 2 : 1) + QStringLiteral(" Hz");
}

QString FormatPower(double watts) {
    return QCoreApplication::translate("PerformancePage", "%1 W").arg(watts, 0, 'f', watts < 10.0 ? 2 : 1);
}

QString FormatTemperature(double celsius) {
    const bool fahrenheit = g_temperatureScale == TemperatureScale::fahrenheit;
    return QStringLiteral("%1 °%2")
        .arg(ToDisplayTemperature(celsius), 0, 'f', 1)
        .arg(fahrenheit ? QStringLiteral("F") : QStringLiteral("C"));
}

QString FormatAvailability(core::MetricAvailability availability) {
    using core::MetricAvailability;
    switch (availability) {
    case MetricAvailability::valid:
    case MetricAvailability::zero:
        return {};
    case MetricAvailability::notApplicable:
    case MetricAvailability::unsupported:
    case MetricAvailability::transientError:
        return QCoreApplication::translate("QObject", "Unavailable");
    case MetricAvailability::accessDenied:
        return QCoreApplication::translate("QObject", "Access denied");
    case MetricAvailability::stale:
        return QCoreApplication::translate("QObject", "Stale");
    default:
        return QStringLiteral("—");
    }
}

QString AppendStale(const QString& text, core::MetricAvailability availability) {
    if (availability != core::MetricAvailability::stale) return text;
    return text + QCoreApplication::translate("QObject", " (stale)");
}

void SetTemperatureScale(TemperatureScale scale) {
    g_temperatureScale = scale;
}

TemperatureScale CurrentTemperatureScale() noexcept {
    return g_temperatureScale;
}

double ToDisplayTemperature(double celsius) noexcept {
    return g_temperatureScale == TemperatureScale::fahrenheit ? celsius * 9.0 / 5.0 + 32.0 : celsius;
}

}  // namespace korv::host::linux_client
