#pragma once

#include <QRectF>

#include <vector>

namespace korv::host::linux_client {

// Segments of a VFD bar along a run: each 8 pixels thick with a gap of 2, centred in the run.
struct VfdSegmentRun {
    int count = 1;
    double thickness = 8.0;
    double offset = 0.0;  // from the run's start to the first segment
};

inline constexpr double kVfdSegmentThickness = 8.0;
inline constexpr double kVfdSegmentGap = 2.0;
inline constexpr double kVfdMaximumMargin = 15.75;

VfdSegmentRun LayoutVfdSegments(double length);

// The breadth margin of a horizontal bar of this height: (height - 12) / 2 within 0..15.75.
double HorizontalVfdMargin(double height);

// The breadth margin of a stacked bar of this width: a fifth of the width, at most 15.75.
double StackedVfdMargin(double width);

// The segment rectangles inside the bar's area. Horizontal runs grow from the left, stacked runs
// from the bottom; index 0 is the first segment to light.
std::vector<QRectF> VfdSegmentRects(const QRectF& barArea, bool stacked);

}  // namespace korv::host::linux_client
