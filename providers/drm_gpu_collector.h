#pragma once

#include "core/snapshot.h"
#include "providers/gpu_name_database.h"
#include "providers/provider_context.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korv::providers {

inline constexpr const char* kDrmSource = "linux.gpu.drm";
inline constexpr std::size_t kDrmAttributeLimit = 4096;

enum class GpuVendor : int { amd = 0, intel = 1, nvidia = 2 };

// One graphics adapter as DRM sysfs names it: a "cardN" entry whose PCI device is of a known vendor.
struct DrmAdapterRef {
    GpuVendor vendor = GpuVendor::amd;
    std::string card;                  // "card0"
    std::filesystem::path cardPath;    // <sys>/class/drm/card0
    std::filesystem::path devicePath;  // <sys>/class/drm/card0/device, the PCI device directory
    std::string pciSlot;               // PCI_SLOT_NAME, e.g. "0000:03:00.0"
    std::optional<std::uint16_t> deviceId;
    std::optional<std::uint8_t> revision;
    std::string label;   // the firmware's own name, if it publishes one
    std::string driver;  // DRIVER of the device's uevent
};

// The cardN entries (digits only, so connectors such as card0-DP-1 stay out) of an AMD, Intel or
// NVIDIA PCI device, in card number order.
std::vector<DrmAdapterRef> EnumerateDrmAdapters(const std::filesystem::path& drmClassDir);

// "0x1002" or "1002": AMD; 8086: Intel; 10de: NVIDIA; others nothing.
std::optional<GpuVendor> GpuVendorFromPciId(std::string_view text);
std::string_view GpuVendorName(GpuVendor vendor) noexcept;    // "AMD", "Intel", "NVIDIA"
std::string_view GpuVendorFallbackName(GpuVendor vendor) noexcept;  // "AMD GPU", ...

// The current level of an amdgpu pp_dpm_* table, the line marked with "*", in MHz.
std::optional<std::uint64_t> ParseDpmCurrentMhz(std::string_view text);

struct DrmPassResult {
    std::size_t adapters = 0;
    bool anyBusyPercent = false;
    bool nameFellToVendorForWantOfTable = false;
    std::string status;  // the provider's status text
    int error = 0;       // errno when the DRM class directory could not be read
};

// Per-adapter figures from DRM sysfs: identity, busy percent, VRAM and GTT, clocks, the adapter's
// hwmon sensors and PCIe link. Called on the Collect thread once a tick; name lookups are cached.
class DrmGpuCollector {
public:
    DrmGpuCollector(ProviderRoots roots, GpuNameDatabase names);

    // Appends one GPU row per adapter, in card order.
    DrmPassResult Collect(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices);

    // Canonical PCI device directories of the adapters of the last pass.
    const std::vector<std::filesystem::path>& AdapterDevicePaths() const noexcept { return devicePaths_; }

private:
    struct ModelName {
        std::string text;
        bool vendorOnlyForWantOfTable = false;
    };
    ModelName LookUpModelName(const DrmAdapterRef& adapter);
    void FillRow(const DrmAdapterRef& adapter, std::uint64_t generation, core::DeviceSnapshot& row,
                 bool& busyPercentSeen);

    ProviderRoots roots_;
    GpuNameDatabase names_;
    std::vector<std::filesystem::path> devicePaths_;
    std::string buffer_;
};

// Marks every figure of a GPU block unsupported by `source`, so a reader sees why each is missing.
void MarkGpuBlockUnsupported(core::GpuBlock& gpu, const char* source);

}  // namespace korv::providers
