#include "host/linux_client/graph_path_builder.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace korv::host::linux_client {
namespace {

// Positive roots of 1 + r + r^2 + r^3 = n for n = 0..63; none exists below 1, where 0 stands.
constexpr std::array<double, 64> kWarpRoots = {
    0.0, 0.0, 0.5436890126920764, 0.8105357137661366,
    1.0, 1.1509110843359425, 1.2781630727981486, 1.389193596539684,
    1.4883022318990333, 1.5782204639372994, 1.6608024397705519, 1.7373702334847694,
    1.8089030726400155, 1.8761485603331087, 1.939691750068419, 2.0,
    2.0574531923158754, 2.112364733433398, 2.1649965384583947, 2.2155699700459404,
    2.2642739845464046, 2.3112713057121854, 2.3567031768961906, 2.400693070226478,
    2.4433496180628693, 2.484768956098314, 2.5250366154855794, 2.564229065142773,
    2.60241497972799, 2.6396562903204415, 2.676009061394329, 2.7115242277426352,
    2.7462482175931733, 2.780223482562149, 2.813488950823196, 2.846080416586016,
    2.87803087642969, 2.9093708210409943, 2.940128489335051, 2.970330090686436,
    3.0, 3.0291609295469706, 3.0578340808412676, 3.086039279301347,
    3.1137950940093537, 3.1411189445227494, 3.1680271963987496, 3.1945352468470714,
    3.220657601722263, 3.2464079448958, 3.271799200904282, 3.2968435916485697,
    3.321552687815824, 3.3459374556088655, 3.3700082992926395, 3.3937751000036585,
    3.417247251213437, 3.4404336911896904, 3.4633429327582785, 3.4859830906335323,
    3.508361906553947, 3.5304867724335103, 3.552364751715641, 3.574002599096333,
};

constexpr int kNewtonRounds = 6;
constexpr int kBisectionRounds = 64;
constexpr double kMinimumOuterScale = 1e-12;
constexpr double kNoSlope = 1e-12;  // points closer than this in x count as a flat step

std::uint64_t SaturatingProduct(std::uint64_t a, std::uint64_t b) noexcept {
    std::uint64_t product = 0;
    if (__builtin_mul_overflow(a, b, &product)) {
        return std::numeric_limits<std::uint64_t>::max();
    }
    return product;
}

bool PointDrawable(const GraphPoint& point) noexcept {
    return point.valid && std::isfinite(point.value);
}

// Where the path's points land; the warp is only consulted for the compressed axis.
struct Projection {
    double right = 0.0;
    double width = 0.0;
    double bottom = 0.0;
    double height = 0.0;
    std::uint64_t nowNs = 0;
    double spanNs = 1.0;
    double minValue = 0.0;
    double valueRange = 1.0;
    const TimeWarp* warp = nullptr;

