#pragma once

#include <QString>
#include <QWidget>

#include <cstdint>
#include <memory>

namespace korv::host::linux_client {

// Eleven digits of uptime: five for days, two each for hours, minutes and seconds.
QString OdometerText(std::uint64_t seconds);

inline constexpr double kOdometerRollSeconds = 0.24;

// How far a changing wheel has rolled at this fraction of the second: the smoothstep of
// fraction / 0.24, and 1 for the rest of the second.
double OdometerRollProgress(double fractionOfSecond);

// Milliseconds until the timer should wake: the frame interval during a roll, else the start of
// the next second plus 1 ms. Without a frame rate no roll is drawn.
int OdometerNextTickMs(double fractionOfSecond, int fps);

// A mechanical odometer of the uptime that rolls its changing wheels at each second. Its one timer
// ticks once a second when idle and stops while the widget is hidden. GUI thread only.
class UptimeOdometerWidget : public QWidget {
    Q_OBJECT
public:
    explicit UptimeOdometerWidget(QWidget* parent = nullptr);
    ~UptimeOdometerWidget() override;

    void SetUptimeSeconds(std::uint64_t seconds);  // from each snapshot
    void SetAnimationFps(int fps);
    void SetTextColor(const QColor& color);  // before the display tint

    QString Text() const;  // the digits now shown
    bool TimerRunning() const;
    int TimerIntervalMs() const;

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
