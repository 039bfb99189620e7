#include "host/linux_client/vfd_color_ramp.h"

#include <algorithm>
#include <cmath>

namespace korv::host::linux_client {

namespace {

QColor Blend(const QColor& from, const QColor& to, double t) {
    t = std::clamp(t, 0.0, 1.0);
    const auto channel = [t](int a, int b) { return static_cast<int>(std::lround(a + (b - a) * t)); };
    return QColor(channel(from.red(), to.red()), channel(from.green(), to.green()),
                  channel(from.blue(), to.blue()));
}

int Scaled(int channel, double factor, double offset) {
    return std::clamp(static_cast<int>(std::lround((channel / 255.0 * factor + offset) * 255.0)), 0, 255);
}

}  // namespace

int VfdRampStep(int index, int count) {
    if (count <= 0) return 0;
    const double position = (index + 0.5) / count;
    return std::clamp(static_cast<int>(std::floor(position * 16.0)), 0, 15);
}

QColor VfdRampColor(int index, int count) {
    static const QColor kGreen(48, 209, 88);
    static const QColor kYellow(255, 214, 10);
    static const QColor kRed(255, 69, 58);
    const double t = VfdRampStep(index, count) / 15.0;
    if (t < 0.6) return Blend(kGreen, kYellow, t / 0.6);
    if (t < 0.85) return Blend(kYellow, kRed, (t - 0.6) * 4.0);
    return kRed;
}

QColor VfdUnlitColor(const QColor& lit) {
    return QColor(Scaled(lit.red(), 0.19, 0.0), Scaled(lit.green(), 0.19, 0.0), Scaled(lit.blue(), 0.19, 0.0));
}

QColor VfdLightGroundColor() {
    return QColor(150, 150, 150);
}

QColor VfdEdgeColor(const QColor& lit) {
    QColor edge(Scaled(lit.red(), 0.78, 0.22), Scaled(lit.green(), 0.78, 0.22), Scaled(lit.blue(), 0.78, 0.22));
    edge.setAlphaF(0.5F);
    return edge;
}

double VfdBloomMultiplier(double bloom) {
    if (!std::isfinite(bloom) || bloom < 0.0) return 0.0;
    if (bloom > 2.0) return 1.2;
    if (bloom > 1.0) return (bloom - 1.0) * 0.2 + 1.0;
    return bloom;
}

double VfdBloomForLevel(unsigned level) {
    const unsigned clamped = std::clamp(level, 1U, 11U);
    return (clamped - 1U) / 5.0;
}

}  // namespace korv::host::linux_client
