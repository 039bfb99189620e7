#pragma once

#include "core/settings.h"
#include "core/snapshot_enums.h"
#include "host/linux_client/graph_path_builder.h"
#include "host/linux_client/history_store.h"

#include <QColor>
#include <QString>
#include <QWidget>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>

namespace korv::host::linux_client {

// A history graph of up to three series on a wall-clock time axis, newest at the right. Samples
// that did not follow each other in time leave a true gap. The older part of the axis can be
// compressed so that a long history fits the width. GUI thread only.
class GraphWidget : public QWidget {
    Q_OBJECT
public:
    static constexpr int kSeriesCount = 3;

    explicit GraphWidget(QWidget* parent = nullptr);
    ~GraphWidget() override;

    void SetPoints(int seriesIndex, std::deque<GraphPoint> points);
    void SetPoints(std::deque<GraphPoint> points);  // clears all three, fills series 0
    void Clear();
    void SetSeriesColor(int index, const QColor& color);
    void SetSeriesFill(int index, bool showFill);
    void SetLevelGradient(int index, bool enabled);  // fill with the green-yellow-red level gradient
    void SetRange(int index, double minValue, double maxValue);  // a bad range draws nothing
    void SetMaximum(int index, double maxValue);  // 0..max; 0..1 unless max is finite and above 0
    void SetValueRange(double minValue, double maxValue);  // series 0; ignored unless finite and min < max
    void SetCompression(bool enabled, double ratio);  // ratio clamped to 4..63
    void SetCapacity(int count);  // at least 2
    void SetSampleInterval(std::uint64_t ns);  // nominal spacing of the samples; 0 is ignored
    // How far the graph scrolls per sample (graphPixelsPerUpdate), 1..32; one pixel column then
    // stands for interval / pixels. 1 by default.
    void SetPixelsPerUpdate(int pixels);
    void SetSmoothCurves(bool smooth);
    void SetDashedLines(bool dashed);  // series drawn dashed
    void SetTitle(const QString& title);
    void SetCaptions(const QString& left, const QString& right, const QColor& color);
    void SetValueSuffix(const QString& suffix);
    // How the axis labels print a value (for sizes and rates); by default the number and the suffix.
    void SetValueFormatter(std::function<QString(double value)> formatter);
    void SetGridColor(const QColor& color);  // invalid colour: follow the palette
    void SetBackgroundColor(const QColor& color);  // invalid colour: follow the palette
    void SetMini(bool mini);  // small list graphs: no title/labels, thin grid
    // The time at the right edge; 0 (the default) uses the newest point of any series.
    void SetNow(std::uint64_t nowNs);
    // visualFrameRate 0 stops all animation: the hint then disappears at the end of its hold, unfaded.
    void SetAnimated(bool animated);
    void SetOnHover(std::function<void(int pointIndex)> callback);  // index into series 0
    void SetOnClick(std::function<void()> callback);
    void SetOnLeave(std::function<void()> callback);

    int Capacity() const;
    double CompressionRatio() const;
    bool CompressionEnabled() const;
    bool SmoothCurves() const;
    bool DashedLines() const;
    std::uint64_t SampleInterval() const;
    int PixelsPerUpdate() const;
    QColor SeriesColor(int index) const;
    double MinimumValue(int index) const;
    double MaximumValue(int index) const;
    const std::deque<GraphPoint>& Points(int index) const;
    // The rectangle the curves are drawn in.
    QRectF PlotRect() const;
    // The series-0 point nearest to x within the plot, or -1.
    int PointIndexAt(double x) const;
    // The series-0 point under the pointer, or -1.
    int HoverIndex() const;
    // True while the "Click for History" hint is shown or fading: its timer runs only then.
    bool HintActive() const;
    double HintOpacity() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The key colour of a device kind's graphs (CPU blue-cyan, memory purple, disk green, network
// orange, GPU red-violet, ...), before DisplayTint.
QColor GraphKeyColor(core::DeviceKind kind);
// The colour of every graph when colour keying is off.
QColor GraphNeutralColor();

// Feeds a graph series from a history ring: each HistoryPoint becomes a GraphPoint; a point whose
// time follows the previous one by more than 2.5 nominal intervals gets gapBefore; a missing value
// is invalid.
std::deque<GraphPoint> GraphPointsFromHistory(const HistorySeries& series, std::uint64_t nominalIntervalNs);

// Applies the graph settings (smoothGraphCurves, compressedGraphTime, graphHistoryMultiplier as the
// ratio, graphPixelsPerUpdate, dashedSummaryGraphLines for a summary graph, and visualFrameRate 0 as
// no animation) to one widget.
void ApplyGraphSettings(GraphWidget& graph, const core::Settings& settings, bool summaryGraph);

}  // namespace korv::host::linux_client
