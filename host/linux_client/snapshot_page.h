#pragma once

#include "core/settings.h"
#include "core/snapshot.h"

#include <QString>
#include <QWidget>

#include <functional>
#include <memory>

namespace korv::providers {
class PlatformServices;
}

namespace korv::host::linux_client {

class HistoryStore;

// What the window lends its pages. Everything here belongs to the window and outlives the pages;
// all of it is used on the GUI thread only.
struct PageEnvironment {
    core::Settings* settings = nullptr;          // pages change preferences here ...
    std::function<void()> settingsChanged;       // ... and then call this, so the window saves soon
    const HistoryStore* history = nullptr;       // fed on every snapshot, whatever page is shown
    providers::PlatformServices* services = nullptr;
    std::function<void()> requestSample;         // a fresh sample as soon as the engine can
    std::function<void(int stackIndex)> showPage;
    std::function<void(const QString& text)> showStatus;  // the status line's message
};

// A page that shows snapshots. The window calls ApplySnapshot only while the page can be seen (or
// while something else holds it), and SettingsChanged after any preference changed.
class SnapshotPage : public QWidget {
    Q_OBJECT
public:
    using QWidget::QWidget;
    virtual void ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) = 0;
    virtual void SettingsChanged() {}
};

}  // namespace korv::host::linux_client
