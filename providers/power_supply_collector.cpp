#include "providers/power_supply_collector.h"

#include "providers/bounded_read.h"
#include "providers/sensor_ids.h"
#include "providers/steady_clock.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <string>
#include <system_error>
#include <vector>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSource = "linux.power_supply";
constexpr std::string_view kAcPowerText = "AC Power";
constexpr std::string_view kBatteryText = "Battery";

bool IsExternalSource(std::string_view type) noexcept {
    return type == "Mains" || type == "Wireless" || type.starts_with("USB");
}

std::optional<std::string> Text(const fs::path& directory, const char* file) {
    AttributeText attribute = ReadAttribute(directory / file);
    if (attribute.error != 0) return std::nullopt;
    return std::move(attribute.text);
}

std::optional<std::uint64_t> Unsigned(const fs::path& directory, const char* file) {
    const auto text = Text(directory, file);
    return text ? ParseUnsigned(*text) : std::nullopt;
}

// Some drivers report current and power with a sign for the direction of flow.
std::optional<double> Magnitude(const fs::path& directory, const char* file) {
    const auto text = Text(directory, file);
    const auto value = text ? ParseSigned(*text) : std::nullopt;
    if (!value) return std::nullopt;
    return std::fabs(static_cast<double>(*value));
}

struct Battery {
    std::string name;
    std::string status;
    std::optional<std::string> model;
    std::optional<double> capacityPercent;
    std::optional<double> powerMicrowatts;        // only while charging or discharging
    std::optional<double> energyNowMicrowattHours;  // energy_now, else charge_now * voltage_now
    std::optional<double> energyFullMicrowattHours;
    std::optional<std::uint64_t> cycleCount;
    std::optional<double> healthRatio;

    bool Discharging() const noexcept { return status == "Discharging"; }
    bool Charging() const noexcept { return status == "Charging"; }
};

// Firmware can report a little above 100 while it recalibrates.
double ClampPercent(double value) noexcept { return std::clamp(value, 0.0, 100.0); }

Battery ReadBattery(const fs::path& directory, std::string name) {
    Battery battery;
    battery.name = std::move(name);
    battery.status = Text(directory, "status").value_or(std::string());
    battery.model = Text(directory, "model_name");
    if (const auto capacity = Unsigned(directory, "capacity")) {
        battery.capacityPercent = ClampPercent(static_cast<double>(*capacity));
    }
    const auto voltage = Magnitude(directory, "voltage_now");
    if (battery.Discharging() || battery.Charging()) {
        if (const auto power = Magnitude(directory, "power_now")) {
            battery.powerMicrowatts = *power;
        } else if (const auto current = Magnitude(directory, "current_now"); current && voltage) {
            battery.powerMicrowatts = *voltage * *current / 1e6;  // µV * µA is 1e-12 W
        }
    }
    if (const auto energy = Unsigned(directory, "energy_now")) {
        battery.energyNowMicrowattHours = static_cast<double>(*energy);
    } else if (const auto charge = Unsigned(directory, "charge_now"); charge && voltage) {
        battery.energyNowMicrowattHours = static_cast<double>(*charge) * *voltage / 1e6;
    }
    BatteryCapacityFigures figures;
    figures.energyFull = Unsigned(directory, "energy_full");
    figures.energyFullDesign = Unsigned(directory, "energy_full_design");
    figures.chargeFull = Unsigned(directory, "charge_full");
    figures.chargeFullDesign = Unsigned(directory, "charge_full_design");
    if (figures.energyFull) {
        battery.energyFullMicrowattHours = static_cast<double>(*figures.energyFull);
    } else if (figures.chargeFull && voltage) {
        battery.energyFullMicrowattHours = static_cast<double>(*figures.chargeFull) * *voltage / 1e6;
    }
    battery.healthRatio = BatteryHealthRatio(figures);
    battery.cycleCount = Unsigned(directory, "cycle_count");
    return battery;
}

void AddBatteryToFrame(core::HardwareTelemetryFrame& frame, const Battery& battery) {
    const std::string deviceId = "system/battery/" + battery.name;
    auto& device = EnsureDevice(frame, deviceId, core::TelemetryDeviceKind::battery, "Battery " + battery.name);
    core::SetDeviceProperty(device, "parent", "system");
    core::SetDeviceProperty(device, "description", "Battery power supply");
    core::SetDeviceProperty(device, "source", "sysfs");
    if (!battery.status.empty()) core::SetDeviceProperty(device, "status", battery.status);
    if (battery.model) core::SetDeviceProperty(device, "model", *battery.model);
    if (battery.healthRatio) {
        core::SetDeviceProperty(device, "condition", std::string(BatteryConditionText(*battery.healthRatio)));
    }
    if (battery.capacityPercent) {
        AddSensor(frame, {"battery.charge_pct", deviceId, "Charge", "capacity",
                          {core::MetricCategory::levels, core::MetricUnit::percent, core::MetricKind::gauge},
                          *battery.capacityPercent});
    }
    if (battery.powerMicrowatts) {
        AddSensor(frame, {"battery.power_w", deviceId, "Power", std::string(kBatteryPowerNote),
                          {core::MetricCategory::powers, core::MetricUnit::watts, core::MetricKind::gauge},
                          *battery.powerMicrowatts / 1e6});
    }
    if (battery.cycleCount) {
        AddSensor(frame, {"battery.cycle_count", deviceId, "Cycle count", "cycle_count",
                          {core::MetricCategory::counters, core::MetricUnit::count, core::MetricKind::gauge},
                          static_cast<double>(*battery.cycleCount)});
    }
}

