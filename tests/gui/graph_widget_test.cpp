#include "host/linux_client/graph_widget.h"

#include "host/linux_client/history_store.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QEvent>
#include <QImage>
#include <QPalette>
#include <QTest>

#include <cmath>
#include <limits>
#include <optional>
#include <ostream>
#include <set>
#include <vector>

namespace korv::host::linux_client {
namespace {

constexpr int kWaitMs = 10000;
constexpr std::uint64_t kInterval = 125'000'000;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// `count` points one nominal interval apart ending at `now`, values rising from `first`.
std::deque<GraphPoint> Ramp(std::size_t count, std::uint64_t now, double first = 0.0) {
    std::deque<GraphPoint> points;
    for (std::size_t i = 0; i < count; ++i) {
        points.push_back(GraphPoint{now - (count - 1 - i) * kInterval, first + static_cast<double>(i), true, false});
    }
    return points;
}

class PaintCounter : public QObject {
public:
    int paints = 0;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Paint) {
            ++paints;
        }
        return QObject::eventFilter(watched, event);
    }
};

class GraphWidgetTest : public ::testing::Test {
protected:
    void SetUp() override {
        graph.resize(600, 240);
        graph.SetCompression(false, 15.0);
        graph.SetPoints(Ramp(100, 100 * kInterval));
    }

    void ShowAndSettle() {
        graph.installEventFilter(&counter);
        graph.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&graph, kWaitMs));
        ASSERT_TRUE(QTest::qWaitFor([&] { return PaintsAfterFlush() > 0; }, kWaitMs));
    }

    // Delivers every update the widget has asked for; returns how many paints arrived.
    int PaintsAfterFlush() {
        for (int round = 0; round < 3; ++round) {
            QCoreApplication::sendPostedEvents();
            QCoreApplication::processEvents();
        }
        const int paints = counter.paints;
        counter.paints = 0;
        return paints;
    }

    double XOfIndex(int index) const {
        const GraphPoint& point = graph.Points(0).at(static_cast<std::size_t>(index));
        const GraphPathInput input{graph.Points(0), graph.PlotRect(), graph.Points(0).back().timeNs, kInterval,
                                   graph.CompressionEnabled(), graph.CompressionRatio()};
        return GraphXForTime(input, TimeWarp(graph.CompressionRatio()), point.timeNs);
    }

    // The toolkit drops a move to where the pointer already is, and the pointer stays where the
    // previous test left it: a step aside first makes every move arrive.
    void MoveTo(QPoint point) {
        QTest::mouseMove(&graph, point + QPoint(0, point.y() > 50 ? -7 : 7));
        QTest::mouseMove(&graph, point);
    }

    QPoint PlotPointAtIndex(int index) const {
        return QPoint(static_cast<int>(std::lround(XOfIndex(index))), static_cast<int>(graph.PlotRect().center().y()));
    }

    GraphWidget graph;
    PaintCounter counter;
};

TEST_F(GraphWidgetTest, StartsWithItsDocumentedState) {
    GraphWidget fresh;
    EXPECT_EQ(fresh.Capacity(), 2435);
    EXPECT_TRUE(fresh.CompressionEnabled());
    EXPECT_DOUBLE_EQ(fresh.CompressionRatio(), 15.0);
    EXPECT_TRUE(fresh.SmoothCurves());
    EXPECT_EQ(fresh.SampleInterval(), kInterval);
    EXPECT_EQ(fresh.SeriesColor(0), QColor(0x41, 0xC6, 0xFF));
    EXPECT_DOUBLE_EQ(fresh.MinimumValue(2), 0.0);
    EXPECT_DOUBLE_EQ(fresh.MaximumValue(2), 100.0);
    EXPECT_EQ(fresh.minimumHeight(), 90);
    EXPECT_EQ(fresh.accessibleName(), QStringLiteral("Performance history graph"));
    EXPECT_TRUE(fresh.testAttribute(Qt::WA_OpaquePaintEvent));
    EXPECT_EQ(fresh.sizePolicy().horizontalPolicy(), QSizePolicy::Expanding);
    EXPECT_EQ(fresh.sizePolicy().verticalPolicy(), QSizePolicy::Expanding);
    EXPECT_FALSE(fresh.hasMouseTracking()) << "no hover tracking without a callback";
}

struct RatioCase {
    double requested;
    double stored;
};

void PrintTo(const RatioCase& c, std::ostream* out) {
    *out << c.requested;
}

