#pragma once

#include "host/linux_client/smoke_options.h"

#include <array>

class QAction;
class QActionGroup;
class QMenu;
class QMenuBar;

namespace korv::host::linux_client {

// Every entry of the menu bar, in menu order. Entries whose feature is not built are present and
// disabled; the window enables and connects the rest.
struct WindowMenus {
    QMenu* fileMenu = nullptr;
    QAction* runNewTask = nullptr;         // Ctrl+N
    QAction* newVideoRecording = nullptr;  // Ctrl+Shift+N
    QAction* exit = nullptr;               // Ctrl+Q

    QMenu* editMenu = nullptr;
    QAction* find = nullptr;

    QMenu* viewMenu = nullptr;
    std::array<QAction*, kStackPageCount> pages{};  // Ctrl+1 .. Ctrl+9 by stack place; Settings Ctrl+0
    QActionGroup* pageGroup = nullptr;
    QAction* previousPage = nullptr;
    QAction* nextPage = nullptr;
    QAction* combinedDisks = nullptr;
    QAction* combinedNetwork = nullptr;
    QAction* combinedGpus = nullptr;
    QAction* diskLightSettings = nullptr;
    QAction* hideSidebar = nullptr;  // Ctrl+Shift+S
    QAction* hideStatusBar = nullptr;
    QAction* fullScreen = nullptr;
    QMenu* displayColorMenu = nullptr;
    std::array<QAction*, 5> displayColors{};  // in DisplayModeChoice order
    QActionGroup* displayColorGroup = nullptr;
    QMenu* popoutMenu = nullptr;
    std::array<QAction*, 4> popoutModes{};  // in PopoutModeChoice order
    QActionGroup* popoutGroup = nullptr;

    // The contextual menus of their pages; Ctrl+Alt+<n> reaches their items once the pages fill them.
    QMenu* performanceMenu = nullptr;
    QMenu* benchmarksMenu = nullptr;
    QMenu* diskSpaceMenu = nullptr;

    QMenu* helpMenu = nullptr;
    QAction* checkForUpdates = nullptr;
    QAction* provideFeedback = nullptr;
    QAction* privacyPromise = nullptr;
    QAction* about = nullptr;
};

// Builds the menus into the bar. Actions are children of their menus.
WindowMenus BuildWindowMenus(QMenuBar& bar);

}  // namespace korv::host::linux_client
