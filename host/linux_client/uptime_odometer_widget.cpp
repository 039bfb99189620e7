#include "host/linux_client/uptime_odometer_widget.h"

#include "host/linux_client/display_tint.h"
#include "host/linux_client/vfd_color_ramp.h"

#include <QElapsedTimer>
#include <QPainter>
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
        update();
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
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::TextAntialiasing);
    const double scale = std::min(width() / kCanvasWidth, height() / (kCellHeight + 4.0));
    if (scale <= 0.0) return;
    painter.translate((width() - kCanvasWidth * scale) / 2.0, (height() - (kCellHeight + 4.0) * scale) / 2.0);
    painter.scale(scale, scale);

    QFont font(QStringLiteral("DejaVu Sans Condensed"));
    font.setPixelSize(18);
    font.setWeight(QFont::DemiBold);
    font.setStretch(75);
    painter.setFont(font);

    const double now = impl_->NowSeconds();
    const std::uint64_t whole = static_cast<std::uint64_t>(std::floor(now));
    const QString to = OdometerText(whole);
    const QString from = whole > 0 ? OdometerText(whole - 1) : to;
    const double progress = impl_->fps > 0 && impl_->uptimeSeconds ? OdometerRollProgress(now - std::floor(now)) : 1.0;

    const QColor lit = DisplayTint(impl_->textColor);
    const QColor wheel = DisplayTint(QColor(14, 18, 18));
    const double cellWidth = 10.0;
    const double groupGap = (kCanvasWidth - kWheelCount * cellWidth) / 3.0;
    for (int i = 0; i < kWheelCount; ++i) {
        const int group = i < 5 ? 0 : (i - 5) / 2 + 1;
        const double x = i * cellWidth + group * groupGap;
        const QRectF cell(x, 2.0, cellWidth - 1.0, kCellHeight);
        painter.setPen(Qt::NoPen);
        painter.setBrush(wheel);
        painter.drawRoundedRect(cell, 1.5, 1.5);
        painter.save();
        painter.setClipRect(cell);
        painter.setPen(lit);
        const QChar newDigit = to.at(i);
        const QChar oldDigit = from.at(i);
        if (newDigit == oldDigit || progress >= 1.0) {
            painter.drawText(cell, Qt::AlignCenter, QString(newDigit));
        } else {
            const double shift = progress * kCellHeight;
            painter.drawText(cell.translated(0, -shift), Qt::AlignCenter, QString(oldDigit));
            painter.drawText(cell.translated(0, kCellHeight - shift), Qt::AlignCenter, QString(newDigit));
        }
        painter.restore();
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
