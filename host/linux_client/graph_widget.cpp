#include "host/linux_client/graph_widget.h"

#include "host/linux_client/display_tint.h"
#include "host/linux_client/unit_formats.h"

#include <QElapsedTimer>
#include <QEnterEvent>
#include <QFontMetricsF>
#include <QLinearGradient>
#include <QMouseEvent>
#include <QPainter>
#include <QTimer>

#include <algorithm>
#include <cstring>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <utility>

namespace korv::host::linux_client {
namespace {

constexpr int kDefaultCapacity = 2435;
constexpr std::uint64_t kDefaultSampleIntervalNs = 125'000'000;
constexpr double kDefaultRatio = 15.0;
constexpr int kMinimumHeight = 90;
constexpr int kMaxPixelsPerUpdate = 32;
constexpr int kHintHoldMs = 3000;
constexpr int kHintFadeMs = 350;
constexpr int kHintFrameMs = 16;
constexpr double kHoverReachPx = 24.0;
constexpr int kGridAlpha = 44;
constexpr int kBorderAlpha = 90;
constexpr int kGuideAlpha = 110;
constexpr int kFillAlpha = 46;
constexpr int kLevelAlpha = 96;
constexpr double kTextPadding = 4.0;

const QColor kDefaultSeriesColor(0x41, 0xC6, 0xFF);

struct Series {
    std::deque<GraphPoint> points;
    QColor color = kDefaultSeriesColor;
    bool showFill = false;
    bool levelGradient = false;
    double minValue = 0.0;
    double maxValue = 100.0;
};

// A step of 1, 2, 2.5 or 5 times a power of ten that cuts the range into about `parts` pieces.
double NiceStep(double range, int parts) {
    const double raw = range / std::max(parts, 1);
    if (!std::isfinite(raw) || raw <= 0.0) {
        return 0.0;
    }
    const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
    for (const double factor : {1.0, 2.0, 2.5, 5.0}) {
        if (factor * magnitude >= raw) {
            return factor * magnitude;
        }
    }
    return 10.0 * magnitude;
}

QColor WithAlpha(QColor color, int alpha) {
    color.setAlpha(alpha);
    return color;
}

void TrimToCapacity(std::deque<GraphPoint>& points, int capacity) {
    const auto keep = static_cast<std::size_t>(capacity);
    if (points.size() > keep) {
        points.erase(points.begin(), points.begin() + static_cast<std::ptrdiff_t>(points.size() - keep));
    }
}

// A non-finite reading is no reading.
void Sanitize(std::deque<GraphPoint>& points) {
    for (auto& point : points) {
        if (!std::isfinite(point.value)) {
            point.valid = false;
        }
    }
}

QString TimeSpanText(double nanoseconds) {
    const double seconds = nanoseconds / 1e9;
    if (seconds < 120.0) {
        return GraphWidget::tr("%1 seconds").arg(std::lround(seconds));
    }
    const double minutes = seconds / 60.0;
    if (minutes < 120.0) {
        return GraphWidget::tr("%1 minutes").arg(minutes, 0, 'f', minutes < 10.0 ? 1 : 0);
    }
    return GraphWidget::tr("%1 hours").arg(minutes / 60.0, 0, 'f', 1);
}

}  // namespace

struct GraphWidget::Impl {
    explicit Impl(GraphWidget* widget) : self(widget), hintTimer(widget) {}

    GraphWidget* self;
    std::array<Series, kSeriesCount> series;
    QString title = GraphWidget::tr("Scrolling history");
    QString leftCaption;
    QString rightCaption;
    QColor captionColor;
    QString valueSuffix;
    std::function<QString(double)> valueFormatter;
    QColor gridColor;        // invalid: the palette's
    QColor backgroundColor;  // invalid: the palette's
    bool mini = false;
    std::uint64_t sampleIntervalNs = kDefaultSampleIntervalNs;
    int pixelsPerUpdate = 1;
    int capacity = kDefaultCapacity;
    bool smoothCurves = true;
    bool compress = true;
    double ratio = kDefaultRatio;
    bool dashed = false;
    bool animated = true;
    std::uint64_t nowOverrideNs = 0;

    std::function<void(int)> onHover;
    std::function<void()> onClick;
    std::function<void()> onLeave;
    std::optional<int> hoverIndex;
    bool hintShownSinceEnter = false;
    QTimer hintTimer;
    QElapsedTimer hintClock;
    double hintOpacity = 0.0;

    // The grid and guides change only with size, palette and a few settings; the curves with every
    // sample. Hover marks, labels and the hint are painted over the cached frame.
    QImage background;
    bool backgroundDirty = true;
    QImage frame;
    bool frameDirty = true;
    TintMode frameTint = TintMode::color;
    double frameGlow = 1.0;

