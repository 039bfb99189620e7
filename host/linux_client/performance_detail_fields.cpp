#include "host/linux_client/performance_detail_fields.h"

#include "core/telemetry_frame.h"
#include "host/linux_client/performance_metric_text.h"
#include "host/linux_client/system_info_catalog.h"
#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>
#include <QStringList>

#include <cerrno>
#include <functional>
#include <optional>

namespace korv::host::linux_client {
namespace {

using core::DeviceKind;
using core::MetricAvailability;

constexpr const char* kPowercapProvider = "linux.powercap";

QString Text(const char* source) {
    return QCoreApplication::translate("PerformancePage", source);
}

QString Separator() {
    return QStringLiteral(" · ");
}

QString YesNo(bool value) {
    return value ? Text("Yes") : Text("No");
}

QString Count(std::uint64_t value) {
    return QString::number(value);
}

QString Milliseconds(double value) {
    return Text("%1 ms").arg(value, 0, 'f', value < 10.0 ? 2 : 1);
}

QString Megabits(std::uint64_t bitsPerSecond) {
    return Text("%1 Mb/s").arg(static_cast<double>(bitsPerSecond) / 1e6, 0, 'f', 0);
}

QString Str(const std::string& text) {
    return QString::fromStdString(text);
}

std::optional<QString> StringText(const core::Metric<std::string>& metric) {
    if (!HasReading(metric) || metric.value->empty()) return std::nullopt;
    return AppendStale(Str(*metric.value), metric.availability);
}

// Parts that have a value, joined with " · "; nothing when none has.
std::optional<QString> Join(std::initializer_list<std::optional<QString>> parts) {
    QStringList present;
    for (const auto& part : parts) {
        if (part && !part->isEmpty()) present << *part;
    }
    if (present.isEmpty()) return std::nullopt;
    return present.join(Separator());
}

class Fields {
public:
    void Add(const char* label, const std::optional<QString>& value, const QString& note = {}) {
        if (value) list_.push_back(DetailField{Text(label), *value, note});
    }
    template <typename T, typename Format>
    void Add(const char* label, const core::Metric<T>& metric, Format format) {
        Add(label, OptionalMetricText(metric, format));
    }
    void Add(const char* label, const core::Metric<std::string>& metric) { Add(label, StringText(metric)); }
    void Add(const char* label, const core::Metric<bool>& metric) {
        Add(label, OptionalMetricText(metric, &YesNo));
    }
    DetailFieldList Take() { return std::move(list_); }

private:
    DetailFieldList list_;
};

// A figure over the members of a row: the sum or the mean of those that have a reading, stale
// when any of them is.
struct Aggregate {
    double value = 0.0;
    int count = 0;
    bool stale = false;
};

template <typename T>
using Accessor = std::function<const core::Metric<T>&(const core::DeviceSnapshot&)>;

template <typename T>
Aggregate Collect(const core::SystemSnapshot& s, const DeviceRowSpec& row, const Accessor<T>& read) {
    Aggregate result;
    for (const std::size_t index : row.members) {
        const core::Metric<T>& metric = read(s.devices[index]);
        if (!HasReading(metric)) continue;
        result.value += static_cast<double>(*metric.value);
        result.stale = result.stale || metric.availability == MetricAvailability::stale;
        ++result.count;
    }
    return result;
}

template <typename T, typename Format>
std::optional<QString> SumText(const core::SystemSnapshot& s, const DeviceRowSpec& row, const Accessor<T>& read,
                               Format format) {
    const Aggregate total = Collect(s, row, read);
    if (total.count == 0) return std::nullopt;
    return AppendStale(format(total.value), total.stale ? MetricAvailability::stale : MetricAvailability::valid);
}

template <typename T, typename Format>
std::optional<QString> MeanText(const core::SystemSnapshot& s, const DeviceRowSpec& row, const Accessor<T>& read,
                                Format format) {
    Aggregate total = Collect(s, row, read);
    if (total.count == 0) return std::nullopt;
    return AppendStale(format(total.value / total.count),
                       total.stale ? MetricAvailability::stale : MetricAvailability::valid);
}

// The distinct texts of the members, in member order.
template <typename T, typename Format>
std::optional<QString> DistinctText(const core::SystemSnapshot& s, const DeviceRowSpec& row, const Accessor<T>& read,
                                    Format format) {
    QStringList texts;
    for (const std::size_t index : row.members) {
        const auto text = OptionalMetricText(read(s.devices[index]), format);
        if (text && !text->isEmpty() && !texts.contains(*text)) texts << *text;
    }
    if (texts.isEmpty()) return std::nullopt;
    return texts.join(Separator());
}

QString Bytes(double value) {
    return FormatBytes(static_cast<std::uint64_t>(value));
}

QString Rate(double value) {
    return FormatRate(value);
}

QString Percent(double value) {
    return FormatPercent(value);
}

QString Plain(const std::string& text) {
    return Str(text);
}

std::optional<QString> UsedOfTotal(const core::Metric<std::uint64_t>& used, const core::Metric<std::uint64_t>& total) {
    if (!HasReading(used)) {
        return OptionalMetricText(total, [](std::uint64_t value) { return FormatBytes(value); });
    }
    const MetricAvailability availability =
        used.availability == MetricAvailability::stale || total.availability == MetricAvailability::stale
            ? MetricAvailability::stale
            : MetricAvailability::valid;
    if (!HasReading(total)) return AppendStale(FormatBytes(*used.value), availability);
    return AppendStale(Text("%1 / %2").arg(FormatBytes(*used.value), FormatBytes(*total.value)), availability);
}

DetailFieldList CpuFields(const core::SystemSnapshot& s) {
    Fields f;
    if (!s.processes.empty()) f.Add("Processes", Count(s.processes.size()));
    if (HasReading(s.totalTasks)) {
        f.Add("Threads", s.totalTasks, &Count);
    } else {
        std::uint64_t threads = 0;
        for (const auto& process : s.processes) {
            if (HasReading(process.threadCount)) threads += *process.threadCount.value;
        }
        if (threads > 0) f.Add("Threads", Count(threads));
    }
    if (s.uptimeNs > 0) f.Add("Up time", FormatUptime(s.uptimeNs / 1'000'000'000ULL));
    f.Add("Base speed", s.cpuBaseFrequencyHz, [](std::uint64_t hz) { return FormatClock(static_cast<double>(hz)); });
    f.Add("Sockets", s.socketCount, &Count);
    f.Add("Physical cores", s.physicalCoreCount, &Count);
    if (s.logicalProcessorCount > 0) f.Add("Logical processors", Count(s.logicalProcessorCount));
    f.Add("Virtualization", s.virtualization);
    f.Add("Virtual machine", s.virtualMachine);
    f.Add("Frequency driver", s.frequencyDriver);
    f.Add("Governor", Join({StringText(s.frequencyGovernor), StringText(s.powerPreference)}));
    if (HasReading(s.cpuPowerWatts)) {
        f.Add("Power", s.cpuPowerWatts, &FormatPower);
    } else if (PowercapAccessNeeded(s)) {
        f.Add("Power", Text("Access needed"), Text("Read permission, which by default only root has"));
    }
    return f.Take();
}

DetailFieldList MemoryFields(const core::SystemSnapshot& s) {
    Fields f;
    const auto bytes = [](std::uint64_t value) { return FormatBytes(value); };
    f.Add("Available", s.memoryAvailableBytes, bytes);
    f.Add("Cached", s.memoryCachedBytes, bytes);
    if (HasReading(s.swapUsedBytes)) f.Add("Swap used", UsedOfTotal(s.swapUsedBytes, s.swapTotalBytes));
    f.Add("Buffers", s.memoryBuffersBytes, bytes);
    f.Add("Shared", s.memorySharedBytes, bytes);
    f.Add("Slab", s.memoryKernelSlabBytes, bytes);
    f.Add("Memory PSI some avg10", s.memoryPsiSomeAvg10, &Percent);
    return f.Take();
}

DetailFieldList DiskFields(const core::SystemSnapshot& s, const DeviceRowSpec& row) {
    Fields f;
    const Accessor<std::uint64_t> capacity = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.capacityBytes; };
    const Accessor<double> active = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.activePercent; };
    const Accessor<double> read = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.readBytesPerSecond; };
    const Accessor<double> write = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.writeBytesPerSecond; };
    const Accessor<std::string> type = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.type; };
    const Accessor<bool> rotational = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.rotational; };
    const Accessor<std::uint64_t> readTotal = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.readBytesTotal; };
    const Accessor<std::uint64_t> writeTotal = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.writeBytesTotal; };
    const Accessor<std::uint64_t> blockSize = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.logicalBlockSize; };
    const Accessor<std::string> scheduler = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.scheduler; };
    const Accessor<double> response = [](const core::DeviceSnapshot& d) -> const auto& { return d.disk.averageResponseMs; };

    f.Add("Capacity", SumText(s, row, capacity, &Bytes));
    f.Add("Utilization", MeanText(s, row, active, &Percent));
    const Aggregate readRate = Collect(s, row, read);
    const Aggregate writeRate = Collect(s, row, write);
    if (readRate.count + writeRate.count > 0) {
        f.Add("Speed", AppendStale(FormatRate(readRate.value + writeRate.value),
                                   readRate.stale || writeRate.stale ? MetricAvailability::stale
                                                                     : MetricAvailability::valid));
    }
    std::optional<QString> media = DistinctText(s, row, type, &Plain);
    if (!row.combined) {
        const core::DiskBlock& disk = s.devices[row.members.front()].disk;
        if (HasReading(disk.systemDisk) && *disk.systemDisk.value) {
            media = Join({media, Text("System disk")});
        }
    }
    f.Add("Media", media);
    f.Add("Rotational", DistinctText(s, row, rotational, &YesNo));
    f.Add("Write", SumText(s, row, write, &Rate));
    f.Add("Read", SumText(s, row, read, &Rate));
    f.Add("Total read", SumText(s, row, readTotal, &Bytes));
    f.Add("Total written", SumText(s, row, writeTotal, &Bytes));
    f.Add("Logical block size", DistinctText(s, row, blockSize, [](std::uint64_t v) { return FormatBytes(v); }));
    f.Add("I/O scheduler", DistinctText(s, row, scheduler, &Plain));
    f.Add("Solid state", DistinctText(s, row, rotational, [](bool spinning) { return YesNo(!spinning); }));
    f.Add("Average response", MeanText(s, row, response, &Milliseconds));
    return f.Take();
}

