#pragma once

#include "core/snapshot_enums.h"
#include "core/telemetry_frame.h"
#include "providers/provider_context.h"
#include "providers/smart_device_io.h"
#include "providers/smart_reading.h"
#include "providers/stage_result.h"
#include "providers/udisks2_smart.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace korv::providers {

struct SmartDrive {
    std::string blockName;          // e.g. "nvme0n1"
    std::string telemetryDeviceId;  // e.g. "storage:linux-block:path:nvme0n1"
};

struct SmartPaths {
    std::filesystem::path dev = "/dev";
};

struct SmartStageResult {
    StageResult result;
    core::ProviderSupport capability = core::ProviderSupport::degraded;
};

inline constexpr std::uint64_t kSmartRefreshNs = 60'000'000'000;
inline constexpr std::uint64_t kSmartNoRouteRetryNs = 600'000'000'000;

// The SMART stage of a tick: for each whole drive, the NVMe or ATA ioctl route, and UDisks2 when
// that is refused or the transport cannot carry it. A drive is asked at most every 60 s, one that
// no route answers at most every 10 minutes, and a runtime-suspended drive never: its last readings
// stay, marked stale. Called by the sampling thread only; the bus connection lives in the reader.
class SmartReader {
public:
    explicit SmartReader(ProviderRoots roots, SmartPaths paths = {});
    // Tests hand in a fake device seam.
    SmartReader(ProviderRoots roots, SmartPaths paths, std::shared_ptr<ISmartDeviceIo> io);

    // Attaches each drive's SMART sensors to its device in frame (adding a storage device entry when
    // the frame lacks it). D-Bus calls are made only while budgetNs (steady clock, from entry) lasts,
    // each with a time-out of what is left. The result is informational: ok unless stopped.
    SmartStageResult Collect(const CollectContext& ctx, const std::vector<SmartDrive>& drives, std::uint64_t budgetNs,
                             core::HardwareTelemetryFrame& frame);

private:
    enum class Route { none, nvme, ata, udisks2 };
    struct DriveState {
        Route route = Route::none;
        std::vector<SmartReading> readings;
        bool attempted = false;
        bool stale = false;  // a refresh fell due and was not made
        std::uint64_t nextAttemptNs = 0;
    };
    struct Refresh {
        int error = 0;
        std::string failure;
    };

    bool IsAsleep(const std::string& blockName) const;
    Refresh RefreshDrive(const std::string& blockName, DriveState& state, std::uint64_t nowNs,
                         std::chrono::steady_clock::time_point deadline);
    static void Attach(const SmartDrive& drive, const DriveState& state, core::HardwareTelemetryFrame& frame);

    ProviderRoots roots_;
    SmartPaths paths_;
    std::shared_ptr<ISmartDeviceIo> io_;
    UDisks2SmartClient udisks_;
    std::map<std::string, DriveState, std::less<>> drives_;
};

}  // namespace korv::providers