    std::uint64_t NowNs() const {
        if (nowOverrideNs != 0) {
            return nowOverrideNs;
        }
        std::uint64_t newest = 0;
        for (const auto& s : series) {
            if (!s.points.empty()) {
                newest = std::max(newest, s.points.back().timeNs);
            }
        }
        return newest;
    }

    std::uint64_t ColumnNs() const {
        return std::max<std::uint64_t>(sampleIntervalNs / static_cast<std::uint64_t>(pixelsPerUpdate), 1);
    }

    GraphPathInput InputFor(int index, const QRectF& plot) const {
        const Series& s = series[static_cast<std::size_t>(index)];
        return GraphPathInput{s.points, plot, NowNs(), ColumnNs(), compress, ratio, smoothCurves, s.minValue,
                              s.maxValue};
    }

    bool ShowsLabels() const { return !mini; }

    double HeaderHeight() const {
        if (!ShowsLabels()) {
            return 0.0;
        }
        return std::ceil(QFontMetricsF(self->font()).height()) + 6.0;
    }

    double FooterHeight() const {
        if (!ShowsLabels()) {
            return 0.0;
        }
        return std::ceil(QFontMetricsF(self->font()).height()) + 4.0;
    }

    QRectF Plot() const {
        const QRectF area = QRectF(self->rect()).adjusted(1.0, 1.0, -1.0, -1.0);
        return area.adjusted(0.0, HeaderHeight(), 0.0, -FooterHeight());
    }

    QColor Background() const {
        return backgroundColor.isValid() ? DisplayTint(backgroundColor) : self->palette().color(QPalette::Base);
    }

    QColor Grid() const {
        return gridColor.isValid() ? DisplayTint(gridColor) : self->palette().color(QPalette::Text);
    }

    // Axis labels stay short ("100%"); the hovered reading uses the shared unit text.
    QString FormatValue(double value, bool reading) const {
        if (valueFormatter) {
            return valueFormatter(value);
        }
        if (reading && valueSuffix == QStringLiteral("%")) {
            return FormatPercent(value);
        }
        return QString::number(value, 'g', reading ? 4 : 3) + valueSuffix;
    }

    void Repaint() {
        frameDirty = true;
        self->update();
    }

    void RepaintLabels() { self->update(); }

    void RepaintAll() {
        backgroundDirty = true;
        Repaint();
    }

    void UpdateMouseTracking() { self->setMouseTracking(onHover || onClick || onLeave); }

