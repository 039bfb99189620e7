#include "host/linux_client/system_info_catalog.h"

#include "core/telemetry_frame.h"
#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QStringList>

#include <algorithm>
#include <set>
#include <string>

namespace korv::host::linux_client {
namespace {

using core::Metric;
using core::MetricAvailability;

QString Tr(const char* text) {
    return QCoreApplication::translate("SystemInfoCatalog", text);
}

QString Dash() {
    return QStringLiteral("—");
}

// A metric that holds no value shows why, in the shared words; a stale one carries " (stale)".
template <typename T, typename Format>
QString Show(const Metric<T>& metric, Format format) {
    if (!metric.value) {
        const QString word = FormatAvailability(metric.availability);
        return word.isEmpty() ? Dash() : word;
    }
    return AppendStale(format(*metric.value), metric.availability);
}

QString Text(const Metric<std::string>& metric) {
    return Show(metric, [](const std::string& value) {
        return value.empty() ? Dash() : QString::fromStdString(value);
    });
}

QString Bytes(const Metric<std::uint64_t>& metric) {
    return Show(metric, [](std::uint64_t value) { return FormatBytes(value); });
}

QString Count(const Metric<std::uint64_t>& metric) {
    return Show(metric, [](std::uint64_t value) { return QString::number(value); });
}

QString Clock(const Metric<std::uint64_t>& metric) {
    return Show(metric, [](std::uint64_t value) { return FormatClock(static_cast<double>(value)); });
}

QString Percent(const Metric<double>& metric) {
    return Show(metric, [](double value) { return FormatPercent(value); });
}

QString Rate(const Metric<double>& metric) {
    return Show(metric, [](double value) { return FormatRate(value); });
}

QString Power(const Metric<double>& metric) {
    return Show(metric, [](double value) { return FormatPower(value); });
}

QString Temperature(const Metric<double>& metric) {
    return Show(metric, [](double value) { return FormatTemperature(value); });
}

QString Load(const Metric<double>& metric) {
    return Show(metric, [](double value) { return QString::number(value, 'f', 2); });
}

QString YesNo(const Metric<bool>& metric) {
    return Show(metric, [](bool value) { return value ? Tr("Yes") : Tr("No"); });
}

QString Milliseconds(double ms) {
    return QString::number(ms, 'f', ms < 10.0 ? 2 : 1) + Tr(" ms");
}

QString NanosecondsAsMs(std::uint64_t ns) {
    return Milliseconds(static_cast<double>(ns) / 1e6);
}

SystemInfoRow Row(const char* label, QString value) {
    return SystemInfoRow{Tr(label), std::move(value), 0, {}};
}

void Indent(SystemInfoRow& row, int depth) {
    row.depth = depth;
    for (SystemInfoRow& child : row.children) Indent(child, depth + 1);
}

SystemInfoRow Head(QString label, QString value, std::vector<SystemInfoRow> children) {
    SystemInfoRow head{std::move(label), std::move(value), 0, std::move(children)};
    Indent(head, 0);
    return head;
}

QString DeviceName(const core::DeviceSnapshot& device) {
    return device.displayName.empty() ? QString::fromStdString(device.id) : QString::fromStdString(device.displayName);
}

std::vector<const core::DeviceSnapshot*> DevicesOf(const core::SystemSnapshot& snapshot, core::DeviceKind kind) {
    std::vector<const core::DeviceSnapshot*> found;
    for (const core::DeviceSnapshot& device : snapshot.devices) {
        if (device.kind == kind) found.push_back(&device);
    }
    return found;
}

QString GraphicsNames(const core::SystemSnapshot& snapshot) {
    QStringList names;
    for (const core::DeviceSnapshot* device : DevicesOf(snapshot, core::DeviceKind::gpu)) names << DeviceName(*device);
    return names.isEmpty() ? Dash() : names.join(QStringLiteral(", "));
}

QString Distribution(const core::SystemSnapshot& snapshot) {
    QString text = Text(snapshot.distribution);
    if (snapshot.distribution.value && snapshot.distributionVersion.value && !snapshot.distributionVersion.value->empty()) {
        const QString version = QString::fromStdString(*snapshot.distributionVersion.value);
        if (!text.contains(version)) text += QLatin1Char(' ') + version;
    }
    return text;
}

std::vector<SystemInfoRow> HardwareOverview(const core::SystemSnapshot& s) {
    return {
        Row("Processor", Text(s.cpuModel)),
        Row("Logical processors", QString::number(s.logicalProcessorCount)),
        Row("Physical cores", Count(s.physicalCoreCount)),
        Row("Sockets", Count(s.socketCount)),
        Row("Memory", Bytes(s.memoryTotalBytes)),
        Row("Graphics", GraphicsNames(s)),
        Row("Distribution", Distribution(s)),
        Row("Kernel", Text(s.kernelRelease)),
        Row("Virtual machine", YesNo(s.virtualMachine)),
    };
}

QString NumaNodes(const core::SystemSnapshot& s) {
    std::set<std::uint64_t> nodes;
    for (const core::LogicalProcessorSnapshot& cpu : s.logicalProcessors) {
        if (cpu.numaNode.value) nodes.insert(*cpu.numaNode.value);
    }
    return nodes.empty() ? Dash() : QString::number(nodes.size());
}

QString ClassCount(const core::SystemSnapshot& s, core::ProcessorClass processorClass) {
    if (!s.cpuHybrid.value || !*s.cpuHybrid.value) return Dash();
    const auto count = std::count_if(s.logicalProcessors.begin(), s.logicalProcessors.end(),
                                     [&](const core::LogicalProcessorSnapshot& cpu) {
                                         return cpu.processorClass == processorClass;
                                     });
    return QString::number(count);
}

std::vector<SystemInfoRow> Processor(const core::SystemSnapshot& s) {
    return {
        Row("Model", Text(s.cpuModel)),
        Row("Logical processors", QString::number(s.logicalProcessorCount)),
        Row("Physical cores", Count(s.physicalCoreCount)),
        Row("Sockets", Count(s.socketCount)),
        Row("NUMA nodes", NumaNodes(s)),
        Row("Base frequency", Clock(s.cpuBaseFrequencyHz)),
        Row("Current frequency", Clock(s.cpuFrequencyHz)),
        Row("L1 cache", Bytes(s.cacheL1Bytes)),
        Row("L2 cache", Bytes(s.cacheL2Bytes)),
        Row("L3 cache", Bytes(s.cacheL3Bytes)),
        Row("Performance cores", ClassCount(s, core::ProcessorClass::performance)),
        Row("Efficiency cores", ClassCount(s, core::ProcessorClass::efficiency)),
        Row("Frequency driver", Text(s.frequencyDriver)),
        Row("Frequency governor", Text(s.frequencyGovernor)),
        Row("Power preference", Text(s.powerPreference)),
        Row("Virtualization", Text(s.virtualization)),
        Row("Virtual machine", YesNo(s.virtualMachine)),
    };
}

std::vector<SystemInfoRow> Memory(const core::SystemSnapshot& s) {
    return {
        Row("Physical memory", Bytes(s.memoryTotalBytes)),
        Row("In use", Bytes(s.memoryInUseBytes)),
        Row("Available", Bytes(s.memoryAvailableBytes)),
        Row("Cached", Bytes(s.memoryCachedBytes)),
        Row("Buffers", Bytes(s.memoryBuffersBytes)),
        Row("Shared", Bytes(s.memorySharedBytes)),
        Row("Kernel slab", Bytes(s.memoryKernelSlabBytes)),
        Row("Swap in use", Bytes(s.swapUsedBytes)),
        Row("Swap total", Bytes(s.swapTotalBytes)),
        Row("Committed", Bytes(s.memoryCommittedBytes)),
        Row("Commit limit", Bytes(s.memoryCommitLimitBytes)),
        Row("Memory pressure", Percent(s.memoryPressurePercent)),
        Row("Stall (PSI some, 10s)", Percent(s.memoryPsiSomeAvg10)),
        Row("Page ins", Count(s.pageIns)),
        Row("Page outs", Count(s.pageOuts)),
        Row("Type", Text(s.memoryType)),
        Row("Speed", Show(s.memorySpeed, [](std::uint64_t v) { return Tr("%1 MT/s").arg(v); })),
        Row("Form factor", Text(s.memoryFormFactor)),
        Row("Populated slots", Count(s.memorySlotsPopulated)),
        Row("Total slots", Count(s.memorySlotsTotal)),
    };
}

QString GraphicsApi(const core::GpuBlock& gpu) {
    QStringList apis;
    if (gpu.openGlVersion.value) apis << Tr("OpenGL") + QLatin1Char(' ') + Text(gpu.openGlVersion);
    if (gpu.vulkanVersion.value) apis << Tr("Vulkan") + QLatin1Char(' ') + Text(gpu.vulkanVersion);
    return apis.isEmpty() ? Text(gpu.graphicsApi) : apis.join(QStringLiteral(", "));
}

QString Engines(const std::vector<core::EngineUtilization>& engines) {
    QStringList parts;
    for (const core::EngineUtilization& engine : engines) {
        parts << QString::fromStdString(engine.name) + QLatin1Char(' ') + Percent(engine.utilizationPercent);
    }
    return parts.isEmpty() ? Dash() : parts.join(QStringLiteral(", "));
}

std::vector<SystemInfoRow> Graphics(const core::SystemSnapshot& s) {
    std::vector<SystemInfoRow> rows;
    for (const core::DeviceSnapshot* device : DevicesOf(s, core::DeviceKind::gpu)) {
        const core::GpuBlock& g = device->gpu;
        rows.push_back(Head(Tr("Adapter"), DeviceName(*device), {
            Row("Description", DeviceName(*device)),
            Row("Bus", Text(g.bus)),
            Row("Link", Text(g.link)),
            Row("Memory", Bytes(g.totalMemoryBytes)),
            Row("Memory in use", Bytes(g.inUseMemoryBytes)),
            Row("Dedicated memory", Bytes(g.dedicatedMemoryBytes)),
            Row("Shared memory", Bytes(g.sharedMemoryBytes)),
            Row("Clock", Clock(g.clockHz)),
            Row("Maximum clock", Clock(g.maximumClockHz)),
            Row("Memory clock", Clock(g.memoryClockHz)),
            Row("Maximum memory clock", Clock(g.maximumMemoryClockHz)),
            Row("Power draw", Power(g.powerWatts)),
            Row("Power limit", Power(g.powerLimitWatts)),
            Row("Temperature", Temperature(g.temperatureCelsius)),
            Row("Utilization", Percent(g.utilizationPercent)),
            Row("Video encode", Percent(g.videoEncodePercent)),
            Row("Video decode", Percent(g.videoDecodePercent)),
            Row("Graphics API", GraphicsApi(g)),
            Row("Engines", Engines(g.engines)),
        }));
    }
    return rows;
}

std::vector<SystemInfoRow> Storage(const core::SystemSnapshot& s) {
    std::vector<SystemInfoRow> rows;
    for (const core::DeviceSnapshot* device : DevicesOf(s, core::DeviceKind::disk)) {
        const core::DiskBlock& d = device->disk;
        rows.push_back(Head(Tr("Disk"), DeviceName(*device), {
            Row("Description", Text(d.description)),
            Row("Capacity", Bytes(d.capacityBytes)),
            Row("Type", Text(d.type)),
            Row("Rotational", YesNo(d.rotational)),
            Row("System disk", YesNo(d.systemDisk)),
            Row("Logical block size", Bytes(d.logicalBlockSize)),
            Row("Scheduler", Text(d.scheduler)),
            Row("Read since boot", Bytes(d.readBytesTotal)),
            Row("Written since boot", Bytes(d.writeBytesTotal)),
            Row("Active time", Percent(d.activePercent)),
            Row("Read rate", Rate(d.readBytesPerSecond)),
            Row("Write rate", Rate(d.writeBytesPerSecond)),
            Row("Average response time", Show(d.averageResponseMs, [](double v) { return Milliseconds(v); })),
        }));
    }
    return rows;
}

std::vector<SystemInfoRow> PowerRows(const core::SystemSnapshot& s) {
    const Metric<double>& package = s.socPackagePowerWatts.value ? s.socPackagePowerWatts : s.cpuPowerWatts;
    return {
        Row("Power source", Text(s.powerSource)),
        Row("System power", Power(s.systemPowerWatts)),
        Row("Package power", Power(package)),
        Row("Battery charge", Percent(s.batteryChargePercent)),
        Row("Charging", YesNo(s.batteryCharging)),
        Row("Cycle count", Count(s.batteryCycleCount)),
        Row("Condition", Text(s.batteryCondition)),
        Row("Time remaining", Show(s.batteryTimeRemainingSeconds, [](std::uint64_t seconds) {
                return Tr("%1:%2").arg(seconds / 3600).arg((seconds / 60) % 60, 2, 10, QLatin1Char('0'));
            })),
        Row("Low power mode", YesNo(s.lowPowerMode)),
        Row("Thermal state", Text(s.thermalState)),
    };
}

std::vector<SystemInfoRow> Network(const core::SystemSnapshot& s) {
    std::vector<SystemInfoRow> rows;
    for (const core::DeviceSnapshot* device : DevicesOf(s, core::DeviceKind::network)) {
        const core::NetworkBlock& n = device->network;
        rows.push_back(Head(Tr("Interface"), DeviceName(*device), {
            Row("Interface", Text(n.interfaceName)),
            Row("Type", Text(n.type)),
            Row("State", Text(n.state)),
            Row("Hardware address", Text(n.hardwareAddress)),
            Row("IPv4 address", Text(n.ipv4Addresses)),
            Row("IPv6 address", Text(n.ipv6Addresses)),
            Row("Network name", Text(n.networkName)),
            Row("Signal strength", Percent(n.signalStrengthPercent)),
            Row("Channel frequency", Dash()),
            Row("MTU", Count(n.mtu)),
            Row("Link speed", Show(n.linkBitsPerSecond, [](std::uint64_t bits) {
                    return Tr("%1 Mb/s").arg(bits / 1000000);
                })),
            Row("Total received", Bytes(n.receivedBytesTotal)),
            Row("Total sent", Bytes(n.sentBytesTotal)),
            Row("Receive rate", Rate(n.receiveBytesPerSecond)),
            Row("Send rate", Rate(n.sendBytesPerSecond)),
        }));
    }
    return rows;
}

QString Services(const core::SystemSnapshot& s) {
    if (!s.services) return Dash();
    const auto running = std::count_if(s.services->begin(), s.services->end(), [](const core::ServiceSnapshot& service) {
        return service.state == core::ServiceState::running;
    });
    const auto failed = std::count_if(s.services->begin(), s.services->end(), [](const core::ServiceSnapshot& service) {
        return service.state == core::ServiceState::failed;
    });
    return Tr("%1 (%2 running, %3 failed)").arg(s.services->size()).arg(running).arg(failed);
}

QString Threads(const core::SystemSnapshot& s) {
    std::uint64_t threads = 0;
    for (const core::ProcessSnapshot& process : s.processes) threads += process.threadCount.value.value_or(0);
    return QString::number(threads);
}

std::vector<SystemInfoRow> OperatingSystem(const core::SystemSnapshot& s) {
    return {
        Row("Distribution", Distribution(s)),
        Row("Kernel release", Text(s.kernelRelease)),
        Row("Processes", QString::number(s.processes.size())),
        Row("Threads", Threads(s)),
        Row("Load average (1 min)", Load(s.loadAverage1)),
        Row("Load average (5 min)", Load(s.loadAverage5)),
        Row("Load average (15 min)", Load(s.loadAverage15)),
        Row("Runnable tasks", Count(s.runnableTasks)),
        Row("Total tasks", Count(s.totalTasks)),
        Row("User sessions", QString::number(s.sessions.size())),
        Row("Services", Services(s)),
        Row("Startup items", s.startupItems ? QString::number(s.startupItems->size()) : Dash()),
        Row("Time since boot", FormatUptime(s.uptimeNs / 1000000000ULL)),
    };
}

QString HealthWord(core::ProviderHealth health) {
    switch (health) {
    case core::ProviderHealth::healthy: return Tr("Healthy");
    case core::ProviderHealth::degraded: return Tr("Degraded");
    case core::ProviderHealth::restarting: return Tr("Restarting");
    case core::ProviderHealth::unavailable: return Tr("Unavailable");
    }
    return Tr("Unknown");
}

std::vector<SystemInfoRow> Providers(const core::SystemSnapshot& s) {
    std::vector<SystemInfoRow> rows;
    for (const core::ProviderHealthRecord& p : s.providers) {
        const QString state = HealthWord(p.state);
        rows.push_back(Head(QString::fromStdString(p.provider), state, {
            Row("State", state),
            Row("Native error", QString::number(p.nativeError)),
            Row("Diagnostic", p.diagnostic.empty() ? Dash() : QString::fromStdString(p.diagnostic)),
            Row("Data age", NanosecondsAsMs(p.dataAgeNs)),
            Row("Sample duration", NanosecondsAsMs(p.sampleDurationNs)),
            Row("Consecutive failures", QString::number(p.consecutiveFailures)),
            Row("Dropped events", QString::number(p.droppedEvents)),
            Row("Last good generation", QString::number(p.lastGoodGeneration)),
        }));
    }
    return rows;
}

QString SupportWord(core::ProviderSupport support) {
    switch (support) {
    case core::ProviderSupport::supported: return Tr("Supported");
    case core::ProviderSupport::degraded: return Tr("Degraded");
    case core::ProviderSupport::accessDenied: return Tr("Access denied");
    case core::ProviderSupport::notApplicable: return Tr("Not applicable");
    case core::ProviderSupport::unsupported: return Tr("Unsupported");
    }
    return Tr("Unknown");
}

std::vector<SystemInfoRow> Capabilities(const core::SystemSnapshot& s) {
    std::vector<SystemInfoRow> rows;
    for (const auto& [key, capability] : s.capabilities) {
        std::vector<SystemInfoRow> reason;
        if (!capability.description.empty()) {
            reason.push_back(Row("Reason", QString::fromStdString(capability.description)));
        }
        rows.push_back(Head(QString::fromStdString(key), SupportWord(capability.support), std::move(reason)));
    }
    return rows;
}

std::vector<SystemInfoRow> SnapshotRows(const core::SystemSnapshot& s) {
    const QString sampledAt =
        s.wallClockNs == 0
            ? Dash()
            : QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(s.wallClockNs / 1000000ULL))
                  .toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    return {
        Row("Generation", QString::number(s.generation)),
        Row("Schema version", QString::number(s.schemaVersion)),
        Row("Sampled at", sampledAt),
        Row("Requested interval", NanosecondsAsMs(s.cadenceNs)),
        Row("Actual interval", NanosecondsAsMs(s.elapsedNs)),
        Row("Performance devices", QString::number(s.devices.size())),
        Row("Hardware sensors", QString::number(s.telemetry ? s.telemetry->metrics.size() : 0)),
    };
}

SystemInfoCategory Category(const char* id, const char* title, const char* group, std::vector<SystemInfoRow> rows) {
    return SystemInfoCategory{QString::fromLatin1(id), Tr(title), Tr(group), std::move(rows)};
}

void AppendRowText(const SystemInfoRow& row, QString& out) {
    out += QStringLiteral("%1%2: %3\n").arg(QString(row.depth * 2, QLatin1Char(' ')), row.label, row.value);
    for (const SystemInfoRow& child : row.children) AppendRowText(child, out);
}

}  // namespace

