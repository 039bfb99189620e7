#include "providers/sensor_collector.h"

#include <utility>

namespace korv::providers {

SensorCollector::SensorCollector(ProviderRoots roots) : hwmon_(roots), powerSupply_(roots), powercap_(std::move(roots)) {}

void SensorCollector::CollectPower(const CollectContext& ctx, core::HardwareTelemetryFrame& frame,
                                   core::SystemSnapshot& snapshot, SensorStageResult& result) {
    result.powerSupply = powerSupply_.Collect(ctx, frame, snapshot);
    if (ctx.stop.stop_requested()) return;
    const PowercapStageResult powercap = powercap_.Collect(ctx, frame, snapshot);
    result.powercap = powercap.stage;
    result.powercapAccessDenied = powercap.accessDenied;
}

void SensorCollector::CollectHwmon(const CollectContext& ctx, const std::vector<SensorOwnerHint>& owners,
                                   core::HardwareTelemetryFrame& frame, SensorStageResult& result) {
    const HwmonStageResult hwmon = hwmon_.Collect(ctx, owners, frame);
    result.hwmon = hwmon.stage;
    result.anyTemperature = hwmon.anyTemperature;
}

void SensorCollector::ResetBaselines() { powercap_.ResetBaselines(); }

}  // namespace korv::providers
