#include "host/linux_client/vfd_meter_widget.h"

#include "host/linux_client/display_tint.h"
#include "host/linux_client/vfd_color_ramp.h"
#include "host/linux_client/vfd_geometry.h"
#include "host/linux_client/vfd_grid.h"
#include "host/linux_client/vfd_motion.h"

#include <QElapsedTimer>
#include <QFontMetrics>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QTimer>

#include <algorithm>
#include <cmath>

namespace korv::host::linux_client {

namespace {

constexpr int kCaptionPixels = 11;
constexpr int kCaptionGap = 3;
constexpr int kBarTextGap = 8;

struct Halo {
    double radius;
    double weight;
};
constexpr Halo kHalos[] = {{15.75, 0.32}, {9.0, 0.6}, {4.5, 1.1}};

QColor WithAlpha(QColor color, double alpha) {
    color.setAlphaF(static_cast<float>(std::clamp(alpha, 0.0, 1.0)));
    return color;
}

QColor Blend(const QColor& from, const QColor& to, double t) {
    const auto mix = [t](int a, int b) { return static_cast<int>(std::lround(a + (b - a) * t)); };
    return QColor(mix(from.red(), to.red()), mix(from.green(), to.green()), mix(from.blue(), to.blue()));
}

}  // namespace

struct VfdMeterWidget::Impl {
    VfdMeterWidget* owner = nullptr;
    VfdMotionState motion;
    int animationFps = 60;
    double bloom = 1.0;
    double bloomStrength = 1.0;
    QString caption;
    QString valueText;
    Layout layout = Layout::horizontal;
    int valueFontPixels = 20;
    bool colorRamp = true;
    QColor displayColor{70, 235, 200};
    QColor textColor;  // invalid: the display colour
    QElapsedTimer lastUpdate;
    QTimer* timer = nullptr;  // made on first need
    QImage textLayer;         // value text with the grid laid over it, redrawn when its inputs change
    QString textLayerKey;

    QFont CaptionFont() const {
        QFont font = owner->font();
        font.setPixelSize(kCaptionPixels);
        return font;
    }

    QFont ValueFont() const {
        QFont font = owner->font();
        font.setPixelSize(std::max(6, valueFontPixels));
        font.setWeight(QFont::Bold);
        return font;
    }

    QRect CaptionRect() const {
        if (caption.isEmpty()) return {};
        const QRect r = owner->rect();
        return {r.left(), r.top(), r.width(), QFontMetrics(CaptionFont()).height()};
    }

    QRect ValueRect() const {
        const QRect r = owner->rect();
        const int textHeight = QFontMetrics(ValueFont()).height();
        if (layout == Layout::stacked) return {r.left(), r.bottom() - textHeight + 1, r.width(), textHeight};
        const int top = caption.isEmpty() ? r.top() : CaptionRect().bottom() + kCaptionGap;
        const int width = valueText.isEmpty() ? 0 : std::min(r.width() / 2, QFontMetrics(ValueFont()).horizontalAdvance(valueText) + 2);
        return {r.right() - width + 1, top, width, r.bottom() - top + 1};
    }

    QRectF BarArea() const {
        const QRect r = owner->rect();
        const QRect captionRect = CaptionRect();
        const int top = captionRect.isNull() ? r.top() : captionRect.bottom() + 1 + kCaptionGap;
        if (layout == Layout::stacked) {
            const QRect value = ValueRect();
            const int bottom = value.top() - kCaptionGap;
            return QRectF(r.left(), top, r.width(), std::max(0, bottom - top));
        }
        const QRect value = ValueRect();
        const int right = value.width() > 0 ? value.left() - kBarTextGap : r.right() + 1;
        return QRectF(r.left(), top, std::max(0, right - r.left()), r.bottom() + 1 - top);
    }

    std::vector<QRectF> SegmentRects() const { return VfdSegmentRects(BarArea(), layout == Layout::stacked); }

