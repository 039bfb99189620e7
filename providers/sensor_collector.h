#pragma once

#include "core/snapshot.h"
#include "core/telemetry_frame.h"
#include "providers/hwmon_collector.h"
#include "providers/power_supply_collector.h"
#include "providers/powercap_collector.h"
#include "providers/provider_context.h"
#include "providers/stage_result.h"

#include <vector>

namespace korv::providers {

struct SensorStageResult {
    StageResult hwmon;        // provider linux.hwmon
    StageResult powercap;     // provider linux.powercap
    StageResult powerSupply;  // provider linux.power_supply
    bool anyTemperature = false;        // some hwmon temperature entered the frame
    bool powercapAccessDenied = false;  // energy counters exist but only root may read them
};

// The sensor stage of a Collect tick, in two steps around the building of the telemetry frame:
// CollectPower reads power_supply, then powercap, fills the snapshot's power source, battery and
// CPU/DRAM power fields that the frame is built from, and adds their own devices and sensors to a
// frame of its own; CollectHwmon then reads hwmon into the frame built from the snapshot, whose
// "gpu:<id>" and "storage:<id>" devices the chips of graphics cards and NVMe drives join.
// Called by the Collect thread only; the powercap baselines persist between calls.
class SensorCollector {
public:
    explicit SensorCollector(ProviderRoots roots);

    void CollectPower(const CollectContext& ctx, core::HardwareTelemetryFrame& frame, core::SystemSnapshot& snapshot,
                      SensorStageResult& result);
    void CollectHwmon(const CollectContext& ctx, const std::vector<SensorOwnerHint>& owners,
                      core::HardwareTelemetryFrame& frame, SensorStageResult& result);
    void ResetBaselines();  // forget the powercap energy baselines

private:
    HwmonCollector hwmon_;
    PowerSupplyCollector powerSupply_;
    PowercapCollector powercap_;
};

}  // namespace korv::providers