class GraphRatioTest : public ::testing::TestWithParam<RatioCase> {};

TEST_P(GraphRatioTest, StoresTheRatioClampedToFourToSixtyThree) {
    GraphWidget graph;
    graph.SetCompression(true, GetParam().requested);
    EXPECT_DOUBLE_EQ(graph.CompressionRatio(), GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(Ratios, GraphRatioTest,
                         ::testing::Values(RatioCase{2.0, 4.0}, RatioCase{99.0, 63.0}, RatioCase{4.0, 4.0},
                                           RatioCase{63.0, 63.0}, RatioCase{22.5, 22.5}, RatioCase{kNaN, 4.0}));

TEST_F(GraphWidgetTest, LoweringTheCapacityDropsTheOldestPointsOfEverySeries) {
    graph.SetPoints(1, Ramp(50, 100 * kInterval, 1000.0));
    graph.SetPoints(2, Ramp(8, 100 * kInterval, 2000.0));
    graph.SetCapacity(10);
    EXPECT_EQ(graph.Capacity(), 10);
    ASSERT_EQ(graph.Points(0).size(), 10u);
    ASSERT_EQ(graph.Points(1).size(), 10u);
    ASSERT_EQ(graph.Points(2).size(), 8u);
    EXPECT_DOUBLE_EQ(graph.Points(0).front().value, 90.0);
    EXPECT_DOUBLE_EQ(graph.Points(0).back().value, 99.0);
    EXPECT_DOUBLE_EQ(graph.Points(1).front().value, 1040.0);
    EXPECT_DOUBLE_EQ(graph.Points(2).front().value, 2000.0);

    graph.SetCapacity(1);
    EXPECT_EQ(graph.Capacity(), 2);
    EXPECT_EQ(graph.Points(0).size(), 2u);
    graph.SetPoints(0, Ramp(30, 100 * kInterval));
    EXPECT_EQ(graph.Points(0).size(), 2u) << "new points are trimmed too";
    EXPECT_DOUBLE_EQ(graph.Points(0).front().value, 28.0);
}

TEST_F(GraphWidgetTest, SettingPointsWithoutAnIndexReplacesAllThreeSeries) {
    graph.SetPoints(1, Ramp(5, 100 * kInterval));
    graph.SetPoints(2, Ramp(5, 100 * kInterval));
    graph.SetPoints(Ramp(7, 100 * kInterval));
    EXPECT_EQ(graph.Points(0).size(), 7u);
    EXPECT_TRUE(graph.Points(1).empty());
    EXPECT_TRUE(graph.Points(2).empty());
    graph.Clear();
    EXPECT_TRUE(graph.Points(0).empty());
    EXPECT_TRUE(graph.Points(7).empty()) << "an index out of range reads as an empty series";
}

TEST_F(GraphWidgetTest, NonFiniteValuesArriveAsMissingSamples) {
    std::deque<GraphPoint> points = Ramp(4, 100 * kInterval);
    points[1].value = kNaN;
    points[2].value = kInf;
    graph.SetPoints(0, points);
    EXPECT_TRUE(graph.Points(0)[0].valid);
    EXPECT_FALSE(graph.Points(0)[1].valid);
    EXPECT_FALSE(graph.Points(0)[2].valid);
    EXPECT_TRUE(graph.Points(0)[3].valid);
}

struct RangeCase {
    const char* name;
    double minValue;
    double maxValue;
    bool accepted;
};

void PrintTo(const RangeCase& c, std::ostream* out) {
    *out << c.name;
}

class GraphValueRangeTest : public ::testing::TestWithParam<RangeCase> {};

TEST_P(GraphValueRangeTest, AcceptsOnlyFiniteOrderedBounds) {
    GraphWidget graph;
    graph.SetValueRange(GetParam().minValue, GetParam().maxValue);
    EXPECT_DOUBLE_EQ(graph.MinimumValue(0), GetParam().accepted ? GetParam().minValue : 0.0);
    EXPECT_DOUBLE_EQ(graph.MaximumValue(0), GetParam().accepted ? GetParam().maxValue : 100.0);
    EXPECT_DOUBLE_EQ(graph.MaximumValue(1), 100.0) << "acts on series 0 only";
}

INSTANTIATE_TEST_SUITE_P(Ranges, GraphValueRangeTest,
                         ::testing::Values(RangeCase{"ordered", -5.0, 40.0, true},
                                           RangeCase{"equal", 40.0, 40.0, false},
                                           RangeCase{"reversed", 50.0, 10.0, false},
                                           RangeCase{"nan_min", kNaN, 10.0, false},
                                           RangeCase{"infinite_max", 0.0, kInf, false}));

TEST(GraphMaximumTest, FallsBackToZeroToOneForAMaximumThatIsNoUsableBound) {
    GraphWidget graph;
    graph.SetMaximum(1, 2048.0);
    EXPECT_DOUBLE_EQ(graph.MinimumValue(1), 0.0);
    EXPECT_DOUBLE_EQ(graph.MaximumValue(1), 2048.0);
    for (const double bad : {0.0, -3.0, kNaN, kInf}) {
        graph.SetMaximum(1, 2048.0);
        graph.SetMaximum(1, bad);
        EXPECT_DOUBLE_EQ(graph.MaximumValue(1), 1.0) << bad;
    }
}

TEST_F(GraphWidgetTest, SettersRepaintOnlyWhenSomethingChanged) {
    ShowAndSettle();
    struct Step {
        const char* name;
        std::function<void()> apply;
        bool repaints;
    };
    const std::vector<Step> steps{
        {"same colour", [&] { graph.SetSeriesColor(0, QColor(0x41, 0xC6, 0xFF)); }, false},
        {"new colour", [&] { graph.SetSeriesColor(0, QColor(Qt::red)); }, true},
        {"same range", [&] { graph.SetRange(0, 0.0, 100.0); }, false},
        {"new range", [&] { graph.SetRange(0, 0.0, 50.0); }, true},
        {"same title", [&] { graph.SetTitle(QStringLiteral("Scrolling history")); }, false},
        {"new title", [&] { graph.SetTitle(QStringLiteral("% Utilization")); }, true},
        {"same captions", [&] { graph.SetCaptions({}, {}, {}); }, false},
        {"new captions", [&] { graph.SetCaptions(QStringLiteral("left"), QStringLiteral("right"), Qt::green); }, true},
        {"same compression", [&] { graph.SetCompression(false, 15.0); }, false},
        {"new compression", [&] { graph.SetCompression(true, 63.0); }, true},
        {"clamped to the same", [&] { graph.SetCompression(true, 99.0); }, false},
        {"new points", [&] { graph.SetPoints(1, Ramp(20, 100 * kInterval)); }, true},
    };
    for (const Step& step : steps) {
        step.apply();
        if (step.repaints) {
            EXPECT_TRUE(QTest::qWaitFor([&] { return PaintsAfterFlush() > 0; }, kWaitMs)) << step.name;
        } else {
            EXPECT_EQ(PaintsAfterFlush(), 0) << step.name;
        }
    }
}

TEST_F(GraphWidgetTest, PointIndexAtFindsTheNearestPointUnderX) {
    for (const bool compress : {false, true}) {
        graph.SetCompression(compress, 15.0);
        for (const int index : {99, 98, 80, 50, 0}) {
            EXPECT_EQ(graph.PointIndexAt(XOfIndex(index)), index) << "compress " << compress;
        }
    }
    // Uncompressed, points stand one pixel apart: the nearest wins on either side.
    graph.SetCompression(false, 15.0);
    EXPECT_EQ(graph.PointIndexAt(XOfIndex(60) - 0.4), 60);
    EXPECT_EQ(graph.PointIndexAt(XOfIndex(60) + 0.4), 60);
    EXPECT_EQ(graph.PointIndexAt(XOfIndex(60) + 0.6), 61);
    // A missing sample is passed over for its neighbour.
    std::deque<GraphPoint> holey = graph.Points(0);
    holey[70].valid = false;
    graph.SetPoints(0, holey);
    const int nearest = graph.PointIndexAt(XOfIndex(70));
    EXPECT_TRUE(nearest == 69 || nearest == 71) << nearest;
    EXPECT_EQ(graph.PointIndexAt(graph.PlotRect().left() - 5.0), -1);
    // Uncompressed, 600 px at one column per 125 ms reach back 75 s: the 100 points fill the right
    // sixth, and the far left has nothing within reach.
    graph.SetCompression(false, 15.0);
    EXPECT_EQ(graph.PointIndexAt(graph.PlotRect().left() + 5.0), -1);
}

TEST_F(GraphWidgetTest, HoverFindsThePointAndShapesTheCursor) {
    std::vector<int> hovered;
    int leaves = 0;
    graph.SetOnHover([&](int index) { hovered.push_back(index); });
    graph.SetOnLeave([&] { ++leaves; });
    EXPECT_TRUE(graph.hasMouseTracking());
    ShowAndSettle();

    MoveTo(PlotPointAtIndex(97));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !hovered.empty(); }, kWaitMs));
    EXPECT_EQ(hovered.back(), 97);
    EXPECT_EQ(graph.HoverIndex(), 97);
    EXPECT_EQ(graph.cursor().shape(), Qt::SizeHorCursor);

    MoveTo(QPoint(static_cast<int>(graph.PlotRect().left()) + 3, 100));
    ASSERT_TRUE(QTest::qWaitFor([&] { return graph.cursor().shape() == Qt::ArrowCursor; }, kWaitMs));
    EXPECT_EQ(graph.HoverIndex(), -1);

    MoveTo(PlotPointAtIndex(90));
    ASSERT_TRUE(QTest::qWaitFor([&] { return graph.HoverIndex() == 90; }, kWaitMs));
    EXPECT_EQ(hovered.back(), 90);
    QEvent leave(QEvent::Leave);
    QApplication::sendEvent(&graph, &leave);
    EXPECT_EQ(leaves, 1);
    EXPECT_EQ(graph.cursor().shape(), Qt::ArrowCursor);
    EXPECT_EQ(graph.HoverIndex(), -1);
}

