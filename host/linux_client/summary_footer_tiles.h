#pragma once

#include "core/smart_summary.h"
#include "core/snapshot.h"
#include "core/system_pressure.h"

#include <QFrame>
#include <QString>

#include <functional>
#include <memory>

class QLabel;

namespace korv::host::linux_client {

class VfdMeterWidget;

QString SmartSummaryText(core::SmartSummary summary);  // empty for no reading

// The smallest power of two times 1 MB/sec that holds the peak, so that an idle machine does not
// fill the bar.
double RateScale(double peakBytesPerSecond);

// One footer tile: a title, a main value, a detail line, a small meter with its scale. A click
// anywhere on it runs the callback.
class SummaryTile : public QFrame {
    Q_OBJECT
public:
    explicit SummaryTile(const QString& title, QWidget* parent = nullptr);
    ~SummaryTile() override;

    void SetValue(const QString& text);
    void SetLine(const QString& text);
    void SetSecondLine(const QString& text);
    void SetScale(const QString& text);
    void SetMeter(double percent);
    void SetOnClicked(std::function<void()> callback);
    VfdMeterWidget* Meter() const;

    QString Title() const;
    QString Value() const;
    QString Line() const;
    QString SecondLine() const;
    QString Scale() const;

protected:
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The footer row: the whole machine with power and System Pressure, GPUs, storage and network.
class SummaryFooterTiles : public QWidget {
    Q_OBJECT
public:
    explicit SummaryFooterTiles(QWidget* parent = nullptr);
    ~SummaryFooterTiles() override;

    void Update(const core::SystemSnapshot& snapshot, const core::SystemPressure& pressure);
    void SetAnimation(int fps, double bloom);
    void SetOnShowDevice(std::function<void(core::DeviceKind)> callback);
    void SetOnExplainPressure(std::function<void()> callback);

    SummaryTile* WholeMachine() const;
    SummaryTile* Gpus() const;
    SummaryTile* Storage() const;
    SummaryTile* Network() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
