#include "providers/platform_services.h"

#include "core/process_details.h"
#include "core/telemetry_builder.h"
#include "providers/capability_table.h"
#include "providers/collect_budget.h"
#include "providers/cpu_collector.h"
#include "providers/disk_collector.h"
#include "providers/gpu_collector.h"
#include "providers/linux_process_actions.h"
#include "providers/memory_collector.h"
#include "providers/network_collector.h"
#include "providers/process_collector.h"
#include "providers/provider_health.h"
#include "providers/sensor_collector.h"
#include "providers/smart_reader.h"
#include "providers/steady_clock.h"
#include "providers/system_metadata.h"
#include "providers/volume_collector.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <limits>
#include <mutex>
#include <unistd.h>

namespace korv::providers {
namespace {

using core::ProviderHealth;

std::uint64_t WallClockNs() noexcept {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
    return ns < 0 ? 0 : static_cast<std::uint64_t>(ns);
}

// CLOCK_BOOTTIME, which keeps counting through suspend; 0 on failure, saturated on overflow.
std::uint64_t BootTimeNs() noexcept {
    timespec ts{};
    if (::clock_gettime(CLOCK_BOOTTIME, &ts) != 0 || ts.tv_sec < 0 || ts.tv_nsec < 0) return 0;
    const auto seconds = static_cast<std::uint64_t>(ts.tv_sec);
    if (seconds > (std::numeric_limits<std::uint64_t>::max() - 999'999'999ULL) / 1'000'000'000ULL) {
        return std::numeric_limits<std::uint64_t>::max();
    }
    return seconds * 1'000'000'000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

std::string HostName() {
    char name[257] = {};
    if (::gethostname(name, 256) != 0) return {};
    name[256] = '\0';
    return name;
}

std::uint64_t Since(std::uint64_t startNs) noexcept {
    const std::uint64_t now = SteadyNowNs();
    return now > startNs ? now - startNs : 0;
}

// The hwmon chips of GPUs and NVMe drives join the devices the snapshot already lists: a GPU by
// its PCI directory, a drive by its block device's `device` directory.
std::vector<SensorOwnerHint> SensorOwnersFor(const std::vector<BlockDeviceRef>& disks,
                                             const std::vector<std::filesystem::path>& gpuPaths) {
    std::vector<SensorOwnerHint> owners;
    for (const auto& disk : disks) {
        if (disk.devicePath.empty()) continue;
        owners.push_back({disk.devicePath, "storage:" + disk.deviceId, SensorOwnerKind::storage});
    }
    for (const auto& path : gpuPaths) {
        owners.push_back({path, "gpu:linux-drm-pci:" + path.filename().string(), SensorOwnerKind::gpu});
    }
    return owners;
}

std::vector<SmartDrive> SmartDrivesFor(const std::vector<BlockDeviceRef>& disks) {
    std::vector<SmartDrive> drives;
    for (const auto& disk : disks) {
        // Only drives with a device behind them can answer; device-mapper and md rows cannot.
        if (disk.devicePath.empty()) continue;
        drives.push_back({disk.name, "storage:" + disk.deviceId});
    }
    return drives;
}

class LinuxPlatformServices final : public PlatformServices,
                                    public core::ISnapshotSource,
                                    public core::IProcessResolver,
                                    public core::IActionBackend {
public:
    explicit LinuxPlatformServices(ProviderRoots roots)
        : roots_(std::move(roots)),
          cpu_(roots_),
          memory_(roots_),
          metadata_(roots_),
          processes_(roots_),
          disks_(roots_),
          network_(roots_),
          gpus_(roots_),
          sensors_(roots_),
          smart_(roots_),
          volumes_(roots_),
          capabilities_(InitialCapabilityTable(installedApps_)) {}

    core::ISnapshotSource& SnapshotSource() override { return *this; }
    core::IProcessResolver& ProcessResolver() override { return *this; }
    core::IActionBackend& ActionBackend() override { return *this; }

    CapabilityTable Capabilities() const override {
        std::lock_guard lock(capabilitiesMutex_);
        return capabilities_;
    }

    std::shared_ptr<core::ProcessDetails> ProcessDetails(const core::ProcessKey& key) override {
        return ReadProcessDetails(roots_, key);
    }

    std::shared_ptr<core::ProcessDetails> ProcessDetailsUntil(const core::ProcessKey& key,
                                                              std::stop_token stop) override {
        return ReadProcessDetails(roots_, key, std::move(stop));
    }

    AffinityReading ReadAffinity(const core::ProcessKey& key) override { return ReadProcessAffinity(roots_, key); }

    AffinityResult SetAffinity(const core::ProcessKey& key, std::uint64_t mask) override {
        return SetProcessAffinity(roots_, key, mask);
    }

    core::ResolveResult Resolve(const core::ProcessKey& key) override { return ResolveLinuxProcess(roots_, key); }

    core::ActionResult Execute(const core::ResolvedProcess& process, const core::ProcessAction& action) override {
        return ExecuteLinuxProcessAction(roots_, process, action);
    }

    void ResetBaselines() override {
        cpu_.ResetBaselines();
        processes_.ResetBaselines();
        disks_.ResetBaselines();
        network_.ResetBaselines();
        sensors_.ResetBaselines();
    }

    std::shared_ptr<core::SystemSnapshot> Collect(const core::SampleRequest& request) override;

private:
    ProviderRoots roots_;
    CpuCollector cpu_;
    MemoryCollector memory_;
    SystemMetadataCollector metadata_;
    ProcessCollector processes_;
    DiskCollector disks_;
    NetworkCollector network_;
    GpuCollector gpus_;
    SensorCollector sensors_;
    SmartReader smart_;
    VolumeCollector volumes_;
    core::TelemetryAppearance appearance_;
    ProviderHealthTracker health_;
    InstalledAppsCapability installedApps_;

    mutable std::mutex capabilitiesMutex_;
    CapabilityTable capabilities_;
};

std::shared_ptr<core::SystemSnapshot> LinuxPlatformServices::Collect(const core::SampleRequest& request) {
    // 1. Time, baselines, a new snapshot and its capability table.
    const std::uint64_t start = SteadyNowNs();
    if (request.resetBaselines) ResetBaselines();
    const std::stop_token& stop = request.stopState;

    auto snapshot = std::make_shared<core::SystemSnapshot>();
    core::SystemSnapshot& s = *snapshot;
    s.schemaVersion = core::kSnapshotSchemaVersion;
    s.generation = request.sequence;
    s.monotonicNs = start;
    s.cadenceNs = request.intervalNs > 0 ? static_cast<std::uint64_t>(request.intervalNs) : 0;
    s.elapsedNs = request.elapsedNs > 0 ? static_cast<std::uint64_t>(request.elapsedNs) : 0;
    s.capabilities = InitialCapabilityTable(installedApps_);

    const CollectContext ctx{request.sequence, start, request.intervalNs, request.elapsedNs, request.resetBaselines,
                             stop};

    // 2. Clocks.
    s.wallClockNs = WallClockNs();
    s.uptimeNs = BootTimeNs();
    if (stop.stop_requested()) return nullptr;

    // 3. /proc/stat.
    const CpuStageResult cpuStage = cpu_.ReadProcStat(ctx);
    s.providers.push_back(health_.Record(
        "linux.cpu", {cpuStage.ok, ProviderHealth::unavailable, cpuStage.message, cpuStage.durationNs, cpuStage.error},
        ctx));
    if (stop.stop_requested()) return nullptr;

    // 4. CPU metadata, memory and system metadata.
    const std::uint64_t systemStart = SteadyNowNs();
    cpu_.FillMetadata(s, ctx);
    const MemoryStageResult memoryStage = memory_.Fill(s, ctx);
    metadata_.Fill(s, ctx);
    const std::uint64_t systemDuration = Since(systemStart);
    if (stop.stop_requested()) return nullptr;

    // 5. The process table.
    std::uint32_t logicalProcessors = static_cast<std::uint32_t>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
    const ProcessTableResult processStage = processes_.Refresh(ctx, logicalProcessors, s.processes);
    if (stop.stop_requested()) return nullptr;

    // 7. Per-core utilisation and hybrid classes.
    cpu_.FillUtilization(s, ctx);
    if (stop.stop_requested()) return nullptr;

    // 8. Disks, then network interfaces.
    const StageResult diskStage = disks_.Collect(ctx, s.devices);
    if (stop.stop_requested()) return nullptr;
    const StageResult networkStage = network_.Collect(ctx, s.devices);
    if (stop.stop_requested()) return nullptr;

    // 12. Graphics adapters: DRM sysfs, then the vendor library where one is installed.
    const GpuStageResult gpuStage = gpus_.Collect(ctx, s.devices);
    if (auto row = s.capabilities.find("gpu.telemetry"); row != s.capabilities.end()) {
        row->second.support = gpuStage.capabilitySupport;
        row->second.description = gpuStage.capabilityText;
    }
    if (stop.stop_requested()) return nullptr;

    // 13. Health rows.
    s.providers.push_back(health_.Record("linux.process",
                                         {processStage.ok, ProviderHealth::degraded, processStage.message,
                                          processStage.durationNs, processStage.error},
                                         ctx));
    if (!cpuStage.ok && !memoryStage.ok) {
        s.providers.push_back(health_.Record(
            "linux.system.unsupported",
            {false, ProviderHealth::unavailable, "Linux system metrics are unavailable on this platform", systemDuration, 0},
            ctx));
    } else {
        const bool systemOk = cpuStage.ok && memoryStage.ok;
        s.providers.push_back(health_.Record("linux.system",
                                             {systemOk, ProviderHealth::degraded,
                                              systemOk ? "procfs CPU and memory metrics collected"
                                                       : "Linux system metrics partially unavailable",
                                              systemDuration, 0},
                                             ctx));
    }
    s.providers.push_back(health_.Record(
        "linux.disk",
        {diskStage.ok, ProviderHealth::degraded, diskStage.message, diskStage.durationNs, diskStage.error}, ctx));
    s.providers.push_back(health_.Record("linux.network",
                                         {networkStage.ok, ProviderHealth::degraded, networkStage.message,
                                          networkStage.durationNs, networkStage.error},
                                         ctx));
    // No adapter, or no NVIDIA driver, is how most machines are, not a failing provider.
    const bool drmOk = gpuStage.drm.ok || gpuStage.drm.error == 0;
    const bool nvmlOk = gpuStage.nvml.ok || gpuStage.nvml.error == ENOENT;
    s.providers.push_back(health_.Record("linux.gpu.drm",
                                         {drmOk, ProviderHealth::unavailable, gpuStage.drm.message,
                                          gpuStage.drm.durationNs, gpuStage.drm.error},
                                         ctx));
    s.providers.push_back(health_.Record("linux.gpu.nvml",
                                         {nvmlOk, ProviderHealth::unavailable, gpuStage.nvml.message,
                                          gpuStage.nvml.durationNs, gpuStage.nvml.error},
                                         ctx));
    if (stop.stop_requested()) return nullptr;

    // 14. The telemetry frame. Power supplies and powercap go first: they fill the snapshot's battery
    // and power fields that the frame is built from. hwmon goes last, into the built frame, so that
    // the chips of drives and graphics cards find the devices they belong to.
    SensorStageResult sensorStage;
    core::HardwareTelemetryFrame powerFrame;
    sensors_.CollectPower(ctx, powerFrame, s, sensorStage);
    if (stop.stop_requested()) return nullptr;

    core::HardwareTelemetryFrame frame = core::BuildTelemetryFrame(s);
    for (auto& device : frame.devices) {
        if (device.id != core::kSystemDeviceId) continue;
        core::SetDeviceProperty(device, "hostName", HostName());
        core::SetDeviceProperty(device, "model", "Linux PC");
    }
    cpu_.AppendTelemetry(frame, s);
    gpus_.AppendTelemetry(frame, s);
    core::MergeTelemetryFrame(frame, std::move(powerFrame));
    sensors_.CollectHwmon(ctx, SensorOwnersFor(disks_.Devices(), gpus_.AdapterDevicePaths()), frame, sensorStage);
    for (const auto& [provider, stage] : {std::pair{"linux.hwmon", &sensorStage.hwmon},
                                          std::pair{"linux.power_supply", &sensorStage.powerSupply},
                                          std::pair{"linux.powercap", &sensorStage.powercap}}) {
        // A machine without that sysfs class (a VM has no hwmon) is not a failing provider.
        const bool ok = stage->ok || stage->error == ENOENT;
        s.providers.push_back(health_.Record(
            provider, {ok, ProviderHealth::degraded, stage->message, stage->durationNs, stage->error}, ctx));
    }
    if (stop.stop_requested()) return nullptr;

    if (auto row = s.capabilities.find("thermal.sensors"); row != s.capabilities.end() && sensorStage.anyTemperature) {
        row->second.support = core::ProviderSupport::supported;
    }
    const SmartStageResult smartStage =
        smart_.Collect(ctx, SmartDrivesFor(disks_.Devices()),
                       static_cast<std::uint64_t>(DbusBudgetNs(request.intervalNs)), frame);
    s.providers.push_back(health_.Record("linux.smart",
                                         {smartStage.result.ok, ProviderHealth::degraded, smartStage.result.message,
                                          smartStage.result.durationNs, smartStage.result.error},
                                         ctx));
    if (auto row = s.capabilities.find("storage.smart"); row != s.capabilities.end()) {
        row->second.support = smartStage.capability;
    }
    core::AddVolumeTelemetry(frame, volumes_.Collect(ctx));
    appearance_.Stamp(frame);
    s.telemetry = std::make_shared<const core::HardwareTelemetryFrame>(std::move(frame));
    if (stop.stop_requested()) return nullptr;

    {
        std::lock_guard lock(capabilitiesMutex_);
        capabilities_ = s.capabilities;
    }
    return snapshot;
}

}  // namespace

std::unique_ptr<PlatformServices> CreatePlatformServices(ProviderRoots roots) {
    return std::make_unique<LinuxPlatformServices>(std::move(roots));
}

}  // namespace korv::providers
