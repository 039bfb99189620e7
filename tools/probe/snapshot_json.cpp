#include "tools/probe/snapshot_json.h"

#include "core/json_members.h"
#include "core/snapshot_metrics.h"
#include "core/telemetry_json.h"

#include "core/json_members.h"

#include <string>

namespace korv::probe {
namespace {

using core::JsonWriter;
using core::WriteMember;

template <typename T>
void WriteMetric(JsonWriter& w, std::string_view name, const core::Metric<T>& metric) {
    w.Key(name);
    w.BeginObject();
    WriteMember(w, "availability", core::ToString(metric.availability));
    if (metric.value) {
        w.Key("value");
        if constexpr (std::is_same_v<T, std::string>) {
            w.String(*metric.value);
        } else if constexpr (std::is_same_v<T, bool>) {
            w.Bool(*metric.value);
        } else if constexpr (std::is_same_v<T, double>) {
            w.Double(*metric.value);
        } else {
            w.Unsigned(*metric.value);
        }
    }
    if (!metric.source.empty()) {
        WriteMember(w, "source", metric.source);
    }
    w.EndObject();
}

void WriteKey(JsonWriter& w, std::string_view name, const core::ProcessKey& key) {
    w.Key(name);
    w.BeginObject();
    WriteMember(w, "pid", key.pid);
    WriteMember(w, "startTime", key.startTime);
    w.EndObject();
}

void WriteProcess(JsonWriter& w, const core::ProcessSnapshot& p) {
    w.BeginObject();
    WriteKey(w, "key", p.key);
    WriteKey(w, "parentKey", p.parentKey);
    WriteMember(w, "name", p.name);
    WriteMember(w, "executablePath", p.executablePath);
    WriteMember(w, "commandLine", p.commandLine);
    WriteMember(w, "userName", p.userName);
    WriteMember(w, "state", core::ToString(p.state));
    WriteMember(w, "group", core::ToString(p.group));
    WriteMember(w, "applicationKey", p.applicationKey);
    WriteMetric(w, "cpuPercent", p.cpuPercent);
    WriteMetric(w, "workingSetBytes", p.workingSetBytes);
    WriteMetric(w, "peakWorkingSetBytes", p.peakWorkingSetBytes);
    WriteMetric(w, "privateBytes", p.privateBytes);
    WriteMetric(w, "sharedBytes", p.sharedBytes);
    WriteMetric(w, "swapBytes", p.swapBytes);
    WriteMetric(w, "virtualBytes", p.virtualBytes);
    WriteMetric(w, "nice", p.nice);
    WriteMetric(w, "threadCount", p.threadCount);
    WriteMetric(w, "handleCount", p.handleCount);
    WriteMetric(w, "kernelTimeNs", p.kernelTimeNs);
    WriteMetric(w, "userTimeNs", p.userTimeNs);
    WriteMetric(w, "totalCpuTimeNs", p.totalCpuTimeNs);
    WriteMetric(w, "pageFaults", p.pageFaults);
    WriteMetric(w, "readOperations", p.readOperations);
    WriteMetric(w, "writeOperations", p.writeOperations);
    WriteMetric(w, "readBytes", p.readBytes);
    WriteMetric(w, "writeBytes", p.writeBytes);
    WriteMetric(w, "readBytesPerSecond", p.readBytesPerSecond);
    WriteMetric(w, "writeBytesPerSecond", p.writeBytesPerSecond);
    w.EndObject();
}

void WriteDevice(JsonWriter& w, const core::DeviceSnapshot& d) {
    w.BeginObject();
    WriteMember(w, "kind", core::ToString(d.kind));
    WriteMember(w, "id", d.id);
    WriteMember(w, "displayName", d.displayName);
    switch (d.kind) {
    case core::DeviceKind::disk: {
        const auto& k = d.disk;
        WriteMember(w, "blockName", k.blockName);
        WriteMetric(w, "description", k.description);
        WriteMetric(w, "type", k.type);
        WriteMetric(w, "capacityBytes", k.capacityBytes);
        WriteMetric(w, "systemDisk", k.systemDisk);
        WriteMetric(w, "rotational", k.rotational);
        WriteMetric(w, "logicalBlockSize", k.logicalBlockSize);
        WriteMetric(w, "scheduler", k.scheduler);
        WriteMetric(w, "activePercent", k.activePercent);
        WriteMetric(w, "averageResponseMs", k.averageResponseMs);
        WriteMetric(w, "readBytesPerSecond", k.readBytesPerSecond);
        WriteMetric(w, "writeBytesPerSecond", k.writeBytesPerSecond);
        WriteMetric(w, "readBytesTotal", k.readBytesTotal);
        WriteMetric(w, "writeBytesTotal", k.writeBytesTotal);
        break;
    }
    case core::DeviceKind::network: {
        const auto& n = d.network;
        WriteMetric(w, "interfaceName", n.interfaceName);
        WriteMetric(w, "type", n.type);
        WriteMetric(w, "hardware", n.hardware);
        WriteMetric(w, "hardwareAddress", n.hardwareAddress);
        WriteMetric(w, "state", n.state);
        WriteMetric(w, "mtu", n.mtu);
        WriteMetric(w, "linkBitsPerSecond", n.linkBitsPerSecond);
        WriteMetric(w, "primary", n.primary);
        WriteMember(w, "lowerDevice", n.lowerDevice);
        WriteMetric(w, "ipv4Addresses", n.ipv4Addresses);
        WriteMetric(w, "ipv6Addresses", n.ipv6Addresses);
        WriteMetric(w, "receiveBytesPerSecond", n.receiveBytesPerSecond);
        WriteMetric(w, "sendBytesPerSecond", n.sendBytesPerSecond);
        WriteMetric(w, "receivedBytesTotal", n.receivedBytesTotal);
        WriteMetric(w, "sentBytesTotal", n.sentBytesTotal);
        WriteMetric(w, "receivePacketsPerSecond", n.receivePacketsPerSecond);
        WriteMetric(w, "sendPacketsPerSecond", n.sendPacketsPerSecond);
        break;
    }
    case core::DeviceKind::gpu: {
        const auto& g = d.gpu;
        WriteMetric(w, "vendor", g.vendor);
        WriteMetric(w, "driver", g.driver);
        WriteMetric(w, "driverVersion", g.driverVersion);
        WriteMetric(w, "bus", g.bus);
        WriteMetric(w, "link", g.link);
        WriteMetric(w, "utilizationPercent", g.utilizationPercent);
        WriteMetric(w, "totalMemoryBytes", g.totalMemoryBytes);
        WriteMetric(w, "inUseMemoryBytes", g.inUseMemoryBytes);
        WriteMetric(w, "sharedInUseMemoryBytes", g.sharedInUseMemoryBytes);
        WriteMetric(w, "clockHz", g.clockHz);
        WriteMetric(w, "maximumClockHz", g.maximumClockHz);
        WriteMetric(w, "memoryClockHz", g.memoryClockHz);
        WriteMetric(w, "powerWatts", g.powerWatts);
        WriteMetric(w, "powerLimitWatts", g.powerLimitWatts);
        WriteMetric(w, "temperatureCelsius", g.temperatureCelsius);
        WriteMetric(w, "hotspotTemperatureCelsius", g.hotspotTemperatureCelsius);
        WriteMetric(w, "videoEncodePercent", g.videoEncodePercent);
        WriteMetric(w, "videoDecodePercent", g.videoDecodePercent);
        break;
    }
    default:
        break;
    }
    w.EndObject();
}

void WriteSystemMetrics(JsonWriter& w, const core::SystemSnapshot& s) {
    w.Key("system");
    w.BeginObject();
    WriteMetric(w, "cpuModel", s.cpuModel);
    WriteMetric(w, "cpuHybrid", s.cpuHybrid);
    WriteMetric(w, "cpuUtilization", s.cpuUtilization);
    WriteMetric(w, "cpuKernelUtilization", s.cpuKernelUtilization);
    WriteMetric(w, "cpuFrequencyHz", s.cpuFrequencyHz);
    WriteMetric(w, "cpuBaseFrequencyHz", s.cpuBaseFrequencyHz);
    WriteMetric(w, "physicalCoreCount", s.physicalCoreCount);
    WriteMetric(w, "socketCount", s.socketCount);
    WriteMetric(w, "virtualization", s.virtualization);
    WriteMetric(w, "virtualMachine", s.virtualMachine);
    WriteMetric(w, "cacheL1Bytes", s.cacheL1Bytes);
    WriteMetric(w, "cacheL2Bytes", s.cacheL2Bytes);
    WriteMetric(w, "cacheL3Bytes", s.cacheL3Bytes);
    WriteMetric(w, "frequencyDriver", s.frequencyDriver);
    WriteMetric(w, "frequencyGovernor", s.frequencyGovernor);
    WriteMetric(w, "powerPreference", s.powerPreference);
    WriteMetric(w, "memoryTotalBytes", s.memoryTotalBytes);
    WriteMetric(w, "memoryInUseBytes", s.memoryInUseBytes);
    WriteMetric(w, "memoryAvailableBytes", s.memoryAvailableBytes);
    WriteMetric(w, "memoryCachedBytes", s.memoryCachedBytes);
    WriteMetric(w, "memoryFreeBytes", s.memoryFreeBytes);
    WriteMetric(w, "memoryCommittedBytes", s.memoryCommittedBytes);
    WriteMetric(w, "memoryCommitLimitBytes", s.memoryCommitLimitBytes);
    WriteMetric(w, "memorySharedBytesTotal", s.memorySharedBytesTotal);
    WriteMetric(w, "memoryAnonymousBytes", s.memoryAnonymousBytes);
    WriteMetric(w, "memoryCompressedBytes", s.memoryCompressedBytes);
    WriteMetric(w, "memoryBuffersBytes", s.memoryBuffersBytes);
    WriteMetric(w, "memorySharedBytes", s.memorySharedBytes);
    WriteMetric(w, "memoryKernelSlabBytes", s.memoryKernelSlabBytes);
    WriteMetric(w, "memoryPressurePercent", s.memoryPressurePercent);
    WriteMetric(w, "memoryPsiSomeAvg10", s.memoryPsiSomeAvg10);
    WriteMetric(w, "memorySpeed", s.memorySpeed);
    WriteMetric(w, "swapUsedBytes", s.swapUsedBytes);
    WriteMetric(w, "swapTotalBytes", s.swapTotalBytes);
    WriteMetric(w, "pageIns", s.pageIns);
    WriteMetric(w, "pageOuts", s.pageOuts);
    WriteMetric(w, "loadAverage1", s.loadAverage1);
    WriteMetric(w, "loadAverage5", s.loadAverage5);
    WriteMetric(w, "loadAverage15", s.loadAverage15);
    WriteMetric(w, "runnableTasks", s.runnableTasks);
    WriteMetric(w, "totalTasks", s.totalTasks);
    WriteMetric(w, "distribution", s.distribution);
    WriteMetric(w, "distributionVersion", s.distributionVersion);
    WriteMetric(w, "kernelRelease", s.kernelRelease);
    WriteMetric(w, "hostName", s.hostName);
    WriteMetric(w, "systemModel", s.systemModel);
    WriteMetric(w, "powerSource", s.powerSource);
    WriteMetric(w, "cpuPowerWatts", s.cpuPowerWatts);
    WriteMetric(w, "dramPowerWatts", s.dramPowerWatts);
    WriteMetric(w, "batteryPresent", s.batteryPresent);
    WriteMetric(w, "batteryChargePercent", s.batteryChargePercent);
    WriteMetric(w, "batteryCharging", s.batteryCharging);
    WriteMetric(w, "batteryTimeRemainingSeconds", s.batteryTimeRemainingSeconds);
    WriteMetric(w, "batteryCycleCount", s.batteryCycleCount);
    WriteMetric(w, "batteryCondition", s.batteryCondition);
    w.EndObject();
}

}  // namespace

void WriteSnapshot(JsonWriter& w, const core::SystemSnapshot& s) {
    w.BeginObject();
    WriteMember(w, "schemaVersion", s.schemaVersion);
    WriteMember(w, "generation", s.generation);
    WriteMember(w, "monotonicNs", s.monotonicNs);
    WriteMember(w, "wallClockNs", s.wallClockNs);
    WriteMember(w, "cadenceNs", s.cadenceNs);
    WriteMember(w, "elapsedNs", s.elapsedNs);
    WriteMember(w, "uptimeNs", s.uptimeNs);
    WriteMember(w, "logicalProcessorCount", s.logicalProcessorCount);
    WriteSystemMetrics(w, s);

    w.Key("logicalProcessors");
    w.BeginArray();
    for (const auto& cpu : s.logicalProcessors) {
        w.BeginObject();
        WriteMember(w, "index", cpu.index);
        WriteMember(w, "processorClass", core::ToString(cpu.processorClass));
        WriteMetric(w, "numaNode", cpu.numaNode);
        WriteMetric(w, "utilization", cpu.utilization);
        WriteMetric(w, "kernelUtilization", cpu.kernelUtilization);
        WriteMetric(w, "frequencyHz", cpu.frequencyHz);
        w.EndObject();
    }
    w.EndArray();

    w.Key("processes");
    w.BeginArray();
    for (const auto& process : s.processes) WriteProcess(w, process);
    w.EndArray();

    w.Key("exitedProcesses");
    w.BeginArray();
    for (const auto& exited : s.exitedProcesses) {
        w.BeginObject();
        WriteKey(w, "key", exited.process.key);
        WriteMember(w, "name", exited.process.name);
        WriteMember(w, "exitedAtNs", exited.exitedAtNs);
        WriteMember(w, "exitedGeneration", exited.exitedGeneration);
        w.EndObject();
    }
    w.EndArray();

    w.Key("devices");
    w.BeginArray();
    for (const auto& device : s.devices) WriteDevice(w, device);
    w.EndArray();

    w.Key("providers");
    w.BeginArray();
    for (const auto& row : s.providers) {
        w.BeginObject();
        WriteMember(w, "provider", row.provider);
        WriteMember(w, "state", core::ToString(row.state));
        WriteMember(w, "lastGoodGeneration", row.lastGoodGeneration);
        WriteMember(w, "nativeError", row.nativeError);
        WriteMember(w, "consecutiveFailures", row.consecutiveFailures);
        WriteMember(w, "sampleDurationNs", row.sampleDurationNs);
        WriteMember(w, "droppedEvents", row.droppedEvents);
        WriteMember(w, "dataAgeNs", row.dataAgeNs);
        WriteMember(w, "diagnostic", row.diagnostic);
        w.EndObject();
    }
    w.EndArray();

    w.Key("capabilities");
    w.BeginObject();
    for (const auto& [key, row] : s.capabilities) {
        w.Key(key);
        w.BeginObject();
        WriteMember(w, "support", core::ToString(row.support));
        WriteMember(w, "description", row.description);
        w.EndObject();
    }
    w.EndObject();

    w.Key("telemetry");
    if (s.telemetry) {
        core::WriteTelemetryFrame(w, *s.telemetry);
    } else {
        w.Null();
    }
    w.EndObject();
}

}  // namespace korv::probe
