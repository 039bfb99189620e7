#include "providers/drm_gpu_collector.h"

#include "core/saturating.h"
#include "providers/bounded_read.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <system_error>

namespace korv::providers {
namespace {

using core::MetricAvailability;

constexpr std::uint64_t kHzPerMhz = 1'000'000;

std::string_view Trim(std::string_view text) noexcept {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

template <typename T>
std::optional<T> ParseNumber(std::string_view text, int base = 10) noexcept {
    text = Trim(text);
    if (base == 16 && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.remove_prefix(2);
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// A small sysfs attribute, trimmed. Returns 0 or the errno of the read.
int ReadAttribute(const std::filesystem::path& path, std::string& out) {
    const int error = ReadFileBounded(path.c_str(), kDrmAttributeLimit, out);
    if (error != 0) return error;
    const std::string_view trimmed = Trim(out);
    out.assign(trimmed.data(), trimmed.size());
    return 0;
}

// The value of "KEY=value" in a uevent text.
std::string UeventValue(std::string_view text, std::string_view key) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(pos, end - pos);
        if (line.size() > key.size() && line.substr(0, key.size()) == key && line[key.size()] == '=') {
            return std::string(Trim(line.substr(key.size() + 1)));
        }
        pos = end + 1;
    }
    return {};
}

std::optional<unsigned> CardNumber(std::string_view name) noexcept {
    if (name.size() <= 4 || name.substr(0, 4) != "card") return std::nullopt;
    const std::string_view digits = name.substr(4);
    if (digits.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
    unsigned number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
    return number;
}

std::uint16_t PciVendorId(GpuVendor vendor) noexcept {
    switch (vendor) {
        case GpuVendor::amd: return 0x1002;
        case GpuVendor::intel: return 0x8086;
        case GpuVendor::nvidia: return 0x10de;
    }
    return 0;
}

std::string Lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

// The adapter's first hwmon directory, by name order, or an empty path.
std::filesystem::path HwmonDirectory(const std::filesystem::path& devicePath) {
    std::error_code ec;
    std::filesystem::directory_iterator it(devicePath / "hwmon", ec);
    std::filesystem::path best;
    for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        const std::string name = it->path().filename().native();
        if (name.rfind("hwmon", 0) != 0) continue;
        if (best.empty() || name < best.filename().native()) best = it->path();
    }
    return best;
}

void SetText(core::Metric<std::string>& metric, std::string value, std::uint64_t generation) {
    if (value.empty()) return;  // stays unsupported
    metric.Set(std::move(value), generation);
}

}  // namespace

std::optional<GpuVendor> GpuVendorFromPciId(std::string_view text) {
    const auto id = ParseNumber<std::uint32_t>(text, 16);
    if (!id) return std::nullopt;
    switch (*id) {
        case 0x1002: return GpuVendor::amd;
        case 0x8086: return GpuVendor::intel;
        case 0x10de: return GpuVendor::nvidia;
        default: return std::nullopt;
    }
}

std::string_view GpuVendorName(GpuVendor vendor) noexcept {
    switch (vendor) {
        case GpuVendor::amd: return "AMD";
        case GpuVendor::intel: return "Intel";
        case GpuVendor::nvidia: return "NVIDIA";
    }
    return "";
}

std::string_view GpuVendorFallbackName(GpuVendor vendor) noexcept {
    switch (vendor) {
        case GpuVendor::amd: return "AMD GPU";
        case GpuVendor::intel: return "Intel GPU";
        case GpuVendor::nvidia: return "NVIDIA GPU";
    }
    return "";
}

std::optional<std::uint64_t> ParseDpmCurrentMhz(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = Trim(text.substr(pos, end - pos));
        pos = end + 1;
        if (line.empty() || line.back() != '*') continue;
        // "1: 1800Mhz *": the level number, then the clock.
        const auto colon = line.find(':');
        const std::string_view rest = colon == std::string_view::npos ? line : line.substr(colon + 1);
        const auto start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos) return std::nullopt;
        const auto stop = rest.find_first_not_of("0123456789", start);
        return ParseNumber<std::uint64_t>(rest.substr(start, stop - start));
    }
    return std::nullopt;
}

std::vector<DrmAdapterRef> EnumerateDrmAdapters(const std::filesystem::path& drmClassDir) {
    std::vector<std::pair<unsigned, DrmAdapterRef>> found;
    std::error_code ec;
    std::filesystem::directory_iterator it(drmClassDir, ec);
    std::string text;
    for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        const std::string name = it->path().filename().native();
        const auto number = CardNumber(name);
        if (!number) continue;
        DrmAdapterRef adapter;
        adapter.card = name;
        adapter.cardPath = it->path();
        adapter.devicePath = it->path() / "device";
        if (ReadAttribute(adapter.devicePath / "vendor", text) != 0) continue;
        const auto vendor = GpuVendorFromPciId(text);
        if (!vendor) continue;
        adapter.vendor = *vendor;
        if (ReadAttribute(adapter.devicePath / "uevent", text) == 0) {
            adapter.pciSlot = UeventValue(text, "PCI_SLOT_NAME");
            adapter.driver = UeventValue(text, "DRIVER");
        }
        if (ReadAttribute(adapter.devicePath / "device", text) == 0) {
            adapter.deviceId = ParseNumber<std::uint16_t>(text, 16);
        }
        if (ReadAttribute(adapter.devicePath / "revision", text) == 0) {
            adapter.revision = ParseNumber<std::uint8_t>(text, 16);
        }
        if (ReadAttribute(adapter.devicePath / "label", text) == 0) adapter.label = text;
        found.emplace_back(*number, std::move(adapter));
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<DrmAdapterRef> adapters;
    adapters.reserve(found.size());
    for (auto& entry : found) adapters.push_back(std::move(entry.second));
    return adapters;
}

