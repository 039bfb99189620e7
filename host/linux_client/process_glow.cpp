#include "host/linux_client/process_glow.h"

#include "host/linux_client/display_tint.h"

#include <algorithm>
#include <cmath>

namespace korv::host::linux_client {

double RemainingGlow(const CellGlow& glow, std::int64_t nowMs) noexcept {
    if (!glow.active || glow.startMs > nowMs) return 0.0;
    const double age = static_cast<double>(nowMs - glow.startMs) / 1000.0;
    return std::clamp(1.0 - age / kGlowSeconds, 0.0, 1.0) * std::clamp(glow.strength, 0.0, 1.0);
}

double GlowStrengthForRank(int rank) noexcept {
    return std::max(0.1, 1.0 - static_cast<double>(rank) * 0.1);
}

CellGlow LightGlow(const CellGlow& previous, int rank, std::int64_t nowMs) noexcept {
    const double strength = std::clamp(GlowStrengthForRank(rank) + RemainingGlow(previous, nowMs), 0.0, 1.0);
    return CellGlow{strength, nowMs, true};
}

int GlowAlpha(double strength) noexcept {
    return static_cast<int>(std::trunc(std::clamp(strength, 0.0, 1.0) * 117.3 + 0.5));
}

int ExitWashAlpha(std::int64_t exitMs, std::int64_t nowMs) noexcept {
    double fraction = 1.0;
    if (exitMs <= nowMs) {
        const double age = static_cast<double>(nowMs - exitMs) / 1000.0;
        if (age >= kExitFadeSeconds) return 0;
        fraction = 1.0 - age / kExitFadeSeconds;
    }
    return static_cast<int>(std::trunc(fraction * 0.3 * 255.0 + 0.5));
}

bool ExitFadeRunning(std::int64_t exitMs, std::int64_t nowMs) noexcept {
    return exitMs > nowMs || static_cast<double>(nowMs - exitMs) / 1000.0 < kExitFadeSeconds;
}

QColor GlowColor(int alpha) {
    QColor color = DisplayTint(QColor(0x57, 0xFF, 0x73));
    color.setAlpha(std::clamp(alpha, 0, 255));
    return color;
}

QColor ExitWashColor(int alpha) {
    QColor color = DisplayTint(QColor(0xFF, 0x57, 0x5F));
    color.setAlpha(std::clamp(alpha, 0, 255));
    return color;
}

QColor MixColors(const QColor& from, const QColor& to, double fraction) {
    const auto mix = [fraction](int a, int b) {
        return static_cast<int>(std::lround(static_cast<double>(a) + static_cast<double>(b - a) * fraction));
    };
    return QColor(mix(from.red(), to.red()), mix(from.green(), to.green()), mix(from.blue(), to.blue()));
}

}  // namespace korv::host::linux_client
