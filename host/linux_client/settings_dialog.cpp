#include "host/linux_client/settings_dialog.h"

#include "host/linux_client/settings_page.h"

#include <QDialogButtonBox>
#include <QScrollArea>
#include <QVBoxLayout>

namespace korv::host::linux_client {

SettingsDialog::SettingsDialog(core::Settings* settings, std::function<void()> changed, QWidget* parent)
    : QDialog(parent) {
    setObjectName(QStringLiteral("SettingsDialog"));
    setWindowTitle(tr("Settings"));
    form_ = new SettingsForm(settings, std::move(changed));
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setWidget(form_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(scroll, 1);
    layout->addWidget(buttons);
    resize(560, 680);
}

}  // namespace korv::host::linux_client