    void SyncSegmentCount() { ResizeVfdSegments(motion, static_cast<int>(SegmentRects().size())); }

    double TakeElapsedSeconds() {
        if (!lastUpdate.isValid()) {
            lastUpdate.start();
            return 0.0;
        }
        const double seconds = static_cast<double>(lastUpdate.nsecsElapsed()) / 1e9;
        lastUpdate.restart();
        return seconds;
    }

    void Step() {
        const double dt = TakeElapsedSeconds();
        if (animationFps <= 0) {
            motion.hasValue = true;
            SnapVfdMotion(motion);
        } else {
            StepVfdMotion(motion, dt);
        }
        UpdateTimer();
        owner->update();
    }

    void UpdateTimer() {
        // A meter no one can see shows its latest value at once when it is shown again: moving it
        // in the meantime would cost frames for nothing.
        if (!owner->isVisible() && VfdMotionAnimating(motion)) {
            motion.hasValue = true;
            SnapVfdMotion(motion);
        }
        const bool run = animationFps > 0 && VfdMotionAnimating(motion);
        if (!run) {
            if (timer) timer->stop();
            return;
        }
        if (!timer) {
            timer = new QTimer(owner);
            timer->setTimerType(Qt::PreciseTimer);
            QObject::connect(timer, &QTimer::timeout, owner, [this] { Step(); });
        }
        timer->setInterval(VfdTimerIntervalMs(animationFps));
        if (!timer->isActive()) timer->start();
    }

    bool LightGround() const {
        const TintMode mode = CurrentTintMode();
        return owner->palette().color(QPalette::Window).lightness() > 127 &&
               (mode == TintMode::color || mode == TintMode::mono);
    }

    QColor TextColor() const {
        const QColor base = textColor.isValid() ? textColor : displayColor;
        return DisplayTint(LightGround() ? base.darker(190) : base);
    }

    void PaintSegments(QPainter& painter) {
        const std::vector<QRectF> rects = SegmentRects();
        const int count = static_cast<int>(rects.size());
        if (static_cast<int>(motion.segments.size()) != count) ResizeVfdSegments(motion, count);
        const double glow = VfdBloomMultiplier(bloom) * bloomStrength;
        const bool lightGround = LightGround();
        painter.setPen(Qt::NoPen);
        for (int i = 0; i < count; ++i) {
            const QRectF& segment = rects[static_cast<std::size_t>(i)];
            const QColor lit = DisplayTint(colorRamp ? VfdRampColor(i, count) : displayColor);
            const QColor ground = lightGround ? VfdLightGroundColor() : VfdUnlitColor(lit);
            painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
            painter.setBrush(ground);
            painter.drawRoundedRect(segment, 1.5, 1.5);
            const double b = motion.segments[static_cast<std::size_t>(i)];
            if (b > 0.0) {
                if (glow > 0.0 && !lightGround) {
                    // Each halo is the segment's outline pushed out by its radius.
                    painter.setCompositionMode(QPainter::CompositionMode_Plus);
                    for (const Halo& halo : kHalos) {
                        painter.setBrush(WithAlpha(lit, b * halo.weight * glow));
                        const double r = halo.radius;
                        painter.drawRoundedRect(segment.adjusted(-r, -r, r, r), r, r);
                    }
                }
                painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
                painter.setBrush(WithAlpha(lit, b));
                painter.drawRoundedRect(segment, 1.5, 1.5);
                painter.save();
                painter.setClipRect(segment);
                painter.setCompositionMode(QPainter::CompositionMode_Plus);
                QLinearGradient sheen(segment.topLeft(), segment.bottomLeft());
                const QColor white = DisplayTint(QColor(255, 255, 255));
                sheen.setColorAt(0.0, WithAlpha(white, b * 0.52));
                sheen.setColorAt(0.3, WithAlpha(white, b * 0.12));
                sheen.setColorAt(0.7, WithAlpha(white, b * 0.03));
                sheen.setColorAt(1.0, WithAlpha(white, 0.0));
                painter.setPen(Qt::NoPen);
                painter.setBrush(sheen);
                painter.drawRect(segment);
                painter.restore();
            }
            // The edge outlines dark cells too, in the colour the cell shows.
            const QColor shown = Blend(ground, lit, std::clamp(b, 0.0, 1.0));
            painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
            painter.setBrush(Qt::NoBrush);
            painter.setPen(QPen(WithAlpha(VfdEdgeColor(shown), 0.5), 0.8));
            painter.drawRoundedRect(segment.adjusted(0.4, 0.4, -0.4, -0.4), 1.5, 1.5);
            painter.setPen(Qt::NoPen);
        }
        painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    }

