#pragma once

#include "host/linux_client/snapshot_page.h"

#include <QString>
#include <QWidget>

#include <functional>
#include <memory>

namespace korv::host::linux_client {

// The controls of every user-facing setting. Each control carries the settings key as its object name
// (e.g. "visualFrameRate"). A change writes `*settings` at once and then calls `changed`; the owner
// re-reads the whole record, applies it and saves it. Shared by the Settings page and dialog.
class SettingsForm : public QWidget {
    Q_OBJECT
public:
    SettingsForm(core::Settings* settings, std::function<void()> changed, QWidget* parent = nullptr);
    ~SettingsForm() override;

    // Shows the record's values again without writing anything back (after a change made elsewhere).
    void Reload();
    // Called with the new code ("" for the system's language) after the language changed and was
    // stored; the entry point's "--language <code>" relaunch is up to the receiver.
    void SetLanguageChangedHandler(std::function<void(const QString& code)> handler);

    // The codes offered: "" (the system's language), "en", and one per translation under ":/i18n".
    static QStringList LanguageCodes();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The Settings page: the form in a scroll area. It shows no snapshot.
class SettingsPage : public SnapshotPage {
    Q_OBJECT
public:
    explicit SettingsPage(PageEnvironment environment, QWidget* parent = nullptr);
    ~SettingsPage() override;

    void ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) override;
    void SettingsChanged() override;
    SettingsForm* Form() const;

private:
    SettingsForm* form_ = nullptr;
};

}  // namespace korv::host::linux_client
