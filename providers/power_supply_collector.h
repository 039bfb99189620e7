#pragma once

#include "core/snapshot.h"
#include "core/telemetry_frame.h"
#include "providers/provider_context.h"
#include "providers/stage_result.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>

namespace korv::providers {

inline constexpr std::string_view kBatteryPowerNote = "power_now or voltage_now * current_now";

// Full capacity over design capacity: energy_full / energy_full_design, else charge_full /
// charge_full_design. Nothing when neither pair is known with a design figure above 0.
struct BatteryCapacityFigures {
    std::optional<std::uint64_t> energyFull;
    std::optional<std::uint64_t> energyFullDesign;
    std::optional<std::uint64_t> chargeFull;
    std::optional<std::uint64_t> chargeFullDesign;
};

std::optional<double> BatteryHealthRatio(const BatteryCapacityFigures& figures) noexcept;

// "Normal" for a ratio at or above 0.8, otherwise "Service Recommended".
std::string_view BatteryConditionText(double ratio) noexcept;

// Batteries and external power sources of <sys>/class/power_supply. A battery counts only when
// `present` is not 0 and its `scope` is not "Device" (a peripheral's battery, such as a wireless
// mouse's). Adds a "system/battery/<name>" device per battery to the frame and fills the snapshot's
// power source and battery fields; with several batteries the worst health stands for the machine.
// Called by the Collect thread once a tick.
class PowerSupplyCollector {
public:
    explicit PowerSupplyCollector(ProviderRoots roots);

    StageResult Collect(const CollectContext& context, core::HardwareTelemetryFrame& frame,
                        core::SystemSnapshot& snapshot);

private:
    std::filesystem::path classDirectory_;
};

}  // namespace korv::providers