    void RenderBackground();
    void RenderFrame(const QRectF& plot);
    void PaintLabels(QPainter& painter, const QRectF& plot);
    void PaintHover(QPainter& painter, const QRectF& plot);
    void PaintHint(QPainter& painter, const QRectF& plot);
    void StartHint();
    void StepHint();
    void StopHint();
    void ClearHover();
};

void GraphWidget::Impl::RenderBackground() {
    const qreal ratioDpr = self->devicePixelRatioF();
    const QSize pixelSize = (QSizeF(self->size()) * ratioDpr).toSize();
    if (pixelSize.isEmpty()) {
        background = QImage();
        return;
    }
    if (background.size() != pixelSize || background.devicePixelRatio() != ratioDpr) {
        background = QImage(pixelSize, QImage::Format_RGB32);
        background.setDevicePixelRatio(ratioDpr);
    }
    background.fill(Background());
    frameDirty = true;
    QPainter painter(&background);
    const QRectF plot = Plot();
    if (plot.width() <= 0.0 || plot.height() <= 0.0) {
        return;
    }
    const QColor grid = Grid();
    QPen pen(WithAlpha(grid, kGridAlpha), 1.0);
    pen.setCosmetic(true);  // one device pixel at any scale
    painter.setPen(pen);

    const int columns = mini ? 4 : std::max(2, static_cast<int>(std::lround(plot.width() / 80.0)));
    for (int i = 1; i < columns; ++i) {
        const double x = std::round(plot.left() + plot.width() * i / columns) + 0.5;
        painter.drawLine(QPointF(x, plot.top()), QPointF(x, plot.bottom()));
    }
    const Series& main = series[0];
    const double range = main.maxValue - main.minValue;
    const double step = NiceStep(range, mini ? 4 : 5);
    if (step > 0.0 && std::isfinite(main.minValue)) {
        for (double value = std::ceil(main.minValue / step) * step; value < main.maxValue; value += step) {
            if (value <= main.minValue) {
                continue;
            }
            const double y = std::round(plot.bottom() - (value - main.minValue) / range * plot.height()) + 0.5;
            painter.drawLine(QPointF(plot.left(), y), QPointF(plot.right(), y));
        }
    }

    // Guides: the middle of the range, and where the compressed time quarters meet.
    QPen guide(WithAlpha(grid, kGuideAlpha), 1.0);
    guide.setCosmetic(true);
    guide.setDashPattern({3.0, 3.0});
    painter.setPen(guide);
    const double middle = std::round(plot.center().y()) + 0.5;
    painter.drawLine(QPointF(plot.left(), middle), QPointF(plot.right(), middle));
    if (compress) {
        for (int quarter = 1; quarter < 4; ++quarter) {
            const double x = std::round(plot.right() - plot.width() * quarter / 4.0) + 0.5;
            painter.drawLine(QPointF(x, plot.top()), QPointF(x, plot.bottom()));
        }
    }

    pen.setColor(WithAlpha(grid, kBorderAlpha));
    painter.setPen(pen);
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(plot.adjusted(0.5, 0.5, -0.5, -0.5));
    backgroundDirty = false;
}

// The level gradient of a fill, one premultiplied colour per device row from the top of the plot.
std::vector<QRgb> LevelGradientRows(int rows) {
    struct Stop {
        double at;
        QColor color;
    };
    const std::array<Stop, 3> stops{Stop{0.0, DisplayTint(QColor(48, 209, 88, kLevelAlpha))},
                                    Stop{0.75, DisplayTint(QColor(255, 214, 10, kLevelAlpha))},
                                    Stop{1.0, DisplayTint(QColor(255, 69, 58, kLevelAlpha))}};
    std::vector<QRgb> colors(static_cast<std::size_t>(std::max(rows, 1)));
    for (int row = 0; row < rows; ++row) {
        const double level = 1.0 - (row + 0.5) / rows;  // 0 at the bottom
        const std::size_t upper = level <= stops[1].at ? 1 : 2;
        const Stop& a = stops[upper - 1];
        const Stop& b = stops[upper];
        const double t = std::clamp((level - a.at) / (b.at - a.at), 0.0, 1.0);
        const auto mix = [t](int from, int to) { return static_cast<int>(std::lround(from + (to - from) * t)); };
        const QColor color(mix(a.color.red(), b.color.red()), mix(a.color.green(), b.color.green()),
                           mix(a.color.blue(), b.color.blue()), mix(a.color.alpha(), b.color.alpha()));
        colors[static_cast<std::size_t>(row)] = qPremultiply(color.rgba());
    }
    return colors;
}

void GraphWidget::Impl::RenderFrame(const QRectF& plot) {
    if (frame.size() != background.size() || frame.devicePixelRatio() != background.devicePixelRatio()) {
        frame = QImage(background.size(), QImage::Format_RGB32);
        frame.setDevicePixelRatio(background.devicePixelRatio());
    }
    std::memcpy(frame.bits(), background.constBits(), static_cast<std::size_t>(background.sizeInBytes()));
    const double scale = background.devicePixelRatio();
    const int deviceRows =
        static_cast<int>(std::ceil(plot.bottom() * scale)) - static_cast<int>(std::floor(plot.top() * scale));
    // Series 0 is the main one: drawn last, on top.
    for (int i = kSeriesCount - 1; i >= 0; --i) {
        const Series& s = series[static_cast<std::size_t>(i)];
        const QPainterPath curve = BuildGraphPath(InputFor(i, plot));
        if (curve.isEmpty()) {
            continue;
        }
        GraphCurveStyle style;
        style.line = DisplayTint(s.color);
        style.lineWidth = (mini ? 1.0 : 1.5) * scale;
        style.dashed = dashed;
        if (s.levelGradient) {
            style.fillRows = LevelGradientRows(deviceRows);
        } else if (s.showFill) {
            style.fillRows.push_back(qPremultiply(WithAlpha(style.line, kFillAlpha).rgba()));
        }
        RasterizeGraphCurve(frame, curve, scale, plot, style);
    }
    frameTint = CurrentTintMode();
    frameGlow = CurrentGlowStrength();
    frameDirty = false;
}

void GraphWidget::Impl::PaintLabels(QPainter& painter, const QRectF& plot) {
    if (!ShowsLabels()) {
        return;
    }
    const QColor text = self->palette().color(QPalette::Text);
    const QColor muted = WithAlpha(text, 170);
    const QFontMetricsF metrics(self->font());
    const double headerTop = 1.0;
    const QRectF header(plot.left() + kTextPadding, headerTop, plot.width() - 2.0 * kTextPadding,
                        plot.top() - headerTop - 2.0);
    const QRectF footer(plot.left() + kTextPadding, plot.bottom() + 2.0, plot.width() - 2.0 * kTextPadding,
                        FooterHeight() - 2.0);

    double left = header.left();
    if (!title.isEmpty()) {
        painter.setPen(text);
        painter.drawText(header, Qt::AlignLeft | Qt::AlignVCenter, title);
        left += metrics.horizontalAdvance(title) + 12.0;
    }
    const QColor caption = captionColor.isValid() ? DisplayTint(captionColor) : muted;
    const Series& main = series[0];
    const QString maximum = std::isfinite(main.maxValue) ? FormatValue(main.maxValue, false) : QString();
    painter.setPen(muted);
    painter.drawText(header, Qt::AlignRight | Qt::AlignVCenter, maximum);
    double right = header.right() - metrics.horizontalAdvance(maximum) - 12.0;
    painter.setPen(caption);
    if (!rightCaption.isEmpty()) {
        const QRectF area(left, header.top(), std::max(0.0, right - left), header.height());
        painter.drawText(area, Qt::AlignRight | Qt::AlignVCenter,
                         metrics.elidedText(rightCaption, Qt::ElideLeft, area.width()));
        right -= metrics.horizontalAdvance(rightCaption) + 12.0;
    }
    if (!leftCaption.isEmpty() && right > left) {
        const QRectF area(left, header.top(), right - left, header.height());
        painter.drawText(area, Qt::AlignLeft | Qt::AlignVCenter,
                         metrics.elidedText(leftCaption, Qt::ElideRight, area.width()));
    }

    painter.setPen(muted);
    const double spanNs = GraphVisibleSpanNs(InputFor(0, plot));
    painter.drawText(footer, Qt::AlignLeft | Qt::AlignVCenter, TimeSpanText(spanNs));
    if (std::isfinite(main.minValue)) {
        painter.drawText(footer, Qt::AlignRight | Qt::AlignVCenter, FormatValue(main.minValue, false));
    }
}

void GraphWidget::Impl::PaintHover(QPainter& painter, const QRectF& plot) {
    if (!hoverIndex.has_value()) {
        return;
    }
    const Series& main = series[0];
    const auto index = static_cast<std::size_t>(*hoverIndex);
    if (index >= main.points.size()) {
        return;
    }
    const GraphPathInput input = InputFor(0, plot);
    const GraphPoint& point = main.points[index];
    const double x = GraphXForTime(input, TimeWarp(ratio), point.timeNs);
    if (!std::isfinite(x)) {
        return;
    }
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing, true);
    QPen line(WithAlpha(self->palette().color(QPalette::Text), 140), 1.0);
    line.setCosmetic(true);
    painter.setPen(line);
    painter.drawLine(QPointF(x, plot.top()), QPointF(x, plot.bottom()));
    const double range = main.maxValue - main.minValue;
    if (point.valid && range > 0.0) {
        const double level = std::clamp((point.value - main.minValue) / range, 0.0, 1.0);
        const QPointF dot(x, plot.bottom() - level * plot.height());
        painter.setBrush(DisplayTint(main.color));
        painter.setPen(QPen(Background(), 1.5));
        painter.drawEllipse(dot, 3.5, 3.5);
        if (ShowsLabels()) {
            const QString text = FormatValue(point.value, true);
            const QFontMetricsF metrics(self->font());
            const QSizeF size(metrics.horizontalAdvance(text) + 10.0, metrics.height() + 4.0);
            double left = x + 6.0;
            if (left + size.width() > plot.right()) {
                left = x - 6.0 - size.width();
            }
            const QRectF box(QPointF(left, plot.top() + 4.0), size);
            painter.setPen(Qt::NoPen);
            painter.setBrush(WithAlpha(Background(), 220));
            painter.drawRoundedRect(box, 3.0, 3.0);
            painter.setPen(self->palette().color(QPalette::Text));
            painter.drawText(box, Qt::AlignCenter, text);
        }
    }
    painter.restore();
}

