#pragma once

#include "core/settings.h"

#include <QDialog>

#include <functional>

namespace korv::host::linux_client {

class SettingsForm;

// The Settings page's controls in a dialog, for `showSettingsAsDialog`. Changes apply at once, as on
// the page; "Close" only closes.
class SettingsDialog : public QDialog {
    Q_OBJECT
public:
    SettingsDialog(core::Settings* settings, std::function<void()> changed, QWidget* parent = nullptr);
    SettingsForm* Form() const { return form_; }

private:
    SettingsForm* form_ = nullptr;
};

}  // namespace korv::host::linux_client