TEST_F(GraphWidgetTest, TheClickHintFadesAndItsTimerStops) {
    int clicks = 0;
    graph.SetOnClick([&] { ++clicks; });
    ShowAndSettle();
    EXPECT_FALSE(graph.HintActive());
    MoveTo(PlotPointAtIndex(95));
    ASSERT_TRUE(QTest::qWaitFor([&] { return graph.HintActive(); }, kWaitMs));
    EXPECT_DOUBLE_EQ(graph.HintOpacity(), 1.0);
    // Held 3 s, faded over 0.35 s; the bound leaves room for a busy machine.
    ASSERT_TRUE(QTest::qWaitFor([&] { return !graph.HintActive(); }, 3350 + kWaitMs));
    EXPECT_DOUBLE_EQ(graph.HintOpacity(), 0.0);
    MoveTo(PlotPointAtIndex(94));
    QCoreApplication::processEvents();
    EXPECT_FALSE(graph.HintActive()) << "shown once while the pointer stays";

    QTest::mouseClick(&graph, Qt::LeftButton, Qt::NoModifier, PlotPointAtIndex(94));
    EXPECT_EQ(clicks, 1);
}

TEST_F(GraphWidgetTest, WithoutAnimationTheHintEndsUnfaded) {
    core::Settings settings;
    settings.visualFrameRate = 0;
    ApplyGraphSettings(graph, settings, false);
    graph.SetCompression(false, 15.0);
    graph.SetOnClick([] {});
    ShowAndSettle();
    MoveTo(PlotPointAtIndex(95));
    ASSERT_TRUE(QTest::qWaitFor([&] { return graph.HintActive(); }, kWaitMs));
    bool sawPartial = false;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            sawPartial = sawPartial || (graph.HintOpacity() > 0.0 && graph.HintOpacity() < 1.0);
            return !graph.HintActive();
        },
        3350 + kWaitMs));
    EXPECT_FALSE(sawPartial);
    EXPECT_DOUBLE_EQ(graph.HintOpacity(), 0.0);
}

