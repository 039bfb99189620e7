// The history graph: building one curve path, and a full paint of a 1200 x 400 graph with three
// full series (2,435 points each) into an image with the raster engine. Targets: path build at
// most 0.3 ms, paint at most 2 ms.
#include "host/linux_client/graph_path_builder.h"
#include "host/linux_client/graph_widget.h"

#include <benchmark/benchmark.h>

#include <QApplication>
#include <QImage>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <random>

namespace korv::host::linux_client {
namespace {

constexpr int kPoints = 2435;
constexpr std::uint64_t kIntervalNs = 125'000'000;
constexpr std::uint64_t kNowNs = 10'000ull * kIntervalNs;

// The widget needs an application object; benchmark_main owns main, so it is made on first use.
void EnsureApplication() {
    static int argc = 1;
    static char name[] = "korv-bench";
    static char* argv[] = {name, nullptr};
    if (QApplication::instance() == nullptr) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        static QApplication application(argc, argv);
    }
}

// A busy-looking series: a slow wave with noise, like a processor's load.
std::deque<GraphPoint> Series(unsigned seed, double base, double swing) {
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0.0, swing / 4.0);
    std::deque<GraphPoint> points;
    for (int i = 0; i < kPoints; ++i) {
        const double wave = base + swing * std::sin(i / 37.0);
        const double value = std::clamp(wave + noise(random), 0.0, 100.0);
        points.push_back({kNowNs - static_cast<std::uint64_t>(kPoints - 1 - i) * kIntervalNs, value, true, false});
    }
    return points;
}

void BM_GraphPathBuild(benchmark::State& state) {
    const bool compress = state.range(0) != 0;
    const bool smooth = state.range(1) != 0;
    const std::deque<GraphPoint> points = Series(1, 50.0, 30.0);
    const GraphPathInput input{points, QRectF(1.0, 20.0, 1198.0, 360.0), kNowNs, kIntervalNs, compress, 15.0, smooth,
                               0.0, 100.0};
    for (auto _ : state) {
        QPainterPath path = BuildGraphPath(input);
        benchmark::DoNotOptimize(path);
    }
    state.counters["elements"] = BuildGraphPath(input).elementCount();
}
BENCHMARK(BM_GraphPathBuild)
    ->ArgNames({"compress", "smooth"})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond);

void BM_GraphPaint(benchmark::State& state) {
    EnsureApplication();
    const bool compress = state.range(0) != 0;
    const bool freshPaths = state.range(1) != 0;
    GraphWidget graph;
    graph.resize(1200, 400);
    graph.SetCompression(compress, 15.0);
    graph.SetTitle(QStringLiteral("% Utilization"));
    graph.SetCaptions(QStringLiteral("Kernel"), QStringLiteral("62%"), QColor(0xFF, 0x9F, 0x0A));
    graph.SetValueSuffix(QStringLiteral("%"));
    graph.SetPoints(0, Series(1, 50.0, 30.0));
    graph.SetPoints(1, Series(2, 20.0, 10.0));
    graph.SetPoints(2, Series(3, 75.0, 15.0));
    graph.SetSeriesFill(0, true);
    graph.SetSeriesColor(1, QColor(0xFF, 0x9F, 0x0A));
    graph.SetSeriesColor(2, QColor(0xB0, 0x7C, 0xFF));
    graph.SetLevelGradient(2, true);
    QImage image(1200, 400, QImage::Format_ARGB32_Premultiplied);
    graph.render(&image);  // the grid is drawn once, as it is on screen
    std::uint64_t now = kNowNs;
    for (auto _ : state) {
        if (freshPaths) {
            graph.SetNow(now ^= 1);  // as after a new sample: every curve is built again
        }
        graph.render(&image);
        benchmark::DoNotOptimize(image.constBits());
    }
}
BENCHMARK(BM_GraphPaint)
    ->ArgNames({"compress", "freshPaths"})
    ->Args({1, 1})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace korv::host::linux_client
