#pragma once

#include <QColor>
#include <QString>
#include <QWidget>

#include <memory>
#include <vector>

namespace korv::host::linux_client {

// A bar meter drawn like a vacuum-fluorescent display: discrete segments that light at once and
// fade like phosphor over 220 ms, a green-to-red ramp, and a glow. A timer runs only while the bar
// moves. GUI thread only.
class VfdMeterWidget : public QWidget {
    Q_OBJECT
public:
    enum class Layout { horizontal = 0, stacked = 2 };

    explicit VfdMeterWidget(QWidget* parent = nullptr);
    ~VfdMeterWidget() override;

    void SetValue(double percent);  // clamped to 0..100; not finite counts as 0
    void SetAnimationFps(int fps);  // 0: no motion, every change shows at once
    void SetBloom(double bloom);    // the bloom setting value, 0..2 and above
    void SetBloomStrength(double strength);
    void SetCaption(const QString& caption);
    void SetValueText(const QString& text);
    void SetLayout(Layout layout);
    void SetValueFontPixelSize(int pixels);
    void SetColorRamp(bool enabled);
    void SetDisplayColor(const QColor& color);  // segments and texts without the ramp, before the tint
    // The colour of the caption and value texts, before the tint; an invalid colour follows the
    // display colour.
    void SetTextColor(const QColor& color);
    QColor TextColor() const;  // as painted, tint included

    double Value() const;
    double DisplayedValue() const;
    bool HasValue() const;
    bool IsAnimating() const;
    bool TimerRunning() const;
    int AnimationFps() const;
    const std::vector<double>& Segments() const;
    QString Caption() const;
    QString ValueText() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
