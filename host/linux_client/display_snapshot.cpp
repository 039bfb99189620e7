#include "host/linux_client/display_snapshot.h"

namespace korv::host::linux_client {
namespace {

void Scale(core::Metric<double>& metric, double factor) {
    if (metric.value.has_value()) {
        *metric.value *= factor;
    }
}

}  // namespace

double CpuScaleFor(const core::SystemSnapshot& snapshot, bool perCoreCpu) noexcept {
    if (!perCoreCpu) {
        return 1.0;
    }
    return snapshot.logicalProcessorCount == 0 ? 1.0 : static_cast<double>(snapshot.logicalProcessorCount);
}

std::shared_ptr<const core::SystemSnapshot> MakeDisplaySnapshot(
    const std::shared_ptr<const core::SystemSnapshot>& snapshot, double cpuScale) {
    if (snapshot == nullptr || cpuScale == 1.0) {
        return snapshot;
    }
    auto copy = std::make_shared<core::SystemSnapshot>(*snapshot);
    for (auto& process : copy->processes) {
        Scale(process.cpuPercent, cpuScale);
    }
    for (auto& session : copy->sessions) {
        Scale(session.cpuPercent, cpuScale);
    }
    for (auto& exited : copy->exitedProcesses) {
        Scale(exited.process.cpuPercent, cpuScale);
    }
    return copy;
}

}  // namespace korv::host::linux_client
