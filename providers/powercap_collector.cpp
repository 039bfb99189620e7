#include "providers/powercap_collector.h"

#include "core/saturating.h"
#include "providers/sensor_ids.h"
#include "providers/steady_clock.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <system_error>
#include <tuple>
#include <unordered_set>
#include <vector>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSource = "linux.powercap";

struct Zone {
    std::string directory;  // e.g. "intel-rapl:0:1"
    std::string name;       // e.g. "dram"
    bool mmio = false;
};

std::optional<std::uint32_t> PackageOfName(std::string_view name) {
    constexpr std::string_view kPackage = "package-";
    if (!name.starts_with(kPackage)) return std::nullopt;
    const auto number = ParseUnsigned(name.substr(kPackage.size()));
    if (!number || *number > 65535) return std::nullopt;
    return static_cast<std::uint32_t>(*number);
}

// A subzone "intel-rapl:0:1" sits below "intel-rapl:0" and takes that zone's package.
std::uint32_t PackageOf(const Zone& zone, const std::vector<Zone>& zones) {
    if (const auto own = PackageOfName(zone.name)) return *own;
    const std::size_t colon = zone.directory.rfind(':');
    if (colon == std::string::npos) return 0;
    const std::string_view parent = std::string_view(zone.directory).substr(0, colon);
    for (const auto& candidate : zones) {
        if (candidate.directory == parent) return PackageOfName(candidate.name).value_or(0);
    }
    return 0;
}

std::string IdPrefix(std::string_view name) {
    if (name == "package" || name.starts_with("package-")) return "cpu.package";
    if (name == "core" || name == "cores" || name == "pp0") return "cpu.cores";
    return {};
}

std::vector<Zone> ListZones(const fs::path& classDirectory, int& error) {
    std::vector<Zone> zones;
    std::error_code ec;
    fs::directory_iterator it(classDirectory, ec);
    if (ec) {
        error = ec.value();
        return zones;
    }
    for (const fs::directory_iterator end; it != end; it.increment(ec)) {
        if (ec) break;
        Zone zone;
        zone.directory = it->path().filename().string();
        AttributeText name = ReadAttribute(it->path() / "name");
        if (name.error != 0 || name.text.empty()) continue;  // a control type such as "intel-rapl"
        zone.name = std::move(name.text);
        zone.mmio = zone.directory.find("mmio") != std::string::npos;
        zones.push_back(std::move(zone));
    }
    // The MSR interface first: an MMIO zone repeats a domain that the MSR zones already count.
    std::sort(zones.begin(), zones.end(),
              [](const Zone& a, const Zone& b) { return std::tie(a.mmio, a.directory) < std::tie(b.mmio, b.directory); });
    return zones;
}

// The figure that a snapshot power metric takes from zones of one kind.
struct PowerSum {
    std::size_t zones = 0;
    std::size_t withPower = 0;
    double watts = 0.0;

    void Add(double zoneWatts) noexcept {
        ++withPower;
        watts += zoneWatts;
    }

    void Put(core::Metric<double>& metric, bool denied, std::uint64_t generation) const {
        metric.source = kSource;
        if (zones > 0 && withPower == zones) {
            metric.Set(watts, generation);
        } else if (zones > 0) {
            metric.MarkMissing(core::MetricAvailability::notYetAvailable);
        } else {
            metric.MarkMissing(denied ? core::MetricAvailability::accessDenied : core::MetricAvailability::unsupported);
        }
    }
};

}  // namespace

std::optional<std::uint64_t> EnergyDeltaMicrojoules(std::uint64_t previous, std::uint64_t current,
                                                    std::optional<std::uint64_t> maxRange) noexcept {
    if (current >= previous) return current - previous;
    if (!maxRange || *maxRange < previous) return std::nullopt;
    // max - previous first: it cannot underflow, and with current below previous the sum stays
    // below max; the saturating add guards the sum all the same.
    return core::SaturatingAdd(*maxRange - previous, current);
}

std::optional<double> PowerFromEnergy(std::uint64_t deltaMicrojoules, std::uint64_t intervalNs) noexcept {
    if (intervalNs == 0) return std::nullopt;
    return static_cast<double>(deltaMicrojoules) / 1e6 / (static_cast<double>(intervalNs) / 1e9);
}

PowercapCollector::PowercapCollector(ProviderRoots roots) : classDirectory_(roots.sys / "class" / "powercap") {}

void PowercapCollector::ResetBaselines() noexcept { baselines_.clear(); }

