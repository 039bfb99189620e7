#include "providers/hwmon_collector.h"

#include "providers/sensor_ids.h"
#include "providers/steady_clock.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <map>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 5> kCpuChips{"coretemp", "k10temp", "zenpower", "cpu_thermal", "fam15h_power"};
constexpr std::array<std::string_view, 3> kGpuChips{"amdgpu", "nouveau", "nvidia"};
constexpr std::string_view kInputSuffix = "_input";

bool IsIn(std::string_view name, const auto& names) noexcept {
    return std::find(names.begin(), names.end(), name) != names.end();
}

fs::path Canonical(const fs::path& path) {
    std::error_code error;
    fs::path resolved = fs::canonical(path, error);
    return error ? path.lexically_normal() : resolved;
}

bool IsAncestorOrSelf(const fs::path& ancestor, const fs::path& path) {
    auto a = ancestor.begin();
    auto p = path.begin();
    for (; a != ancestor.end(); ++a, ++p) {
        if (p == path.end() || *a != *p) return false;
    }
    return true;
}

struct Chip {
    fs::path directory;
    std::string name;
    fs::path device;  // canonical target of the `device` link; empty without one
    fs::path key;     // the device, else the chip directory: identical chips stay apart by it
    SensorOwner owner = SensorOwner::other;
    std::string deviceId;  // for a GPU or storage chip, the hinted telemetry device
};

struct Reading {
    std::string key;
    HwmonKey parsed;
    std::string label;  // trimmed; empty without a <key>_label file
    std::int64_t raw = 0;
};

struct Candidate {
    SensorEntry entry;
    std::string fallbackId;  // the "hwmon." id that a canonical sensor falls back to
    int rank = 0;            // among sensors competing for one canonical id on one device
    bool skipWhenTaken = false;
};

std::vector<Chip> ListChips(const fs::path& classDirectory, int& error) {
    std::vector<Chip> chips;
    std::error_code ec;
    fs::directory_iterator it(classDirectory, ec);
    if (ec) {
        error = ec.value();
        return chips;
    }
    for (const fs::directory_iterator end; it != end; it.increment(ec)) {
        if (ec) break;
        Chip chip;
        chip.directory = it->path();
        AttributeText name = ReadAttribute(chip.directory / "name");
        if (name.error != 0 || name.text.empty()) continue;
        chip.name = std::move(name.text);
        std::error_code linkError;
        if (fs::is_symlink(chip.directory / "device", linkError)) chip.device = Canonical(chip.directory / "device");
        chip.key = chip.device.empty() ? Canonical(chip.directory) : chip.device;
        chips.push_back(std::move(chip));
    }
    std::sort(chips.begin(), chips.end(), [](const Chip& a, const Chip& b) {
        return std::tie(a.key, a.name, a.directory) < std::tie(b.key, b.name, b.directory);
    });
    return chips;
}

std::vector<Reading> ReadChip(const fs::path& directory) {
    std::vector<Reading> readings;
    std::error_code ec;
    fs::directory_iterator it(directory, ec);
    if (ec) return readings;
    for (const fs::directory_iterator end; it != end; it.increment(ec)) {
        if (ec) break;
        const std::string file = it->path().filename().string();
        if (file.size() <= kInputSuffix.size() || !file.ends_with(kInputSuffix)) continue;
        Reading reading;
        reading.key = file.substr(0, file.size() - kInputSuffix.size());
        const auto parsed = ParseHwmonKey(reading.key);
        if (!parsed) continue;
        reading.parsed = *parsed;
        const AttributeText value = ReadAttribute(it->path());
        const auto raw = value.error == 0 ? ParseSigned(value.text) : std::nullopt;
        if (!raw) continue;
        reading.raw = *raw;
        AttributeText label = ReadAttribute(directory / (reading.key + "_label"));
        if (label.error == 0) reading.label = std::move(label.text);
        readings.push_back(std::move(reading));
    }
    std::sort(readings.begin(), readings.end(), [](const Reading& a, const Reading& b) {
        return std::tie(a.parsed.type, a.parsed.number) < std::tie(b.parsed.type, b.parsed.number);
    });
    return readings;
}

