#pragma once

#include "core/settings.h"
#include "host/linux_client/smoke_options.h"
#include "host/linux_client/snapshot_apply_plan.h"

#include <QMainWindow>

#include <cstdint>
#include <functional>
#include <memory>

namespace korv::core {
struct SystemSnapshot;
}
namespace korv::providers {
class PlatformServices;
}

namespace korv::host::linux_client {

class HistoryStore;

// The main window: the one owner of the platform services, the sampling engine and all pages. It
// builds the shell, receives snapshots on the GUI thread through a one-slot mailbox, and passes each
// to exactly those pages that can be seen. Everything here runs on the GUI thread; only the engine's
// sink, which swaps one pointer, runs on the engine's thread.
class TaskManagerWindow : public QMainWindow {
    Q_OBJECT
public:
    using SmokeOptions = linux_client::SmokeOptions;
    // Makes the platform services; a factory that throws or returns null leaves the window without a
    // provider, and its status line says so.
    using ServicesFactory = std::function<std::unique_ptr<providers::PlatformServices>()>;

    TaskManagerWindow(SmokeOptions options, core::SettingsLoadResult settings, QWidget* parent = nullptr);
    TaskManagerWindow(SmokeOptions options, core::SettingsLoadResult settings, ServicesFactory factory,
                      QWidget* parent = nullptr);
    // Runs the close path if no close did, so that the engine is stopped before the services go.
    ~TaskManagerWindow() override;

    TaskManagerWindow(const TaskManagerWindow&) = delete;
    TaskManagerWindow& operator=(const TaskManagerWindow&) = delete;

    // Ends the program with status 0 once a snapshot has been shown, or 1 if none came within 10 s.
    void BeginSelfTest();
    // Another start of the program asked this one to come forward.
    void ActivateFromAnotherInstance();
    // The program started again after a change of language; this one by default.
    void SetRelaunchProgram(const QString& program);

    // Selects a stack place, 0 to 14; other values are ignored. A change asked for while a snapshot
    // is being applied takes effect at the end of that delivery.
    void SelectStackIndex(int stackIndex);
    int CurrentStackIndex() const;
    // What &Refresh and F5 do: ask the engine for a sample now.
    void RequestSample();

    // The newest delivered coherent snapshot as received, and the one the pages read.
    std::shared_ptr<const core::SystemSnapshot> CurrentSnapshot() const;
    std::shared_ptr<const core::SystemSnapshot> DisplaySnapshot() const;
    double CpuScale() const;
    std::uint64_t LastGeneration() const;
    std::uint64_t DeliveredSnapshotCount() const;
    // Which consumers the last delivered snapshot reached.
    ApplyPlan LastApplyPlan() const;
    const HistoryStore& History() const;
    const core::Settings& CurrentSettings() const;

protected:
    bool event(QEvent* event) override;
    void changeEvent(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void keyReleaseEvent(QKeyEvent* event) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
