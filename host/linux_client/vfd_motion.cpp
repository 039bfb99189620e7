#include "host/linux_client/vfd_motion.h"

#include <algorithm>
#include <cmath>

namespace korv::host::linux_client {

double ClampVfdValue(double percent) {
    if (!std::isfinite(percent)) return 0.0;
    return std::clamp(percent, 0.0, 100.0);
}

int VfdLitCount(double displayedValue, int count) {
    if (count <= 0) return 0;
    const double lit = std::ceil(ClampVfdValue(displayedValue) / 100.0 * count - 1e-9);
    return std::clamp(static_cast<int>(lit), 0, count);
}

bool VfdMotionAnimating(const VfdMotionState& state) {
    if (state.displayedValue != state.value) return true;
    return std::any_of(state.segments.begin(), state.segments.end(), [](double b) { return b > 0.0 && b < 1.0; });
}

bool StepVfdMotion(VfdMotionState& state, double dt) {
    dt = std::isfinite(dt) ? std::max(0.0, dt) : 0.0;
    const int count = static_cast<int>(state.segments.size());
    if (!state.hasValue) {
        state.hasValue = true;
        SnapVfdMotion(state);
        return false;
    }
    if (state.displayedValue != state.value) {
        state.displayedValue = (state.displayedValue - state.value) * std::exp(-kVfdApproachRate * dt) + state.value;
        if (std::abs(state.displayedValue - state.value) < kVfdSnapDistance) state.displayedValue = state.value;
    }
    const int lit = VfdLitCount(state.displayedValue, count);
    for (int i = 0; i < count; ++i) {
        double& b = state.segments[static_cast<std::size_t>(i)];
        if (i < lit) {
            b = 1.0;
        } else if (b > 0.0) {
            b = std::max(0.0, b - dt / kVfdFadeSeconds);
        }
    }
    return VfdMotionAnimating(state);
}

void SnapVfdMotion(VfdMotionState& state) {
    state.displayedValue = state.value;
    const int count = static_cast<int>(state.segments.size());
    const int lit = VfdLitCount(state.displayedValue, count);
    for (int i = 0; i < count; ++i) state.segments[static_cast<std::size_t>(i)] = i < lit ? 1.0 : 0.0;
}

void ResizeVfdSegments(VfdMotionState& state, int count) {
    count = std::max(0, count);
    if (static_cast<int>(state.segments.size()) == count) return;
    state.segments.assign(static_cast<std::size_t>(count), 0.0);
    const int lit = VfdLitCount(state.displayedValue, count);
    for (int i = 0; i < lit; ++i) state.segments[static_cast<std::size_t>(i)] = 1.0;
}

int VfdTimerIntervalMs(int fps) {
    if (fps <= 0) return 0;
    return (fps + 999) / fps;
}

}  // namespace korv::host::linux_client