// The chip's package from a "Package id <n>" label (coretemp names its package that way).
std::optional<std::int64_t> LabelledPackageId(const std::vector<Reading>& readings) {
    for (const auto& reading : readings) {
        if (reading.parsed.type != SensorType::temperature || PackageTemperatureRank(reading.label) != 2) continue;
        const std::size_t space = reading.label.rfind(' ');
        if (space == std::string::npos) continue;
        if (const auto id = ParseSigned(std::string_view(reading.label).substr(space + 1))) return id;
    }
    return std::nullopt;
}

void ClassifyOwner(Chip& chip, const std::vector<SensorOwnerHint>& owners,
                   const std::vector<fs::path>& hintPaths, const core::HardwareTelemetryFrame& frame) {
    if (IsIn(chip.name, kCpuChips)) {
        chip.owner = SensorOwner::cpu;
        return;
    }
    const bool gpu = IsIn(chip.name, kGpuChips);
    const bool nvme = chip.name == "nvme";
    if (!gpu && !nvme) return;
    for (std::size_t i = 0; i < owners.size(); ++i) {
        const auto& hint = owners[i];
        if (chip.device.empty() || frame.FindDevice(hint.telemetryDeviceId) == nullptr) continue;
        const bool match = gpu ? hint.kind == SensorOwnerKind::gpu && hintPaths[i] == chip.device
                               : hint.kind == SensorOwnerKind::storage && IsAncestorOrSelf(chip.device, hintPaths[i]);
        if (match) {
            chip.owner = gpu ? SensorOwner::gpu : SensorOwner::storage;
            chip.deviceId = hint.telemetryDeviceId;
            return;
        }
    }
    // The GPU stage reads an unmatched card itself, so it stays without a device and is skipped; an
    // unmatched NVMe chip gets a device of its own like any other chip.
    if (gpu) chip.owner = SensorOwner::gpu;
}

std::string HwmonDeviceId(const Chip& chip, const std::map<std::string, int>& otherNames) {
    std::string id = "system/hwmon/" + chip.name;
    const auto found = otherNames.find(chip.name);
    if (found != otherNames.end() && found->second > 1) id += ":" + chip.key.filename().string();
    return id;
}

}  // namespace

HwmonCollector::HwmonCollector(ProviderRoots roots)
    : classDirectory_(roots.sys / "class" / "hwmon"), cpuDirectory_(roots.sys / "devices" / "system" / "cpu") {}

const CpuTopology& HwmonCollector::Topology() {
    if (!topology_) topology_ = ReadCpuTopology(cpuDirectory_);
    return *topology_;
}

std::uint32_t HwmonCollector::PackageOrdinal(std::int64_t packageId) {
    const auto& ids = Topology().packageIds;
    const auto it = std::lower_bound(ids.begin(), ids.end(), packageId);
    if (it != ids.end() && *it == packageId) return static_cast<std::uint32_t>(it - ids.begin());
    return packageId > 0 && packageId <= 65535 ? static_cast<std::uint32_t>(packageId) : 0;
}

// The first CPU of the chip device's CPU list gives the package.
std::uint32_t HwmonCollector::PackageOfCpuList(const fs::path& device) {
    if (device.empty()) return 0;
    for (const char* file : {"local_cpulist", "cpulist"}) {
        const AttributeText list = ReadAttribute(device / file);
        std::vector<std::uint32_t> cpus;
        if (list.error != 0 || !ParseCpuList(list.text, cpus) || cpus.empty()) continue;
        const LogicalCpuTopology* cpu = Topology().Find(cpus.front());
        return cpu != nullptr ? cpu->packageOrdinal : 0;
    }
    return 0;
}

