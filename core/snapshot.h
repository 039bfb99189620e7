#pragma once

#include "core/metric.h"
#include "core/process_key.h"
#include "core/snapshot_enums.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace korv::core {

struct HardwareTelemetryFrame;

// One coherent sample of the whole machine. Built by a provider on the sampling thread, repaired and
// checked by the engine, then published as shared_ptr<const SystemSnapshot> and never written again.
// Strings are UTF-8 byte strings.

struct LogicalProcessorSnapshot {
    std::uint32_t index = 0;
    ProcessorClass processorClass = ProcessorClass::unknown;
    Metric<std::uint64_t> numaNode;
    Metric<double> utilization;        // percent; cpu.logical.<n>.utilization.busy_pct
    Metric<double> kernelUtilization;  // percent; cpu.logical.<n>.utilization.kernel_pct
    Metric<std::uint64_t> frequencyHz;
};

struct ProcessSnapshot {
    ProcessKey key;
    ProcessKey parentKey;
    std::string name;
    std::string executablePath;
    std::string commandLine;  // arguments joined by blanks; empty for a kernel thread
    std::string userName;
    ProcessState state = ProcessState::unknown;
    ProcessGroup group = ProcessGroup::background;
    ProcessArchitecture architecture = ProcessArchitecture::unknown;
    std::string applicationKey;

    Metric<double> cpuPercent;  // percent of the whole machine
    Metric<std::uint64_t> workingSetBytes;
    Metric<std::uint64_t> peakWorkingSetBytes;
    Metric<std::uint64_t> privateBytes;
    Metric<std::uint64_t> sharedBytes;
    Metric<std::uint64_t> swapBytes;
    Metric<std::uint64_t> virtualBytes;
    Metric<double> nice;
    Metric<std::uint64_t> threadCount;
    Metric<std::uint64_t> handleCount;
    Metric<std::uint64_t> kernelTimeNs;
    Metric<std::uint64_t> userTimeNs;
    Metric<std::uint64_t> totalCpuTimeNs;
    Metric<std::uint64_t> pageFaults;
    Metric<std::uint64_t> readOperations;
    Metric<std::uint64_t> writeOperations;
    Metric<std::uint64_t> readBytes;
    Metric<std::uint64_t> writeBytes;
    Metric<double> readBytesPerSecond;
    Metric<double> writeBytesPerSecond;
    Metric<std::uint64_t> networkReceiveBytes;
    Metric<std::uint64_t> networkSendBytes;
    Metric<double> networkReceiveBytesPerSecond;
    Metric<double> networkSendBytesPerSecond;
    Metric<double> gpuPercent;
    Metric<std::uint64_t> gpuDedicatedBytes;
    Metric<std::uint64_t> gpuSharedBytes;
    Metric<double> npuPercent;
};

struct ExitedProcessRecord {
    ProcessSnapshot process;
    std::uint64_t exitedAtNs = 0;  // monotonicNs of the first snapshot without the process
    std::uint64_t exitedGeneration = 0;
};

struct SessionMember {
    ProcessKey key;
    double share = 1.0;
};

struct SessionSnapshot {
    std::uint32_t sessionNumber = 0;
    std::uint64_t identity = 0;  // the row's unique key
    std::string id;
    std::string userName;
    std::string displayName;
    std::vector<SessionMember> members;

    Metric<double> cpuPercent;
    Metric<std::uint64_t> memoryBytes;
    Metric<double> diskBytesPerSecond;
    Metric<double> networkBytesPerSecond;
    Metric<std::uint64_t> uid;
    Metric<bool> remote;
    Metric<std::uint64_t> startMonotonicUs;
    Metric<std::string> seat;
    Metric<std::string> sessionClass;
    Metric<std::string> scopeName;
    Metric<std::string> remoteHost;
    SessionState state = SessionState::unknown;
};

struct ServiceSnapshot {
    std::string name;  // unit name; the row's unique key
    std::string description;
    ServiceState state = ServiceState::unknown;
    std::string loadState;
    std::string activeState;
    std::string subState;
    std::string unitFileState;
    Metric<std::uint64_t> mainPid;
    ProcessKey mainProcess;  // pid 0 when no live process is linked
};

struct StartupItemSnapshot {
    std::string id;  // unique key, e.g. the source and the file name
    std::string name;
    std::string command;
    std::string location;
    std::string publisher;
    StartupSource source = StartupSource::other;
    StartupEnabledState enabledState = StartupEnabledState::unknown;
    InstallScope scope = InstallScope::unknown;
};

struct AppHistorySnapshot {
    std::string appKey;  // unique key
    std::string name;
    Metric<std::uint64_t> cpuTimeNs;
    Metric<std::uint64_t> networkBytes;
};

struct InstalledAppSnapshot {
    std::string id;  // unique key
    std::string name;
    std::string version;
    std::string publisher;
    std::string installLocation;
    InstalledAppSource source = InstalledAppSource::other;
    InstallScope scope = InstallScope::unknown;
    Metric<std::uint64_t> sizeBytes;
    Metric<std::uint64_t> installedWallClockNs;
};