    double X(std::uint64_t timeNs) const noexcept {
        // Differences in integers first: doubles lose nanoseconds of a monotonic clock past 2^53.
        const double age = timeNs <= nowNs ? static_cast<double>(nowNs - timeNs)
                                           : -static_cast<double>(timeNs - nowNs);
        double q = age / spanNs;
        if (warp != nullptr && q >= 0.0) {
            q = warp->ScreenFractionAt(q);
        }
        return right - q * width;
    }
    double Y(double value) const noexcept {
        const double level = std::clamp((value - minValue) / valueRange, 0.0, 1.0);
        return bottom - level * height;
    }
};

struct Vertex {
    double x;
    double y;
};

// Fritsch-Carlson tangents for one run: zero where the secants change sign or one is flat, and
// limited so that a control point stays between the end points of its segment.
void MonotoneTangents(const std::vector<Vertex>& run, std::vector<double>& secants, std::vector<double>& tangents) {
    const std::size_t n = run.size();
    secants.resize(n - 1);
    tangents.assign(n, 0.0);
    for (std::size_t k = 0; k + 1 < n; ++k) {
        const double h = run[k + 1].x - run[k].x;
        secants[k] = h > kNoSlope ? (run[k + 1].y - run[k].y) / h : 0.0;
    }
    tangents[0] = secants[0];
    tangents[n - 1] = secants[n - 2];
    for (std::size_t k = 1; k + 1 < n; ++k) {
        const double before = secants[k - 1];
        const double after = secants[k];
        tangents[k] = before * after <= 0.0 ? 0.0 : (before + after) / 2.0;
    }
    for (std::size_t k = 0; k + 1 < n; ++k) {
        const double d = secants[k];
        if (d == 0.0) {
            tangents[k] = 0.0;
            tangents[k + 1] = 0.0;
            continue;
        }
        const double alpha = tangents[k] / d;
        const double beta = tangents[k + 1] / d;
        const double norm = alpha * alpha + beta * beta;
        if (norm > 9.0) {
            const double tau = 3.0 / std::sqrt(norm);
            tangents[k] = tau * alpha * d;
            tangents[k + 1] = tau * beta * d;
        }
    }
}

void EmitRun(const std::vector<Vertex>& run, bool smooth, QPainterPath& path, std::vector<double>& secants,
             std::vector<double>& tangents) {
    if (run.size() < 2) {
        return;  // a lone point has nothing to join to
    }
    path.moveTo(run[0].x, run[0].y);
    if (!smooth) {
        for (std::size_t k = 1; k < run.size(); ++k) {
            path.lineTo(run[k].x, run[k].y);
        }
        return;
    }
    MonotoneTangents(run, secants, tangents);
    for (std::size_t k = 0; k + 1 < run.size(); ++k) {
        const Vertex& a = run[k];
        const Vertex& b = run[k + 1];
        const double third = (b.x - a.x) / 3.0;
        // |tangent| <= 3 |secant| keeps each control point between a.y and b.y.
        path.cubicTo(a.x + third, a.y + tangents[k] * third, b.x - third, b.y - tangents[k + 1] * third, b.x, b.y);
    }
}

}  // namespace

double ClampCompressionRatio(double ratio) noexcept {
    if (std::isnan(ratio)) {
        return kMinCompressionRatio;
    }
    return std::clamp(ratio, kMinCompressionRatio, kMaxCompressionRatio);
}

double WarpRootForRatio(double ratio) noexcept {
    if (!std::isfinite(ratio) || ratio <= 1.0) {
        return 0.0;
    }
    if (ratio <= 63.0 && ratio == std::floor(ratio)) {
        return kWarpRoots[static_cast<std::size_t>(ratio)];
    }
    double low = 0.0;
    double high = ratio;
    for (int round = 0; round < kBisectionRounds; ++round) {
        const double middle = (low + high) / 2.0;
        const double sum = 1.0 + middle * (1.0 + middle * (1.0 + middle));
        if (sum < ratio) {
            low = middle;
        } else {
            high = middle;
        }
    }
    return (low + high) / 2.0;
}

TimeWarp::TimeWarp(double ratio) : root_(WarpRootForRatio(ClampCompressionRatio(ratio))) {
    double scale = 1.0;
    for (int i = 0; i < 4; ++i) {
        scales_[i] = scale;
        starts_[i + 1] = starts_[i] + 0.25 * scale;
        scale *= root_;
    }
    jointSlopes_[0] = 1.0;
    for (int i = 1; i < 4; ++i) {
        jointSlopes_[i] = (scales_[i - 1] + scales_[i]) / 2.0;
    }
    jointSlopes_[4] = std::max(scales_[3], kMinimumOuterScale);
    for (std::size_t i = 0; i < 4; ++i) {
        const double length = starts_[i + 1] - starts_[i];
        const double m0 = 0.25 * jointSlopes_[i];
        const double m1 = 0.25 * jointSlopes_[i + 1];
        cubic_[i] = {m0 + m1 - 2.0 * length, 3.0 * length - 2.0 * m0 - m1, m0};
    }
}

// Within quarter i the source offset is a cubic Hermite in t = 0..1 from 0 to 0.25 * r^i, with the
// joint slopes (source per screen width) as end tangents, kept as a t^3 + b t^2 + c t. With r in
// [1, 3.6] the normalised tangents stay within 0..3, which keeps the cubic monotone.
double TimeWarp::QuarterOffset(int quarter, double t) const noexcept {
    const auto& k = cubic_[static_cast<std::size_t>(quarter)];
    return ((k[0] * t + k[1]) * t + k[2]) * t;
}

