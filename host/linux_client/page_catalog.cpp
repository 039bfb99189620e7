#include "host/linux_client/page_catalog.h"

#include "host/linux_client/smoke_options.h"

#include <QCoreApplication>

#include <array>

namespace korv::host::linux_client {
namespace {

constexpr std::array<const char*, kStackPageCount> kRailLabels = {
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Summary"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Performance"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Processes"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "System Info"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Startup apps"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Users"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Services"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Power & Freq"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Flight Recorder"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Connections"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Installed Apps"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Drivers"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Disk Space"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Benchmarks"),
    QT_TRANSLATE_NOOP("TaskManagerWindow", "Settings"),
};

}  // namespace

QString RailLabel(int stackIndex) {
    if (stackIndex < 0 || stackIndex >= kStackPageCount) {
        return {};
    }
    return QCoreApplication::translate("TaskManagerWindow", kRailLabels[static_cast<std::size_t>(stackIndex)]);
}

int StackIndexForDefaultPage(core::DefaultPage page) noexcept {
    switch (page) {
    case core::DefaultPage::summary:
        return kSummaryStackIndex;
    case core::DefaultPage::processes:
    case core::DefaultPage::details:
        return kProcessesStackIndex;
    case core::DefaultPage::performance:
        return kPerformanceStackIndex;
    case core::DefaultPage::startupApps:
        return kStartupStackIndex;
    case core::DefaultPage::users:
        return kUsersStackIndex;
    case core::DefaultPage::services:
        return kServicesStackIndex;
    }
    return kSummaryStackIndex;
}

}  // namespace korv::host::linux_client