void MarkGpuBlockUnsupported(core::GpuBlock& g, const char* source) {
    const auto mark = [source](auto& metric) {
        metric.source = source;
        metric.MarkMissing(MetricAvailability::unsupported);
    };
    mark(g.utilizationPercent);
    mark(g.totalMemoryBytes);
    mark(g.inUseMemoryBytes);
    mark(g.dedicatedMemoryBytes);
    mark(g.sharedMemoryBytes);
    mark(g.clockHz);
    mark(g.maximumClockHz);
    mark(g.memoryClockHz);
    mark(g.maximumMemoryClockHz);
    mark(g.powerWatts);
    mark(g.powerLimitWatts);
    mark(g.temperatureCelsius);
    mark(g.videoEncodePercent);
    mark(g.videoDecodePercent);
    mark(g.graphicsApi);
    mark(g.openGlVersion);
    mark(g.vulkanVersion);
    mark(g.link);
    mark(g.bus);
    mark(g.vendor);
    mark(g.driver);
    mark(g.driverVersion);
    mark(g.memoryControllerPercent);
    mark(g.sharedInUseMemoryBytes);
    mark(g.hotspotTemperatureCelsius);
    mark(g.socTemperatureCelsius);
}

DrmGpuCollector::DrmGpuCollector(ProviderRoots roots, GpuNameDatabase names)
    : roots_(std::move(roots)), names_(std::move(names)) {}

DrmGpuCollector::ModelName DrmGpuCollector::LookUpModelName(const DrmAdapterRef& adapter) {
    if (!adapter.label.empty()) return {adapter.label};
    if (adapter.vendor == GpuVendor::amd && adapter.deviceId && adapter.revision) {
        if (auto name = names_.AmdgpuName(*adapter.deviceId, *adapter.revision)) return {std::move(*name)};
    }
    if (adapter.deviceId) {
        if (auto name = names_.PciName(PciVendorId(adapter.vendor), *adapter.deviceId)) return {std::move(*name)};
    }
    return {std::string(GpuVendorFallbackName(adapter.vendor)), !names_.HasPciTable()};
}