double TimeWarp::QuarterSlope(int quarter, double t) const noexcept {
    const auto& k = cubic_[static_cast<std::size_t>(quarter)];
    return (3.0 * k[0] * t + 2.0 * k[1]) * t + k[2];
}

double TimeWarp::SourceAt(double screenFraction) const noexcept {
    if (screenFraction <= 0.0) {
        return screenFraction * jointSlopes_[0];
    }
    if (screenFraction >= 1.0) {
        return starts_[4] + (screenFraction - 1.0) * jointSlopes_[4];
    }
    const int quarter = std::min(3, static_cast<int>(screenFraction * 4.0));
    const double t = screenFraction * 4.0 - quarter;
    return starts_[quarter] + QuarterOffset(quarter, t);
}

double TimeWarp::ScreenFractionAt(double source) const noexcept {
    if (source <= 0.0) {
        return source / jointSlopes_[0];
    }
    if (source >= starts_[4]) {
        return 1.0 + (source - starts_[4]) / jointSlopes_[4];
    }
    int quarter = 0;
    while (quarter < 3 && source >= starts_[quarter + 1]) {
        ++quarter;
    }
    const double target = source - starts_[quarter];
    double t = std::clamp(4.0 * target / scales_[quarter], 0.0, 1.0);
    // Converged well below a nanosecond of age; quadratic convergence gets there in two or three.
    const double tolerance = 1e-14 * starts_[4];
    for (int round = 0; round < kNewtonRounds; ++round) {
        const double error = QuarterOffset(quarter, t) - target;
        const double slope = QuarterSlope(quarter, t);
        if (std::abs(error) <= tolerance || slope <= 0.0) {
            break;
        }
        t = std::clamp(t - error / slope, 0.0, 1.0);
    }
    return (quarter + t) * 0.25;
}

double WarpAgeFraction(double source, double ratio) noexcept {
    return TimeWarp(ratio).ScreenFractionAt(source);
}

double WarpSourceAt(double screenFraction, double ratio) noexcept {
    return TimeWarp(ratio).SourceAt(screenFraction);
}

bool GraphInputUsable(const GraphPathInput& input) noexcept {
    if (input.points.size() < 2 || input.sampleIntervalNs == 0 || input.nowNs == 0) {
        return false;
    }
    if (!std::isfinite(input.maxValue) || input.maxValue <= 0.0) {
        return false;
    }
    if (!std::isfinite(input.minValue) || input.minValue >= input.maxValue) {
        return false;
    }
    const QRectF& plot = input.plot;
    return std::isfinite(plot.width()) && std::isfinite(plot.height()) && plot.width() > 0.0 && plot.height() > 0.0;
}

std::uint64_t GraphBaseSpanNs(const GraphPathInput& input) noexcept {
    const double width = input.plot.width();
    if (!(width > 0.0) || !std::isfinite(width)) {
        return 0;
    }
    const auto columns = static_cast<std::uint64_t>(std::ceil(width));
    return SaturatingProduct(input.sampleIntervalNs, columns);
}

double GraphVisibleSpanNs(const GraphPathInput& input) noexcept {
    const double base = static_cast<double>(GraphBaseSpanNs(input));
    return input.compress ? base * ClampCompressionRatio(input.ratio) / 4.0 : base;
}

double GraphXForTime(const GraphPathInput& input, const TimeWarp& warp, std::uint64_t timeNs) noexcept {
    const std::uint64_t span = GraphBaseSpanNs(input);
    if (span == 0 || input.nowNs == 0) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    Projection projection;
    projection.right = input.plot.right();
    projection.width = input.plot.width();
    projection.nowNs = input.nowNs;
    projection.spanNs = static_cast<double>(span);
    projection.warp = input.compress ? &warp : nullptr;
    return projection.X(timeNs);
}