    void PaintValue(QPainter& painter) {
        const QRect rect = ValueRect();
        if (valueText.isEmpty() || rect.width() <= 0 || rect.height() <= 0) return;
        const QFont font = ValueFont();
        const QString shown = QFontMetrics(font).elidedText(valueText, Qt::ElideRight, rect.width());
        const QColor color = TextColor();
        const bool lightGround = LightGround();
        const qreal ratio = owner->devicePixelRatioF();
        const QString key = shown + QLatin1Char('|') + QString::number(rect.width()) + QLatin1Char('x') +
                            QString::number(rect.height()) + QLatin1Char('|') + QString::number(color.rgba()) +
                            QLatin1Char('|') + QString::number(font.pixelSize()) + QLatin1Char('|') +
                            QString::number(ratio) + (lightGround ? QLatin1Char('L') : QLatin1Char('D'));
        if (key != textLayerKey) {
            textLayerKey = key;
            textLayer = QImage(rect.size() * ratio, QImage::Format_ARGB32_Premultiplied);
            textLayer.setDevicePixelRatio(ratio);
            textLayer.fill(Qt::transparent);
            QPainter layer(&textLayer);
            layer.setRenderHint(QPainter::TextAntialiasing);
            layer.setFont(font);
            layer.setPen(color);
            const Qt::Alignment align = layout == Layout::stacked ? Qt::AlignHCenter | Qt::AlignVCenter
                                                                  : Qt::AlignRight | Qt::AlignVCenter;
            layer.drawText(QRect(QPoint(0, 0), rect.size()), align, shown);
            if (!lightGround) {
                // The control mesh in front of the phosphor breaks the glyphs up finely.
                layer.setCompositionMode(QPainter::CompositionMode_SourceAtop);
                layer.setOpacity(0.45);
                layer.drawTiledPixmap(QRect(QPoint(0, 0), rect.size()),
                                      QPixmap::fromImage(TintedVfdGrid(VfdUnlitColor(color))));
            }
        }
        const double glow = VfdBloomMultiplier(bloom) * bloomStrength;
        if (glow > 0.0 && !lightGround) {
            painter.save();
            painter.setCompositionMode(QPainter::CompositionMode_Plus);
            painter.setOpacity(std::min(1.0, 0.18 * glow));
            for (const QPoint offset : {QPoint(-1, 0), QPoint(1, 0), QPoint(0, -1), QPoint(0, 1)}) {
                painter.drawImage(rect.topLeft() + offset, textLayer);
            }
            painter.restore();
        }
        painter.drawImage(rect.topLeft(), textLayer);
    }
};

VfdMeterWidget::VfdMeterWidget(QWidget* parent) : QWidget(parent), impl_(std::make_unique<Impl>()) {
    impl_->owner = this;
    setAttribute(Qt::WA_OpaquePaintEvent, false);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
}

VfdMeterWidget::~VfdMeterWidget() = default;

void VfdMeterWidget::SetValue(double percent) {
    impl_->motion.value = ClampVfdValue(percent);
    impl_->SyncSegmentCount();
    impl_->Step();
}

void VfdMeterWidget::SetAnimationFps(int fps) {
    fps = std::max(0, fps);
    if (fps == impl_->animationFps) return;
    impl_->animationFps = fps;
    if (fps == 0 && impl_->motion.hasValue) {
        SnapVfdMotion(impl_->motion);
        update();
    }
    impl_->UpdateTimer();
}

void VfdMeterWidget::SetBloom(double bloom) {
    if (bloom == impl_->bloom) return;
    impl_->bloom = bloom;
    update();
}

void VfdMeterWidget::SetBloomStrength(double strength) {
    impl_->bloomStrength = std::max(0.0, strength);
    update();
}

void VfdMeterWidget::SetCaption(const QString& caption) {
    if (caption == impl_->caption) return;
    impl_->caption = caption;
    impl_->SyncSegmentCount();
    update();
}

void VfdMeterWidget::SetValueText(const QString& text) {
    if (text == impl_->valueText) return;
    impl_->valueText = text;
    impl_->SyncSegmentCount();
    update();
}

void VfdMeterWidget::SetLayout(Layout layout) {
    impl_->layout = layout;
    impl_->SyncSegmentCount();
    updateGeometry();
    update();
}

void VfdMeterWidget::SetValueFontPixelSize(int pixels) {
    impl_->valueFontPixels = pixels;
    impl_->SyncSegmentCount();
    updateGeometry();
    update();
}

void VfdMeterWidget::SetColorRamp(bool enabled) {
    impl_->colorRamp = enabled;
    update();
}

void VfdMeterWidget::SetDisplayColor(const QColor& color) {
    impl_->displayColor = color;
    update();
}

void VfdMeterWidget::SetTextColor(const QColor& color) {
    if (color == impl_->textColor) return;
    impl_->textColor = color;
    update();
}

QColor VfdMeterWidget::TextColor() const { return impl_->TextColor(); }

double VfdMeterWidget::Value() const { return impl_->motion.value; }
double VfdMeterWidget::DisplayedValue() const { return impl_->motion.displayedValue; }
bool VfdMeterWidget::HasValue() const { return impl_->motion.hasValue; }
bool VfdMeterWidget::IsAnimating() const { return VfdMotionAnimating(impl_->motion); }
void VfdMeterWidget::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    impl_->UpdateTimer();
}