DetailFieldList NetworkFields(const core::SystemSnapshot& s, const DeviceRowSpec& row) {
    Fields f;
    const Accessor<double> send = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.sendBytesPerSecond; };
    const Accessor<double> receive = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.receiveBytesPerSecond; };
    const Accessor<std::uint64_t> received = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.receivedBytesTotal; };
    const Accessor<std::uint64_t> sent = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.sentBytesTotal; };
    const Accessor<std::string> name = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.interfaceName; };
    const Accessor<std::string> type = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.type; };
    const Accessor<std::string> ipv4 = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.ipv4Addresses; };
    const Accessor<std::string> ipv6 = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.ipv6Addresses; };
    const Accessor<std::uint64_t> mtu = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.mtu; };
    const Accessor<std::string> state = [](const core::DeviceSnapshot& d) -> const auto& { return d.network.state; };

    f.Add("Send", SumText(s, row, send, &Rate));
    f.Add("Receive", SumText(s, row, receive, &Rate));
    f.Add("Total received", SumText(s, row, received, &Bytes));
    f.Add("Total sent", SumText(s, row, sent, &Bytes));
    if (row.combined) {
        f.Add("Interface", DistinctText(s, row, name, &Plain));
        f.Add("Type", DistinctText(s, row, type, &Plain));
        f.Add("IPv4", DistinctText(s, row, ipv4, &Plain));
        f.Add("IPv6", DistinctText(s, row, ipv6, &Plain));
        f.Add("MTU", DistinctText(s, row, mtu, &Count));
        f.Add("Operational state", DistinctText(s, row, state, &Plain));
        return f.Take();
    }
    const core::NetworkBlock& n = s.devices[row.members.front()].network;
    f.Add("Interface", Join({StringText(n.interfaceName), StringText(n.hardwareAddress)}));
    f.Add("Type", Join({StringText(n.type), StringText(n.networkName),
                        OptionalMetricText(n.signalStrengthPercent, [](double v) {
                            return Text("Signal %1").arg(FormatPercent(v));
                        })}));
    f.Add("IPv4", n.ipv4Addresses);
    f.Add("IPv6", n.ipv6Addresses);
    f.Add("MTU", n.mtu, &Count);
    f.Add("Operational state", Join({StringText(n.state), OptionalMetricText(n.linkBitsPerSecond, &Megabits)}));
    return f.Take();
}

