#pragma once

#include <QColor>
#include <QImage>
#include <QPainterPath>
#include <QRectF>

#include <array>
#include <cstdint>
#include <deque>
#include <vector>

namespace korv::host::linux_client {

// One sample of a graph series. `valid` is false when the sample carries no reading (a non-finite
// value counts as none); `gapBefore` marks a sample taken after an interruption, where the curve
// restarts even though the point is valid.
struct GraphPoint {
    std::uint64_t timeNs = 0;
    double value = 0.0;
    bool valid = false;
    bool gapBefore = false;
};

// Bounds of the compression ratio: the four quarters of the width hold ratio / 4 times the time
// of the uncompressed axis.
inline constexpr double kMinCompressionRatio = 4.0;
inline constexpr double kMaxCompressionRatio = 63.0;

// Clamped to 4..63; a ratio that is not a number gives 4.
double ClampCompressionRatio(double ratio) noexcept;

// The positive root r of 1 + r + r^2 + r^3 = ratio: from a table for whole ratios 0..63 (0 for the
// ratios below 1, which have no positive root), else by bisection on [0, ratio].
double WarpRootForRatio(double ratio) noexcept;

// The compressed time axis. A source position q counts ages in widths of the uncompressed axis; a
// screen fraction counts from the right edge (0) to the left edge (1). Quarter i of the screen
// (0 at the right) holds 0.25 * r^i of source span, mapped by a monotone cubic whose slope at each
// joint is the mean of the scales on its two sides, so the axis has no kink.
class TimeWarp {
public:
    explicit TimeWarp(double ratio);  // the ratio is clamped to 4..63

    double Root() const noexcept { return root_; }
    // The source span the four quarters hold: ratio / 4.
    double SourceSpan() const noexcept { return starts_[4]; }
    // Source position at a screen fraction: the cubic of its quarter; linear with slope 1 right of
    // the edge and max(r^3, 1e-12) left of the last quarter.
    double SourceAt(double screenFraction) const noexcept;
    // Screen fraction of a source position, the inverse of SourceAt by at most six Newton steps.
    double ScreenFractionAt(double source) const noexcept;

private:
    double QuarterOffset(int quarter, double t) const noexcept;
    double QuarterSlope(int quarter, double t) const noexcept;

    double root_ = 1.0;
    std::array<double, 4> scales_{};
    std::array<double, 5> starts_{};
    std::array<double, 5> jointSlopes_{};
    std::array<std::array<double, 3>, 4> cubic_{};  // per quarter: the offset's t^3, t^2 and t terms
};

// One-off conveniences over TimeWarp.
double WarpAgeFraction(double source, double ratio) noexcept;  // screen fraction of a source position
double WarpSourceAt(double screenFraction, double ratio) noexcept;

struct GraphPathInput {
    const std::deque<GraphPoint>& points;  // sorted by timeNs, oldest first
    QRectF plot;
    std::uint64_t nowNs = 0;             // the time at the right edge
    std::uint64_t sampleIntervalNs = 0;  // the time one pixel column stands for
    bool compress = false;
    double ratio = 15.0;
    bool smooth = true;
    double minValue = 0.0;
    double maxValue = 100.0;
};

// Whether the input can be drawn: two points or more, a non-zero interval and clock, a finite
// range with 0 < maxValue and minValue < maxValue, and a plot with area.
bool GraphInputUsable(const GraphPathInput& input) noexcept;

// The time span of the uncompressed axis, interval * ceil(width), saturating.
std::uint64_t GraphBaseSpanNs(const GraphPathInput& input) noexcept;
// The time the whole width reaches back: the base span, times ratio / 4 with compression.
double GraphVisibleSpanNs(const GraphPathInput& input) noexcept;

// The x coordinate of a sample time (beyond the right edge for the future), or NaN for an
// unusable input. `warp` must be made from the input's ratio when compression is on.
double GraphXForTime(const GraphPathInput& input, const TimeWarp& warp, std::uint64_t timeNs) noexcept;

// The index range [first, last) of the points that a path of the input draws: those within the
// visible time plus two valid points beyond each end, so that the curve runs to the edges.
struct GraphVisibleRange {
    std::size_t first = 0;
    std::size_t last = 0;
};
GraphVisibleRange FindGraphVisibleRange(const GraphPathInput& input) noexcept;

// The curve of one series: one sub-path per run of valid points not broken by `gapBefore`, joined
// by lines or by monotone cubics (Fritsch-Carlson), whose control points never leave their
// segment's vertical range and sit at a third and two thirds of its width. Empty for an unusable
// input.
QPainterPath BuildGraphPath(const GraphPathInput& input);

// How RasterizeGraphCurve draws one series.
struct GraphCurveStyle {
    QColor line;
    double lineWidth = 1.5;  // in device pixels
    bool dashed = false;
    // Fill from the curve down to the bottom of the clip: one premultiplied colour per device row
    // from the clip's top, or a single colour for all rows. Empty: no fill.
    std::vector<QRgb> fillRows;
};

// Draws a curve made by BuildGraphPath into a 32-bit image (RGB32 or premultiplied ARGB32) column
// by column: the fill, then an antialiased line that covers, in each pixel column, the curve's
// vertical extent there. Coordinates are logical and multiplied by `scale` (the device pixel
// ratio); nothing outside `clip` changes. The raster engine pays per span, which a noisy curve of
// thousands of points turns into many milliseconds; this costs per pixel covered.
void RasterizeGraphCurve(QImage& image, const QPainterPath& curve, double scale, const QRectF& clip,
                         const GraphCurveStyle& style);

}  // namespace korv::host::linux_client
