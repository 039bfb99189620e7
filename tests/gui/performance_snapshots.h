#pragma once

#include "core/snapshot.h"

#include <cstdint>
#include <memory>
#include <string>

// Scripted machines for the Performance page tests: a CPU and memory, and the devices a test adds.
namespace korv::test {

inline constexpr std::uint64_t kPerformanceCadenceNs = 500'000'000ULL;
inline constexpr std::uint64_t kGiB = 1024ULL * 1024ULL * 1024ULL;

inline std::shared_ptr<core::SystemSnapshot> MachineSnapshot(std::uint64_t generation, std::uint32_t processors = 4) {
    auto s = std::make_shared<core::SystemSnapshot>();
    s->schemaVersion = core::kSnapshotSchemaVersion;
    s->generation = generation;
    s->monotonicNs = generation * kPerformanceCadenceNs;
    s->cadenceNs = kPerformanceCadenceNs;
    s->elapsedNs = kPerformanceCadenceNs;
    s->logicalProcessorCount = processors;
    s->uptimeNs = 90'061ULL * 1'000'000'000ULL;  // 1 day, 1 hour, 1 minute, 1 second
    s->cpuModel.Set("Test CPU 9000");
    const double wave = static_cast<double>(generation % 20) * 4.0;
    s->cpuUtilization.Set(10.0 + wave, generation);
    s->cpuKernelUtilization.Set(2.0 + wave / 4.0, generation);
    s->cpuFrequencyHz.Set(3'400'000'000ULL);
    for (std::uint32_t i = 0; i < processors; ++i) {
        core::LogicalProcessorSnapshot processor;
        processor.index = i;
        processor.utilization.Set(5.0 + i * 10.0 + wave / 2.0, generation);
        processor.kernelUtilization.Set(1.0 + i, generation);
        s->logicalProcessors.push_back(processor);
    }
    s->memoryTotalBytes.Set(16 * kGiB);
    s->memoryInUseBytes.Set(6 * kGiB + generation * 1024 * 1024);
    s->memoryAvailableBytes.Set(10 * kGiB);
    core::ProcessSnapshot process;
    process.key = core::ProcessKey{4242, 1000};
    process.name = "worker";
    process.threadCount.Set(7);
    s->processes.push_back(process);
    core::ProviderHealthRecord row;
    row.provider = "linux.procfs";
    row.lastGoodGeneration = generation;
    s->providers.push_back(row);
    return s;
}

inline core::DeviceSnapshot DiskDevice(const std::string& name, double readRate, double writeRate, double active) {
    core::DeviceSnapshot device;
    device.kind = core::DeviceKind::disk;
    device.id = "linux-block:path:" + name;
    device.displayName = name;
    device.disk.blockName = name;
    device.disk.readBytesPerSecond.Set(readRate);
    device.disk.writeBytesPerSecond.Set(writeRate);
    device.disk.activePercent.Set(active);
    device.disk.capacityBytes.Set(512 * kGiB);
    device.disk.type.Set("SSD");
    device.disk.rotational.Set(false);
    device.disk.description.Set("Test Drive " + name);
    return device;
}

inline core::DeviceSnapshot NetworkDevice(const std::string& name, double receiveRate, double sendRate) {
    core::DeviceSnapshot device;
    device.kind = core::DeviceKind::network;
    device.id = "linux-net:" + name;
    device.displayName = name;
    device.network.interfaceName.Set(name);
    device.network.receiveBytesPerSecond.Set(receiveRate);
    device.network.sendBytesPerSecond.Set(sendRate);
    device.network.type.Set("Ethernet");
    return device;
}

inline core::DeviceSnapshot GpuDevice(const std::string& slot, double utilization) {
    core::DeviceSnapshot device;
    device.kind = core::DeviceKind::gpu;
    device.id = "linux-drm-pci:" + slot;
    device.displayName = "Test Graphics " + slot;
    device.gpu.utilizationPercent.Set(utilization);
    device.gpu.totalMemoryBytes.Set(8 * kGiB);
    device.gpu.inUseMemoryBytes.Set(2 * kGiB);
    core::EngineUtilization engine;
    engine.name = "gfx";
    engine.utilizationPercent.Set(utilization);
    device.gpu.engines.push_back(engine);
    engine.name = "video";
    engine.utilizationPercent.Set(utilization / 2.0);
    device.gpu.engines.push_back(engine);
    return device;
}

inline void AddBattery(core::SystemSnapshot& s, double charge) {
    s.batteryPresent.Set(true);
    s.batteryChargePercent.Set(charge);
    s.batteryCharging.Set(false);
}

}  // namespace korv::test
