#include "host/linux_client/graph_path_builder.h"

#include <gtest/gtest.h>

#include <QPainterPath>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>
#include <random>
#include <vector>

namespace korv::host::linux_client {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

GraphPoint Valid(std::uint64_t timeNs, double value) {
    return GraphPoint{timeNs, value, true, false};
}

GraphPoint Missing(std::uint64_t timeNs) {
    return GraphPoint{timeNs, 0.0, false, false};
}

// One point every `interval` ns up to `now`, the values from `values`, oldest first.
std::deque<GraphPoint> Evenly(const std::vector<double>& values, std::uint64_t interval, std::uint64_t now) {
    std::deque<GraphPoint> points;
    for (std::size_t i = 0; i < values.size(); ++i) {
        points.push_back(Valid(now - (values.size() - 1 - i) * interval, values[i]));
    }
    return points;
}

// A 1000 x 100 plot at one nanosecond a column: a point's age in ns is its distance from the right.
GraphPathInput PlainInput(const std::deque<GraphPoint>& points, std::uint64_t now) {
    return GraphPathInput{points, QRectF(0.0, 0.0, 1000.0, 100.0), now, 1, false, 15.0, true, 0.0, 100.0};
}

struct PathShape {
    int moves = 0;
    int lines = 0;
    int curves = 0;
};

PathShape ShapeOf(const QPainterPath& path) {
    PathShape shape;
    for (int i = 0; i < path.elementCount(); ++i) {
        switch (path.elementAt(i).type) {
        case QPainterPath::MoveToElement:
            ++shape.moves;
            break;
        case QPainterPath::LineToElement:
            ++shape.lines;
            break;
        case QPainterPath::CurveToElement:
            ++shape.curves;
            break;
        case QPainterPath::CurveToDataElement:
            break;
        }
    }
    return shape;
}

// The largest distance by which a cubic's control point leaves the vertical range of its two ends.
double WorstControlOvershoot(const QPainterPath& path) {
    double worst = 0.0;
    for (int i = 1; i + 2 < path.elementCount(); ++i) {
        if (path.elementAt(i).type != QPainterPath::CurveToElement) {
            continue;
        }
        const double y0 = path.elementAt(i - 1).y;
        const double y3 = path.elementAt(i + 2).y;
        const double low = std::min(y0, y3);
        const double high = std::max(y0, y3);
        for (const int c : {i, i + 1}) {
            const double y = path.elementAt(c).y;
            worst = std::max({worst, low - y, y - high});
        }
    }
    return worst;
}

struct BreakCase {
    const char* name;
    bool smooth;
    bool breakByGap;  // the break is a gapBefore on a valid point instead of an invalid point
};

void PrintTo(const BreakCase& c, std::ostream* out) {
    *out << c.name;
}

class GraphPathBreakTest : public ::testing::TestWithParam<BreakCase> {};

TEST_P(GraphPathBreakTest, ARunIsCutWhereTheSeriesBreaks) {
    const BreakCase& c = GetParam();
    std::deque<GraphPoint> points{Valid(100, 10.0), Valid(200, 80.0), Missing(300), Valid(400, 30.0),
                                  Valid(500, 55.0)};
    if (c.breakByGap) {
        points[2] = Valid(300, 40.0);
        points[2].gapBefore = true;
        points[3].gapBefore = true;  // the lone point at 300 forms no sub-path of its own
    }
    GraphPathInput input = PlainInput(points, 500);
    input.smooth = c.smooth;
    const QPainterPath path = BuildGraphPath(input);
    const PathShape shape = ShapeOf(path);
    EXPECT_EQ(shape.moves, 2);
    EXPECT_EQ(c.smooth ? shape.curves : shape.lines, 2);
    EXPECT_EQ(c.smooth ? shape.lines : shape.curves, 0);
    EXPECT_LE(WorstControlOvershoot(path), 1e-9);
    // The second sub-path starts at the point after the break: 100 ns old, 30% high.
    const int second = c.smooth ? 4 : 2;
    ASSERT_GT(path.elementCount(), second);
    EXPECT_EQ(path.elementAt(second).type, QPainterPath::MoveToElement);
    EXPECT_NEAR(path.elementAt(second).x, 900.0, 1e-9);
    EXPECT_NEAR(path.elementAt(second).y, 70.0, 1e-9);
}

INSTANTIATE_TEST_SUITE_P(Breaks, GraphPathBreakTest,
                         ::testing::Values(BreakCase{"smooth_invalid", true, false},
                                           BreakCase{"straight_invalid", false, false},
                                           BreakCase{"smooth_gap", true, true},
                                           BreakCase{"straight_gap", false, true}));

struct RandomCase {
    unsigned seed;
    bool monotone;
    bool compress;
};

void PrintTo(const RandomCase& c, std::ostream* out) {
    *out << "seed " << c.seed << (c.monotone ? " monotone" : " jagged") << (c.compress ? " compressed" : "");
}

class GraphPathControlTest : public ::testing::TestWithParam<RandomCase> {};

TEST_P(GraphPathControlTest, ControlPointsStayWithinTheirSegment) {
    const RandomCase& c = GetParam();
    std::mt19937 random(c.seed);
    std::uniform_real_distribution<double> step(0.0, 4.0);
    std::uniform_real_distribution<double> level(-20.0, 120.0);  // beyond the range too: clamped
    std::uniform_int_distribution<int> flat(0, 5);
    std::vector<double> values;
    double value = 0.0;
    for (int i = 0; i < 600; ++i) {
        if (c.monotone) {
            value += flat(random) == 0 ? 0.0 : step(random);
        } else {
            value = flat(random) == 0 ? value : level(random);
        }
        values.push_back(value);
    }
    const std::deque<GraphPoint> points = Evenly(values, 3, 3000);
    GraphPathInput input = PlainInput(points, 3000);
    input.compress = c.compress;
    input.maxValue = c.monotone ? value : 100.0;
    const QPainterPath path = BuildGraphPath(input);
    ASSERT_GT(ShapeOf(path).curves, 100);
    EXPECT_LE(WorstControlOvershoot(path), 1e-9);
    // The drawn curve never leaves the plot's value band either.
    const QRectF bounds = path.boundingRect();
    EXPECT_GE(bounds.top(), -1e-9);
    EXPECT_LE(bounds.bottom(), 100.0 + 1e-9);
}

INSTANTIATE_TEST_SUITE_P(Series, GraphPathControlTest,
                         ::testing::Values(RandomCase{1, true, false}, RandomCase{2, true, true},
                                           RandomCase{3, false, false}, RandomCase{4, false, true},
                                           RandomCase{5, false, false}, RandomCase{6, true, false}));

const std::deque<GraphPoint> kFourPoints = Evenly({10.0, 20.0, 30.0, 40.0}, 10, 1000);
const std::deque<GraphPoint> kOnePoint{GraphPoint{1000, 5.0, true, false}};
const std::deque<GraphPoint> kNoPoint;

struct BadInputCase {
    const char* name;
    const std::deque<GraphPoint>* points;
    void (*spoil)(GraphPathInput&);
};

void PrintTo(const BadInputCase& c, std::ostream* out) {
    *out << c.name;
}

class GraphPathBadInputTest : public ::testing::TestWithParam<BadInputCase> {};

TEST_P(GraphPathBadInputTest, GivesAnEmptyPath) {
    ASSERT_FALSE(BuildGraphPath(PlainInput(kFourPoints, 1000)).isEmpty()) << "the unspoilt input draws";
    GraphPathInput input = PlainInput(*GetParam().points, 1000);
    GetParam().spoil(input);
    EXPECT_FALSE(GraphInputUsable(input));
    EXPECT_TRUE(BuildGraphPath(input).isEmpty());
}

void Keep(GraphPathInput& /*input*/) {}

INSTANTIATE_TEST_SUITE_P(
    Inputs, GraphPathBadInputTest,
    ::testing::Values(
        BadInputCase{"one_point", &kOnePoint, Keep}, BadInputCase{"no_point", &kNoPoint, Keep},
        BadInputCase{"interval_zero", &kFourPoints, [](GraphPathInput& in) { in.sampleIntervalNs = 0; }},
        BadInputCase{"now_zero", &kFourPoints, [](GraphPathInput& in) { in.nowNs = 0; }},
        BadInputCase{"max_nan", &kFourPoints, [](GraphPathInput& in) { in.maxValue = kNaN; }},
        BadInputCase{"max_infinite", &kFourPoints, [](GraphPathInput& in) { in.maxValue = kInf; }},
        BadInputCase{"max_zero", &kFourPoints, [](GraphPathInput& in) { in.maxValue = 0.0; }},
        BadInputCase{"max_negative", &kFourPoints,
                     [](GraphPathInput& in) {
                         in.minValue = -10.0;
                         in.maxValue = -1.0;
                     }},
        BadInputCase{"min_nan", &kFourPoints, [](GraphPathInput& in) { in.minValue = kNaN; }},
        BadInputCase{"min_minus_infinite", &kFourPoints, [](GraphPathInput& in) { in.minValue = -kInf; }},
        BadInputCase{"min_equals_max", &kFourPoints, [](GraphPathInput& in) { in.minValue = in.maxValue; }},
        BadInputCase{"min_above_max", &kFourPoints, [](GraphPathInput& in) { in.minValue = in.maxValue + 1.0; }},
        BadInputCase{"zero_width", &kFourPoints, [](GraphPathInput& in) { in.plot.setWidth(0.0); }},
        BadInputCase{"zero_height", &kFourPoints, [](GraphPathInput& in) { in.plot.setHeight(0.0); }},
        BadInputCase{"nan_width", &kFourPoints, [](GraphPathInput& in) { in.plot.setWidth(kNaN); }}));

TEST(GraphPathTest, AFlatSeriesWithoutCompressionIsAStraightLine) {
    const std::deque<GraphPoint> points = Evenly(std::vector<double>(50, 42.0), 7, 1000);
    for (const bool smooth : {true, false}) {
        GraphPathInput input = PlainInput(points, 1000);
        input.smooth = smooth;
        const QPainterPath path = BuildGraphPath(input);
        ASSERT_EQ(ShapeOf(path).moves, 1);
        for (int i = 0; i < path.elementCount(); ++i) {
            EXPECT_NEAR(path.elementAt(i).y, 58.0, 1e-12) << "element " << i;
        }
        // Every x lies on the straight time axis, control points included, one 7 ns step apart.
        EXPECT_NEAR(path.elementAt(0).x, 1000.0 - 49 * 7, 1e-9);
        EXPECT_NEAR(path.elementAt(path.elementCount() - 1).x, 1000.0, 1e-9);
    }
}

TEST(GraphPathTest, TwoPointsDrawOneSegment) {
    const std::deque<GraphPoint> points{Valid(900, 0.0), Valid(1000, 100.0)};
    GraphPathInput input = PlainInput(points, 1000);
    const PathShape smooth = ShapeOf(BuildGraphPath(input));
    EXPECT_EQ(smooth.moves, 1);
    EXPECT_EQ(smooth.curves, 1);
    EXPECT_EQ(smooth.lines, 0);
    input.smooth = false;
    const QPainterPath straight = BuildGraphPath(input);
    EXPECT_EQ(ShapeOf(straight).moves, 1);
    EXPECT_EQ(ShapeOf(straight).lines, 1);
    EXPECT_EQ(straight.elementAt(0), QPointF(900.0, 100.0));
    EXPECT_EQ(straight.elementAt(1), QPointF(1000.0, 0.0));
}

TEST(GraphPathTest, FuturePointsLieRightOfThePlotAndOnlyTwoAreTaken) {
    std::deque<GraphPoint> points = Evenly({10.0, 20.0, 30.0}, 100, 1000);
    for (std::uint64_t t = 1100; t <= 50000; t += 100) {
        points.push_back(Valid(t, 50.0));
    }
    const QPainterPath path = BuildGraphPath(PlainInput(points, 1000));
    const PathShape shape = ShapeOf(path);
    EXPECT_EQ(shape.moves, 1);
    EXPECT_EQ(shape.curves, 4);  // three past points and two of the future
    const QPointF last = path.elementAt(path.elementCount() - 1);
    EXPECT_NEAR(last.x(), 1200.0, 1e-9);  // 200 ns ahead of now at one column a nanosecond
}

TEST(GraphPathTest, PointsLongOutOfRangeAddNoElements) {
    // The same recent points behind more and more ancient history.
    const auto build = [](std::size_t ancient, bool compress) {
        std::deque<GraphPoint> points;
        for (std::size_t i = 0; i < ancient; ++i) {
            points.push_back(Valid(1 + i, 50.0 + static_cast<double>(i % 7)));
        }
        for (std::uint64_t t = 1'000'000; t <= 1'002'000; t += 4) {
            points.push_back(Valid(t, static_cast<double>(t % 90)));
        }
        GraphPathInput input = PlainInput(points, 1'002'000);
        input.compress = compress;
        return BuildGraphPath(input).elementCount();
    };
    for (const bool compress : {false, true}) {
        const int few = build(10, compress);
        EXPECT_EQ(build(200'000, compress), few) << "compress " << compress;
        EXPECT_LT(few, 3 * 600) << "only the visible points and two beyond the edge are drawn";
    }
}

TEST(GraphPathTest, TheRangeTakesTwoValidPointsBeyondTheLeftEdge) {
    // Visible: ages up to 1000 ns, so times from 1000 on; before that one invalid among the valid.
    std::deque<GraphPoint> points{Valid(100, 1.0), Valid(400, 2.0), Valid(700, 3.0), Missing(900),
                                  Valid(1200, 4.0), Valid(2000, 5.0)};
    const GraphVisibleRange range = FindGraphVisibleRange(PlainInput(points, 2000));
    EXPECT_EQ(range.first, 1u);
    EXPECT_EQ(range.last, points.size());
}

TEST(GraphPathTest, CompressionAtRatioFourIsTheUncompressedAxis) {
    std::vector<double> values;
    for (int i = 0; i < 300; ++i) {
        values.push_back(50.0 + 40.0 * std::sin(i / 9.0));
    }
    const std::deque<GraphPoint> points = Evenly(values, 3, 1000);
    GraphPathInput plain = PlainInput(points, 1000);
    GraphPathInput compressed = plain;
    compressed.compress = true;
    compressed.ratio = 4.0;
    const QPainterPath a = BuildGraphPath(plain);
    const QPainterPath b = BuildGraphPath(compressed);
    ASSERT_EQ(a.elementCount(), b.elementCount());
    for (int i = 0; i < a.elementCount(); ++i) {
        EXPECT_NEAR(a.elementAt(i).x, b.elementAt(i).x, 1e-9);
        EXPECT_NEAR(a.elementAt(i).y, b.elementAt(i).y, 1e-12);
    }
}

TEST(GraphPathTest, CompressionReachesBackRatioOverFourBaseSpans) {
    // Ratio 15 at 1000 ns a column: 3.75 base spans of 1 ms fill the width.
    constexpr std::uint64_t kNow = 10'000'000;
    const std::deque<GraphPoint> points{Valid(kNow - 3'000'000, 1.0), Valid(kNow, 2.0)};
    GraphPathInput input = PlainInput(points, kNow);
    input.sampleIntervalNs = 1000;
    input.compress = true;
    input.ratio = 15.0;
    const TimeWarp warp(15.0);
    const auto ago = [&](double baseSpans) { return kNow - static_cast<std::uint64_t>(std::llround(baseSpans * 1e6)); };
    EXPECT_NEAR(GraphVisibleSpanNs(input), 3'750'000.0, 1e-6);
    EXPECT_NEAR(GraphXForTime(input, warp, kNow), 1000.0, 1e-9);       // now: the right edge
    EXPECT_NEAR(GraphXForTime(input, warp, ago(0.25)), 750.0, 1e-6);   // the first joint
    const double r = warp.Root();
    EXPECT_NEAR(GraphXForTime(input, warp, ago(0.25 * (1.0 + r))), 500.0, 1e-3);
    EXPECT_NEAR(GraphXForTime(input, warp, ago(0.25 * (1.0 + r + r * r))), 250.0, 1e-3);
    EXPECT_NEAR(GraphXForTime(input, warp, ago(3.75)), 0.0, 1e-3);     // the left edge
    EXPECT_LT(GraphXForTime(input, warp, ago(4.0)), 0.0);              // older still: beyond it
    input.compress = false;
    EXPECT_NEAR(GraphXForTime(input, warp, ago(0.5)), 500.0, 1e-6);
}

TEST(GraphPathTest, NonFiniteValuesBreakTheCurve) {
    std::deque<GraphPoint> points = Evenly({10.0, 20.0, 30.0, 40.0, 50.0}, 100, 1000);
    points[2].value = kNaN;  // still flagged valid
    EXPECT_EQ(ShapeOf(BuildGraphPath(PlainInput(points, 1000))).moves, 2);
}

struct RatioCase {
    double input;
    double clamped;
};

class CompressionRatioTest : public ::testing::TestWithParam<RatioCase> {};

TEST_P(CompressionRatioTest, IsClampedToFourToSixtyThree) {
    EXPECT_DOUBLE_EQ(ClampCompressionRatio(GetParam().input), GetParam().clamped);
}

INSTANTIATE_TEST_SUITE_P(Ratios, CompressionRatioTest,
                         ::testing::Values(RatioCase{2.0, 4.0}, RatioCase{99.0, 63.0}, RatioCase{-5.0, 4.0},
                                           RatioCase{15.0, 15.0}, RatioCase{17.25, 17.25}, RatioCase{kInf, 63.0},
                                           RatioCase{kNaN, 4.0}));

TEST(TimeWarpTest, RootTableHoldsTheKnownRoots) {
    EXPECT_DOUBLE_EQ(WarpRootForRatio(2.0), 0.5436890126920764);
    EXPECT_DOUBLE_EQ(WarpRootForRatio(3.0), 0.8105357137661366);
    EXPECT_DOUBLE_EQ(WarpRootForRatio(4.0), 1.0);
    EXPECT_DOUBLE_EQ(WarpRootForRatio(5.0), 1.1509110843359425);
    EXPECT_DOUBLE_EQ(WarpRootForRatio(6.0), 1.2781630727981486);
    EXPECT_DOUBLE_EQ(WarpRootForRatio(7.0), 1.389193596539684);
    EXPECT_EQ(WarpRootForRatio(0.0), 0.0);
    EXPECT_EQ(WarpRootForRatio(1.0), 0.0);
}

TEST(TimeWarpTest, EveryRootSolvesTheQuarterSum) {
    std::vector<double> ratios;
    for (int n = 2; n <= 63; ++n) {
        ratios.push_back(n);  // the table
    }
    for (const double ratio : {4.5, 7.25, 15.3, 33.3333, 62.9, 63.5, 100.7}) {
        ratios.push_back(ratio);  // bisection
    }
    for (const double ratio : ratios) {
        const double r = WarpRootForRatio(ratio);
        EXPECT_GT(r, 0.0);
        EXPECT_NEAR(1.0 + r + r * r + r * r * r, ratio, 1e-12 * ratio) << "ratio " << ratio;
    }
    // Bisection and table meet: the root is continuous across a whole ratio.
    EXPECT_NEAR(WarpRootForRatio(15.0 + 1e-9), WarpRootForRatio(15.0), 1e-9);
    EXPECT_NEAR(WarpRootForRatio(15.0 - 1e-9), WarpRootForRatio(15.0), 1e-9);
}

class TimeWarpShapeTest : public ::testing::TestWithParam<double> {};

TEST_P(TimeWarpShapeTest, IsMonotoneAndSmoothAcrossTheQuarterJoints) {
    const double ratio = GetParam();
    const TimeWarp warp(ratio);
    EXPECT_NEAR(warp.SourceSpan(), ClampCompressionRatio(ratio) / 4.0, 1e-9);
    EXPECT_DOUBLE_EQ(warp.SourceAt(0.0), 0.0);
    EXPECT_NEAR(warp.SourceAt(1.0), warp.SourceSpan(), 1e-12);

    double previous = warp.SourceAt(-0.1);
    for (int i = -99; i <= 1100; ++i) {
        const double source = warp.SourceAt(i / 1000.0);
        EXPECT_GT(source, previous) << "at " << i / 1000.0;
        previous = source;
    }

    for (const double joint : {0.0, 0.25, 0.5, 0.75, 1.0}) {
        const double at = warp.SourceAt(joint);
        EXPECT_NEAR(warp.SourceAt(joint - 1e-12), at, 1e-9) << "value at joint " << joint;
        EXPECT_NEAR(warp.SourceAt(joint + 1e-12), at, 1e-9) << "value at joint " << joint;
        const double h = 1e-7;
        const double slopeLeft = (at - warp.SourceAt(joint - h)) / h;
        const double slopeRight = (warp.SourceAt(joint + h) - at) / h;
        EXPECT_NEAR(slopeLeft, slopeRight, 1e-3 * std::max(1.0, slopeLeft)) << "slope at joint " << joint;
    }
    const double h = 1e-7;
    // The quarters' scales: 1 at the right, r^3 past the left edge.
    const double r = warp.Root();
    EXPECT_NEAR((warp.SourceAt(h) - warp.SourceAt(0.0)) / h, 1.0, 1e-4);
    EXPECT_NEAR((warp.SourceAt(1.0 + h) - warp.SourceAt(1.0)) / h, r * r * r, 1e-4 * r * r * r);
}

TEST_P(TimeWarpShapeTest, NewtonStepsInvertTheCubic) {
    const TimeWarp warp(GetParam());
    for (int i = -50; i <= 1050; ++i) {
        const double screen = i / 1000.0;
        EXPECT_NEAR(warp.ScreenFractionAt(warp.SourceAt(screen)), screen, 1e-12) << "screen " << screen;
    }
    EXPECT_NEAR(WarpAgeFraction(warp.SourceAt(0.6), GetParam()), 0.6, 1e-12);
    EXPECT_NEAR(WarpSourceAt(0.6, GetParam()), warp.SourceAt(0.6), 1e-15);
}

INSTANTIATE_TEST_SUITE_P(Ratios, TimeWarpShapeTest, ::testing::Values(4.0, 4.5, 9.0, 15.0, 33.3, 63.0, 2.0, 99.0));

// Rasterizing: a white 100 x 60 canvas, black curves, one device pixel per unit unless scaled.
class GraphRasterTest : public ::testing::Test {
protected:
    void SetUp() override { image.fill(Qt::white); }

    int Gray(int x, int y) const { return qGray(image.pixel(x, y)); }
    // The darkest pixel of a column between two rows.
    int Darkest(int x, int fromY, int toY) const {
        int darkest = 255;
        for (int y = fromY; y <= toY; ++y) {
            darkest = std::min(darkest, Gray(x, y));
        }
        return darkest;
    }
    bool Untouched(int x, int y) const { return image.pixel(x, y) == qRgb(255, 255, 255); }

    QImage image{100, 60, QImage::Format_RGB32};
    GraphCurveStyle style{QColor(Qt::black), 1.5, false, {}};
    const QRectF everything{0.0, 0.0, 100.0, 60.0};
};

TEST_F(GraphRasterTest, AFlatLineCoversItsWidthWithAntialiasedEdges) {
    QPainterPath path(QPointF(10.0, 30.5));
    path.lineTo(90.0, 30.5);
    RasterizeGraphCurve(image, path, 1.0, everything, style);
    for (int x = 11; x < 89; ++x) {
        // The line spans rows 29.75 to 31.25: row 30 whole, a quarter of rows 29 and 31.
        EXPECT_EQ(Gray(x, 30), 0) << x;
        EXPECT_NEAR(Gray(x, 29), 191, 2) << x;
        EXPECT_NEAR(Gray(x, 31), 191, 2) << x;
        EXPECT_TRUE(Untouched(x, 28) && Untouched(x, 32)) << x;
    }
    for (const int x : {0, 8, 91, 99}) {
        EXPECT_TRUE(Untouched(x, 30)) << x;
    }
}

TEST_F(GraphRasterTest, TheFillReachesFromTheCurveToTheBottomOfTheClip) {
    QPainterPath path(QPointF(20.0, 20.0));
    path.lineTo(60.0, 20.0);
    style.fillRows = {qPremultiply(qRgba(255, 0, 0, 255))};
    const QRectF plot(0.0, 5.0, 100.0, 45.0);  // bottom at 50
    RasterizeGraphCurve(image, path, 1.0, plot, style);
    EXPECT_EQ(image.pixel(40, 25), qRgb(255, 0, 0));
    EXPECT_EQ(image.pixel(40, 49), qRgb(255, 0, 0));
    EXPECT_TRUE(Untouched(40, 50)) << "below the clip";
    EXPECT_TRUE(Untouched(40, 15)) << "above the curve";
    EXPECT_TRUE(Untouched(10, 40)) << "left of the curve";
    EXPECT_TRUE(Untouched(70, 40)) << "right of the curve";
}

TEST_F(GraphRasterTest, FillColoursFollowTheRows) {
    QPainterPath path(QPointF(0.0, 0.0));
    path.lineTo(100.0, 0.0);
    style.line = QColor(0, 0, 0, 0);
    for (int row = 0; row < 60; ++row) {
        style.fillRows.push_back(qPremultiply(qRgba(row * 4, 0, 0, 255)));
    }
    RasterizeGraphCurve(image, path, 1.0, everything, style);
    EXPECT_EQ(qRed(image.pixel(50, 10)), 40);
    EXPECT_EQ(qRed(image.pixel(50, 59)), 236);
}

TEST_F(GraphRasterTest, NothingOutsideTheClipChanges) {
    QPainterPath path(QPointF(0.0, 10.0));
    path.lineTo(100.0, 50.0);
    style.fillRows = {qPremultiply(qRgba(0, 0, 255, 128))};
    const QRectF clip(30.0, 0.0, 40.0, 40.0);
    RasterizeGraphCurve(image, path, 1.0, clip, style);
    int changedInside = 0;
    for (int y = 0; y < 60; ++y) {
        for (int x = 0; x < 100; ++x) {
            if (clip.contains(x + 0.5, y + 0.5)) {
                changedInside += Untouched(x, y) ? 0 : 1;
            } else {
                EXPECT_TRUE(Untouched(x, y)) << x << "," << y;
            }
        }
    }
    EXPECT_GT(changedInside, 400);
}

TEST_F(GraphRasterTest, ASteepSegmentLeavesNoHoleInItsColumn) {
    QPainterPath path(QPointF(10.2, 5.0));
    path.lineTo(10.8, 55.0);
    RasterizeGraphCurve(image, path, 1.0, everything, style);
    for (int y = 5; y < 55; ++y) {
        EXPECT_LT(Gray(10, y), 255) << y;
    }
    EXPECT_TRUE(Untouched(9, 30));
    EXPECT_TRUE(Untouched(11, 30));
}

TEST_F(GraphRasterTest, ACubicIsFollowedColumnByColumn) {
    // From (0, 50) to (90, 10), flat at both ends: the middle column sits half-way.
    QPainterPath path(QPointF(0.0, 50.0));
    path.cubicTo(30.0, 50.0, 60.0, 10.0, 90.0, 10.0);
    RasterizeGraphCurve(image, path, 1.0, everything, style);
    EXPECT_LT(Darkest(45, 29, 31), 64);
    EXPECT_TRUE(Untouched(45, 27) && Untouched(45, 33));
    EXPECT_LT(Darkest(2, 49, 50), 64);
    EXPECT_LT(Darkest(88, 9, 10), 64);
}

TEST_F(GraphRasterTest, GapsBetweenSubPathsStayEmpty) {
    const std::deque<GraphPoint> points{Valid(10, 50.0), Valid(30, 50.0), Missing(50), Valid(70, 50.0),
                                        Valid(90, 50.0)};
    const GraphPathInput input{points, QRectF(0.0, 0.0, 100.0, 60.0), 100, 1, false, 15.0, true, 0.0, 100.0};
    style.fillRows = {qPremultiply(qRgba(0, 128, 0, 255))};
    RasterizeGraphCurve(image, BuildGraphPath(input), 1.0, input.plot, style);
    for (int x = 42; x < 58; ++x) {
        EXPECT_TRUE(Untouched(x, 40)) << x;
    }
    EXPECT_FALSE(Untouched(20, 40));
    EXPECT_FALSE(Untouched(80, 40));
}

TEST_F(GraphRasterTest, DashedLinesLeaveRegularHoles) {
    QPainterPath path(QPointF(0.0, 30.5));
    path.lineTo(100.0, 30.5);
    style.dashed = true;
    RasterizeGraphCurve(image, path, 1.0, everything, style);
    int drawn = 0;
    int runs = 0;
    for (int x = 0; x < 100; ++x) {
        const bool ink = !Untouched(x, 30);
        drawn += ink ? 1 : 0;
        runs += ink && (x == 0 || Untouched(x - 1, 30)) ? 1 : 0;
    }
    EXPECT_GT(drawn, 40);
    EXPECT_LT(drawn, 70);
    EXPECT_GE(runs, 9);
}

TEST_F(GraphRasterTest, ScalesToDevicePixels) {
    QPainterPath path(QPointF(5.0, 10.25));
    path.lineTo(45.0, 10.25);
    style.lineWidth = 1.0;
    RasterizeGraphCurve(image, path, 2.0, QRectF(0.0, 0.0, 50.0, 30.0), style);
    // Device row 20 holds the whole line, from x 10 to 90.
    EXPECT_EQ(Gray(50, 20), 0);
    EXPECT_TRUE(Untouched(50, 18) && Untouched(50, 22));
    EXPECT_TRUE(Untouched(5, 20));
    EXPECT_EQ(Gray(85, 20), 0);
}

TEST_F(GraphRasterTest, APointFarOutsideOnlyBendsTheEntry) {
    // An old sample a long pause ago lies a billion pixels to the left; the curve enters at y 10.
    QPainterPath path(QPointF(-1e9, 10.5));
    path.lineTo(50.0, 10.5);
    RasterizeGraphCurve(image, path, 1.0, everything, style);
    EXPECT_EQ(Gray(0, 10), 0);
    EXPECT_EQ(Gray(49, 10), 0);
    EXPECT_TRUE(Untouched(60, 10));
}

}  // namespace
}  // namespace korv::host::linux_client