void DrmGpuCollector::FillRow(const DrmAdapterRef& adapter, std::uint64_t generation, core::DeviceSnapshot& row,
                              bool& busyPercentSeen) {
    core::GpuBlock& g = row.gpu;
    const std::filesystem::path& device = adapter.devicePath;
    std::string& text = buffer_;

    SetText(g.vendor, std::string(GpuVendorName(adapter.vendor)), generation);
    SetText(g.driver, adapter.driver, generation);
    SetText(g.bus, adapter.pciSlot, generation);
    if (!adapter.driver.empty() && (ReadAttribute(roots_.sys / "module" / adapter.driver / "version", text) == 0 ||
                                    ReadAttribute(device / "driver" / "module" / "version", text) == 0)) {
        SetText(g.driverVersion, text, generation);
    }
    if (ReadAttribute(device / "current_link_speed", text) == 0) {
        std::string speed = text;
        if (ReadAttribute(device / "current_link_width", text) == 0 && !speed.empty() && !text.empty()) {
            g.link.Set(speed + " x" + text, generation);
        }
    }

    // A missing gpu_busy_percent is a kernel or driver that does not publish one; a failed read of an
    // existing one is a fault of this adapter.
    const int busyError = ReadAttribute(device / "gpu_busy_percent", text);
    if (busyError == ENOENT) {
        g.utilizationPercent.MarkMissing(MetricAvailability::notApplicable);
    } else if (busyError == 0) {
        const auto busy = ParseNumber<std::uint64_t>(text);
        if (busy && *busy <= 100) {
            g.utilizationPercent.Set(static_cast<double>(*busy), generation);
            busyPercentSeen = true;
        }
    }

    const auto readBytes = [&](const char* name, core::Metric<std::uint64_t>& metric) {
        if (ReadAttribute(device / name, text) != 0) return;
        if (const auto bytes = ParseNumber<std::uint64_t>(text)) metric.Set(*bytes, generation);
    };
    readBytes("mem_info_vram_total", g.totalMemoryBytes);
    readBytes("mem_info_vram_total", g.dedicatedMemoryBytes);
    readBytes("mem_info_vram_used", g.inUseMemoryBytes);
    readBytes("mem_info_gtt_used", g.sharedInUseMemoryBytes);

    std::optional<std::uint64_t> clockMhz;
    if (adapter.driver == "amdgpu") {
        if (ReadAttribute(device / "pp_dpm_sclk", text) == 0) clockMhz = ParseDpmCurrentMhz(text);
    } else if (adapter.vendor == GpuVendor::intel) {
        // i915 first, newest layout first; then the xe driver's tile layout.
        const std::filesystem::path candidates[] = {
            adapter.cardPath / "gt" / "gt0" / "rps_act_freq_mhz", adapter.cardPath / "gt" / "gt0" / "rps_cur_freq_mhz",
            adapter.cardPath / "gt_act_freq_mhz",                 adapter.cardPath / "gt_cur_freq_mhz",
            device / "tile0" / "gt0" / "freq0" / "act_freq",      device / "tile0" / "gt0" / "freq0" / "cur_freq",
        };
        for (const auto& path : candidates) {
            if (ReadAttribute(path, text) != 0) continue;
            clockMhz = ParseNumber<std::uint64_t>(text);
            if (clockMhz) break;
        }
    }
    if (clockMhz) g.clockHz.Set(core::SaturatingMultiply(*clockMhz, kHzPerMhz), generation);

    const std::filesystem::path hwmon = HwmonDirectory(device);
    if (hwmon.empty()) return;
    if (!clockMhz && ReadAttribute(hwmon / "freq1_input", text) == 0) {
        if (const auto hz = ParseNumber<std::uint64_t>(text)) g.clockHz.Set(*hz, generation);
    }
    const auto readCelsius = [&](const std::string& input, core::Metric<double>& metric) {
        if (ReadAttribute(hwmon / input, text) != 0) return;
        if (const auto milli = ParseNumber<std::int64_t>(text)) {
            metric.Set(static_cast<double>(*milli) / 1000.0, generation);
        }
    };
    readCelsius("temp1_input", g.temperatureCelsius);
    for (const char* name : {"power1_average", "power1_input"}) {
        if (ReadAttribute(hwmon / name, text) != 0) continue;
        if (const auto micro = ParseNumber<std::uint64_t>(text)) {
            g.powerWatts.Set(static_cast<double>(*micro) / 1e6, generation);
            break;
        }
    }

    std::error_code ec;
    std::filesystem::directory_iterator it(hwmon, ec);
    for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        const std::string name = it->path().filename().native();
        constexpr std::string_view suffix = "_label";
        if (name.rfind("temp", 0) != 0 || name.size() <= suffix.size() ||
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
            continue;
        }
        if (ReadAttribute(it->path(), text) != 0) continue;
        const std::string label = Lower(text);
        const std::string input = name.substr(0, name.size() - suffix.size()) + "_input";
        if (label.find("junction") != std::string::npos || label.find("hotspot") != std::string::npos) {
            readCelsius(input, g.hotspotTemperatureCelsius);
        } else if (label.find("soc") != std::string::npos) {
            readCelsius(input, g.socTemperatureCelsius);
        }
    }
}

DrmPassResult DrmGpuCollector::Collect(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices) {
    DrmPassResult result;
    devicePaths_.clear();
    const std::filesystem::path drmClass = roots_.sys / "class" / "drm";
    std::error_code ec;
    if (!std::filesystem::is_directory(drmClass, ec)) result.error = ec ? ec.value() : ENOTDIR;

    for (const DrmAdapterRef& adapter : EnumerateDrmAdapters(drmClass)) {
        if (ctx.stop.stop_requested()) break;
        core::DeviceSnapshot row;
        row.kind = core::DeviceKind::gpu;
        // A device without a slot name (never seen on PCI) still needs an id of its own.
        row.id = "linux-drm-pci:" + (adapter.pciSlot.empty() ? adapter.card : adapter.pciSlot);
        MarkGpuBlockUnsupported(row.gpu, kDrmSource);
        ModelName name = LookUpModelName(adapter);
        row.displayName = std::move(name.text);
        result.nameFellToVendorForWantOfTable |= name.vendorOnlyForWantOfTable;
        FillRow(adapter, ctx.generation, row, result.anyBusyPercent);
        devices.push_back(std::move(row));
        ++result.adapters;

        std::error_code canonicalError;
        std::filesystem::path canonical = std::filesystem::canonical(adapter.devicePath, canonicalError);
        devicePaths_.push_back(canonicalError ? adapter.devicePath : std::move(canonical));
    }

    if (result.adapters == 0) {
        result.status = "No supported AMD/Intel/NVIDIA DRM sysfs devices";
    } else if (!result.anyBusyPercent) {
        result.status =
            "AMD/Intel/NVIDIA DRM sysfs identity, clocks and sensors collected; this kernel publishes no adapter busy "
            "percentage for them";
    } else {
        result.status = "AMD/Intel/NVIDIA DRM sysfs telemetry collected";
    }
    if (result.nameFellToVendorForWantOfTable) {
        result.status +=
            "; no PCI model database is installed (pci.ids, from hwdata), so an adapter whose firmware publishes no "
            "name is listed by vendor only";
    }
    return result;
}

}  // namespace korv::providers
