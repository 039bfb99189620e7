#include "host/linux_client/uptime_odometer_widget.h"

#include "host/linux_client/display_tint.h"
#include "host/linux_client/vfd_color_ramp.h"

#include <QElapsedTimer>
#include <QPainter>
#include <QPixmap>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <optional>

namespace korv::host::linux_client {

namespace {

constexpr double kCanvasWidth = 122.0;
constexpr double kCellHeight = 24.0;
constexpr int kWheelCount = 11;
constexpr int kRetryMs = 1001;
constexpr std::uint64_t kMaximumDays = 99999;
constexpr double kCellWidth = 10.0;

// Where the wheels stand in the widget: the canvas is scaled to fit and centred.
struct OdometerGeometry {
    double scale = 0.0;
    QPointF origin;

    explicit OdometerGeometry(const QSize& size) {
        scale = std::min(size.width() / kCanvasWidth, size.height() / (kCellHeight + 4.0));
        origin = QPointF((size.width() - kCanvasWidth * scale) / 2.0, (size.height() - (kCellHeight + 4.0) * scale) / 2.0);
    }
    // Wheel i in canvas units.
    static QRectF Cell(int i) {
        const double groupGap = (kCanvasWidth - kWheelCount * kCellWidth) / 3.0;
        const int group = i < 5 ? 0 : (i - 5) / 2 + 1;
        return {i * kCellWidth + group * groupGap, 2.0, kCellWidth - 1.0, kCellHeight};
    }
    QRectF CellInWidget(int i) const {
        const QRectF cell = Cell(i);
        return {origin.x() + cell.x() * scale, origin.y() + cell.y() * scale, cell.width() * scale, cell.height() * scale};
    }
};

}  // namespace

QString OdometerText(std::uint64_t seconds) {
    const std::uint64_t days = std::min<std::uint64_t>(seconds / 86400, kMaximumDays);
    const auto padded = [](std::uint64_t v, int width) { return QStringLiteral("%1").arg(v, width, 10, QLatin1Char('0')); };
    return QStringLiteral("%1%2%3%4")
        .arg(padded(days, 5), padded(seconds / 3600 % 24, 2), padded(seconds / 60 % 60, 2), padded(seconds % 60, 2));
}

double OdometerRollProgress(double fractionOfSecond) {
    if (!std::isfinite(fractionOfSecond) || fractionOfSecond >= kOdometerRollSeconds) return 1.0;
    const double u = std::clamp(fractionOfSecond / kOdometerRollSeconds, 0.0, 1.0);
    return (3.0 - 2.0 * u) * u * u;
}

int OdometerNextTickMs(double fractionOfSecond, int fps) {
    fractionOfSecond = std::clamp(std::isfinite(fractionOfSecond) ? fractionOfSecond : 0.0, 0.0, 0.999999);
    if (fps > 0 && fractionOfSecond < kOdometerRollSeconds) return std::max(1, (1000 + fps - 1) / fps);
    return static_cast<int>(std::ceil((1.0 - fractionOfSecond) * 1000.0)) + 1;
}

struct UptimeOdometerWidget::Impl {
    UptimeOdometerWidget* owner = nullptr;
    std::optional<std::uint64_t> uptimeSeconds;
    QElapsedTimer sinceUptime;
    int fps = 60;
    QColor textColor{70, 235, 200};
    QTimer timer;
    // The ten digits drawn once on their wheels, one above the other: a frame only copies from
    // here, since shaping and drawing text sixty times a second cost more than the rest together.
    QPixmap strip;
    QString stripKey;

    const QPixmap& Strip(const OdometerGeometry& geometry, qreal ratio, const QColor& lit, const QColor& wheel) {
        const QString key = QStringLiteral("%1/%2/%3/%4")
                                .arg(geometry.scale)
                                .arg(ratio)
                                .arg(lit.rgba())
                                .arg(wheel.rgba());
        if (key == stripKey && !strip.isNull()) return strip;
        const QSizeF cell(kCellWidth - 1.0, kCellHeight);
        const QSize pixels(static_cast<int>(std::ceil(cell.width() * geometry.scale * ratio)),
                           static_cast<int>(std::ceil(cell.height() * geometry.scale * ratio)) * 10);
        strip = QPixmap(pixels);
        strip.setDevicePixelRatio(ratio);
        strip.fill(Qt::transparent);
        QPainter painter(&strip);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setRenderHint(QPainter::TextAntialiasing);
        const double cellPixels = static_cast<double>(pixels.height()) / 10.0 / ratio;
        QFont font(QStringLiteral("DejaVu Sans Condensed"));
        font.setPixelSize(18);
        font.setWeight(QFont::DemiBold);
        font.setStretch(75);
        for (int digit = 0; digit < 10; ++digit) {
            painter.save();
            painter.translate(0.0, digit * cellPixels);
            painter.scale(geometry.scale, geometry.scale);
            const QRectF rect(QPointF(0.0, 0.0), cell);
            painter.setPen(Qt::NoPen);
            painter.setBrush(wheel);
            painter.drawRoundedRect(rect, 1.5, 1.5);
            painter.setFont(font);
            painter.setPen(lit);
            painter.drawText(rect, Qt::AlignCenter, QString::number(digit));
            painter.restore();
        }
        stripKey = key;
        return strip;
    }