// The machine's charge: one battery tells its own capacity; several are weighed by their energy
// when all of them tell it, otherwise their capacities are averaged.
std::optional<double> MachineCharge(const std::vector<Battery>& batteries) {
    if (batteries.size() == 1) return batteries.front().capacityPercent;
    double now = 0.0;
    double full = 0.0;
    bool weighed = true;
    double capacitySum = 0.0;
    std::size_t capacities = 0;
    for (const auto& battery : batteries) {
        if (battery.energyNowMicrowattHours && battery.energyFullMicrowattHours) {
            now += *battery.energyNowMicrowattHours;
            full += *battery.energyFullMicrowattHours;
        } else {
            weighed = false;
        }
        if (battery.capacityPercent) {
            capacitySum += *battery.capacityPercent;
            ++capacities;
        }
    }
    if (weighed && full > 0.0) return ClampPercent(100.0 * now / full);
    if (capacities == 0) return std::nullopt;
    return capacitySum / static_cast<double>(capacities);
}

// Seconds left: the energy of every battery over the power drawn from the discharging ones.
std::optional<std::uint64_t> TimeRemaining(const std::vector<Battery>& batteries) {
    double energy = 0.0;
    double power = 0.0;
    for (const auto& battery : batteries) {
        if (!battery.energyNowMicrowattHours) return std::nullopt;
        energy += *battery.energyNowMicrowattHours;
        if (!battery.Discharging()) continue;
        if (!battery.powerMicrowatts) return std::nullopt;
        power += *battery.powerMicrowatts;
    }
    if (!(power > 0.0)) return std::nullopt;
    const double seconds = energy / power * 3600.0;
    if (!std::isfinite(seconds) || seconds >= 1.8e19) return std::nullopt;
    return static_cast<std::uint64_t>(seconds);
}

template <typename T>
void Missing(core::Metric<T>& metric, core::MetricAvailability reason) {
    metric.source = kSource;
    metric.MarkMissing(reason);
}

template <typename T>
void Put(core::Metric<T>& metric, std::optional<T> value, std::uint64_t generation,
         core::MetricAvailability whenAbsent) {
    metric.source = kSource;
    if (value) {
        metric.Set(std::move(*value), generation);
    } else {
        metric.MarkMissing(whenAbsent);
    }
}

void FillSnapshot(core::SystemSnapshot& snapshot, const std::vector<Battery>& batteries, bool acOnline,
                  bool anySupply, std::uint64_t generation) {
    using core::MetricAvailability;
    const bool discharging = std::any_of(batteries.begin(), batteries.end(), [](const Battery& b) { return b.Discharging(); });
    std::optional<std::string> source;
    if (acOnline) {
        source = std::string(kAcPowerText);
    } else if (discharging) {
        source = std::string(kBatteryText);
    }
    Put(snapshot.powerSource, std::move(source), generation,
        anySupply ? MetricAvailability::notYetAvailable : MetricAvailability::notApplicable);

    snapshot.batteryPresent.source = kSource;
    snapshot.batteryPresent.Set(!batteries.empty(), generation);
    if (batteries.empty()) {
        Missing(snapshot.batteryChargePercent, MetricAvailability::notApplicable);
        Missing(snapshot.batteryCharging, MetricAvailability::notApplicable);
        Missing(snapshot.batteryCycleCount, MetricAvailability::notApplicable);
        Missing(snapshot.batteryCondition, MetricAvailability::notApplicable);
        Missing(snapshot.batteryTimeRemainingSeconds, MetricAvailability::notApplicable);
        return;
    }

    Put(snapshot.batteryChargePercent, MachineCharge(batteries), generation, MetricAvailability::unsupported);
    const bool charging = std::any_of(batteries.begin(), batteries.end(), [](const Battery& b) { return b.Charging(); });
    Put(snapshot.batteryCharging, std::optional<bool>(charging), generation, MetricAvailability::unsupported);

    std::optional<std::uint64_t> cycles;
    std::optional<double> worst;
    for (const auto& battery : batteries) {
        if (battery.cycleCount) cycles = std::max(cycles.value_or(0), *battery.cycleCount);
        if (battery.healthRatio) worst = std::min(worst.value_or(*battery.healthRatio), *battery.healthRatio);
    }
    Put(snapshot.batteryCycleCount, cycles, generation, MetricAvailability::unsupported);
    Put(snapshot.batteryCondition,
        worst ? std::optional<std::string>(std::string(BatteryConditionText(*worst))) : std::nullopt, generation,
        MetricAvailability::unsupported);
    if (discharging) {
        Put(snapshot.batteryTimeRemainingSeconds, TimeRemaining(batteries), generation,
            MetricAvailability::notYetAvailable);
    } else {
        Missing(snapshot.batteryTimeRemainingSeconds, MetricAvailability::notApplicable);
    }
}