GraphVisibleRange FindGraphVisibleRange(const GraphPathInput& input) noexcept {
    const auto& points = input.points;
    if (points.empty()) {
        return {};
    }
    const double visible = GraphVisibleSpanNs(input);
    const std::uint64_t reach =
        visible >= static_cast<double>(input.nowNs) ? input.nowNs : static_cast<std::uint64_t>(visible);
    const std::uint64_t oldest = input.nowNs - reach;
    const auto byTime = [](const GraphPoint& point, std::uint64_t time) { return point.timeNs < time; };
    std::size_t first = static_cast<std::size_t>(
        std::lower_bound(points.begin(), points.end(), oldest, byTime) - points.begin());
    std::size_t last = static_cast<std::size_t>(
        std::upper_bound(points.begin(), points.end(), input.nowNs,
                         [](std::uint64_t time, const GraphPoint& point) { return time < point.timeNs; }) -
        points.begin());
    // Two valid points past each edge let the curve run in from outside the plot without a cut.
    for (int found = 0; first > 0 && found < 2;) {
        --first;
        found += PointDrawable(points[first]) ? 1 : 0;
    }
    for (int found = 0; last < points.size() && found < 2; ++last) {
        found += PointDrawable(points[last]) ? 1 : 0;
    }
    return {first, last};
}

QPainterPath BuildGraphPath(const GraphPathInput& input) {
    QPainterPath path;
    if (!GraphInputUsable(input)) {
        return path;
    }
    const std::uint64_t span = GraphBaseSpanNs(input);
    const TimeWarp warp(input.compress ? input.ratio : kMinCompressionRatio);
    Projection projection;
    projection.right = input.plot.right();
    projection.width = input.plot.width();
    projection.bottom = input.plot.bottom();
    projection.height = input.plot.height();
    projection.nowNs = input.nowNs;
    projection.spanNs = static_cast<double>(span);
    projection.minValue = input.minValue;
    projection.valueRange = input.maxValue - input.minValue;
    projection.warp = input.compress ? &warp : nullptr;

    const GraphVisibleRange range = FindGraphVisibleRange(input);
    path.reserve(static_cast<int>(std::min<std::size_t>(3 * (range.last - range.first) + 1, 1u << 22)));

    // Scratch buffers are per thread so that a steady repaint does not allocate them again.
    thread_local std::vector<Vertex> run;
    thread_local std::vector<double> secants;
    thread_local std::vector<double> tangents;
    run.clear();
    for (std::size_t i = range.first; i < range.last; ++i) {
        const GraphPoint& point = input.points[i];
        if (!PointDrawable(point) || point.gapBefore) {
            EmitRun(run, input.smooth, path, secants, tangents);
            run.clear();
            if (!PointDrawable(point)) {
                continue;
            }
        }
        run.push_back({projection.X(point.timeNs), projection.Y(point.value)});
    }
    EmitRun(run, input.smooth, path, secants, tangents);
    run.clear();
    return path;
}

namespace {

// Each 8-bit channel of x times a / 255, rounded.
std::uint32_t ByteMul(std::uint32_t x, std::uint32_t a) noexcept {
    std::uint32_t t = (x & 0xff00ffu) * a;
    t = ((t + ((t >> 8) & 0xff00ffu) + 0x800080u) >> 8) & 0xff00ffu;
    x = ((x >> 8) & 0xff00ffu) * a;
    x = (x + ((x >> 8) & 0xff00ffu) + 0x800080u) & 0xff00ff00u;
    return x | t;
}

// Premultiplied source over destination, the source scaled by a coverage of 0..255.
void BlendOver(std::uint32_t& destination, std::uint32_t source, std::uint32_t coverage) noexcept {
    if (coverage < 255) {
        source = ByteMul(source, coverage);
    }
    const std::uint32_t alpha = source >> 24;
    destination = alpha == 255 ? source : source + ByteMul(destination, 255 - alpha);
}

std::uint32_t CoverageByte(double coverage) noexcept {
    return static_cast<std::uint32_t>(std::clamp(coverage, 0.0, 1.0) * 255.0 + 0.5);
}

std::uint32_t FillColorForRow(const std::vector<QRgb>& rows, int index) noexcept {
    return rows[std::min(static_cast<std::size_t>(std::max(index, 0)), rows.size() - 1)];
}

// One row of the fill's whole pixels: column c is covered when solidFrom[c] <= row.
inline void FillRow(std::uint32_t* pixels, const std::int32_t* solidFrom, std::size_t count, std::int32_t row,
             std::uint32_t color) noexcept {
    std::size_t c = 0;
#ifdef __SSE2__
    // Four pixels at a time; the rounding is that of ByteMul, so both paths agree to the bit.
    const __m128i inverseAlpha = _mm_set1_epi16(static_cast<short>(255 - (color >> 24)));
    const __m128i source = _mm_set1_epi32(static_cast<int>(color));
    const __m128i rowIndex = _mm_set1_epi32(row);
    const __m128i zero = _mm_setzero_si128();
    const __m128i half = _mm_set1_epi16(0x80);
    for (; c + 4 <= count; c += 4) {
        const __m128i from = _mm_loadu_si128(reinterpret_cast<const __m128i*>(solidFrom + c));
        const __m128i outside = _mm_cmpgt_epi32(from, rowIndex);
        if (_mm_movemask_epi8(outside) == 0xFFFF) {
            continue;
        }
        __m128i* const at = reinterpret_cast<__m128i*>(pixels + c);
        const __m128i destination = _mm_loadu_si128(at);
        __m128i low = _mm_mullo_epi16(_mm_unpacklo_epi8(destination, zero), inverseAlpha);
        __m128i high = _mm_mullo_epi16(_mm_unpackhi_epi8(destination, zero), inverseAlpha);
        low = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(low, _mm_srli_epi16(low, 8)), half), 8);
        high = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(high, _mm_srli_epi16(high, 8)), half), 8);
        const __m128i blended = _mm_add_epi8(_mm_packus_epi16(low, high), source);
        _mm_storeu_si128(at, _mm_or_si128(_mm_and_si128(outside, destination), _mm_andnot_si128(outside, blended)));
    }
