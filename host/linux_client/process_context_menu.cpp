#include "host/linux_client/process_context_menu.h"

#include <QAction>
#include <QActionGroup>
#include <QCoreApplication>
#include <QMenu>
#include <QVariantList>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("QMainWindow", source);
}

void Tag(QAction* action, ProcessMenuCommand command, int processor = -1) {
    action->setData(QVariantList{static_cast<int>(command), processor});
}

QAction* AddEntry(QMenu& menu, const QString& text, ProcessMenuCommand command, bool enabled = true) {
    QAction* action = menu.addAction(text);
    Tag(action, command);
    action->setEnabled(enabled);
    return action;
}

QAction* AddCheckable(QMenu& menu, const QString& text, ProcessMenuCommand command, bool checked, bool enabled = true) {
    QAction* action = AddEntry(menu, text, command, enabled);
    action->setCheckable(true);
    action->setChecked(checked);
    return action;
}

void BuildExitedMenu(QMenu& menu) {
    QAction* inspect = AddEntry(menu, Text("Inspect"), ProcessMenuCommand::inspect);
    menu.setDefaultAction(inspect);
    menu.addSeparator();
    AddEntry(menu, Text("Open file location"), ProcessMenuCommand::openFileLocation);
    AddEntry(menu, Text("Search online"), ProcessMenuCommand::searchOnline);
    AddEntry(menu, Text("Copy process name"), ProcessMenuCommand::copyName);
}

