#include "host/linux_client/snapshot_apply_plan.h"

#include "host/linux_client/page_catalog.h"

namespace korv::host::linux_client {

ApplyPlan PlanSnapshotApply(const ApplyContext& context) noexcept {
    ApplyPlan plan;
    const int current = context.currentStackIndex;
    plan.visible = context.smokeMode || context.popoutShown || (context.windowShown && !context.windowMinimized);
    plan.summaryAndProcesses = plan.visible;
    plan.powerAndFreq = (plan.visible && current == kPowerAndFreqStackIndex) || context.popoutHoldsPowerAndFreq;
    plan.startup = current == kStartupStackIndex;
    plan.users = current == kUsersStackIndex;
    plan.services = current == kServicesStackIndex;
    plan.installedApps = current == kInstalledAppsStackIndex;
    plan.systemInfo = plan.visible && (context.smokeMode || current == kSystemInfoStackIndex);
    plan.performance = plan.visible && (current == kPerformanceStackIndex || context.popoutHoldsPerformance);
    return plan;
}

}  // namespace korv::host::linux_client