void GraphWidget::Impl::PaintHint(QPainter& painter, const QRectF& plot) {
    if (hintOpacity <= 0.0) {
        return;
    }
    const QString text = GraphWidget::tr("Click for History");
    const QFontMetricsF metrics(self->font());
    const QSizeF size(metrics.horizontalAdvance(text) + 16.0, metrics.height() + 8.0);
    if (size.width() > plot.width() || size.height() > plot.height()) {
        return;
    }
    const QRectF box(QPointF(plot.center().x() - size.width() / 2.0, plot.bottom() - size.height() - 6.0), size);
    painter.save();
    painter.setOpacity(hintOpacity);
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.setPen(Qt::NoPen);
    painter.setBrush(WithAlpha(self->palette().color(QPalette::ToolTipBase), 235));
    painter.drawRoundedRect(box, 4.0, 4.0);
    painter.setPen(self->palette().color(QPalette::ToolTipText));
    painter.drawText(box, Qt::AlignCenter, text);
    painter.restore();
}

void GraphWidget::Impl::StartHint() {
    hintShownSinceEnter = true;
    hintOpacity = 1.0;
    hintClock.start();
    hintTimer.start(kHintHoldMs);
    self->update();
}

void GraphWidget::Impl::StepHint() {
    const qint64 elapsed = hintClock.elapsed();
    if (elapsed < kHintHoldMs) {
        hintTimer.start(static_cast<int>(kHintHoldMs - elapsed));
        return;
    }
    hintOpacity = animated ? std::max(0.0, 1.0 - static_cast<double>(elapsed - kHintHoldMs) / kHintFadeMs) : 0.0;
    if (hintOpacity <= 0.0) {
        hintTimer.stop();
    } else if (hintTimer.interval() != kHintFrameMs) {
        hintTimer.start(kHintFrameMs);
    }
    self->update();
}

