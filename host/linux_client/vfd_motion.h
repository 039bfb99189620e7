#pragma once

#include <vector>

namespace korv::host::linux_client {

// The moving state of a VFD bar: light comes on at once, a dark segment fades over 220 ms, and the
// shown value approaches its target exponentially.
struct VfdMotionState {
    double value = 0.0;           // target, 0..100
    double displayedValue = 0.0;  // what the bar shows
    bool hasValue = false;
    std::vector<double> segments;  // brightness 0..1 per segment
};

inline constexpr double kVfdApproachRate = 29.957322735539908;  // 95% of the way in 0.1 s
inline constexpr double kVfdFadeSeconds = 0.22;
inline constexpr double kVfdSnapDistance = 0.05;

// Clamps to 0..100; a value that is not finite counts as 0.
double ClampVfdValue(double percent);

// Lit count for a shown value: ceil(value / 100 * count), at most count.
int VfdLitCount(double displayedValue, int count);

// One step after dt seconds; returns whether anything still moves.
bool StepVfdMotion(VfdMotionState& state, double dt);

// Brings the bar to rest at its target at once (no motion at frame rate 0).
void SnapVfdMotion(VfdMotionState& state);

// Sets the segment count, keeping what can be kept.
void ResizeVfdSegments(VfdMotionState& state, int count);

bool VfdMotionAnimating(const VfdMotionState& state);

// The timer interval at this frame rate, in milliseconds: (fps + 999) / fps.
int VfdTimerIntervalMs(int fps);

}  // namespace korv::host::linux_client
