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

// The sensor stage of a Collect tick: hwmon, then power_supply, then powercap. Adds devices and
// sensors to a frame that already holds "system", "cpu:package:0" and the snapshot's "gpu:<id>" and
// "storage:<id>" devices, and fills the snapshot's power source, battery and CPU/DRAM power fields.
// Called by the Collect thread only; the powercap baselines persist between calls.
class SensorCollector {
public:
    explicit SensorCollector(ProviderRoots roots);

    SensorStageResult Collect(const CollectContext& ctx, const std::vector<SensorOwnerHint>& owners,
                              core::HardwareTelemetryFrame& frame, core::SystemSnapshot& snapshot);
    void ResetBaselines();  // forget the powercap energy baselines

private:
    HwmonCollector hwmon_;
    PowerSupplyCollector powerSupply_;
    PowercapCollector powercap_;
};

}  // namespace korv::providers