void GraphWidget::Impl::StopHint() {
    hintTimer.stop();
    if (hintOpacity > 0.0) {
        hintOpacity = 0.0;
        self->update();
    }
}

void GraphWidget::Impl::ClearHover() {
    if (hoverIndex.has_value()) {
        hoverIndex.reset();
        self->update();
    }
}

GraphWidget::GraphWidget(QWidget* parent) : QWidget(parent), impl_(std::make_unique<Impl>(this)) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setAttribute(Qt::WA_NoSystemBackground);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    setMinimumHeight(kMinimumHeight);
    setAccessibleName(tr("Performance history graph"));
    impl_->hintTimer.setSingleShot(false);
    connect(&impl_->hintTimer, &QTimer::timeout, this, [this] { impl_->StepHint(); });
}

GraphWidget::~GraphWidget() = default;

void GraphWidget::SetPoints(int seriesIndex, std::deque<GraphPoint> points) {
    if (seriesIndex < 0 || seriesIndex >= kSeriesCount) {
        return;
    }
    Sanitize(points);
    TrimToCapacity(points, impl_->capacity);
    impl_->series[static_cast<std::size_t>(seriesIndex)].points = std::move(points);
    if (seriesIndex == 0 && impl_->hoverIndex.has_value() &&
        *impl_->hoverIndex >= static_cast<int>(impl_->series[0].points.size())) {
        impl_->hoverIndex.reset();
    }
    impl_->Repaint();
}

void GraphWidget::SetPoints(std::deque<GraphPoint> points) {
    for (auto& s : impl_->series) {
        s.points.clear();
    }
    SetPoints(0, std::move(points));
}

void GraphWidget::Clear() {
    for (auto& s : impl_->series) {
        s.points.clear();
    }
    impl_->hoverIndex.reset();
    impl_->Repaint();
}

void GraphWidget::SetSeriesColor(int index, const QColor& color) {
    if (index < 0 || index >= kSeriesCount || impl_->series[static_cast<std::size_t>(index)].color == color) {
        return;
    }
    impl_->series[static_cast<std::size_t>(index)].color = color;
    impl_->Repaint();
}

void GraphWidget::SetSeriesFill(int index, bool showFill) {
    if (index < 0 || index >= kSeriesCount || impl_->series[static_cast<std::size_t>(index)].showFill == showFill) {
        return;
    }
    impl_->series[static_cast<std::size_t>(index)].showFill = showFill;
    impl_->Repaint();
}

void GraphWidget::SetLevelGradient(int index, bool enabled) {
    if (index < 0 || index >= kSeriesCount ||
        impl_->series[static_cast<std::size_t>(index)].levelGradient == enabled) {
        return;
    }
    impl_->series[static_cast<std::size_t>(index)].levelGradient = enabled;
    impl_->Repaint();
}

void GraphWidget::SetRange(int index, double minValue, double maxValue) {
    if (index < 0 || index >= kSeriesCount) {
        return;
    }
    Series& s = impl_->series[static_cast<std::size_t>(index)];
    // Compared bit for bit so that NaN bounds count as unchanged rather than always new.
    const auto same = [](double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); };
    if (same(s.minValue, minValue) && same(s.maxValue, maxValue)) {
        return;
    }
    s.minValue = minValue;
    s.maxValue = maxValue;
    if (index == 0) {
        impl_->backgroundDirty = true;  // the grid follows the main series' scale
    }
    impl_->Repaint();
}