void MarkAllMissing(core::SystemSnapshot& snapshot, core::MetricAvailability reason) {
    Missing(snapshot.powerSource, reason);
    Missing(snapshot.batteryPresent, reason);
    Missing(snapshot.batteryChargePercent, reason);
    Missing(snapshot.batteryCharging, reason);
    Missing(snapshot.batteryCycleCount, reason);
    Missing(snapshot.batteryCondition, reason);
    Missing(snapshot.batteryTimeRemainingSeconds, reason);
}

}  // namespace

std::optional<double> BatteryHealthRatio(const BatteryCapacityFigures& figures) noexcept {
    if (figures.energyFull && figures.energyFullDesign && *figures.energyFullDesign > 0) {
        return static_cast<double>(*figures.energyFull) / static_cast<double>(*figures.energyFullDesign);
    }
    if (figures.chargeFull && figures.chargeFullDesign && *figures.chargeFullDesign > 0) {
        return static_cast<double>(*figures.chargeFull) / static_cast<double>(*figures.chargeFullDesign);
    }
    return std::nullopt;
}

std::string_view BatteryConditionText(double ratio) noexcept {
    return ratio >= 0.8 ? "Normal" : "Service Recommended";
}

PowerSupplyCollector::PowerSupplyCollector(ProviderRoots roots) : classDirectory_(roots.sys / "class" / "power_supply") {}

StageResult PowerSupplyCollector::Collect(const CollectContext& context, core::HardwareTelemetryFrame& frame,
                                          core::SystemSnapshot& snapshot) {
    const std::uint64_t started = SteadyNowNs();
    StageResult result;
    std::error_code ec;
    fs::directory_iterator it(classDirectory_, ec);
    if (ec) {
        result.error = ec.value();
        result.message = ec.value() == ENOENT ? "This system has no power supply directory"
                                              : "The power supply directory cannot be read: " + ec.message();
        MarkAllMissing(snapshot, AvailabilityFromErrno(ec.value()));
        result.durationNs = SteadyNowNs() - started;
        return result;
    }

    std::vector<Battery> batteries;
    std::size_t externalSources = 0;
    bool acOnline = false;
    for (const fs::directory_iterator end; it != end; it.increment(ec)) {
        if (ec) break;
        if (context.stop.stop_requested()) return result;
        const fs::path directory = it->path();
        const auto type = Text(directory, "type");
        if (!type) continue;
        // A peripheral's supply (scope "Device") neither powers nor stands for the machine.
        if (Text(directory, "scope").value_or(std::string()) == "Device") continue;
        if (IsExternalSource(*type)) {
            ++externalSources;
            const auto online = Unsigned(directory, "online");
            acOnline = acOnline || (online && *online != 0);
        } else if (*type == "Battery") {
            const auto present = Unsigned(directory, "present");
            if (present && *present == 0) continue;
            batteries.push_back(ReadBattery(directory, directory.filename().string()));
        }
    }
    std::sort(batteries.begin(), batteries.end(), [](const Battery& a, const Battery& b) { return a.name < b.name; });

    for (const auto& battery : batteries) AddBatteryToFrame(frame, battery);
    FillSnapshot(snapshot, batteries, acOnline, externalSources > 0 || !batteries.empty(), context.generation);
    if (snapshot.powerSource.value) {
        auto& system = EnsureDevice(frame, "system", core::TelemetryDeviceKind::system, "Whole system");
        core::SetDeviceProperty(system, "powerSource", *snapshot.powerSource.value);
    }

    result.ok = true;
    result.message = "Read " + std::to_string(batteries.size()) + (batteries.size() == 1 ? " battery" : " batteries") +
                     " and " + std::to_string(externalSources) +
                     (externalSources == 1 ? " external power source" : " external power sources");
    result.durationNs = SteadyNowNs() - started;
    return result;
}

}  // namespace korv::providers