#endif
    for (; c < count; ++c) {
        if (solidFrom[c] <= row) {
            BlendOver(pixels[c], color, 255);
        }
    }
}

// The fill from each column's mean curve height down to the bottom: whole pixels row by row in the
// image's memory order, then the partly covered pixels at the top edge and in the columns where a
// sub-path begins or ends.
void FillUnderCurve(uchar* bits, qsizetype stride, int left, int top, int bottom, const std::vector<double>& fillTop,
                    const std::vector<double>& fillCoverage, const std::vector<QRgb>& rows) {
    const auto pixel = [&](int row, int column) -> std::uint32_t& {
        return reinterpret_cast<std::uint32_t*>(bits + row * stride)[column];
    };
    thread_local std::vector<std::int32_t> solidFrom;
    const std::size_t columns = fillTop.size();
    solidFrom.assign(columns, std::numeric_limits<std::int32_t>::max());
    int firstRow = bottom;
    std::size_t firstSolid = columns;
    std::size_t endSolid = 0;
    for (std::size_t c = 0; c < columns; ++c) {
        const double reach = std::max(fillTop[c], static_cast<double>(top));
        if (!(reach < bottom) || fillCoverage[c] <= 0.0) {
            continue;
        }
        const int column = left + static_cast<int>(c);
        const int edgeRow = static_cast<int>(std::floor(reach));
        const int solidRow = static_cast<int>(std::ceil(reach));
        if (fillCoverage[c] < 1.0) {
            for (int row = edgeRow; row < bottom; ++row) {
                const double vertical = std::min(1.0, row + 1.0 - reach);
                BlendOver(pixel(row, column), FillColorForRow(rows, row - top),
                          CoverageByte(vertical * fillCoverage[c]));
            }
            continue;
        }
        solidFrom[c] = solidRow;
        firstRow = std::min(firstRow, solidRow);
        firstSolid = std::min(firstSolid, c);
        endSolid = c + 1;
        if (edgeRow < solidRow) {
            BlendOver(pixel(edgeRow, column), FillColorForRow(rows, edgeRow - top), CoverageByte(solidRow - reach));
        }
    }
    // Row by row, in the image's memory order; a strip-wise walk down the columns stalls on memory.
    for (int row = firstRow; row < bottom && firstSolid < endSolid; ++row) {
        FillRow(&pixel(row, left + static_cast<int>(firstSolid)), solidFrom.data() + firstSolid, endSolid - firstSolid,
                row, FillColorForRow(rows, row - top));
    }
}

constexpr double kMaxSlopeWidening = 3.0;

struct StrokeSpan {
    int column;
    double top;
    double bottom;
    double coverage;  // the part of the column's width the curve crosses
};