void GraphWidget::SetMaximum(int index, double maxValue) {
    if (std::isfinite(maxValue) && maxValue > 0.0) {
        SetRange(index, 0.0, maxValue);
    } else {
        SetRange(index, 0.0, 1.0);
    }
}

void GraphWidget::SetValueRange(double minValue, double maxValue) {
    if (!std::isfinite(minValue) || !std::isfinite(maxValue) || minValue >= maxValue) {
        return;
    }
    SetRange(0, minValue, maxValue);
}

void GraphWidget::SetCompression(bool enabled, double ratio) {
    const double clamped = ClampCompressionRatio(ratio);
    if (impl_->compress == enabled && impl_->ratio == clamped) {
        return;
    }
    impl_->compress = enabled;
    impl_->ratio = clamped;
    impl_->RepaintAll();
}

void GraphWidget::SetCapacity(int count) {
    const int capacity = std::max(count, 2);
    if (capacity == impl_->capacity) {
        return;
    }
    impl_->capacity = capacity;
    for (auto& s : impl_->series) {
        TrimToCapacity(s.points, capacity);
    }
    impl_->hoverIndex.reset();
    impl_->Repaint();
}

void GraphWidget::SetSampleInterval(std::uint64_t ns) {
    if (ns == 0 || ns == impl_->sampleIntervalNs) {
        return;
    }
    impl_->sampleIntervalNs = ns;
    impl_->Repaint();
}

void GraphWidget::SetPixelsPerUpdate(int pixels) {
    const int clamped = std::clamp(pixels, 1, kMaxPixelsPerUpdate);
    if (clamped == impl_->pixelsPerUpdate) {
        return;
    }
    impl_->pixelsPerUpdate = clamped;
    impl_->Repaint();
}

void GraphWidget::SetSmoothCurves(bool smooth) {
    if (smooth == impl_->smoothCurves) {
        return;
    }
    impl_->smoothCurves = smooth;
    impl_->Repaint();
}

void GraphWidget::SetDashedLines(bool dashed) {
    if (dashed == impl_->dashed) {
        return;
    }
    impl_->dashed = dashed;
    impl_->Repaint();
}

void GraphWidget::SetTitle(const QString& title) {
    if (title == impl_->title) {
        return;
    }
    impl_->title = title;
    impl_->RepaintLabels();
}

void GraphWidget::SetCaptions(const QString& left, const QString& right, const QColor& color) {
    if (left == impl_->leftCaption && right == impl_->rightCaption && color == impl_->captionColor) {
        return;
    }
    impl_->leftCaption = left;
    impl_->rightCaption = right;
    impl_->captionColor = color;
    impl_->RepaintLabels();
}

void GraphWidget::SetValueSuffix(const QString& suffix) {
    if (suffix == impl_->valueSuffix) {
        return;
    }
    impl_->valueSuffix = suffix;
    impl_->RepaintLabels();
}

void GraphWidget::SetValueFormatter(std::function<QString(double)> formatter) {
    impl_->valueFormatter = std::move(formatter);
    impl_->RepaintLabels();
}

void GraphWidget::SetGridColor(const QColor& color) {
    if (color == impl_->gridColor) {
        return;
    }
    impl_->gridColor = color;
    impl_->RepaintAll();
}

void GraphWidget::SetBackgroundColor(const QColor& color) {
    if (color == impl_->backgroundColor) {
        return;
    }
    impl_->backgroundColor = color;
    impl_->RepaintAll();
}

void GraphWidget::SetMini(bool mini) {
    if (mini == impl_->mini) {
        return;
    }
    impl_->mini = mini;
    updateGeometry();
    impl_->RepaintAll();
}

void GraphWidget::SetNow(std::uint64_t nowNs) {
    if (nowNs == impl_->nowOverrideNs) {
        return;
    }
    impl_->nowOverrideNs = nowNs;
    impl_->Repaint();
}

void GraphWidget::SetAnimated(bool animated) {
    impl_->animated = animated;
}

void GraphWidget::SetOnHover(std::function<void(int)> callback) {
    impl_->onHover = std::move(callback);
    impl_->UpdateMouseTracking();
}

void GraphWidget::SetOnClick(std::function<void()> callback) {
    impl_->onClick = std::move(callback);
    impl_->UpdateMouseTracking();
}

void GraphWidget::SetOnLeave(std::function<void()> callback) {
    impl_->onLeave = std::move(callback);
    impl_->UpdateMouseTracking();
}

int GraphWidget::Capacity() const {
    return impl_->capacity;
}

double GraphWidget::CompressionRatio() const {
    return impl_->ratio;
}

bool GraphWidget::CompressionEnabled() const {
    return impl_->compress;
}