HwmonStageResult HwmonCollector::Collect(const CollectContext& context, const std::vector<SensorOwnerHint>& owners,
                                         core::HardwareTelemetryFrame& frame) {
    const std::uint64_t started = SteadyNowNs();
    HwmonStageResult result;
    int error = 0;
    std::vector<Chip> chips = ListChips(classDirectory_, error);
    if (error != 0) {
        result.stage.error = error;
        result.stage.message = error == ENOENT ? "This system has no hwmon sensor directory"
                                               : "The hwmon sensor directory cannot be read: " +
                                                     std::generic_category().message(error);
        result.stage.durationNs = SteadyNowNs() - started;
        return result;
    }

    std::vector<fs::path> hintPaths;
    hintPaths.reserve(owners.size());
    for (const auto& hint : owners) hintPaths.push_back(Canonical(hint.devicePath));
    std::map<std::string, int> otherNames;
    for (auto& chip : chips) {
        ClassifyOwner(chip, owners, hintPaths, frame);
        if (chip.owner == SensorOwner::other) ++otherNames[chip.name];
    }

    std::vector<Candidate> candidates;
    std::size_t chipsRead = 0;
    for (const auto& chip : chips) {
        if (context.stop.stop_requested()) return result;
        if (chip.owner == SensorOwner::gpu && chip.deviceId.empty()) continue;
        const std::vector<Reading> readings = ReadChip(chip.directory);
        if (readings.empty()) continue;
        ++chipsRead;

        std::string deviceId = chip.deviceId;
        if (chip.owner == SensorOwner::cpu) {
            const auto labelled = chip.name == "coretemp" ? LabelledPackageId(readings) : std::nullopt;
            deviceId = EnsureCpuPackageDevice(
                frame, labelled ? PackageOrdinal(*labelled) : PackageOfCpuList(chip.device));
        } else if (chip.owner == SensorOwner::other) {
            deviceId = HwmonDeviceId(chip, otherNames);
            const bool shared = otherNames[chip.name] > 1;
            auto& device = EnsureDevice(frame, deviceId, core::TelemetryDeviceKind::other,
                                        shared ? chip.name + " (" + chip.key.filename().string() + ")" : chip.name);
            core::SetDeviceProperty(device, "parent", "system");
            core::SetDeviceProperty(device, "description", "Linux hwmon sensor device");
            core::SetDeviceProperty(device, "source", "sysfs");
            core::SetDeviceProperty(device, "chip", chip.name);
            core::SetDeviceProperty(device, "devicePath", chip.key.string());
        }

        for (const auto& reading : readings) {
            Candidate candidate;
            const std::string_view label = reading.label.empty() ? std::string_view(reading.key) : reading.label;
            candidate.fallbackId = HwmonSensorId(chip.name, reading.key);
            std::string canonical = CanonicalSensorId(chip.owner, reading.parsed, label);
            candidate.entry.id = canonical.empty() ? candidate.fallbackId : std::move(canonical);
            candidate.entry.deviceId = deviceId;
            candidate.entry.displayName = reading.label.empty() ? DefaultSensorName(reading.parsed) : reading.label;
            candidate.entry.sourceName = chip.name;
            candidate.entry.units = UnitsOf(reading.parsed.type);
            candidate.entry.value = ScaleHwmonReading(reading.parsed.type, reading.raw);
            candidate.rank = reading.parsed.type == SensorType::temperature ? PackageTemperatureRank(label) : 0;
            candidate.skipWhenTaken = chip.owner == SensorOwner::gpu;
            candidates.push_back(std::move(candidate));
        }
    }

    // One canonical id per device: the highest rank keeps it (the first of equals), the others fall
    // back to their own ids, so that no reading is lost.
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        auto& candidate = candidates[i];
        if (candidate.entry.id == candidate.fallbackId) continue;
        for (std::size_t j = 0; j < candidates.size(); ++j) {
            const auto& other = candidates[j];
            if (j == i || other.entry.id != candidate.entry.id || other.entry.deviceId != candidate.entry.deviceId) {
                continue;
            }
            if (other.rank > candidate.rank || (other.rank == candidate.rank && j < i)) {
                candidate.entry.id = candidate.fallbackId;
                break;
            }
        }
    }

    std::size_t added = 0;
    for (auto& candidate : candidates) {
        const bool temperature = candidate.entry.units.unit == core::MetricUnit::celsius;
        if (HasMetric(frame, candidate.entry.deviceId, candidate.entry.id)) {
            // The GPU stage reads the card's main sensors itself; elsewhere the reading keeps its own id.
            if (candidate.skipWhenTaken || candidate.entry.id == candidate.fallbackId) continue;
            candidate.entry.id = candidate.fallbackId;
        }
        if (AddSensor(frame, std::move(candidate.entry))) {
            ++added;
            result.anyTemperature = result.anyTemperature || temperature;
        }
    }

    result.stage.ok = true;
    result.stage.message = "Read " + std::to_string(added) + " hwmon sensors from " + std::to_string(chipsRead) +
                           (chipsRead == 1 ? " chip" : " chips");
    result.stage.durationNs = SteadyNowNs() - started;
    return result;
}

}  // namespace korv::providers