// Walks a sub-path's densified polyline one pixel column at a time and records, per column, where
// the line runs and how high the fill reaches.
class ColumnCollector {
public:
    ColumnCollector(double halfWidth, bool dashed, double dashUnit, std::vector<double>& fillTop,
                    std::vector<double>& fillCoverage, std::vector<StrokeSpan>& spans, int firstColumn, int endColumn)
        : halfWidth_(halfWidth), dashed_(dashed), dashOn_(5.0 * dashUnit), dashPeriod_(9.0 * dashUnit),
          fillTop_(fillTop), fillCoverage_(fillCoverage), spans_(spans), firstColumn_(firstColumn),
          endColumn_(endColumn) {}

    void MoveTo(double x, double y) {
        Flush();
        arc_ = 0.0;
        Start(x, y);
    }

    // A straight piece; vertices are added where it crosses a column boundary.
    void LineTo(double x, double y) {
        const double x0 = lastX_;
        const double y0 = lastY_;
        Cross(x, y, [&](double boundary) { return y0 + (y - y0) * (boundary - x0) / (x - x0); });
    }

    // A cubic whose control points sit at thirds of its width, so x grows linearly with t.
    void CubicTo(double y1, double y2, double x, double y) {
        const double x0 = lastX_;
        const double y0 = lastY_;
        Cross(x, y, [&](double boundary) {
            const double t = (boundary - x0) / (x - x0);
            const double u = 1.0 - t;
            return u * u * u * y0 + 3.0 * u * u * t * y1 + 3.0 * u * t * t * y2 + t * t * t * y;
        });
    }

    void Finish() { Flush(); }

private:
    // Ends the column at each boundary the piece to x crosses, within the clip only: a point far
    // outside (an old sample before a long pause) costs no loop over the columns in between.
    template <typename YAt>
    void Cross(double x, double y, YAt yAt) {
        if (!(x > lastX_)) {
            Add(lastX_, y);  // a vertical step within the column
            return;
        }
        double boundary = std::floor(lastX_) + 1.0;
        if (boundary < firstColumn_) {
            if (x <= firstColumn_) {
                Add(x, y);
                return;
            }
            const double entry = yAt(static_cast<double>(firstColumn_));
            Add(firstColumn_, entry);
            Flush();
            Start(firstColumn_, entry);
            boundary = firstColumn_ + 1.0;
        }
        const double last = std::min(x, static_cast<double>(endColumn_) + 1.0);
        for (; boundary < last; boundary += 1.0) {
            const double yb = yAt(boundary);
            Add(boundary, yb);
            Flush();
            Start(boundary, yb);
        }
        Add(x, y);
    }

    void Start(double x, double y) {
        column_ = static_cast<int>(std::floor(x));
        fromX_ = x;
        lastX_ = x;
        lastY_ = y;
        minY_ = y;
        maxY_ = y;
        area_ = 0.0;
        open_ = true;
    }

    void Add(double x, double y) {
        area_ += (x - lastX_) * (y + lastY_) / 2.0;
        lastX_ = x;
        lastY_ = y;
        minY_ = std::min(minY_, y);
        maxY_ = std::max(maxY_, y);
    }

    void Flush() {
        if (!open_) {
            return;
        }
        open_ = false;
        const double covered = std::clamp(lastX_ - fromX_, 0.0, 1.0);
        const double arcStart = arc_;
        arc_ += std::sqrt(covered * covered + (maxY_ - minY_) * (maxY_ - minY_));
        const int index = column_ - firstColumn_;
        if (index < 0 || index >= static_cast<int>(fillTop_.size())) {
            return;
        }
        if (covered > 0.0) {
            const double meanY = area_ / covered;
            fillTop_[static_cast<std::size_t>(index)] = std::min(fillTop_[static_cast<std::size_t>(index)], meanY);
            fillCoverage_[static_cast<std::size_t>(index)] =
                std::min(1.0, fillCoverage_[static_cast<std::size_t>(index)] + covered);
        }
        if (dashed_ && std::fmod(arcStart, dashPeriod_) >= dashOn_) {
            return;
        }
        // The line keeps its width across a slope: a steep piece reaches further up and down, so
        // that the neighbouring columns overlap it (capped, or a spike would grow blobs).
        const double slope = covered > 0.0 ? (maxY_ - minY_) / covered : 0.0;
        const double reach = halfWidth_ * std::min(std::sqrt(1.0 + slope * slope), kMaxSlopeWidening);
        // A column the curve only touches at its edge still gets a trace of the line.
        spans_.push_back({column_, minY_ - reach, maxY_ + reach, std::max(covered, 0.25)});
    }

