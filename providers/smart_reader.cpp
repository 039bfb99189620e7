#include "providers/smart_reader.h"

#include "providers/ata_smart.h"
#include "providers/bounded_read.h"
#include "providers/nvme_smart.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <string_view>
#include <utility>

namespace korv::providers {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kAttributeLimit = 4096;
constexpr const char* kNvmeDeviceText = "NVMe controller";
constexpr const char* kAtaDeviceText = "ATA/SATA device";

std::uint64_t SteadyNowNs() noexcept {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count());
}

std::string_view Trimmed(std::string_view text) noexcept {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    return text;
}

bool IsNvme(std::string_view blockName) noexcept { return blockName.starts_with("nvme"); }

}  // namespace

SmartReader::SmartReader(ProviderRoots roots, SmartPaths paths)
    : SmartReader(std::move(roots), std::move(paths), std::make_shared<LinuxSmartDeviceIo>()) {}

SmartReader::SmartReader(ProviderRoots roots, SmartPaths paths, std::shared_ptr<ISmartDeviceIo> io)
    : roots_(std::move(roots)), paths_(std::move(paths)), io_(std::move(io)) {}

bool SmartReader::IsAsleep(const std::string& blockName) const {
    const auto path = roots_.sys / "class" / "block" / blockName / "device" / "power" / "runtime_status";
    const BoundedReadResult status = ReadFileBounded(path, kAttributeLimit);
    if (!status.Ok()) return false;  // no runtime power management: the drive is not suspended by it
    const std::string_view word = Trimmed(status.text);
    return word == "suspended" || word == "suspending";
}

SmartReader::Refresh SmartReader::RefreshDrive(const std::string& blockName, DriveState& state, std::uint64_t nowNs,
                                               Clock::time_point deadline) {
    const bool nvme = IsNvme(blockName);
    const SmartRouteResult direct = nvme ? ReadNvmeSmart(*io_, (paths_.dev / NvmeControllerName(blockName)).string())
                                         : ReadAtaSmart(*io_, (paths_.dev / blockName).string());
    state.attempted = true;
    if (direct.asleep) {
        state.stale = true;
        state.nextAttemptNs = nowNs + kSmartRefreshNs;
        return {};
    }
    if (direct.error == 0) {
        state.readings = direct.readings;
        state.route = nvme ? Route::nvme : Route::ata;
        state.stale = false;
        state.nextAttemptNs = nowNs + kSmartRefreshNs;
        return {};
    }
    // Refused (a root-owned node) or not carried by the transport: UDisks2 may still answer.
    if (Clock::now() >= deadline) {
        // No time left for the bus in this tick: keep what we had and try again at the next one.
        state.stale = true;
        return {direct.error, "No time was left in this tick to ask UDisks2 about " + blockName};
    }
    UDisks2SmartResult viaBus = udisks_.Read(blockName, nvme, deadline);
    if (viaBus.outcome == UDisks2Outcome::answered) {
        state.readings = std::move(viaBus.readings);
        state.route = Route::udisks2;
        state.stale = false;
        state.nextAttemptNs = nowNs + kSmartRefreshNs;
        return {};
    }
    state.readings.clear();
    state.route = Route::none;
    state.stale = false;
    state.nextAttemptNs = nowNs + (viaBus.outcome == UDisks2Outcome::noSmart ? kSmartNoRouteRetryNs : kSmartRefreshNs);
    return {viaBus.error, std::move(viaBus.message)};
}