struct DiskBlock {
    Metric<double> activePercent;
    Metric<double> averageResponseMs;  // storage.average_response_time_ms
    Metric<double> readBytesPerSecond;
    Metric<double> writeBytesPerSecond;
    Metric<std::uint64_t> readBytesTotal;   // storage.read_bytes_total
    Metric<std::uint64_t> writeBytesTotal;  // storage.write_bytes_total
    Metric<std::uint64_t> capacityBytes;
    Metric<bool> systemDisk;
    Metric<std::string> type;
    Metric<bool> rotational;
    Metric<std::uint64_t> logicalBlockSize;
    Metric<std::string> scheduler;
    Metric<std::string> description;  // the drive's model
    std::string blockName;            // kernel name, e.g. "nvme0n1"
};

struct NetworkBlock {
    Metric<double> receiveBytesPerSecond;  // network.rx_bytes_per_second
    Metric<double> sendBytesPerSecond;     // network.tx_bytes_per_second
    Metric<std::uint64_t> receivedBytesTotal;
    Metric<std::uint64_t> sentBytesTotal;
    Metric<std::string> interfaceName;
    Metric<std::string> type;
    Metric<std::string> hardware;
    Metric<std::string> ipv4Addresses;
    Metric<std::string> ipv6Addresses;
    Metric<std::string> networkName;
    Metric<double> signalStrengthPercent;
    Metric<std::uint64_t> mtu;
    Metric<std::string> state;
    Metric<std::uint64_t> linkBitsPerSecond;
    Metric<std::uint64_t> receivedPacketsTotal;
    Metric<std::uint64_t> sentPacketsTotal;
    Metric<double> receivePacketsPerSecond;
    Metric<double> sendPacketsPerSecond;
    Metric<std::string> hardwareAddress;
    Metric<bool> primary;  // carries the default IPv4 or IPv6 source address
    std::string lowerDevice;  // the interface a bond or VLAN sits on, if any
};

struct EngineUtilization {
    std::string name;    // shown, such as "Video encode"
    Metric<double> utilizationPercent;
    std::string id;      // stable, such as "video-encode"
    std::string vendor;  // who reports the engine, such as "nvidia"
};

struct GpuBlock {
    Metric<double> utilizationPercent;
    Metric<std::uint64_t> totalMemoryBytes;
    Metric<std::uint64_t> inUseMemoryBytes;
    Metric<std::uint64_t> dedicatedMemoryBytes;
    Metric<std::uint64_t> sharedMemoryBytes;
    Metric<std::uint64_t> clockHz;
    Metric<std::uint64_t> maximumClockHz;
    Metric<std::uint64_t> memoryClockHz;
    Metric<std::uint64_t> maximumMemoryClockHz;
    Metric<double> powerWatts;
    Metric<double> powerLimitWatts;
    Metric<double> temperatureCelsius;
    Metric<double> videoEncodePercent;
    Metric<double> videoDecodePercent;
    Metric<std::string> graphicsApi;
    Metric<std::string> openGlVersion;
    Metric<std::string> vulkanVersion;
    Metric<std::string> link;
    Metric<std::string> bus;
    Metric<std::string> vendor;
    Metric<std::string> driver;
    Metric<std::string> driverVersion;
    Metric<double> memoryControllerPercent;
    Metric<std::uint64_t> sharedInUseMemoryBytes;  // GTT in use
    Metric<double> hotspotTemperatureCelsius;      // gpu.temperature.hotspot_c
    Metric<double> socTemperatureCelsius;          // gpu.temperature.soc_c
    std::vector<EngineUtilization> engines;
};

struct NpuBlock {
    Metric<double> utilizationPercent;
    Metric<double> activityPercent;
    Metric<double> powerWatts;
    Metric<double> intervalEnergyJoules;
    std::vector<EngineUtilization> engines;
};

struct DeviceSnapshot {
    DeviceKind kind = DeviceKind::other;
    std::string id;
    std::string displayName;
    DiskBlock disk;
    NetworkBlock network;
    GpuBlock gpu;
    NpuBlock npu;
};

struct CapabilityRow {
    std::string key;
    ProviderSupport support = ProviderSupport::unsupported;
    std::string description;
};

struct ProviderHealthRecord {
    std::string provider;
    ProviderHealth state = ProviderHealth::healthy;
    std::uint64_t lastGoodGeneration = 0;
    std::uint64_t lastGoodMonotonicNs = 0;
    std::int64_t nativeError = 0;
    std::uint32_t consecutiveFailures = 0;
    std::uint64_t sampleDurationNs = 0;
    std::uint64_t droppedEvents = 0;
    std::uint64_t dataAgeNs = 0;
    std::string diagnostic;
};

struct SystemSnapshot {
    std::uint32_t schemaVersion = 0;  // a published snapshot says 1
    std::uint64_t generation = 0;     // never 0 once published
    std::uint64_t monotonicNs = 0;
    std::uint64_t wallClockNs = 0;
    std::uint64_t cadenceNs = 0;
    std::uint64_t elapsedNs = 0;
    std::uint32_t logicalProcessorCount = 0;
    std::uint64_t uptimeNs = 0;