DetailFieldList GpuFields(const core::SystemSnapshot& s, const DeviceRowSpec& row) {
    Fields f;
    const auto clock = [](std::uint64_t hz) { return FormatClock(static_cast<double>(hz)); };
    if (row.combined) {
        const Accessor<double> power = [](const core::DeviceSnapshot& d) -> const auto& { return d.gpu.powerWatts; };
        const Accessor<std::uint64_t> dedicated = [](const core::DeviceSnapshot& d) -> const auto& { return d.gpu.dedicatedMemoryBytes; };
        const Accessor<std::uint64_t> shared = [](const core::DeviceSnapshot& d) -> const auto& { return d.gpu.sharedMemoryBytes; };
        const Accessor<double> encode = [](const core::DeviceSnapshot& d) -> const auto& { return d.gpu.videoEncodePercent; };
        const Accessor<double> decode = [](const core::DeviceSnapshot& d) -> const auto& { return d.gpu.videoDecodePercent; };
        const Accessor<std::string> driver = [](const core::DeviceSnapshot& d) -> const auto& { return d.gpu.driver; };
        f.Add("Power draw", SumText(s, row, power, &FormatPower));
        f.Add("Dedicated GPU memory", SumText(s, row, dedicated, &Bytes));
        f.Add("Shared GPU memory", SumText(s, row, shared, &Bytes));
        f.Add("Video encode", MeanText(s, row, encode, &Percent));
        f.Add("Video decode", MeanText(s, row, decode, &Percent));
        f.Add("Driver version", DistinctText(s, row, driver, &Plain));
        return f.Take();
    }
    const core::GpuBlock& g = s.devices[row.members.front()].gpu;
    f.Add("Current clock", g.clockHz, clock);
    f.Add("Power draw", g.powerWatts, &FormatPower);
    f.Add("Max clock", g.maximumClockHz, clock);
    f.Add("Memory clock", g.memoryClockHz, clock);
    f.Add("Max memory clock", g.maximumMemoryClockHz, clock);
    f.Add("Power limit", g.powerLimitWatts, &FormatPower);
    if (HasReading(g.dedicatedMemoryBytes)) f.Add("Dedicated GPU memory", UsedOfTotal(g.inUseMemoryBytes, g.dedicatedMemoryBytes));
    if (HasReading(g.sharedMemoryBytes)) f.Add("Shared GPU memory", UsedOfTotal(g.sharedInUseMemoryBytes, g.sharedMemoryBytes));
    f.Add("Video encode", g.videoEncodePercent, &Percent);
    f.Add("Video decode", g.videoDecodePercent, &Percent);
    const auto openGl = OptionalMetricText(g.openGlVersion, [](const std::string& v) { return Text("OpenGL %1").arg(Str(v)); });
    const auto vulkan = OptionalMetricText(g.vulkanVersion, [](const std::string& v) { return Text("Vulkan %1").arg(Str(v)); });
    f.Add("Graphics API", openGl || vulkan ? Join({openGl, vulkan}) : StringText(g.graphicsApi));
    f.Add("PCI Express", g.link);
    f.Add("Driver version", Join({StringText(g.driver), StringText(g.driverVersion)}));
    f.Add("Physical location", g.bus);
    return f.Take();
}