bool VfdMeterWidget::TimerRunning() const { return impl_->timer && impl_->timer->isActive(); }
int VfdMeterWidget::AnimationFps() const { return impl_->animationFps; }
const std::vector<double>& VfdMeterWidget::Segments() const { return impl_->motion.segments; }
QString VfdMeterWidget::Caption() const { return impl_->caption; }
QString VfdMeterWidget::ValueText() const { return impl_->valueText; }

QSize VfdMeterWidget::sizeHint() const {
    const int value = QFontMetrics(impl_->ValueFont()).height();
    const int caption = impl_->caption.isEmpty() ? 0 : QFontMetrics(impl_->CaptionFont()).height() + kCaptionGap;
    if (impl_->layout == Layout::stacked) return {56, caption + value + 160};
    return {260, caption + std::max(value, 28)};
}

QSize VfdMeterWidget::minimumSizeHint() const {
    const QSize hint = sizeHint();
    return impl_->layout == Layout::stacked ? QSize(32, hint.height() / 2) : QSize(80, hint.height());
}

void VfdMeterWidget::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (!impl_->caption.isEmpty()) {
        painter.setFont(impl_->CaptionFont());
        painter.setPen(WithAlpha(impl_->TextColor(), 0.8));
        const Qt::Alignment align = impl_->layout == Layout::stacked ? Qt::AlignHCenter | Qt::AlignTop
                                                                     : Qt::AlignLeft | Qt::AlignTop;
        painter.drawText(impl_->CaptionRect(), align, impl_->caption);
    }
    impl_->PaintSegments(painter);
    impl_->PaintValue(painter);
}

void VfdMeterWidget::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    impl_->SyncSegmentCount();
}

}  // namespace korv::host::linux_client
