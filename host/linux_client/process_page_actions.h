#pragma once

#include "core/snapshot.h"
#include "host/linux_client/process_context_menu.h"
#include "host/linux_client/process_inspector_dialog.h"
#include "host/linux_client/snapshot_page.h"

#include <QObject>
#include <QPoint>
#include <QString>
#include <QUrl>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QWidget;

namespace korv::host::linux_client {

// What the Processes page lends to its actions; each may be left empty.
struct ProcessPageHooks {
    std::function<const core::SystemSnapshot*()> currentSnapshot;  // the last applied snapshot
    std::function<void(std::optional<core::ProcessKey>)> setFollowedKey;
    std::function<void()> expandAll;
    std::function<void()> collapseAll;
};

// The web search for a process name: "/search?q=" and the percent-encoded name.
QUrl SearchOnlineUrl(const QString& processName);
// The folder of an executable, as a local URL; nothing for an empty path.
std::optional<QUrl> FileLocationUrl(const QString& executablePath);
// "<name> (<pid>)" for each row, one per line.
QString ProcessNamesText(const std::vector<core::ProcessSnapshot>& rows);

// Everything a user can do to processes from the Processes page: the context menus, the
// confirmations, the action queue with its worker, the affinity changes, the sample report, the
// inspector dialogs and "Run new task". Results come back to the status line. Lives on the GUI
// thread and has no Qt parent: its owner destroys it, or shuts it down, before the platform services
// go. Dialogs and menus open as children of `dialogParent`.
class ProcessPageActions : public QObject {
    Q_OBJECT
public:
    ProcessPageActions(PageEnvironment environment, QWidget* dialogParent);
    // Stops and joins the workers; results that arrive later are dropped.
    ~ProcessPageActions() override;

    ProcessPageActions(const ProcessPageActions&) = delete;
    ProcessPageActions& operator=(const ProcessPageActions&) = delete;

    void SetPageHooks(ProcessPageHooks hooks);

    // A context for the given rows (the row under the pointer first) with the settings, the state of
    // the backend and the processor count filled in.
    ProcessMenuContext MenuContext(std::vector<core::ProcessSnapshot> rows, bool exited, bool followed) const;
    // Runs the menu for the context; an affinity reading and the processor count are added when
    // the context lacks them.
    void ShowProcessContextMenu(const QPoint& globalPos, const ProcessMenuContext& context);
    // Carries out what was picked in the menu built from `context`.
    void RunMenuChoice(const ProcessMenuChoice& choice, const ProcessMenuContext& context);
    // What shows the menu and returns the pick; by default the menu itself. Tests put their own.
    using MenuRunner = std::function<ProcessMenuChoice(const ProcessMenuContext& context, const QPoint& globalPos)>;
    void SetMenuRunner(MenuRunner runner);

    // Opens the inspector on a process of the current snapshot, live or exited; an inspector that is
    // open for the key already comes forward instead.
    // `tableRow` is what the table shows for the key; it stands in when the snapshot no longer holds
    // the process.
    void ShowProcessDetails(const core::ProcessKey& key, const core::ProcessSnapshot* tableRow = nullptr,
                            bool exited = false);
    void ShowProcessDetails(const ProcessInspectorInput& input);

    bool ConfirmProcessTermination(const std::vector<core::ProcessSnapshot>& rows, bool force);
    // Confirms and queues "Terminate" or "Force terminate": the Delete key and the menu entries.
    void TerminateRows(const std::vector<core::ProcessSnapshot>& rows, bool force);
    // Confirms and queues the selection and all its descendants in the current snapshot.
    void EndProcessTrees(const std::vector<core::ProcessSnapshot>& rows, bool force);

    // Queues one action a key under the command's words (see ProcessActionForName); `nice` goes with
    // "Set priority". False, with the reason in the status line, when the request is refused.
    bool QueueProcessAction(const std::vector<core::ProcessKey>& keys, const QString& actionName,
                            std::optional<std::int32_t> nice = std::nullopt);
    // Toggles one processor (or, with -1, sets all) in the process's mask as it is when the worker
    // gets to it.
    bool QueueAffinityChange(const core::ProcessKey& key, int processor);
    void QueueProcessSample(const core::ProcessKey& key);
    void ShowRunNewTask();

    // Refuses further work, closes the inspectors, and stops and joins the workers. Safe to call twice.
    void Shutdown();

    bool BackendUsable() const;
    std::size_t PendingActionCount() const;
    std::size_t OpenInspectorCount() const;

private:
    void RunMenu(const QPoint& globalPos, const ProcessMenuContext& context);

    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