    Metric<std::string> cpuModel;
    Metric<bool> cpuHybrid;
    Metric<double> cpuUtilization;        // cpu.package.utilization.busy_pct
    Metric<double> cpuKernelUtilization;  // cpu.package.utilization.kernel_pct
    std::vector<LogicalProcessorSnapshot> logicalProcessors;
    Metric<std::uint64_t> cpuFrequencyHz;      // cpu.package.frequency.average_reported_hz
    Metric<std::uint64_t> cpuBaseFrequencyHz;  // cpu.package.frequency.base_hz
    Metric<std::uint64_t> physicalCoreCount;
    Metric<std::uint64_t> socketCount;
    Metric<std::string> virtualization;
    Metric<bool> virtualMachine;
    Metric<std::uint64_t> cacheL1Bytes;
    Metric<std::uint64_t> cacheL2Bytes;
    Metric<std::uint64_t> cacheL3Bytes;
    Metric<std::string> frequencyDriver;
    Metric<std::string> frequencyGovernor;
    Metric<std::string> powerPreference;

    Metric<std::uint64_t> memoryCommittedBytes;
    Metric<std::uint64_t> memoryCommitLimitBytes;
    Metric<std::uint64_t> memorySpeed;
    Metric<std::uint64_t> memorySlotsPopulated;
    Metric<std::uint64_t> memorySlotsTotal;
    Metric<std::string> memoryFormFactor;
    Metric<std::string> memoryType;
    Metric<std::uint64_t> memoryTotalBytes;      // memory.physical.total_bytes
    Metric<std::uint64_t> memoryInUseBytes;      // memory.physical.in_use_bytes
    Metric<std::uint64_t> memoryAvailableBytes;  // memory.physical.available_bytes
    Metric<std::uint64_t> memorySharedBytesTotal;
    Metric<std::uint64_t> memoryAnonymousBytes;
    Metric<std::uint64_t> memoryCompressedBytes;
    Metric<std::uint64_t> memoryCachedBytes;  // memory.cached_bytes
    Metric<std::uint64_t> memoryFreeBytes;
    Metric<double> memoryPressurePercent;  // memory.pressure_pct
    Metric<std::uint64_t> swapUsedBytes;   // memory.swap.used_bytes
    Metric<std::uint64_t> swapTotalBytes;  // memory.swap.total_bytes
    Metric<std::uint64_t> pageIns;
    Metric<std::uint64_t> pageOuts;

    Metric<std::string> thermalState;
    Metric<bool> lowPowerMode;
    Metric<std::string> powerSource;
    Metric<double> systemPowerWatts;      // system.power.input_w
    Metric<double> cpuPowerWatts;         // system.power.cpu_w
    Metric<double> gpuPowerWatts;         // system.power.gpu_w
    Metric<double> anePowerWatts;         // system.power.ane_w
    Metric<double> dramPowerWatts;        // system.power.dram_w
    Metric<double> socPackagePowerWatts;  // system.power.soc_package_w

    Metric<bool> batteryPresent;
    Metric<double> batteryChargePercent;  // battery.charge_pct
    Metric<bool> batteryCharging;
    Metric<std::uint64_t> batteryTimeRemainingSeconds;  // battery.time_remaining_s
    Metric<std::uint64_t> batteryCycleCount;            // battery.cycle_count
    Metric<std::string> batteryCondition;

    Metric<double> loadAverage1;
    Metric<double> loadAverage5;
    Metric<double> loadAverage15;
    Metric<std::uint64_t> runnableTasks;
    Metric<std::uint64_t> totalTasks;
    Metric<std::uint64_t> memoryBuffersBytes;
    Metric<std::uint64_t> memorySharedBytes;
    Metric<std::uint64_t> memoryKernelSlabBytes;
    Metric<double> memoryPsiSomeAvg10;  // percent
    Metric<std::string> distribution;
    Metric<std::string> kernelRelease;
    Metric<std::string> hostName;
    Metric<std::string> systemModel;
    Metric<std::string> distributionVersion;

    std::vector<ProcessSnapshot> processes;  // sorted by key, keys unique
    std::vector<SessionSnapshot> sessions;
    // Shared between snapshots while unchanged: a reader may compare pointers.
    std::shared_ptr<const std::vector<ServiceSnapshot>> services;
    std::shared_ptr<const std::vector<StartupItemSnapshot>> startupItems;
    std::shared_ptr<const std::vector<AppHistorySnapshot>> appHistory;
    std::shared_ptr<const std::vector<InstalledAppSnapshot>> installedApps;
    std::vector<DeviceSnapshot> devices;
    std::shared_ptr<const HardwareTelemetryFrame> telemetry;
    std::map<std::string, CapabilityRow> capabilities;
    std::vector<ProviderHealthRecord> providers;
    std::vector<ExitedProcessRecord> exitedProcesses;  // filled by the engine only
};

inline constexpr std::uint32_t kSnapshotSchemaVersion = 1;

}  // namespace korv::core