    double halfWidth_;
    bool dashed_;
    double dashOn_;
    double dashPeriod_;
    std::vector<double>& fillTop_;
    std::vector<double>& fillCoverage_;
    std::vector<StrokeSpan>& spans_;
    int firstColumn_;
    int endColumn_;

    bool open_ = false;
    int column_ = 0;
    double fromX_ = 0.0;
    double lastX_ = 0.0;
    double lastY_ = 0.0;
    double minY_ = 0.0;
    double maxY_ = 0.0;
    double area_ = 0.0;
    double arc_ = 0.0;
};

}  // namespace

void RasterizeGraphCurve(QImage& image, const QPainterPath& curve, double scale, const QRectF& clip,
                         const GraphCurveStyle& style) {
    if (curve.isEmpty() || !(scale > 0.0) || (image.format() != QImage::Format_RGB32 &&
                                              image.format() != QImage::Format_ARGB32_Premultiplied)) {
        return;
    }
    const QRectF deviceClip(clip.left() * scale, clip.top() * scale, clip.width() * scale, clip.height() * scale);
    const int left = std::max(0, static_cast<int>(std::floor(deviceClip.left())));
    const int right = std::min(image.width(), static_cast<int>(std::ceil(deviceClip.right())));
    const int top = std::max(0, static_cast<int>(std::floor(deviceClip.top())));
    const int bottom = std::min(image.height(), static_cast<int>(std::ceil(deviceClip.bottom())));
    if (left >= right || top >= bottom) {
        return;
    }

    thread_local std::vector<double> fillTop;
    thread_local std::vector<double> fillCoverage;
    thread_local std::vector<StrokeSpan> spans;
    const auto columns = static_cast<std::size_t>(right - left);
    fillTop.assign(columns, std::numeric_limits<double>::infinity());
    fillCoverage.assign(columns, 0.0);
    spans.clear();

    ColumnCollector collector(style.lineWidth / 2.0, style.dashed, std::max(scale, 1.0), fillTop, fillCoverage,
                              spans, left, right);
    for (int i = 0; i < curve.elementCount(); ++i) {
        const QPainterPath::Element element = curve.elementAt(i);
        switch (element.type) {
        case QPainterPath::MoveToElement:
            collector.MoveTo(element.x * scale, element.y * scale);
            break;
        case QPainterPath::LineToElement:
            collector.LineTo(element.x * scale, element.y * scale);
            break;
        case QPainterPath::CurveToElement:
            if (i + 2 < curve.elementCount()) {
                const QPainterPath::Element second = curve.elementAt(i + 1);
                const QPainterPath::Element end = curve.elementAt(i + 2);
                collector.CubicTo(element.y * scale, second.y * scale, end.x * scale, end.y * scale);
                i += 2;
            }
            break;
        case QPainterPath::CurveToDataElement:
            break;
        }
    }
    collector.Finish();

    uchar* const bits = image.bits();
    const qsizetype stride = image.bytesPerLine();
    const auto pixel = [&](int row, int column) -> std::uint32_t& {
        return reinterpret_cast<std::uint32_t*>(bits + row * stride)[column];
    };

    if (!style.fillRows.empty()) {
        FillUnderCurve(bits, stride, left, top, bottom, fillTop, fillCoverage, style.fillRows);
    }

    const std::uint32_t line = qPremultiply(style.line.rgba());
    for (const StrokeSpan& span : spans) {
        if (span.column < left || span.column >= right) {
            continue;
        }
        const int firstRow = std::max(top, static_cast<int>(std::floor(span.top)));
        const int lastRow = std::min(bottom, static_cast<int>(std::ceil(span.bottom)));
        for (int row = firstRow; row < lastRow; ++row) {
            const double vertical = std::min(row + 1.0, span.bottom) - std::max<double>(row, span.top);
            const std::uint32_t coverage = CoverageByte(vertical * span.coverage);
            if (coverage != 0) {
                BlendOver(pixel(row, span.column), line, coverage);
            }
        }
    }
}

}  // namespace korv::host::linux_client
