#include "host/linux_client/vfd_geometry.h"

#include <algorithm>
#include <cmath>

namespace korv::host::linux_client {

VfdSegmentRun LayoutVfdSegments(double length) {
    VfdSegmentRun run;
    if (!(length > 0.0)) {
        run.thickness = 0.0;
        return run;
    }
    if (length < 7.0) {
        run.thickness = length;
        return run;
    }
    run.count = std::max(1, static_cast<int>(std::floor((length + kVfdSegmentGap) / (kVfdSegmentThickness + kVfdSegmentGap))));
    run.thickness = std::min(kVfdSegmentThickness, length);
    const double used = run.count * run.thickness + (run.count - 1) * kVfdSegmentGap;
    run.offset = std::max(0.0, (length - used) / 2.0);
    return run;
}

double HorizontalVfdMargin(double height) {
    return std::clamp((height - 12.0) / 2.0, 0.0, kVfdMaximumMargin);
}

double StackedVfdMargin(double width) {
    return std::clamp(width * 0.2, 0.0, kVfdMaximumMargin);
}

std::vector<QRectF> VfdSegmentRects(const QRectF& barArea, bool stacked) {
    std::vector<QRectF> rects;
    if (barArea.width() <= 0.0 || barArea.height() <= 0.0) return rects;
    if (stacked) {
        const double margin = StackedVfdMargin(barArea.width());
        const VfdSegmentRun run = LayoutVfdSegments(barArea.height());
        const double left = barArea.left() + margin;
        const double breadth = std::max(1.0, barArea.width() - 2.0 * margin);
        double bottom = barArea.bottom() - run.offset;
        for (int i = 0; i < run.count; ++i) {
            rects.emplace_back(left, bottom - run.thickness, breadth, run.thickness);
            bottom -= run.thickness + kVfdSegmentGap;
        }
        return rects;
    }
    const double margin = HorizontalVfdMargin(barArea.height());
    const double length = std::max(0.0, barArea.width() - std::round(2.0 * margin));
    const VfdSegmentRun run = LayoutVfdSegments(length);
    const double top = barArea.top() + margin;
    const double breadth = std::max(1.0, barArea.height() - 2.0 * margin);
    double x = barArea.left() + std::round(margin) + run.offset;
    for (int i = 0; i < run.count; ++i) {
        rects.emplace_back(x, top, run.thickness, breadth);
        x += run.thickness + kVfdSegmentGap;
    }
    return rects;
}

}  // namespace korv::host::linux_client