bool GraphWidget::SmoothCurves() const {
    return impl_->smoothCurves;
}

bool GraphWidget::DashedLines() const {
    return impl_->dashed;
}

std::uint64_t GraphWidget::SampleInterval() const {
    return impl_->sampleIntervalNs;
}

int GraphWidget::PixelsPerUpdate() const {
    return impl_->pixelsPerUpdate;
}

QColor GraphWidget::SeriesColor(int index) const {
    return index >= 0 && index < kSeriesCount ? impl_->series[static_cast<std::size_t>(index)].color : QColor();
}

double GraphWidget::MinimumValue(int index) const {
    return index >= 0 && index < kSeriesCount ? impl_->series[static_cast<std::size_t>(index)].minValue
                                              : std::numeric_limits<double>::quiet_NaN();
}

double GraphWidget::MaximumValue(int index) const {
    return index >= 0 && index < kSeriesCount ? impl_->series[static_cast<std::size_t>(index)].maxValue
                                              : std::numeric_limits<double>::quiet_NaN();
}

const std::deque<GraphPoint>& GraphWidget::Points(int index) const {
    static const std::deque<GraphPoint> none;
    return index >= 0 && index < kSeriesCount ? impl_->series[static_cast<std::size_t>(index)].points : none;
}

QRectF GraphWidget::PlotRect() const {
    return impl_->Plot();
}

int GraphWidget::PointIndexAt(double x) const {
    const QRectF plot = impl_->Plot();
    const auto& points = impl_->series[0].points;
    if (points.empty() || plot.width() <= 0.0 || x < plot.left() || x > plot.right()) {
        return -1;
    }
    const GraphPathInput input = impl_->InputFor(0, plot);
    const std::uint64_t span = GraphBaseSpanNs(input);
    if (span == 0 || input.nowNs == 0) {
        return -1;
    }
    // The time under x, then the nearest drawn point on either side of it.
    const TimeWarp warp(impl_->ratio);
    const double fraction = (plot.right() - x) / plot.width();
    const double source = impl_->compress ? warp.SourceAt(fraction) : fraction;
    const double ageNs = std::max(0.0, source * static_cast<double>(span));
    const std::uint64_t timeNs =
        ageNs >= static_cast<double>(input.nowNs) ? 0 : input.nowNs - static_cast<std::uint64_t>(ageNs);
    const auto after = std::lower_bound(points.begin(), points.end(), timeNs,
                                        [](const GraphPoint& p, std::uint64_t t) { return p.timeNs < t; });
    int best = -1;
    double bestDistance = kHoverReachPx;
    const auto consider = [&](std::deque<GraphPoint>::const_iterator it, int step) {
        for (int tries = 0; tries < 4 && it != points.end(); ++tries) {
            if (it->valid) {
                const double distance = std::abs(GraphXForTime(input, warp, it->timeNs) - x);
                if (distance <= bestDistance) {
                    bestDistance = distance;
                    best = static_cast<int>(it - points.begin());
                }
                return;
            }
            if (step < 0 && it == points.begin()) {
                return;
            }
            it += step;
        }
    };
    consider(after, 1);
    if (after != points.begin()) {
        consider(after - 1, -1);
    }
    return best;
}

int GraphWidget::HoverIndex() const {
    return impl_->hoverIndex.value_or(-1);
}

bool GraphWidget::HintActive() const {
    return impl_->hintTimer.isActive();
}

double GraphWidget::HintOpacity() const {
    return impl_->hintOpacity;
}

QSize GraphWidget::sizeHint() const {
    return impl_->mini ? QSize(160, kMinimumHeight) : QSize(480, 240);
}

QSize GraphWidget::minimumSizeHint() const {
    return QSize(60, kMinimumHeight);
}

void GraphWidget::paintEvent(QPaintEvent* /*event*/) {
    // A new display tint recolours everything that was drawn with fixed colours.
    if (impl_->frameTint != CurrentTintMode() || impl_->frameGlow != CurrentGlowStrength()) {
        impl_->backgroundDirty = true;
    }
    if (impl_->backgroundDirty || impl_->background.isNull() ||
        impl_->background.devicePixelRatio() != devicePixelRatioF()) {
        impl_->RenderBackground();
    }
    if (impl_->background.isNull()) {
        return;  // no area to paint
    }
    const QRectF plot = impl_->Plot();
    if (impl_->frameDirty || impl_->frame.isNull()) {
        impl_->RenderFrame(plot);
    }
    QPainter painter(this);
    painter.drawImage(0, 0, impl_->frame);
    if (plot.width() <= 0.0 || plot.height() <= 0.0) {
        return;
    }
    painter.setRenderHint(QPainter::TextAntialiasing, true);
    impl_->PaintLabels(painter, plot);
    impl_->PaintHover(painter, plot);
    impl_->PaintHint(painter, plot);
}