PowercapStageResult PowercapCollector::Collect(const CollectContext& context, core::HardwareTelemetryFrame& frame,
                                               core::SystemSnapshot& snapshot) {
    const std::uint64_t started = SteadyNowNs();
    if (context.resetBaselines) ResetBaselines();
    PowercapStageResult result;
    int error = 0;
    const std::vector<Zone> zones = ListZones(classDirectory_, error);
    PowerSum package;
    PowerSum dram;
    if (error != 0) {
        result.stage.error = error;
        result.stage.message = error == ENOENT ? "This system has no powercap interface"
                                               : "The powercap directory cannot be read: " +
                                                     std::generic_category().message(error);
        package.Put(snapshot.cpuPowerWatts, false, context.generation);
        dram.Put(snapshot.dramPowerWatts, false, context.generation);
        result.stage.durationNs = SteadyNowNs() - started;
        return result;
    }

    std::unordered_set<std::string> seen;
    std::size_t zonesRead = 0;
    std::size_t zonesDenied = 0;
    int readError = 0;
    for (const auto& zone : zones) {
        if (context.stop.stop_requested()) return result;
        const std::uint32_t packageNumber = PackageOf(zone, zones);
        const std::string deviceId = "cpu:package:" + std::to_string(packageNumber);
        const std::string prefix = IdPrefix(zone.name);
        const std::string segment = IdSegment(zone.name);
        const std::string energyId = prefix.empty() ? "cpu.energy." + segment : prefix + ".energy_j";
        std::string powerId = prefix.empty() ? "cpu.power." + segment : prefix + ".power_w";
        if (HasMetric(frame, deviceId, energyId)) continue;  // a second interface to a domain already read
        if (HasMetric(frame, deviceId, powerId)) powerId = "cpu.power." + segment;  // hwmon named it first

        const fs::path directory = classDirectory_ / zone.directory;
        const AttributeText energyText = ReadAttribute(directory / "energy_uj");
        const auto energy = energyText.error == 0 ? ParseUnsigned(energyText.text) : std::nullopt;
        if (!energy) {
            // Both sensors stay out, and the next readable sample starts without a baseline.
            baselines_.erase(zone.directory);
            if (energyText.error == EACCES || energyText.error == EPERM) {
                ++zonesDenied;
            } else if (readError == 0) {
                readError = energyText.error != 0 ? energyText.error : EINVAL;
            }
            continue;
        }
        ++zonesRead;
        seen.insert(zone.directory);
        EnsureCpuPackageDevice(frame, packageNumber);
        AddSensor(frame, {energyId, deviceId, zone.name + " Energy", "energy_uj",
                          {core::MetricCategory::counters, core::MetricUnit::joules, core::MetricKind::monotonicCounter},
                          static_cast<double>(*energy) / 1e6});

        const bool isPackage = prefix == "cpu.package";
        const bool isDram = zone.name == "dram";
        if (isPackage) ++package.zones;
        if (isDram) ++dram.zones;

        std::optional<double> watts;
        if (const auto previous = baselines_.find(zone.directory); previous != baselines_.end()) {
            const Baseline& before = previous->second;
            const std::uint64_t interval =
                context.monotonicNs > before.monotonicNs ? context.monotonicNs - before.monotonicNs : 0;
            const AttributeText range = ReadAttribute(directory / "max_energy_range_uj");
            const auto maxRange = range.error == 0 ? ParseUnsigned(range.text) : std::nullopt;
            if (const auto delta = EnergyDeltaMicrojoules(before.energyUj, *energy, maxRange)) {
                watts = PowerFromEnergy(*delta, interval);
            }
        }
        baselines_[zone.directory] = Baseline{*energy, context.monotonicNs};
        if (!watts) continue;
        AddSensor(frame, {powerId, deviceId, zone.name + " Power", std::string(kPowercapPowerNote),
                          {core::MetricCategory::powers, core::MetricUnit::watts, core::MetricKind::derivedRate},
                          *watts});
        if (isPackage) package.Add(*watts);
        if (isDram) dram.Add(*watts);
    }
    std::erase_if(baselines_, [&](const auto& entry) { return !seen.contains(entry.first); });

    result.accessDenied = zonesDenied > 0;
    package.Put(snapshot.cpuPowerWatts, result.accessDenied, context.generation);
    dram.Put(snapshot.dramPowerWatts, result.accessDenied, context.generation);

    const std::string read = "Read " + std::to_string(zonesRead) + (zonesRead == 1 ? " powercap zone" : " powercap zones");
    if (zonesDenied > 0) {
        result.stage.error = EACCES;
        result.stage.message = zonesRead == 0
                                   ? "The powercap energy counters are readable only by root, so CPU power is not shown"
                                   : read + "; " + std::to_string(zonesDenied) +
                                         " more energy counters are readable only by root";
    } else if (readError != 0) {
        result.stage.error = readError;
        result.stage.message = read + "; some energy counters could not be read: " +
                               std::generic_category().message(readError);
    } else {
        result.stage.ok = true;
        result.stage.message = zones.empty() ? "This system has no powercap energy zones" : read;
    }
    result.stage.durationNs = SteadyNowNs() - started;
    return result;
}

}  // namespace korv::providers