DetailFieldList BatteryFields(const core::SystemSnapshot& s) {
    Fields f;
    f.Add("Power source", s.powerSource);
    f.Add("Charging", s.batteryCharging);
    f.Add("Cycle count", s.batteryCycleCount, &Count);
    f.Add("Condition", s.batteryCondition);
    f.Add("Thermal state", s.thermalState);
    return f.Take();
}

QString FormatDuration(std::uint64_t seconds) {
    return Text("%1:%2").arg(seconds / 3600).arg((seconds / 60) % 60, 2, 10, QLatin1Char('0'));
}

}  // namespace

bool PowercapAccessNeeded(const core::SystemSnapshot& snapshot) {
    if (snapshot.cpuPowerWatts.availability == MetricAvailability::accessDenied) return true;
    for (const auto& provider : snapshot.providers) {
        if (provider.provider == kPowercapProvider) {
            return provider.nativeError == EACCES || provider.nativeError == EPERM;
        }
    }
    return false;
}

DetailFieldList DeviceDetailFields(const core::SystemSnapshot& snapshot, const DeviceRowSpec& row) {
    switch (row.kind) {
    case DeviceKind::cpu:
        return CpuFields(snapshot);
    case DeviceKind::memory:
        return MemoryFields(snapshot);
    case DeviceKind::disk:
        return DiskFields(snapshot, row);
    case DeviceKind::network:
        return NetworkFields(snapshot, row);
    case DeviceKind::gpu:
        return GpuFields(snapshot, row);
    case DeviceKind::energy:
        return BatteryFields(snapshot);
    default:
        return {};
    }
}