const SystemInfoCategory* SystemInfoCatalog::Find(const QString& id) const {
    for (const SystemInfoCategory& category : categories) {
        if (category.id == id) return &category;
    }
    return nullptr;
}

SystemInfoCatalog BuildSystemInfoCatalog(const core::SystemSnapshot& s) {
    SystemInfoCatalog catalog;
    catalog.categories = {
        Category("hardware-overview", "Hardware Overview", "Hardware", HardwareOverview(s)),
        Category("processor", "Processor", "Hardware", Processor(s)),
        Category("memory", "Memory", "Hardware", Memory(s)),
        Category("graphics", "Graphics", "Hardware", Graphics(s)),
        Category("storage", "Storage", "Hardware", Storage(s)),
        Category("power", "Power", "Hardware", PowerRows(s)),
        Category("network", "Network", "Hardware", Network(s)),
        Category("operating-system", "Operating System", "Software", OperatingSystem(s)),
        Category("providers", "Native Providers", "Diagnostics", Providers(s)),
        Category("capabilities", "Capabilities", "Diagnostics", Capabilities(s)),
        Category("snapshot", "Snapshot", "Diagnostics", SnapshotRows(s)),
    };
    return catalog;
}

QString FormatUptime(std::uint64_t seconds) {
    using ull = unsigned long long;
    return QString::asprintf("%llu:%02llu:%02llu:%02llu", static_cast<ull>(seconds / 86400),
                             static_cast<ull>((seconds / 3600) % 24), static_cast<ull>((seconds / 60) % 60),
                             static_cast<ull>(seconds % 60));
}

QString SystemInfoRowText(const SystemInfoRow& row) {
    QString out;
    AppendRowText(row, out);
    return out;
}

QString SystemInfoCategoryText(const SystemInfoCategory& category) {
    QString out = category.title + QLatin1Char('\n');
    for (const SystemInfoRow& row : category.rows) AppendRowText(row, out);
    return out;
}

QString SystemInfoCatalogText(const SystemInfoCatalog& catalog) {
    QStringList parts;
    for (const SystemInfoCategory& category : catalog.categories) parts << SystemInfoCategoryText(category);
    return parts.join(QLatin1Char('\n'));
}

}  // namespace korv::host::linux_client
