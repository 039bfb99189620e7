#include "providers/sensor_collector.h"

#include <utility>

namespace korv::providers {

SensorCollector::SensorCollector(ProviderRoots roots) : hwmon_(roots), powerSupply_(roots), powercap_(std::move(roots)) {}

SensorStageResult SensorCollector::Collect(const CollectContext& ctx, const std::vector<SensorOwnerHint>& owners,
                                           core::HardwareTelemetryFrame& frame, core::SystemSnapshot& snapshot) {
    SensorStageResult result;
    const HwmonStageResult hwmon = hwmon_.Collect(ctx, owners, frame);
    result.hwmon = hwmon.stage;
    result.anyTemperature = hwmon.anyTemperature;
    if (ctx.stop.stop_requested()) return result;
    result.powerSupply = powerSupply_.Collect(ctx, frame, snapshot);
    if (ctx.stop.stop_requested()) return result;
    const PowercapStageResult powercap = powercap_.Collect(ctx, frame, snapshot);
    result.powercap = powercap.stage;
    result.powercapAccessDenied = powercap.accessDenied;
    return result;
}

void SensorCollector::ResetBaselines() { powercap_.ResetBaselines(); }

}  // namespace korv::providers
