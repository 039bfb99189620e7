#include "host/linux_client/window_menus.h"

#include "host/linux_client/page_catalog.h"

#include <QAction>
#include <QActionGroup>
#include <QCoreApplication>
#include <QKeySequence>
#include <QMenu>
#include <QMenuBar>

#include <utility>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("QMainWindow", source);
}

QAction* AddAction(QMenu* menu, const QString& text, const QKeySequence& shortcut = {}, bool enabled = true) {
    QAction* action = menu->addAction(text);
    if (!shortcut.isEmpty()) {
        action->setShortcut(shortcut);
    }
    action->setEnabled(enabled);
    return action;
}

QAction* AddCheck(QMenu* menu, const QString& text, const QKeySequence& shortcut = {}, bool enabled = true) {
    QAction* action = AddAction(menu, text, shortcut, enabled);
    action->setCheckable(true);
    return action;
}

// A rail label as menu text: a literal ampersand doubled so that it is not a mnemonic.
QString MenuTextForLabel(const QString& label) {
    QString text = label;
    text.replace(QLatin1Char('&'), QStringLiteral("&&"));
    return text;
}

}  // namespace

WindowMenus BuildWindowMenus(QMenuBar& bar) {
    WindowMenus menus;

    menus.fileMenu = bar.addMenu(Text("&File"));
    menus.fileMenu->setObjectName(QStringLiteral("FileMenu"));
    // Filming a page is a feature of its own and stays off until built.
    menus.runNewTask = AddAction(menus.fileMenu, Text("Run &new task…"), QKeySequence(QStringLiteral("Ctrl+N")), false);
    menus.newVideoRecording =
        AddAction(menus.fileMenu, Text("New &Video Recording…"), QKeySequence(QStringLiteral("Ctrl+Shift+N")), false);
    menus.fileMenu->addSeparator();
    menus.exit = AddAction(menus.fileMenu, Text("E&xit"), QKeySequence(QStringLiteral("Ctrl+Q")));
    menus.exit->setMenuRole(QAction::QuitRole);

    menus.editMenu = bar.addMenu(Text("&Edit"));
    menus.editMenu->setObjectName(QStringLiteral("EditMenu"));
    menus.find = AddAction(menus.editMenu, Text("&Find"));

    menus.viewMenu = bar.addMenu(Text("&View"));
    menus.viewMenu->setObjectName(QStringLiteral("ViewMenu"));
    menus.pageGroup = new QActionGroup(menus.viewMenu);
    menus.pageGroup->setExclusive(true);
    for (int index = 0; index < kStackPageCount; ++index) {
        QKeySequence shortcut;
        QString text;
        if (index == kSettingsStackIndex) {
            text = Text("Se&ttings");
            shortcut = QKeySequence(QStringLiteral("Ctrl+0"));
        } else {
            text = MenuTextForLabel(RailLabel(index));
            if (index < 9) {
                shortcut = QKeySequence(QStringLiteral("Ctrl+%1").arg(index + 1));
            }
        }
        QAction* action = AddCheck(menus.viewMenu, text, shortcut);
        action->setData(index);
        menus.pageGroup->addAction(action);
        menus.pages[static_cast<std::size_t>(index)] = action;
    }
    menus.viewMenu->addSeparator();
    menus.previousPage = AddAction(menus.viewMenu, Text("Pre&vious Page"));
    menus.nextPage = AddAction(menus.viewMenu, Text("Ne&xt Page"));
    menus.viewMenu->addSeparator();
    // The combined-device choices belong to the Performance page's device list.
    menus.combinedDisks = AddCheck(menus.viewMenu, Text("Show Combined &Disks"), {});
    menus.combinedNetwork = AddCheck(menus.viewMenu, Text("Show Combined &Network"), {});
    menus.combinedGpus = AddCheck(menus.viewMenu, Text("Show Combined &GPUs"), {});
    menus.diskLightSettings = AddAction(menus.viewMenu, Text("Disk &Light Settings…"), {}, false);
    menus.viewMenu->addSeparator();
    menus.hideSidebar = AddCheck(menus.viewMenu, Text("&Hide Sidebar"), QKeySequence(QStringLiteral("Ctrl+Shift+S")));
    menus.hideStatusBar = AddCheck(menus.viewMenu, Text("Hide Status &Bar"));
    menus.fullScreen = AddCheck(menus.viewMenu, Text("&Full Screen"));

    menus.displayColorMenu = menus.viewMenu->addMenu(Text("Displa&y Color"));
    menus.displayColorMenu->setObjectName(QStringLiteral("DisplayColorMenu"));
    menus.displayColorGroup = new QActionGroup(menus.displayColorMenu);
    const std::array<const char*, 5> displayTexts = {
        QT_TRANSLATE_NOOP("QMainWindow", "Color"), QT_TRANSLATE_NOOP("QMainWindow", "Mono"),
        QT_TRANSLATE_NOOP("QMainWindow", "Green"), QT_TRANSLATE_NOOP("QMainWindow", "Amber"),
        QT_TRANSLATE_NOOP("QMainWindow", "Blue")};
    for (std::size_t i = 0; i < displayTexts.size(); ++i) {
        QAction* action = AddCheck(menus.displayColorMenu, Text(displayTexts[i]));
        action->setData(static_cast<int>(i));
        menus.displayColorGroup->addAction(action);
        menus.displayColors[i] = action;
    }

    // The popout is a window of its own that is not built yet: its modes are listed but off.
    menus.popoutMenu = menus.viewMenu->addMenu(Text("&Popout"));
    menus.popoutMenu->setObjectName(QStringLiteral("PopoutMenu"));
    menus.popoutMenu->setToolTipsVisible(true);
    menus.popoutGroup = new QActionGroup(menus.popoutMenu);
    const std::array<std::pair<const char*, const char*>, 4> popoutTexts = {{
        {QT_TRANSLATE_NOOP("QMainWindow", "Off"), QT_TRANSLATE_NOOP("QMainWindow", "Hide the popout")},
        {QT_TRANSLATE_NOOP("QMainWindow", "Desktop"),
         QT_TRANSLATE_NOOP("QMainWindow", "Park the popout on the desktop, behind every window")},
        {QT_TRANSLATE_NOOP("QMainWindow", "Topmost"),
         QT_TRANSLATE_NOOP("QMainWindow", "Keep the popout above every other window")},
        {QT_TRANSLATE_NOOP("QMainWindow", "Floating"),
         QT_TRANSLATE_NOOP("QMainWindow", "Show the popout as an ordinary floating window")},
    }};
    for (std::size_t i = 0; i < popoutTexts.size(); ++i) {
        QAction* action = AddCheck(menus.popoutMenu, Text(popoutTexts[i].first), {}, false);
        action->setToolTip(Text(popoutTexts[i].second));
        action->setData(static_cast<int>(i));
        menus.popoutGroup->addAction(action);
        menus.popoutModes[i] = action;
    }
    menus.popoutModes[0]->setChecked(true);

    // Each page menu is filled by its page; until then it has nothing to offer.
    menus.performanceMenu = bar.addMenu(Text("&Performance"));
    menus.performanceMenu->setObjectName(QStringLiteral("PerformanceMenu"));
    menus.benchmarksMenu = bar.addMenu(Text("&Benchmarks"));
    menus.benchmarksMenu->setObjectName(QStringLiteral("BenchmarksMenu"));
    menus.diskSpaceMenu = bar.addMenu(Text("&Disk Space"));
    menus.diskSpaceMenu->setObjectName(QStringLiteral("DiskSpaceMenu"));
    for (QMenu* menu : {menus.performanceMenu, menus.benchmarksMenu, menus.diskSpaceMenu}) {
        menu->setEnabled(false);
    }

    menus.helpMenu = bar.addMenu(Text("&Help"));
    menus.helpMenu->setObjectName(QStringLiteral("HelpMenu"));
    menus.checkForUpdates = AddAction(menus.helpMenu, Text("Check for &Updates…"), {}, false);
    menus.provideFeedback = AddAction(menus.helpMenu, Text("&Provide Feedback…"), {}, false);
    menus.privacyPromise = AddAction(menus.helpMenu, Text("Pri&vacy Promise…"), {}, false);
    menus.helpMenu->addSeparator();
    menus.about = AddAction(menus.helpMenu, Text("&About Task Manager KORV…"));
    menus.about->setMenuRole(QAction::AboutRole);

    for (QMenu* menu : {menus.fileMenu, menus.editMenu, menus.viewMenu, menus.helpMenu}) {
        menu->setToolTipsVisible(true);
    }
    return menus;
}

}  // namespace korv::host::linux_client
