#pragma once

#include <QColor>

#include <cstdint>

namespace korv::host::linux_client {

// A lit cell: its strength when lit (0..1) and when, in model milliseconds.
struct CellGlow {
    double strength = 0.0;
    std::int64_t startMs = 0;
    bool active = false;
};

inline constexpr double kGlowSeconds = 1.3;
inline constexpr double kExitFadeSeconds = 5.0;

// clamp(1 - (now - start) / 1000 / 1.3, 0, 1) * clamp(strength, 0, 1); zero for an inactive glow
// or one that starts after now.
double RemainingGlow(const CellGlow& glow, std::int64_t nowMs) noexcept;

// The strength of the rank-th change of a pass (0 first): max(0.1, 1 - rank * 0.1).
double GlowStrengthForRank(int rank) noexcept;

// Lights a cell: the rank's strength plus what remains of an active glow, at most 1.
CellGlow LightGlow(const CellGlow& previous, int rank, std::int64_t nowMs) noexcept;

// trunc(strength * 117.3 + 0.5): 46 % of 255 at full strength.
int GlowAlpha(double strength) noexcept;

// The red wash of an exited row: trunc(f * 0.3 * 255 + 0.5) with f = 1 - age / 5 s; none from five
// seconds on, full for an exit time ahead of now.
int ExitWashAlpha(std::int64_t exitMs, std::int64_t nowMs) noexcept;
bool ExitFadeRunning(std::int64_t exitMs, std::int64_t nowMs) noexcept;

// The glow green and the wash red through the display tint, with the given alpha.
QColor GlowColor(int alpha);
QColor ExitWashColor(int alpha);

// `from` moved `fraction` of the way to `to`, each of red, green and blue rounded.
QColor MixColors(const QColor& from, const QColor& to, double fraction);

}  // namespace korv::host::linux_client