void SmartReader::Attach(const SmartDrive& drive, const DriveState& state, core::HardwareTelemetryFrame& frame) {
    core::TelemetryDevice* device = nullptr;
    for (auto& entry : frame.devices) {
        if (entry.id == drive.telemetryDeviceId) device = &entry;
    }
    if (device == nullptr) {
        core::TelemetryDevice added;
        added.id = drive.telemetryDeviceId;
        added.kind = core::TelemetryDeviceKind::storageDevice;
        added.displayName = drive.blockName;
        frame.devices.push_back(std::move(added));
        device = &frame.devices.back();
    }
    const bool viaBus = state.route == Route::udisks2;
    const char* provider =
        viaBus ? kUDisks2SmartProvider : (state.route == Route::nvme ? kNvmeSmartProvider : kAtaSmartProvider);
    const char* source =
        viaBus ? kUDisks2SmartSource : (state.route == Route::nvme ? kNvmeSmartSource : kAtaSmartSource);
    core::SetDeviceProperty(*device, "smartInterface", IsNvme(drive.blockName) ? kNvmeDeviceText : kAtaDeviceText);
    core::SetDeviceProperty(*device, "smartProvider", provider);

    for (const auto& reading : state.readings) {
        if (!std::isfinite(reading.value)) continue;
        std::erase_if(frame.metrics, [&](const core::TelemetryMetric& metric) {
            return metric.deviceId == drive.telemetryDeviceId && metric.id == reading.id;
        });
        core::TelemetryMetric metric;
        metric.id = reading.id;
        metric.deviceId = drive.telemetryDeviceId;
        metric.displayName = reading.displayName;
        metric.sourceName = source;
        metric.category = reading.category;
        metric.unit = reading.unit;
        metric.kind = reading.kind;
        metric.provenance = viaBus ? core::ProvenanceTier::privilegedHelper : core::ProvenanceTier::nativeOs;
        metric.numericValue = reading.value;
        metric.availability = state.stale         ? core::MetricAvailability::stale
                              : reading.value == 0 ? core::MetricAvailability::zero
                                                   : core::MetricAvailability::valid;
        frame.metrics.push_back(std::move(metric));
    }
}

SmartStageResult SmartReader::Collect(const CollectContext& ctx, const std::vector<SmartDrive>& drives,
                                      std::uint64_t budgetNs, core::HardwareTelemetryFrame& frame) {
    const Clock::time_point started = Clock::now();
    constexpr std::uint64_t kLongestBudgetNs = 3'600'000'000'000;  // keeps the deadline arithmetic in range
    const Clock::time_point deadline =
        started + std::chrono::nanoseconds(static_cast<std::int64_t>(std::min(budgetNs, kLongestBudgetNs)));
    const std::uint64_t nowNs = ctx.monotonicNs != 0 ? ctx.monotonicNs : SteadyNowNs();
    auto elapsed = [&] {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - started).count());
    };

    SmartStageResult stage;
    std::vector<std::pair<const SmartDrive*, const DriveState*>> attached;
    std::set<std::string, std::less<>> seen;
    Refresh lastFailure;
    bool everyDriveAnswered = !drives.empty();
    for (const auto& drive : drives) {
        if (ctx.stop.stop_requested()) {
            stage.result = {false, "SMART refresh stopped", ECANCELED, elapsed()};
            return stage;
        }
        if (!seen.insert(drive.blockName).second) continue;
        DriveState& state = drives_[drive.blockName];
        const bool due = !state.attempted || nowNs >= state.nextAttemptNs;
        if (due) {
            if (IsAsleep(drive.blockName)) {
                state.stale = true;  // no command: the last values stay as they were
            } else {
                Refresh refresh = RefreshDrive(drive.blockName, state, nowNs, deadline);
                if (refresh.error != 0) lastFailure = std::move(refresh);
            }
        }
        if (state.readings.empty() || state.stale) everyDriveAnswered = false;
        if (!state.readings.empty()) attached.emplace_back(&drive, &state);
    }
    std::erase_if(drives_, [&](const auto& entry) { return !seen.contains(entry.first); });

    bool routes[4] = {};
    for (const auto& [drive, state] : attached) {
        Attach(*drive, *state, frame);
        routes[static_cast<int>(state->route)] = true;
    }

    stage.result.ok = true;
    stage.result.error = lastFailure.error;
    if (attached.empty()) {
        stage.result.message = "No drive answered a SMART query";
        if (!lastFailure.failure.empty()) stage.result.message += "; " + lastFailure.failure;
    } else {
        std::string names;
        const std::pair<Route, const char*> kRouteNames[] = {
            {Route::nvme, "nvme"}, {Route::ata, "ata"}, {Route::udisks2, "udisks2"}};
        for (const auto& [route, name] : kRouteNames) {
            if (!routes[static_cast<int>(route)]) continue;
            if (!names.empty()) names += ", ";
            names += name;
        }
        stage.result.message = "SMART data read for " + std::to_string(attached.size()) +
                               (attached.size() == 1 ? " drive (" : " drives (") + names + ")";
    }
    stage.capability = everyDriveAnswered ? core::ProviderSupport::supported : core::ProviderSupport::degraded;
    stage.result.durationNs = elapsed();
    return stage;
}

}  // namespace korv::providers
