#pragma once

#include "core/snapshot.h"
#include "core/telemetry_frame.h"
#include "providers/drm_gpu_collector.h"
#include "providers/nvml_library.h"
#include "providers/provider_context.h"
#include "providers/stage_result.h"

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace korv::providers {

struct GpuCollectorPaths {
    std::filesystem::path amdgpuIds = "/usr/share/libdrm/amdgpu.ids";
    std::vector<std::filesystem::path> pciIds = {"/usr/share/hwdata/pci.ids", "/usr/share/misc/pci.ids",
                                                 "/usr/share/pci.ids"};
    std::filesystem::path nvidiaGpus = "/proc/driver/nvidia/gpus";
    std::vector<std::string> nvmlLibraryNames = {"libnvidia-ml.so.1", "libnvidia-ml.so"};
};

struct GpuStageResult {
    StageResult drm;   // ok when an adapter is listed; message: the DRM status text
    StageResult nvml;  // message: the linux.gpu.nvml health text; error: an errno value only
    nvml::nvmlReturn_t nvmlReturn = nvml::NVML_SUCCESS;  // of the failed nvmlInit_v2 or device count
    std::string capabilityText;  // for gpu.telemetry
    core::ProviderSupport capabilitySupport = core::ProviderSupport::unsupported;
    bool nvmlAnswered = false;  // NVML listed at least one device this tick
};

// The GPU stage of a Collect tick: DRM sysfs rows, then NVML, which is loaded at the first Collect
// and kept from then to destruction. A failed load or nvmlInit_v2 is kept as text and never retried.
// Used by the Collect thread only.
class GpuCollector {
public:
    GpuCollector(ProviderRoots roots, GpuCollectorPaths paths = {});

    // Appends GPU rows (DRM, with NVML figures merged by PCI slot; unmatched NVML devices as rows of
    // their own).
    GpuStageResult Collect(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices);

    // Makes sure the frame's "gpu:<id>" devices carry what their snapshot rows hold beyond the
    // catalogue's core figures: properties vendor, driver, driverVersion, pciSlot, link; metrics
    // gpu.temperature.hotspot_c, gpu.temperature.soc_c, accelerator.memory.nonlocal.resident_bytes
    // and gpu.power.board_limit_w, each added only where missing (NVML's with the vendor-API
    // provenance). Call after BuildTelemetryFrame; a second call changes nothing.
    void AppendTelemetry(core::HardwareTelemetryFrame& frame, const core::SystemSnapshot& snapshot) const;

    // Canonical PCI device directories of the listed DRM adapters (for the hwmon owner join).
    const std::vector<std::filesystem::path>& AdapterDevicePaths() const;

private:
    void CollectNvml(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices, std::size_t firstDrmRow,
                     std::size_t drmRows, GpuStageResult& result);

    ProviderRoots roots_;
    GpuCollectorPaths paths_;
    DrmGpuCollector drm_;
    std::unique_ptr<NvmlLibrary> nvml_;  // from the first Collect on; it holds a failure's text and codes
};

// GPU UUID to PCI slot, from the "GPU UUID:" line of <nvidiaGpus>/<slot>/information. Both in lower
// case.
std::map<std::string, std::string> ReadNvidiaGpuSlots(const std::filesystem::path& nvidiaGpus);

}  // namespace korv::providers
