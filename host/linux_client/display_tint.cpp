#include "host/linux_client/display_tint.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>

namespace korv::host::linux_client {
namespace {

std::atomic<int> globalMode{static_cast<int>(TintMode::color)};
std::atomic<double> globalStrength{1.0};

int Channel(double value) {
    if (!std::isfinite(value) || value <= 0.0) {
        return 0;
    }
    return static_cast<int>(std::lround(std::min(value, 255.0)));
}

struct PhosphorFactors {
    double red;
    double green;
    double blue;
};

PhosphorFactors FactorsFor(TintMode mode) {
    switch (mode) {
    case TintMode::green:
        return {0.34, 1.0, 0.24};
    case TintMode::blue:
        return {0.16, 0.72, 1.0};
    case TintMode::amber:
        return {1.0, 0.68, 0.3};
    case TintMode::mono:
    case TintMode::color:
        break;
    }
    return {1.0, 1.0, 1.0};
}

constexpr std::array<const char*, 5> kDisplayModeWords = {"color", "mono", "green", "amber", "blue"};

}  // namespace

double TintFactorForStrength(double strength) noexcept {
    if (std::isnan(strength) || strength < 0.0) {
        return 0.0;
    }
    if (strength <= 1.0) {
        return strength;
    }
    if (strength <= 2.0) {
        return strength * ((strength - 1.0) * 0.5 + 1.0);
    }
    return 3.0;
}

QColor DisplayTint(const QColor& color, TintMode mode, double strength) {
    const double factor = TintFactorForStrength(strength);
    const QColor rgb = color.toRgb();
    const int red = rgb.red();
    const int green = rgb.green();
    const int blue = rgb.blue();
    QColor result;
    if (mode == TintMode::color) {
        result = QColor(Channel(red * factor), Channel(green * factor), Channel(blue * factor));
    } else {
        const double luminance = (0.299 * red + 0.587 * green + 0.114 * blue) * factor;
        const PhosphorFactors phosphor = FactorsFor(mode);
        result = QColor(Channel(luminance * phosphor.red), Channel(luminance * phosphor.green),
                        Channel(luminance * phosphor.blue));
    }
    result.setAlpha(rgb.alpha());
    return result;
}

QColor DisplayTint(const QColor& color) {
    return DisplayTint(color, CurrentTintMode(), CurrentGlowStrength());
}

void SetDisplayTint(TintMode mode, double strength) {
    globalMode.store(static_cast<int>(mode), std::memory_order_relaxed);
    globalStrength.store(strength, std::memory_order_relaxed);
}

TintMode CurrentTintMode() noexcept {
    return static_cast<TintMode>(globalMode.load(std::memory_order_relaxed));
}

double CurrentGlowStrength() noexcept {
    return globalStrength.load(std::memory_order_relaxed);
}

TintMode TintModeForDisplayMode(DisplayModeChoice mode) noexcept {
    switch (mode) {
    case DisplayModeChoice::mono:
        return TintMode::mono;
    case DisplayModeChoice::green:
        return TintMode::green;
    case DisplayModeChoice::amber:
        return TintMode::amber;
    case DisplayModeChoice::blue:
        return TintMode::blue;
    case DisplayModeChoice::color:
        break;
    }
    return TintMode::color;
}

QString DisplayModeWord(DisplayModeChoice mode) {
    const auto index = static_cast<std::size_t>(mode);
    return index < kDisplayModeWords.size() ? QString::fromLatin1(kDisplayModeWords[index])
                                            : QString::fromLatin1(kDisplayModeWords[0]);
}

std::optional<DisplayModeChoice> DisplayModeFromWord(const QString& word) {
    for (std::size_t i = 0; i < kDisplayModeWords.size(); ++i) {
        if (word == QLatin1String(kDisplayModeWords[i])) {
            return static_cast<DisplayModeChoice>(i);
        }
    }
    return std::nullopt;
}

double GlowStrengthFromText(const QString& text) {
    bool ok = false;
    const double value = text.trimmed().toDouble(&ok);
    return ok && std::isfinite(value) ? value : 1.0;
}

}  // namespace korv::host::linux_client
