#include "providers/gpu_collector.h"

#include "providers/bounded_read.h"
#include "providers/steady_clock.h"

#include <chrono>
#include <optional>
#include <string_view>
#include <system_error>

namespace korv::providers {
namespace {

using core::MetricAvailability;

constexpr std::size_t kNvidiaInformationLimit = 16384;
constexpr const char* kNvmlCapabilityText = "NVIDIA GPU utilization, memory, clocks, power, and temperature via NVML";

std::uint64_t Since(std::uint64_t startNs) noexcept {
    const std::uint64_t now = SteadyNowNs();
    return now > startNs ? now - startNs : 0;
}

std::string Lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

std::string_view Trim(std::string_view text) noexcept {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

// NVML's reading wins where it has a value; otherwise the DRM value, if any, stays.
template <typename T>
void TakeFigure(core::Metric<T>& into, const core::Metric<T>& from) {
    if (core::CarriesValue(from.availability) || !core::CarriesValue(into.availability)) into = from;
}

void MergeNvmlFigures(core::GpuBlock& into, const core::GpuBlock& from) {
    TakeFigure(into.utilizationPercent, from.utilizationPercent);
    TakeFigure(into.memoryControllerPercent, from.memoryControllerPercent);
    TakeFigure(into.totalMemoryBytes, from.totalMemoryBytes);
    TakeFigure(into.inUseMemoryBytes, from.inUseMemoryBytes);
    TakeFigure(into.dedicatedMemoryBytes, from.dedicatedMemoryBytes);
    TakeFigure(into.clockHz, from.clockHz);
    TakeFigure(into.maximumClockHz, from.maximumClockHz);
    TakeFigure(into.memoryClockHz, from.memoryClockHz);
    TakeFigure(into.maximumMemoryClockHz, from.maximumMemoryClockHz);
    TakeFigure(into.powerWatts, from.powerWatts);
    TakeFigure(into.powerLimitWatts, from.powerLimitWatts);
    TakeFigure(into.temperatureCelsius, from.temperatureCelsius);
    TakeFigure(into.videoEncodePercent, from.videoEncodePercent);
    TakeFigure(into.videoDecodePercent, from.videoDecodePercent);
    into.engines.insert(into.engines.end(), from.engines.begin(), from.engines.end());
}

struct FrameEntry {
    std::string_view id;
    std::string_view displayName;
    core::MetricCategory category;
    core::MetricUnit unit;
    core::MetricKind kind;
};

constexpr FrameEntry kHotspot{"gpu.temperature.hotspot_c", "Hotspot temperature", core::MetricCategory::temperatures,
                              core::MetricUnit::celsius, core::MetricKind::gauge};
constexpr FrameEntry kSoc{"gpu.temperature.soc_c", "SoC temperature", core::MetricCategory::temperatures,
                          core::MetricUnit::celsius, core::MetricKind::gauge};
constexpr FrameEntry kPowerLimit{"gpu.power.board_limit_w", "Enforced power limit", core::MetricCategory::powers,
                                 core::MetricUnit::watts, core::MetricKind::policyValue};
constexpr FrameEntry kSharedUsed{"accelerator.memory.nonlocal.resident_bytes", "Shared memory used",
                                 core::MetricCategory::memory, core::MetricUnit::bytes, core::MetricKind::gauge};

core::ProvenanceTier ProvenanceOf(std::string_view source) noexcept {
    return source == kNvmlSource ? core::ProvenanceTier::officialVendorApi : core::ProvenanceTier::nativeOs;
}

template <typename T>
void AddIfMissing(core::HardwareTelemetryFrame& frame, const std::string& deviceId, const FrameEntry& entry,
                  const core::Metric<T>& metric) {
    if (metric.availability == MetricAvailability::unsupported ||
        metric.availability == MetricAvailability::notApplicable || frame.Find(entry.id, deviceId) != nullptr) {
        return;
    }
    core::TelemetryMetric out;
    out.id = std::string(entry.id);
    out.deviceId = deviceId;
    out.displayName = std::string(entry.displayName);
    out.sourceName = metric.source;
    out.category = entry.category;
    out.unit = entry.unit;
    out.kind = entry.kind;
    out.provenance = ProvenanceOf(metric.source);
    out.availability = metric.availability;
    if (core::CarriesValue(metric.availability)) {
        if (metric.value) {
            out.numericValue = static_cast<double>(*metric.value);
        } else {
            out.availability = MetricAvailability::transientError;
        }
    }
    frame.metrics.push_back(std::move(out));
}

void SetProperty(core::TelemetryDevice& device, std::string_view name, const core::Metric<std::string>& metric) {
    if (metric.value && core::CarriesValue(metric.availability)) core::SetDeviceProperty(device, name, *metric.value);
}

}  // namespace

std::map<std::string, std::string> ReadNvidiaGpuSlots(const std::filesystem::path& nvidiaGpus) {
    std::map<std::string, std::string> slots;
    std::error_code ec;
    std::filesystem::directory_iterator it(nvidiaGpus, ec);
    std::string text;
    for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        if (ReadFileBounded((it->path() / "information").c_str(), kNvidiaInformationLimit, text) != 0) continue;
        std::size_t pos = 0;
        while (pos < text.size()) {
            std::size_t end = text.find('\n', pos);
            if (end == std::string::npos) end = text.size();
            const std::string_view line(text.data() + pos, end - pos);
            pos = end + 1;
            constexpr std::string_view key = "GPU UUID:";
            if (line.substr(0, key.size()) != key) continue;
            const std::string_view uuid = Trim(line.substr(key.size()));
            if (!uuid.empty()) slots.emplace(Lower(uuid), Lower(it->path().filename().native()));
            break;
        }
    }
    return slots;
}

GpuCollector::GpuCollector(ProviderRoots roots, GpuCollectorPaths paths)
    : roots_(std::move(roots)),
      paths_(std::move(paths)),
      drm_(roots_, GpuNameDatabase(paths_.amdgpuIds, paths_.pciIds)) {}

const std::vector<std::filesystem::path>& GpuCollector::AdapterDevicePaths() const {
    return drm_.AdapterDevicePaths();
}

GpuStageResult GpuCollector::Collect(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices) {
    GpuStageResult result;
    const std::uint64_t drmStart = SteadyNowNs();
    const std::size_t firstDrmRow = devices.size();
    const DrmPassResult drm = drm_.Collect(ctx, devices);
    result.drm.ok = drm.adapters > 0;
    result.drm.message = drm.status;
    result.drm.error = drm.error;
    result.drm.durationNs = Since(drmStart);
    if (ctx.stop.stop_requested()) return result;

    const std::uint64_t nvmlStart = SteadyNowNs();
    CollectNvml(ctx, devices, firstDrmRow, drm.adapters, result);
    result.nvml.durationNs = Since(nvmlStart);

    if (result.nvmlAnswered) {
        result.capabilityText = kNvmlCapabilityText;
        result.capabilitySupport = core::ProviderSupport::supported;
    } else {
        result.capabilityText = drm.status;
        result.capabilitySupport =
            drm.adapters > 0 ? core::ProviderSupport::degraded : core::ProviderSupport::unsupported;
    }
    return result;
}

void GpuCollector::CollectNvml(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices,
                               std::size_t firstDrmRow, std::size_t drmRows, GpuStageResult& result) {
    StageResult& stage = result.nvml;
    if (!nvml_) {
        nvml_ = std::make_unique<NvmlLibrary>(paths_.nvmlLibraryNames);
        nvml_->Open();
    }
    if (!nvml_->Initialised()) {
        stage.message = nvml_->FailureText();
        stage.error = nvml_->FailureErrno();
        result.nvmlReturn = nvml_->FailureReturn();
        return;
    }

    NvmlReading reading = ReadNvmlDevices(*nvml_, ctx.generation, ctx.stop);
    stage.ok = reading.ok;
    stage.message = std::move(reading.message);
    result.nvmlReturn = reading.nvmlReturn;
    result.nvmlAnswered = reading.ok && !reading.devices.empty();
    if (reading.devices.empty()) return;

    const std::map<std::string, std::string> slots = ReadNvidiaGpuSlots(paths_.nvidiaGpus);
    const std::vector<std::filesystem::path>& adapterPaths = drm_.AdapterDevicePaths();
    for (NvmlDevice& nvmlDevice : reading.devices) {
        std::string slot;
        if (const auto it = slots.find(Lower(nvmlDevice.uuid)); !nvmlDevice.uuid.empty() && it != slots.end()) {
            slot = it->second;
        }
        core::DeviceSnapshot* match = nullptr;
        if (!slot.empty()) {
            std::error_code ec;
            const std::filesystem::path pciDevice =
                std::filesystem::canonical(roots_.sys / "bus" / "pci" / "devices" / slot, ec);
            for (std::size_t k = 0; k < drmRows && match == nullptr; ++k) {
                core::DeviceSnapshot& row = devices[firstDrmRow + k];
                const bool sameSlot = row.gpu.bus.value && Lower(*row.gpu.bus.value) == slot;
                const bool samePath = !ec && k < adapterPaths.size() && adapterPaths[k] == pciDevice;
                if (sameSlot || samePath) match = &row;
            }
        }
        if (match != nullptr) {
            MergeNvmlFigures(match->gpu, nvmlDevice.row.gpu);
            if (match->displayName == GpuVendorFallbackName(GpuVendor::nvidia)) {
                match->displayName = nvmlDevice.row.displayName;
            }
            continue;
        }
        if (!slot.empty()) nvmlDevice.row.gpu.bus.Set(slot, ctx.generation);
        devices.push_back(std::move(nvmlDevice.row));
    }
}

void GpuCollector::AppendTelemetry(core::HardwareTelemetryFrame& frame, const core::SystemSnapshot& snapshot) const {
    for (const core::DeviceSnapshot& device : snapshot.devices) {
        if (device.kind != core::DeviceKind::gpu) continue;
        const std::string id = "gpu:" + device.id;
        core::TelemetryDevice* entry = nullptr;
        for (auto& candidate : frame.devices) {
            if (candidate.id == id) entry = &candidate;
        }
        if (entry == nullptr) continue;
        const core::GpuBlock& g = device.gpu;
        SetProperty(*entry, "vendor", g.vendor);
        SetProperty(*entry, "driver", g.driver);
        SetProperty(*entry, "driverVersion", g.driverVersion);
        SetProperty(*entry, "pciSlot", g.bus);
        SetProperty(*entry, "link", g.link);

        AddIfMissing(frame, id, kHotspot, g.hotspotTemperatureCelsius);
        AddIfMissing(frame, id, kSoc, g.socTemperatureCelsius);
        AddIfMissing(frame, id, kSharedUsed, g.sharedInUseMemoryBytes);
        AddIfMissing(frame, id, kPowerLimit, g.powerLimitWatts);
    }
}

}  // namespace korv::providers
