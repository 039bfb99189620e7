#include "host/linux_client/performance_device_list.h"

#include "host/linux_client/performance_metric_text.h"
#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>

namespace korv::host::linux_client {
namespace {

using core::DeviceKind;

QString Text(const char* source) {
    return QCoreApplication::translate("PerformancePage", source);
}

// Combined rows exist only for two or more members, so the plural is safe.
QString Counted(const char* source, std::size_t count) {
    return Text(source).arg(count);
}

QString Name(const std::string& text) {
    return QString::fromStdString(text);
}

QString StringOr(const core::Metric<std::string>& metric, const QString& fallback) {
    return HasReading(metric) && !metric.value->empty() ? Name(*metric.value) : fallback;
}

bool OffersCpu(const core::SystemSnapshot& s) {
    return s.logicalProcessorCount > 0 || !s.logicalProcessors.empty() || HasReading(s.cpuUtilization) ||
           HasReading(s.cpuModel);
}

bool OffersBattery(const core::SystemSnapshot& s) {
    return HasReading(s.batteryPresent) && *s.batteryPresent.value;
}

QString DeviceTitle(DeviceKind kind, const core::DeviceSnapshot& device, int ordinal) {
    switch (kind) {
    case DeviceKind::disk: {
        const QString name = device.displayName.empty() ? Name(device.disk.blockName) : Name(device.displayName);
        return name.isEmpty() ? Text("Disk %1").arg(ordinal) : Text("Disk %1 (%2)").arg(ordinal).arg(name);
    }
    case DeviceKind::network: {
        const QString name = device.displayName.empty() ? StringOr(device.network.interfaceName, QString())
                                                        : Name(device.displayName);
        return name.isEmpty() ? Text("Network %1").arg(ordinal) : name;
    }
    case DeviceKind::gpu:
        return Text("GPU %1").arg(ordinal);
    default:
        return Name(device.displayName);
    }
}

QString CombinedTitle(DeviceKind kind) {
    switch (kind) {
    case DeviceKind::disk:
        return Text("Disks");
    case DeviceKind::network:
        return Text("Network");
    default:
        return Text("GPUs");
    }
}

QString KindPrefix(DeviceKind kind) {
    switch (kind) {
    case DeviceKind::disk:
        return QStringLiteral("disk");
    case DeviceKind::network:
        return QStringLiteral("network");
    default:
        return QStringLiteral("gpu");
    }
}

QString CombinedId(DeviceKind kind) {
    switch (kind) {
    case DeviceKind::disk:
        return QStringLiteral("disks");
    case DeviceKind::network:
        return QStringLiteral("network");
    default:
        return QStringLiteral("gpus");
    }
}

void AddKind(std::vector<DeviceRowSpec>& rows, const core::SystemSnapshot& snapshot, DeviceKind kind, bool combine) {
    std::vector<std::size_t> members;
    for (std::size_t index = 0; index < snapshot.devices.size(); ++index) {
        if (snapshot.devices[index].kind == kind) {
            members.push_back(index);
        }
    }
    if (members.empty()) {
        return;
    }
    if (combine && members.size() >= 2) {
        rows.push_back(DeviceRowSpec{kind, CombinedId(kind), CombinedTitle(kind), true, std::move(members)});
        return;
    }
    int ordinal = 0;
    for (const std::size_t index : members) {
        const core::DeviceSnapshot& device = snapshot.devices[index];
        rows.push_back(DeviceRowSpec{kind, KindPrefix(kind) + QLatin1Char(':') + Name(device.id),
                                     DeviceTitle(kind, device, ordinal), false, {index}});
        ++ordinal;
    }
}

template <typename T, typename Read>
std::optional<double> Sum(const DeviceRowSpec& row, const core::SystemSnapshot& snapshot, Read read, bool mean) {
    double total = 0.0;
    int count = 0;
    for (const std::size_t index : row.members) {
        const core::Metric<T>& metric = read(snapshot.devices[index]);
        if (HasReading(metric)) {
            total += static_cast<double>(*metric.value);
            ++count;
        }
    }
    if (count == 0) return std::nullopt;
    return mean ? total / count : total;
}

QString OrDash(const std::optional<double>& value, QString (*format)(double)) {
    return value ? format(*value) : QStringLiteral("—");
}

QString CpuSubtitle(const core::SystemSnapshot& s) {
    QString text = MetricText(s.cpuUtilization, [](double value) { return FormatPercent(value); });
    if (HasReading(s.cpuFrequencyHz)) {
        text += QStringLiteral("  ") + MetricText(s.cpuFrequencyHz, [](std::uint64_t hz) {
                    return FormatClock(static_cast<double>(hz));
                });
    }
    return text;
}

QString MemorySubtitle(const core::SystemSnapshot& s) {
    if (!HasReading(s.memoryInUseBytes)) {
        return FormatAvailability(s.memoryInUseBytes.availability);
    }
    const std::uint64_t used = *s.memoryInUseBytes.value;
    if (!HasReading(s.memoryTotalBytes) || *s.memoryTotalBytes.value == 0) {
        return AppendStale(FormatBytes(used), s.memoryInUseBytes.availability);
    }
    const std::uint64_t total = *s.memoryTotalBytes.value;
    const double percent = 100.0 * static_cast<double>(used) / static_cast<double>(total);
    return AppendStale(Text("%1 / %2 (%3)").arg(FormatBytes(used), FormatBytes(total), QString::number(percent, 'f', 0) +
                                                                                              QLatin1Char('%')),
                       s.memoryInUseBytes.availability);
}

QString DiskSubtitle(const DeviceRowSpec& row, const core::SystemSnapshot& s) {
    if (row.combined) {
        const auto active = Sum<double>(row, s, [](const core::DeviceSnapshot& d) -> const auto& {
            return d.disk.activePercent;
        }, true);
        return Counted("%1 disks", row.members.size()) + QLatin1Char('\n') +
               OrDash(active, &FormatPercent);
    }
    const core::DiskBlock& disk = s.devices[row.members.front()].disk;
    const QString kind = StringOr(disk.type, StringOr(disk.description, Text("Disk")));
    return kind + QLatin1Char('\n') + MetricText(disk.activePercent, [](double value) { return FormatPercent(value); });
}

QString NetworkSubtitle(const DeviceRowSpec& row, const core::SystemSnapshot& s) {
    const auto send = Sum<double>(row, s, [](const core::DeviceSnapshot& d) -> const auto& {
        return d.network.sendBytesPerSecond;
    }, false);
    const auto receive = Sum<double>(row, s, [](const core::DeviceSnapshot& d) -> const auto& {
        return d.network.receiveBytesPerSecond;
    }, false);
    // Two lines: both rates side by side do not fit the list's width.
    return Text("S: %1").arg(OrDash(send, &FormatRate)) + QLatin1Char('\n') +
           Text("R: %1").arg(OrDash(receive, &FormatRate));
}

QString GpuSubtitle(const DeviceRowSpec& row, const core::SystemSnapshot& s) {
    const auto utilization = Sum<double>(row, s, [](const core::DeviceSnapshot& d) -> const auto& {
        return d.gpu.utilizationPercent;
    }, true);
    QString first;
    QString second = OrDash(utilization, &FormatPercent);
    if (row.combined) {
        first = Counted("%1 GPUs", row.members.size());
    } else {
        const core::DeviceSnapshot& device = s.devices[row.members.front()];
        first = device.displayName.empty() ? Text("GPU") : Name(device.displayName);
        if (HasReading(device.gpu.temperatureCelsius)) {
            second += QStringLiteral("  ") + MetricText(device.gpu.temperatureCelsius, &FormatTemperature);
        }
    }
    return first + QLatin1Char('\n') + second;
}

QString BatterySubtitle(const core::SystemSnapshot& s) {
    QString text = MetricText(s.batteryChargePercent, [](double value) { return FormatPercent(value); });
    if (HasReading(s.batteryCharging)) {
        text += QStringLiteral(" · ") + (*s.batteryCharging.value ? Text("Charging") : Text("On battery"));
    }
    return text;
}

}  // namespace

DeviceListOptions DeviceListOptionsFrom(const core::Settings& settings) {
    return DeviceListOptions{core::ReadBoolPreference(settings, core::kCombinedDisks),
                             core::ReadBoolPreference(settings, core::kCombinedNetwork),
                             core::ReadBoolPreference(settings, core::kCombinedGpus)};
}

std::vector<DeviceRowSpec> BuildDeviceRows(const core::SystemSnapshot& snapshot, const DeviceListOptions& options) {
    std::vector<DeviceRowSpec> rows;
    if (OffersCpu(snapshot)) {
        rows.push_back(DeviceRowSpec{DeviceKind::cpu, QStringLiteral("cpu"), Text("CPU"), false, {}});
    }
    if (HasReading(snapshot.memoryTotalBytes)) {
        rows.push_back(DeviceRowSpec{DeviceKind::memory, QStringLiteral("memory"), Text("Memory"), false, {}});
    }
    AddKind(rows, snapshot, DeviceKind::disk, options.combinedDisks);
    AddKind(rows, snapshot, DeviceKind::network, options.combinedNetwork);
    AddKind(rows, snapshot, DeviceKind::gpu, options.combinedGpus);
    if (OffersBattery(snapshot)) {
        rows.push_back(DeviceRowSpec{DeviceKind::energy, QStringLiteral("battery"), Text("Battery"), false, {}});
    }
    return rows;
}

QString DeviceRowSubtitle(const DeviceRowSpec& row, const core::SystemSnapshot& snapshot) {
    switch (row.kind) {
    case DeviceKind::cpu:
        return CpuSubtitle(snapshot);
    case DeviceKind::memory:
        return MemorySubtitle(snapshot);
    case DeviceKind::disk:
        return DiskSubtitle(row, snapshot);
    case DeviceKind::network:
        return NetworkSubtitle(row, snapshot);
    case DeviceKind::gpu:
        return GpuSubtitle(row, snapshot);
    case DeviceKind::energy:
        return BatterySubtitle(snapshot);
    default:
        return {};
    }
}

QString NoDevicesText() {
    return Text("No Linux devices available");
}

}  // namespace korv::host::linux_client
