#pragma once

#include "host/linux_client/snapshot_page.h"

#include <functional>
#include <memory>

namespace korv::host::linux_client {

class SummaryFooterTiles;
class SummaryTopList;
class UptimeOdometerWidget;
class VfdMeterWidget;

// The first page: a console of VFD meters for the whole machine, the busiest processes, and a
// footer of tiles with the System Pressure reading. GUI thread only.
class SummaryPage : public SnapshotPage {
    Q_OBJECT
public:
    SummaryPage(PageEnvironment environment, QWidget* parent = nullptr);
    ~SummaryPage() override;

    void ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) override;
    void SettingsChanged() override;  // frame rate, bloom, uptime visible, temperature unit, display mode
    // A click on a device tile: the Performance page on that kind of device. Without it the tile
    // only turns to the Performance page.
    void SetOnShowDevice(std::function<void(core::DeviceKind)> callback);

    // For tests and the capture path.
    QString HeadingText() const;
    VfdMeterWidget* Meter(const QString& title) const;  // by its vfdTitle
    SummaryTopList* CpuList() const;
    SummaryTopList* MemoryList() const;
    SummaryFooterTiles* Footer() const;
    UptimeOdometerWidget* Odometer() const;
    void ExplainPressure();

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
