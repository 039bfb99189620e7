#pragma once

#include "core/snapshot.h"
#include "core/telemetry_frame.h"
#include "providers/provider_context.h"
#include "providers/stage_result.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <unordered_map>

namespace korv::providers {

inline constexpr std::string_view kPowercapPowerNote = "delta energy_uj / sample interval";

// Microjoules counted between two readings of an energy counter. A counter below the previous
// reading has wrapped when the range is known and not below the previous reading; without a usable
// range nothing can be told.
std::optional<std::uint64_t> EnergyDeltaMicrojoules(std::uint64_t previous, std::uint64_t current,
                                                    std::optional<std::uint64_t> maxRange) noexcept;

// Watts from a delta over an interval in nanoseconds; nothing for an interval of 0.
std::optional<double> PowerFromEnergy(std::uint64_t deltaMicrojoules, std::uint64_t intervalNs) noexcept;

struct PowercapStageResult {
    StageResult stage;
    bool accessDenied = false;  // an energy counter exists but only root may read it
};

// Energy and power of <sys>/class/powercap zones on "cpu:package:<n>". Power needs the previous
// reading of the same zone, so the first sample after construction or ResetBaselines has energy
// only. Also sets the snapshot's cpuPowerWatts (package zones) and dramPowerWatts (dram zones).
// Called by the Collect thread once a tick.
class PowercapCollector {
public:
    explicit PowercapCollector(ProviderRoots roots);

    PowercapStageResult Collect(const CollectContext& context, core::HardwareTelemetryFrame& frame,
                                core::SystemSnapshot& snapshot);
    void ResetBaselines() noexcept;

private:
    struct Baseline {
        std::uint64_t energyUj = 0;
        std::uint64_t monotonicNs = 0;
    };

    std::filesystem::path classDirectory_;
    std::unordered_map<std::string, Baseline> baselines_;  // by zone directory name
};

}  // namespace korv::providers