DetailFieldList DeviceFigures(const core::SystemSnapshot& s, const DeviceRowSpec& row) {
    Fields f;
    switch (row.kind) {
    case DeviceKind::cpu:
        f.Add("Utilization", s.cpuUtilization, &Percent);
        f.Add("Speed", s.cpuFrequencyHz, [](std::uint64_t hz) { return FormatClock(static_cast<double>(hz)); });
        if (s.telemetry) {
            const core::TelemetryMetric* temperature = s.telemetry->Find("cpu.package.temperature_c");
            if (temperature != nullptr && temperature->numericValue && CarriesValue(temperature->availability)) {
                f.Add("Temperature", AppendStale(FormatTemperature(*temperature->numericValue), temperature->availability));
            }
        }
        break;
    case DeviceKind::memory:
        f.Add("In use", s.memoryInUseBytes, [](std::uint64_t v) { return FormatBytes(v); });
        if (HasReading(s.memoryCommittedBytes)) f.Add("Committed", UsedOfTotal(s.memoryCommittedBytes, s.memoryCommitLimitBytes));
        f.Add("Memory pressure", s.memoryPressurePercent, &Percent);
        break;
    case DeviceKind::gpu: {
        const Accessor<double> utilization = [](const core::DeviceSnapshot& d) -> const auto& { return d.gpu.utilizationPercent; };
        f.Add("Utilization", MeanText(s, row, utilization, &Percent));
        if (!row.combined) {
            const core::GpuBlock& g = s.devices[row.members.front()].gpu;
            if (HasReading(g.inUseMemoryBytes)) f.Add("GPU memory", UsedOfTotal(g.inUseMemoryBytes, g.totalMemoryBytes));
            f.Add("Temperature", g.temperatureCelsius, &FormatTemperature);
        }
        break;
    }
    case DeviceKind::energy:
        f.Add("Charge", s.batteryChargePercent, &Percent);
        f.Add("Time remaining", s.batteryTimeRemainingSeconds, &FormatDuration);
        break;
    default:
        break;
    }
    return f.Take();
}

QString DeviceModelText(const core::SystemSnapshot& s, const DeviceRowSpec& row) {
    switch (row.kind) {
    case DeviceKind::cpu:
        return StringText(s.cpuModel).value_or(QString());
    case DeviceKind::memory:
        return Join({OptionalMetricText(s.memoryTotalBytes, [](std::uint64_t v) { return FormatBytes(v); }),
                     StringText(s.memoryType), StringText(s.memoryFormFactor)})
            .value_or(QString());
    case DeviceKind::disk:
        if (row.combined) return {};
        return StringText(s.devices[row.members.front()].disk.description).value_or(QString());
    case DeviceKind::network:
        if (row.combined) return {};
        return StringText(s.devices[row.members.front()].network.hardware).value_or(QString());
    case DeviceKind::gpu:
        if (row.combined) return {};
        return Str(s.devices[row.members.front()].displayName);
    default:
        return {};
    }
}

DevicePaneText BuildDevicePaneText(const core::SystemSnapshot& snapshot, const DeviceRowSpec& row) {
    return DevicePaneText{row.title, DeviceModelText(snapshot, row), DeviceFigures(snapshot, row),
                          DeviceDetailFields(snapshot, row)};
}

QString PaneClipboardText(const DevicePaneText& pane) {
    QString text = pane.title + QLatin1Char('\n');
    if (!pane.model.isEmpty()) text += pane.model + QLatin1Char('\n');
    text += QLatin1Char('\n');
    text += DetailFieldsText(pane.figures);
    text += DetailFieldsText(pane.fields);
    return text;
}

}  // namespace korv::host::linux_client