void GraphWidget::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    impl_->backgroundDirty = true;
}

void GraphWidget::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    switch (event->type()) {
    case QEvent::PaletteChange:
    case QEvent::StyleChange:
    case QEvent::FontChange:
        impl_->RepaintAll();
        break;
    default:
        break;
    }
}

void GraphWidget::mouseMoveEvent(QMouseEvent* event) {
    QWidget::mouseMoveEvent(event);
    if (!impl_->onHover && !impl_->onClick && !impl_->onLeave) {
        return;
    }
    const QPointF position = event->position();
    const int index = impl_->Plot().contains(position) ? PointIndexAt(position.x()) : -1;
    if (index < 0) {
        setCursor(Qt::ArrowCursor);
        impl_->ClearHover();
        return;
    }
    setCursor(Qt::SizeHorCursor);
    if (impl_->hoverIndex != index) {
        impl_->hoverIndex = index;
        update();
        if (impl_->onHover) {
            impl_->onHover(index);
        }
    }
    if (impl_->onClick && !impl_->hintShownSinceEnter) {
        impl_->StartHint();
    }
}

void GraphWidget::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton && impl_->onClick) {
        impl_->onClick();
        event->accept();
        return;
    }
    QWidget::mousePressEvent(event);
}

void GraphWidget::enterEvent(QEnterEvent* event) {
    QWidget::enterEvent(event);
    impl_->hintShownSinceEnter = false;
}

void GraphWidget::leaveEvent(QEvent* event) {
    QWidget::leaveEvent(event);
    setCursor(Qt::ArrowCursor);
    impl_->ClearHover();
    impl_->StopHint();
    impl_->hintShownSinceEnter = false;
    if (impl_->onLeave) {
        impl_->onLeave();
    }
}

QColor GraphKeyColor(core::DeviceKind kind) {
    switch (kind) {
    case core::DeviceKind::cpu:
        return QColor(0x41, 0xC6, 0xFF);
    case core::DeviceKind::memory:
        return QColor(0xB0, 0x7C, 0xFF);
    case core::DeviceKind::disk:
        return QColor(0x4C, 0xD9, 0x64);
    case core::DeviceKind::network:
        return QColor(0xFF, 0x9F, 0x0A);
    case core::DeviceKind::gpu:
        return QColor(0xFF, 0x4F, 0x7B);
    case core::DeviceKind::npu:
        return QColor(0x30, 0xD5, 0xC8);
    case core::DeviceKind::energy:
        return QColor(0xFF, 0xD6, 0x0A);
    case core::DeviceKind::thermals:
        return QColor(0xFF, 0x6A, 0x3D);
    case core::DeviceKind::other:
        break;
    }
    return GraphNeutralColor();
}

QColor GraphNeutralColor() {
    return QColor(0x8A, 0x9A, 0xB0);
}

std::deque<GraphPoint> GraphPointsFromHistory(const HistorySeries& series, std::uint64_t nominalIntervalNs) {
    std::deque<GraphPoint> points;
    // More than 2.5 intervals apart: the sampler stalled or was paused, and the curve restarts.
    const double gapLimit = static_cast<double>(nominalIntervalNs) * 2.5;
    for (std::size_t i = 0; i < series.Size(); ++i) {
        const HistoryPoint& entry = series.At(i);
        GraphPoint point;
        point.timeNs = entry.monotonicNs;
        point.valid = entry.value.has_value() && std::isfinite(*entry.value);
        point.value = point.valid ? *entry.value : 0.0;
        if (!points.empty()) {
            const std::uint64_t previous = points.back().timeNs;
            point.gapBefore = entry.monotonicNs <= previous ||
                              (nominalIntervalNs > 0 && static_cast<double>(entry.monotonicNs - previous) > gapLimit);
        }
        points.push_back(point);
    }
    return points;
}

void ApplyGraphSettings(GraphWidget& graph, const core::Settings& settings, bool summaryGraph) {
    graph.SetSmoothCurves(settings.smoothGraphCurves);
    graph.SetCompression(settings.compressedGraphTime, static_cast<double>(settings.graphHistoryMultiplier));
    graph.SetPixelsPerUpdate(static_cast<int>(std::min<std::uint32_t>(settings.graphPixelsPerUpdate, 32)));
    graph.SetDashedLines(summaryGraph && settings.dashedSummaryGraphLines);
    graph.SetAnimated(settings.visualFrameRate != 0);
}

}  // namespace korv::host::linux_client
