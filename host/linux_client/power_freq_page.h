#pragma once

#include "host/linux_client/snapshot_page.h"

#include <memory>

namespace korv::host::linux_client {

class PowerFreqModel;

// The telemetry frame's sensors as a tree of device, category and sensor, with the value, minimum and
// maximum since the page began watching. The window feeds it only while it is seen or the popout
// holds it.
class PowerFreqPage : public SnapshotPage {
    Q_OBJECT
public:
    explicit PowerFreqPage(PageEnvironment environment, QWidget* parent = nullptr);
    ~PowerFreqPage() override;

    void ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) override;
    // Redraws in the temperature unit of the settings.
    void SettingsChanged() override;
    // Minimum and maximum start again from the values now shown.
    void ResetExtremes();
    const PowerFreqModel& Model() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