    double NowSeconds() const {
        if (!uptimeSeconds) return 0.0;
        return static_cast<double>(*uptimeSeconds) + static_cast<double>(sinceUptime.nsecsElapsed()) / 1e9;
    }

    void Schedule() {
        if (!owner->isVisible()) {
            timer.stop();
            return;
        }
        if (!uptimeSeconds) {
            timer.start(kRetryMs);
            return;
        }
        const double now = NowSeconds();
        timer.start(OdometerNextTickMs(now - std::floor(now), fps));
    }
};

UptimeOdometerWidget::UptimeOdometerWidget(QWidget* parent) : QWidget(parent), impl_(std::make_unique<Impl>()) {
    impl_->owner = this;
    impl_->timer.setSingleShot(true);
    impl_->timer.setTimerType(Qt::PreciseTimer);
    connect(&impl_->timer, &QTimer::timeout, this, [this] {
        // Only the wheels that turn this second need paint: most seconds that is the last one.
        const double now = impl_->NowSeconds();
        const auto whole = static_cast<std::uint64_t>(std::floor(now));
        const QString to = OdometerText(whole);
        const QString from = whole > 0 ? OdometerText(whole - 1) : to;
        int first = 0;
        while (first < kWheelCount - 1 && to.at(first) == from.at(first)) ++first;
        const OdometerGeometry geometry(size());
        const QRectF moving = geometry.CellInWidget(first).united(geometry.CellInWidget(kWheelCount - 1));
        update(moving.toAlignedRect().adjusted(-1, -1, 1, 1));
        impl_->Schedule();
    });
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

UptimeOdometerWidget::~UptimeOdometerWidget() = default;

void UptimeOdometerWidget::SetUptimeSeconds(std::uint64_t seconds) {
    impl_->uptimeSeconds = seconds;
    impl_->sinceUptime.restart();
    update();
    impl_->Schedule();
}

void UptimeOdometerWidget::SetAnimationFps(int fps) {
    impl_->fps = std::max(0, fps);
    impl_->Schedule();
}

void UptimeOdometerWidget::SetTextColor(const QColor& color) {
    impl_->textColor = color;
    update();
}

QString UptimeOdometerWidget::Text() const {
    return OdometerText(static_cast<std::uint64_t>(std::floor(impl_->NowSeconds())));
}

bool UptimeOdometerWidget::TimerRunning() const { return impl_->timer.isActive(); }
int UptimeOdometerWidget::TimerIntervalMs() const { return impl_->timer.interval(); }

QSize UptimeOdometerWidget::sizeHint() const { return {183, 36}; }

void UptimeOdometerWidget::paintEvent(QPaintEvent*) {
    const OdometerGeometry geometry(size());
    if (geometry.scale <= 0.0) return;
    const double now = impl_->NowSeconds();
    const std::uint64_t whole = static_cast<std::uint64_t>(std::floor(now));
    const QString to = OdometerText(whole);
    const QString from = whole > 0 ? OdometerText(whole - 1) : to;
    const double progress = impl_->fps > 0 && impl_->uptimeSeconds ? OdometerRollProgress(now - std::floor(now)) : 1.0;

    const qreal ratio = devicePixelRatioF();
    const QPixmap& strip = impl_->Strip(geometry, ratio, DisplayTint(impl_->textColor), DisplayTint(QColor(14, 18, 18)));
    const double digitHeight = static_cast<double>(strip.height()) / 10.0;  // device pixels
    const auto source = [&](QChar digit, double offset) {
        return QRectF(0.0, std::clamp(digit.digitValue(), 0, 9) * digitHeight + offset, strip.width(), digitHeight);
    };

    QPainter painter(this);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    for (int i = 0; i < kWheelCount; ++i) {
        const QRectF cell = geometry.CellInWidget(i);
        const QChar newDigit = to.at(i);
        const QChar oldDigit = from.at(i);
        if (newDigit == oldDigit || progress >= 1.0) {
            painter.drawPixmap(cell, strip, source(newDigit, 0.0));
            continue;
        }
        // The old digit leaves at the top while the new one comes up from below.
        const double shift = progress * cell.height();
        const double shiftPixels = progress * digitHeight;
        const QRectF upper(cell.x(), cell.y(), cell.width(), cell.height() - shift);
        const QRectF lower(cell.x(), cell.y() + cell.height() - shift, cell.width(), shift);
        if (upper.height() > 0.0) {
            painter.drawPixmap(upper, strip, QRectF(0.0, std::clamp(oldDigit.digitValue(), 0, 9) * digitHeight + shiftPixels,
                                                    strip.width(), digitHeight - shiftPixels));
        }
        if (lower.height() > 0.0) {
            painter.drawPixmap(lower, strip, QRectF(0.0, std::clamp(newDigit.digitValue(), 0, 9) * digitHeight,
                                                    strip.width(), shiftPixels));
        }
    }
}

void UptimeOdometerWidget::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    impl_->Schedule();
}

void UptimeOdometerWidget::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    impl_->timer.stop();
}

}  // namespace korv::host::linux_client