TEST_F(GraphWidgetTest, NoHintWithoutAClickHandler) {
    graph.SetOnHover([](int) {});
    ShowAndSettle();
    MoveTo(PlotPointAtIndex(95));
    ASSERT_TRUE(QTest::qWaitFor([&] { return graph.HoverIndex() == 95; }, kWaitMs));
    EXPECT_FALSE(graph.HintActive());
}

struct HistoryCase {
    const char* name;
    std::vector<std::pair<std::uint64_t, std::optional<double>>> samples;  // time in ms, value
    std::vector<bool> gaps;
    std::vector<bool> valid;
};

void PrintTo(const HistoryCase& c, std::ostream* out) {
    *out << c.name;
}

class GraphHistoryTest : public ::testing::TestWithParam<HistoryCase> {};

TEST_P(GraphHistoryTest, MarksGapsAndMissingValues) {
    const HistoryCase& c = GetParam();
    HistorySeries series(16);
    std::uint64_t generation = 0;
    for (const auto& [ms, value] : c.samples) {
        series.Append(HistoryPoint{++generation, ms * 1'000'000, value});
    }
    const std::deque<GraphPoint> points = GraphPointsFromHistory(series, 1'000'000'000);
    ASSERT_EQ(points.size(), c.samples.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        EXPECT_EQ(points[i].timeNs, c.samples[i].first * 1'000'000) << i;
        EXPECT_EQ(points[i].gapBefore, c.gaps[i]) << "gap at " << i;
        EXPECT_EQ(points[i].valid, c.valid[i]) << "valid at " << i;
        if (points[i].valid) {
            EXPECT_DOUBLE_EQ(points[i].value, *c.samples[i].second) << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Histories, GraphHistoryTest,
    ::testing::Values(
        HistoryCase{"steady", {{1000, 1.0}, {2000, 2.0}, {3000, 3.0}}, {false, false, false}, {true, true, true}},
        HistoryCase{"late_sample", {{1000, 1.0}, {2000, 2.0}, {4600, 3.0}, {5600, 4.0}},
                    {false, false, true, false}, {true, true, true, true}},
        HistoryCase{"exactly_two_and_a_half", {{1000, 1.0}, {3500, 2.0}}, {false, false}, {true, true}},
        HistoryCase{"missing_value", {{1000, 1.0}, {2000, std::nullopt}, {3000, 3.0}}, {false, false, false},
                    {true, false, true}},
        HistoryCase{"not_a_number", {{1000, kNaN}, {2000, 2.0}}, {false, false}, {false, true}},
        HistoryCase{"clock_stood_still", {{1000, 1.0}, {1000, 2.0}}, {false, true}, {true, true}}));

TEST(GraphHistoryWrapTest, ReadsARingThatWrappedOldestFirst) {
    HistorySeries series(4);
    for (std::uint64_t i = 1; i <= 7; ++i) {
        series.Append(HistoryPoint{i, i * 1000, static_cast<double>(i)});
    }
    const std::deque<GraphPoint> points = GraphPointsFromHistory(series, 1000);
    ASSERT_EQ(points.size(), 4u);
    EXPECT_EQ(points.front().timeNs, 4000u);
    EXPECT_EQ(points.back().timeNs, 7000u);
}

TEST(GraphSettingsTest, AppliesTheGraphSettings) {
    core::Settings settings;
    settings.smoothGraphCurves = false;
    settings.compressedGraphTime = false;
    settings.graphHistoryMultiplier = 40;
    settings.graphPixelsPerUpdate = 8;
    settings.dashedSummaryGraphLines = true;
    GraphWidget summary;
    ApplyGraphSettings(summary, settings, true);
    EXPECT_FALSE(summary.SmoothCurves());
    EXPECT_FALSE(summary.CompressionEnabled());
    EXPECT_DOUBLE_EQ(summary.CompressionRatio(), 40.0);
    EXPECT_EQ(summary.PixelsPerUpdate(), 8);
    EXPECT_TRUE(summary.DashedLines());
    GraphWidget page;
    ApplyGraphSettings(page, settings, false);
    EXPECT_FALSE(page.DashedLines()) << "dashed lines are for summary graphs only";
    settings.graphHistoryMultiplier = 200;  // a record that skipped the store's range check
    ApplyGraphSettings(page, settings, false);
    EXPECT_DOUBLE_EQ(page.CompressionRatio(), 63.0);
}

TEST(GraphKeyColorTest, GivesEachDeviceKindItsOwnColour) {
    EXPECT_EQ(GraphKeyColor(core::DeviceKind::cpu), QColor(0x41, 0xC6, 0xFF));
    EXPECT_EQ(GraphKeyColor(core::DeviceKind::other), GraphNeutralColor());
    std::set<QRgb> seen;
    for (const auto kind : {core::DeviceKind::cpu, core::DeviceKind::memory, core::DeviceKind::disk,
                            core::DeviceKind::network, core::DeviceKind::gpu, core::DeviceKind::npu,
                            core::DeviceKind::energy, core::DeviceKind::thermals, core::DeviceKind::other}) {
        EXPECT_TRUE(seen.insert(GraphKeyColor(kind).rgb()).second) << core::ToString(kind);
    }
}

// Renders the graph as a user would see it and checks the parts that must show. With
// KORV_GRAPH_PNG_DIR set, the images are kept there for a look.
class GraphRenderTest : public ::testing::TestWithParam<bool> {};

TEST_P(GraphRenderTest, DrawsCurvesFillsAndTheThemeBackground) {
    const bool dark = GetParam();
    GraphWidget graph;
    QPalette palette = graph.palette();
    palette.setColor(QPalette::Base, dark ? QColor(0x1C, 0x1F, 0x24) : QColor(0xFF, 0xFF, 0xFF));
    palette.setColor(QPalette::Text, dark ? QColor(0xE6, 0xE8, 0xEB) : QColor(0x1F, 0x23, 0x28));
    graph.setPalette(palette);
    graph.resize(1200, 400);
    graph.SetTitle(QStringLiteral("% Utilization"));
    graph.SetCaptions(QStringLiteral("Kernel"), QStringLiteral("62%"), QColor(0xFF, 0x9F, 0x0A));
    graph.SetValueSuffix(QStringLiteral("%"));
    constexpr std::uint64_t kNow = 3'000ull * kInterval;
    std::deque<GraphPoint> cpu;
    std::deque<GraphPoint> kernel;
    std::deque<GraphPoint> level;
    for (std::uint64_t i = 0; i < 2435; ++i) {
        const std::uint64_t t = kNow - (2434 - i) * kInterval;
        const double phase = static_cast<double>(i) / 40.0;
        GraphPoint point{t, 45.0 + 30.0 * std::sin(phase), true, i == 2200};
        if (i >= 2150 && i < 2200) {
            continue;  // the sampler stood still: a true gap in time
        }
        cpu.push_back(point);
        kernel.push_back({t, 12.0 + 6.0 * std::sin(phase * 1.7), true, point.gapBefore});
        level.push_back({t, 80.0 + 15.0 * std::cos(phase / 3.0), true, point.gapBefore});
    }
    graph.SetPoints(0, cpu);
    graph.SetPoints(1, kernel);
    graph.SetPoints(2, level);
    graph.SetSeriesFill(0, true);
    graph.SetSeriesColor(1, QColor(0xFF, 0x9F, 0x0A));
    graph.SetSeriesColor(2, QColor(0xB0, 0x7C, 0xFF));
    graph.SetLevelGradient(2, true);
    const QImage image = graph.grab().toImage();
    if (const QByteArray dir = qgetenv("KORV_GRAPH_PNG_DIR"); !dir.isEmpty()) {
        image.save(QDir(QString::fromLocal8Bit(dir)).filePath(dark ? "graph-dark.png" : "graph-light.png"));
    }
    ASSERT_EQ(image.size(), QSize(1200, 400));
    const QColor background = image.pixelColor(3, 3);
    EXPECT_EQ(background, palette.color(QPalette::Base));

    const QRectF plot = graph.PlotRect();
    const GraphPathInput input{graph.Points(0), plot, kNow, kInterval, true, 15.0};
    const TimeWarp warp(15.0);
    const int x = static_cast<int>(std::lround(GraphXForTime(input, warp, kNow - 30 * kInterval)));
    // Between the curve of series 0 and the bottom: the fill, a tint of the series' colour over the
    // level gradient; above everything, near the top, the background shows.
    const QColor filled = image.pixelColor(x, static_cast<int>(plot.bottom()) - 3);
    EXPECT_NE(filled, background);
    EXPECT_GT(filled.green(), filled.red()) << "green end of the level gradient at the bottom";
    // In the gap of 50 samples nothing is drawn: that column is the same as on an empty graph.
    graph.Clear();
    const QImage empty = graph.grab().toImage();
    const int gapX = static_cast<int>(std::lround(GraphXForTime(input, warp, kNow - (2434 - 2175) * kInterval)));
    int differing = 0;
    int differingOutside = 0;
    for (int y = static_cast<int>(plot.top()); y < static_cast<int>(plot.bottom()); ++y) {
        differing += image.pixel(gapX, y) != empty.pixel(gapX, y) ? 1 : 0;
        differingOutside += image.pixel(gapX + 40, y) != empty.pixel(gapX + 40, y) ? 1 : 0;
    }
    EXPECT_EQ(differing, 0) << "at x " << gapX;
    EXPECT_GT(differingOutside, 10) << "beside the gap the curves and fills show";
}

INSTANTIATE_TEST_SUITE_P(Themes, GraphRenderTest, ::testing::Values(false, true));

}  // namespace
}  // namespace korv::host::linux_client