void BuildLiveMenu(QMenu& menu, const ProcessMenuContext& context) {
    const bool several = context.rows.size() > 1;
    const bool usable = context.backendUsable;

    if (several) {
        AddEntry(menu, Text("Terminate selected (SIGTERM)"), ProcessMenuCommand::terminate, usable);
        AddEntry(menu, Text("Force terminate selected (SIGKILL)"), ProcessMenuCommand::forceTerminate, usable);
        AddEntry(menu, Text("End selected process trees"), ProcessMenuCommand::endTree, usable);
        AddEntry(menu, Text("Force quit selected process trees"), ProcessMenuCommand::forceQuitTree, usable);
    } else {
        AddEntry(menu, Text("Linux process details…"), ProcessMenuCommand::showDetails, usable);
        menu.addSeparator();
        AddEntry(menu, Text("Terminate (SIGTERM)"), ProcessMenuCommand::terminate, usable);
        AddEntry(menu, Text("Force terminate (SIGKILL)"), ProcessMenuCommand::forceTerminate, usable);
        AddEntry(menu, Text("End process tree"), ProcessMenuCommand::endTree, usable);
        AddEntry(menu, Text("Force quit process tree"), ProcessMenuCommand::forceQuitTree, usable);
    }
    menu.addSeparator();
    AddEntry(menu, several ? Text("Suspend selected (SIGSTOP)") : Text("Suspend (SIGSTOP)"),
             ProcessMenuCommand::suspend, usable);
    AddEntry(menu, several ? Text("Resume selected (SIGCONT)") : Text("Resume (SIGCONT)"), ProcessMenuCommand::resume,
             usable);

    QMenu* signalMenu = menu.addMenu(Text("Send signal"));
    signalMenu->menuAction()->setEnabled(usable);
    AddEntry(*signalMenu, Text("Interrupt (SIGINT)"), ProcessMenuCommand::signalInterrupt, usable);
    AddEntry(*signalMenu, Text("Hang up (SIGHUP)"), ProcessMenuCommand::signalHangUp, usable);
    AddEntry(*signalMenu, Text("Terminate (SIGTERM)"), ProcessMenuCommand::signalTerminate, usable);
    signalMenu->addSeparator();
    AddEntry(*signalMenu, Text("Stop (SIGSTOP)"), ProcessMenuCommand::signalStop, usable);
    AddEntry(*signalMenu, Text("Continue (SIGCONT)"), ProcessMenuCommand::signalContinue, usable);
    AddEntry(*signalMenu, Text("Kill (SIGKILL)"), ProcessMenuCommand::signalKill, usable);

    QMenu* nice = menu.addMenu(Text("Nice priority"));
    nice->menuAction()->setEnabled(usable);
    AddEntry(*nice, Text("Normal (0)"), ProcessMenuCommand::niceNormal, usable);
    AddEntry(*nice, Text("Low priority (10)"), ProcessMenuCommand::niceLow, usable);
    AddEntry(*nice, Text("Lowest priority (19)"), ProcessMenuCommand::niceLowest, usable);

    if (several) {
        menu.addAction(Text("Set affinity"))->setEnabled(false);
    } else {
        QMenu* affinity = menu.addMenu(Text("Set affinity"));
        AffinityMenuState state = context.affinity.value_or(AffinityMenuState{});
        state.processors = context.logicalProcessors;
        state.actionable = state.actionable && usable;
        FillAffinityMenu(*affinity, state, [](QAction* action, int processor) {
            Tag(action, ProcessMenuCommand::affinity, processor);
        });
    }

    menu.addSeparator();
    if (!several) {
        AddEntry(menu, Text("Create process sample"), ProcessMenuCommand::createSample);
        AddEntry(menu, Text("Open file location"), ProcessMenuCommand::openFileLocation);
        AddEntry(menu, Text("Search online"), ProcessMenuCommand::searchOnline);
    }
    AddEntry(menu, Text("Copy process name"), ProcessMenuCommand::copyName);
    menu.addSeparator();

    QMenu* view = menu.addMenu(Text("View"));
    AddCheckable(*view, Text("Process tree"), ProcessMenuCommand::toggleProcessTree, context.processTree);
    AddCheckable(*view, Text("Smooth CPU readings"), ProcessMenuCommand::toggleSmoothCpu, context.smoothCpu);
    AddCheckable(*view, Text("Show exited processes"), ProcessMenuCommand::toggleShowExited, context.showExited);
    view->addSeparator();
    AddEntry(*view, Text("Expand all"), ProcessMenuCommand::expandAll, context.processTree);
    AddEntry(*view, Text("Collapse all"), ProcessMenuCommand::collapseAll, context.processTree);

    AddCheckable(menu, context.followed ? Text("Stop following") : Text("Follow process"),
                 ProcessMenuCommand::toggleFollow, context.followed);

    QMenu* values = menu.addMenu(Text("Resource values"));
    auto* group = new QActionGroup(values);
    group->setExclusive(true);
    group->addAction(AddCheckable(*values, Text("Values"), ProcessMenuCommand::showValues, !context.showMemoryPercent));
    group->addAction(
        AddCheckable(*values, Text("Percents"), ProcessMenuCommand::showPercents, context.showMemoryPercent));
}

}  // namespace

std::unique_ptr<QMenu> BuildProcessContextMenu(const ProcessMenuContext& context, QWidget* parent) {
    auto menu = std::make_unique<QMenu>(parent);
    menu->setObjectName(QStringLiteral("ProcessContextMenu"));
    if (context.rows.empty()) return menu;
    if (context.exited) {
        BuildExitedMenu(*menu);
    } else {
        BuildLiveMenu(*menu, context);
    }
    return menu;
}

ProcessMenuChoice ProcessMenuChoiceOf(const QAction* action) {
    if (action == nullptr) return {};
    const QVariantList data = action->data().toList();
    if (data.size() != 2) return {};
    return {static_cast<ProcessMenuCommand>(data.at(0).toInt()), data.at(1).toInt()};
}

ProcessMenuChoice ExecProcessContextMenu(const ProcessMenuContext& context, const QPoint& globalPos, QWidget* parent) {
    const std::unique_ptr<QMenu> menu = BuildProcessContextMenu(context, parent);
    if (menu->isEmpty()) return {};
    return ProcessMenuChoiceOf(menu->exec(globalPos));
}

}  // namespace korv::host::linux_client
