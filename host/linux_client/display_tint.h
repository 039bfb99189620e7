#pragma once

#include "host/linux_client/smoke_options.h"

#include <QColor>
#include <QString>

#include <optional>

namespace korv::host::linux_client {

// How fixed colours are shown: as they are, or recoloured by their luminance like a single-phosphor
// display. The numbers are those of the tint transform, which orders blue before amber.
enum class TintMode : int { color = 0, mono = 1, green = 2, blue = 3, amber = 4 };

// The glow strength s as a brightness factor: 0 below 0, s up to 1, s * ((s - 1) / 2 + 1) up to 2,
// and 3 above.
double TintFactorForStrength(double strength) noexcept;

// The transform itself; alpha is kept and every channel is clamped to 255.
QColor DisplayTint(const QColor& color, TintMode mode, double strength);

// The transform with the process-wide mode and strength. Every fixed colour passes through it
// before it is painted.
QColor DisplayTint(const QColor& color);

// GUI thread: sets the process-wide mode and glow strength.
void SetDisplayTint(TintMode mode, double strength);
TintMode CurrentTintMode() noexcept;
double CurrentGlowStrength() noexcept;

TintMode TintModeForDisplayMode(DisplayModeChoice mode) noexcept;

// The words of the `displayMode` preference: "color", "mono", "green", "amber", "blue".
QString DisplayModeWord(DisplayModeChoice mode);
std::optional<DisplayModeChoice> DisplayModeFromWord(const QString& word);

// The glow strength stored as text in the `displaySaturation` preference; 1 when absent or not a
// finite number.
double GlowStrengthFromText(const QString& text);

}  // namespace korv::host::linux_client
