#pragma once

#include "core/snapshot.h"
#include "host/linux_client/process_affinity_menu.h"

#include <QPoint>

#include <memory>
#include <optional>
#include <vector>

class QAction;
class QMenu;
class QWidget;

namespace korv::host::linux_client {

// Everything the process context menu depends on, taken at the moment it opens.
struct ProcessMenuContext {
    std::vector<core::ProcessSnapshot> rows;  // the selected rows, the row under the pointer first
    bool exited = false;                      // the row under the pointer has exited
    bool backendUsable = false;               // process actions can be queued
    bool followed = false;                    // the row under the pointer is the followed one
    bool processTree = true;
    bool smoothCpu = true;
    bool showExited = true;
    bool showMemoryPercent = false;
    long logicalProcessors = 0;  // configured processors
    std::optional<AffinityMenuState> affinity;  // read for a single live row; absent: nothing known
};

enum class ProcessMenuCommand : int {
    none = 0,
    inspect,
    showDetails,
    terminate,
    forceTerminate,
    endTree,
    forceQuitTree,
    suspend,
    resume,
    signalInterrupt,
    signalHangUp,
    signalTerminate,
    signalStop,
    signalContinue,
    signalKill,
    niceNormal,
    niceLow,
    niceLowest,
    affinity,  // with `processor`, -1 for all processors
    createSample,
    openFileLocation,
    searchOnline,
    copyName,
    toggleProcessTree,
    toggleSmoothCpu,
    toggleShowExited,
    expandAll,
    collapseAll,
    toggleFollow,
    showValues,
    showPercents,
};

struct ProcessMenuChoice {
    ProcessMenuCommand command = ProcessMenuCommand::none;
    int processor = -1;
    friend bool operator==(const ProcessMenuChoice&, const ProcessMenuChoice&) = default;
};

// Builds the menu anew from the context: the full menu for live rows, the short one when the row
// under the pointer has exited. Each entry that does something carries its choice.
std::unique_ptr<QMenu> BuildProcessContextMenu(const ProcessMenuContext& context, QWidget* parent = nullptr);

// The choice an entry of that menu carries; `none` for separators, submenus and notes.
ProcessMenuChoice ProcessMenuChoiceOf(const QAction* action);

// Builds the menu, runs it at `globalPos` and returns what the user picked.
ProcessMenuChoice ExecProcessContextMenu(const ProcessMenuContext& context, const QPoint& globalPos,
                                         QWidget* parent = nullptr);

}  // namespace korv::host::linux_client
