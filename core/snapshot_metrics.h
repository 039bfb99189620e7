#pragma once

#include "core/snapshot.h"

#include <type_traits>

namespace korv::core {

// Walks every metric of a record and calls visit(metric, isPercent). Works on const and mutable
// records alike, so that the coherence check and the repair pass share one list of fields.

template <typename P, typename Visit>
void ForEachMetric(P& p, Visit&& visit)
    requires std::is_same_v<std::remove_const_t<P>, ProcessSnapshot>
{
    visit(p.cpuPercent, true);
    visit(p.workingSetBytes, false);
    visit(p.peakWorkingSetBytes, false);
    visit(p.privateBytes, false);
    visit(p.sharedBytes, false);
    visit(p.swapBytes, false);
    visit(p.virtualBytes, false);
    visit(p.nice, false);
    visit(p.threadCount, false);
    visit(p.handleCount, false);
    visit(p.kernelTimeNs, false);
    visit(p.userTimeNs, false);
    visit(p.totalCpuTimeNs, false);
    visit(p.pageFaults, false);
    visit(p.readOperations, false);
    visit(p.writeOperations, false);
    visit(p.readBytes, false);
    visit(p.writeBytes, false);
    visit(p.readBytesPerSecond, false);
    visit(p.writeBytesPerSecond, false);
    visit(p.networkReceiveBytes, false);
    visit(p.networkSendBytes, false);
    visit(p.networkReceiveBytesPerSecond, false);
    visit(p.networkSendBytesPerSecond, false);
    visit(p.gpuPercent, true);
    visit(p.gpuDedicatedBytes, false);
    visit(p.gpuSharedBytes, false);
    visit(p.npuPercent, true);
}

template <typename L, typename Visit>
void ForEachMetric(L& l, Visit&& visit)
    requires std::is_same_v<std::remove_const_t<L>, LogicalProcessorSnapshot>
{
    visit(l.numaNode, false);
    visit(l.utilization, true);
    visit(l.kernelUtilization, true);
    visit(l.frequencyHz, false);
}

template <typename S, typename Visit>
void ForEachMetric(S& s, Visit&& visit)
    requires std::is_same_v<std::remove_const_t<S>, SessionSnapshot>
{
    visit(s.cpuPercent, true);
    visit(s.memoryBytes, false);
    visit(s.diskBytesPerSecond, false);
    visit(s.networkBytesPerSecond, false);
    visit(s.uid, false);
    visit(s.remote, false);
    visit(s.startMonotonicUs, false);
    visit(s.seat, false);
    visit(s.sessionClass, false);
    visit(s.scopeName, false);
    visit(s.remoteHost, false);
}

template <typename S, typename Visit>
void ForEachMetric(S& s, Visit&& visit)
    requires std::is_same_v<std::remove_const_t<S>, ServiceSnapshot>
{
    visit(s.mainPid, false);
}

template <typename A, typename Visit>
void ForEachMetric(A& a, Visit&& visit)
    requires std::is_same_v<std::remove_const_t<A>, AppHistorySnapshot>
{
    visit(a.cpuTimeNs, false);
    visit(a.networkBytes, false);
}

template <typename A, typename Visit>
void ForEachMetric(A& a, Visit&& visit)
    requires std::is_same_v<std::remove_const_t<A>, InstalledAppSnapshot>
{
    visit(a.sizeBytes, false);
    visit(a.installedWallClockNs, false);
}

template <typename D, typename Visit>
void ForEachMetric(D& d, Visit&& visit)
    requires std::is_same_v<std::remove_const_t<D>, DeviceSnapshot>
{
    auto& disk = d.disk;
    visit(disk.activePercent, true);
    visit(disk.averageResponseMs, false);
    visit(disk.readBytesPerSecond, false);
    visit(disk.writeBytesPerSecond, false);
    visit(disk.readBytesTotal, false);
    visit(disk.writeBytesTotal, false);
    visit(disk.capacityBytes, false);
    visit(disk.systemDisk, false);
    visit(disk.type, false);
    visit(disk.rotational, false);
    visit(disk.logicalBlockSize, false);
    visit(disk.scheduler, false);
    visit(disk.description, false);

    auto& net = d.network;
    visit(net.receiveBytesPerSecond, false);
    visit(net.sendBytesPerSecond, false);
    visit(net.receivedBytesTotal, false);
    visit(net.sentBytesTotal, false);
    visit(net.interfaceName, false);
    visit(net.type, false);
    visit(net.hardware, false);
    visit(net.ipv4Addresses, false);
    visit(net.ipv6Addresses, false);
    visit(net.networkName, false);
    visit(net.signalStrengthPercent, true);
    visit(net.mtu, false);
    visit(net.state, false);
    visit(net.linkBitsPerSecond, false);
    visit(net.receivedPacketsTotal, false);
    visit(net.sentPacketsTotal, false);
    visit(net.receivePacketsPerSecond, false);
    visit(net.sendPacketsPerSecond, false);
    visit(net.hardwareAddress, false);
    visit(net.primary, false);

    auto& gpu = d.gpu;
    visit(gpu.utilizationPercent, true);
    visit(gpu.totalMemoryBytes, false);
    visit(gpu.inUseMemoryBytes, false);
    visit(gpu.dedicatedMemoryBytes, false);
    visit(gpu.sharedMemoryBytes, false);
    visit(gpu.clockHz, false);
    visit(gpu.maximumClockHz, false);
    visit(gpu.memoryClockHz, false);
    visit(gpu.maximumMemoryClockHz, false);
    visit(gpu.powerWatts, false);
    visit(gpu.powerLimitWatts, false);
    visit(gpu.temperatureCelsius, false);
    visit(gpu.videoEncodePercent, true);
    visit(gpu.videoDecodePercent, true);
    visit(gpu.graphicsApi, false);
    visit(gpu.openGlVersion, false);
    visit(gpu.vulkanVersion, false);
    visit(gpu.link, false);
    visit(gpu.bus, false);
    visit(gpu.vendor, false);
    visit(gpu.driver, false);
    visit(gpu.driverVersion, false);
    visit(gpu.memoryControllerPercent, true);
    visit(gpu.sharedInUseMemoryBytes, false);
    visit(gpu.hotspotTemperatureCelsius, false);
    visit(gpu.socTemperatureCelsius, false);
    for (auto& engine : gpu.engines) visit(engine.utilizationPercent, true);

    auto& npu = d.npu;
    visit(npu.utilizationPercent, true);
    visit(npu.activityPercent, true);
    visit(npu.powerWatts, false);
    visit(npu.intervalEnergyJoules, false);
    for (auto& engine : npu.engines) visit(engine.utilizationPercent, true);
}

// The machine-wide metrics of the snapshot itself (not its lists).
template <typename S, typename Visit>
void ForEachSystemMetric(S& s, Visit&& visit)
    requires std::is_same_v<std::remove_const_t<S>, SystemSnapshot>
{
    visit(s.cpuModel, false);
    visit(s.cpuHybrid, false);
    visit(s.cpuUtilization, true);
    visit(s.cpuKernelUtilization, true);
    visit(s.cpuFrequencyHz, false);
    visit(s.cpuBaseFrequencyHz, false);
    visit(s.physicalCoreCount, false);
    visit(s.socketCount, false);
    visit(s.virtualization, false);
    visit(s.virtualMachine, false);
    visit(s.cacheL1Bytes, false);
    visit(s.cacheL2Bytes, false);
    visit(s.cacheL3Bytes, false);
    visit(s.frequencyDriver, false);
    visit(s.frequencyGovernor, false);
    visit(s.powerPreference, false);
    visit(s.memoryCommittedBytes, false);
    visit(s.memoryCommitLimitBytes, false);
    visit(s.memorySpeed, false);
    visit(s.memorySlotsPopulated, false);
    visit(s.memorySlotsTotal, false);
    visit(s.memoryFormFactor, false);
    visit(s.memoryType, false);
    visit(s.memoryTotalBytes, false);
    visit(s.memoryInUseBytes, false);
    visit(s.memoryAvailableBytes, false);
    visit(s.memorySharedBytesTotal, false);
    visit(s.memoryAnonymousBytes, false);
    visit(s.memoryCompressedBytes, false);
    visit(s.memoryCachedBytes, false);
    visit(s.memoryFreeBytes, false);
    visit(s.memoryPressurePercent, true);
    visit(s.swapUsedBytes, false);
    visit(s.swapTotalBytes, false);
    visit(s.pageIns, false);
    visit(s.pageOuts, false);
    visit(s.thermalState, false);
    visit(s.lowPowerMode, false);
    visit(s.powerSource, false);
    visit(s.systemPowerWatts, false);
    visit(s.cpuPowerWatts, false);
    visit(s.gpuPowerWatts, false);
    visit(s.anePowerWatts, false);
    visit(s.dramPowerWatts, false);
    visit(s.socPackagePowerWatts, false);
    visit(s.batteryPresent, false);
    visit(s.batteryChargePercent, true);
    visit(s.batteryCharging, false);
    visit(s.batteryTimeRemainingSeconds, false);
    visit(s.batteryCycleCount, false);
    visit(s.batteryCondition, false);
    visit(s.loadAverage1, false);
    visit(s.loadAverage5, false);
    visit(s.loadAverage15, false);
    visit(s.runnableTasks, false);
    visit(s.totalTasks, false);
    visit(s.memoryBuffersBytes, false);
    visit(s.memorySharedBytes, false);
    visit(s.memoryKernelSlabBytes, false);
    visit(s.memoryPsiSomeAvg10, true);
    visit(s.distribution, false);
    visit(s.kernelRelease, false);
    visit(s.hostName, false);
    visit(s.systemModel, false);
    visit(s.distributionVersion, false);
}

}  // namespace korv::core
