#include "providers/capability_table.h"

namespace korv::providers {
namespace {

using core::ProviderSupport;

struct Row {
    const char* key;
    ProviderSupport support;
    const char* description;
};

constexpr const char* kPidfdText =
    "pidfd identity binding is used when supported; older kernels fall back to immediate procfs start-time validation";

constexpr Row kRows[] = {
    {"actions.priority", ProviderSupport::degraded,
     "procfs start-time validation immediately precedes setpriority; decreasing nice may require CAP_SYS_NICE"},
    {"actions.resume", ProviderSupport::degraded, kPidfdText},
    {"actions.suspend", ProviderSupport::degraded, kPidfdText},
    {"actions.terminate", ProviderSupport::degraded, kPidfdText},
    {"disk.capacity", ProviderSupport::supported, "sysfs whole-block-device capacity"},
    {"disk.performance", ProviderSupport::degraded,
     "procfs whole-block-device counters; utilization follows kernel io_ticks semantics"},
    {"hardware.telemetry", ProviderSupport::supported, "Canonical hardware telemetry frame with sysfs and procfs enrichment"},
    {"storage.physical", ProviderSupport::degraded,
     "sysfs whole-block-device inventory; virtual and device-mapper rows may also be present"},
    {"storage.smart", ProviderSupport::degraded,
     "Read-only NVMe health logs and ATA/SATA SMART: the NVMe admin ioctl and SAT SG_IO where device-node permissions "
     "and the transport allow it, otherwise udisks2 on the system bus, which is the only route left to an unelevated "
     "login since the stock device nodes are root-owned"},
    {"gpu.telemetry", ProviderSupport::degraded,
     "DRM sysfs telemetry for every AMD/Intel/NVIDIA adapter the kernel binds; NVML in addition wherever NVIDIA's "
     "proprietary driver is installed"},
    {"network.interface", ProviderSupport::supported, "procfs counters with sysfs interface metadata"},
    {"network.process", ProviderSupport::degraded,
     "cgroup-v2 eBPF attribution is probed at collection time; the kernel may require CAP_BPF and CAP_NET_ADMIN"},
    {"npu.telemetry", ProviderSupport::unsupported, "No vendor-neutral Linux NPU utilization provider"},
    {"process.grouping", ProviderSupport::unsupported,
     "Wayland does not expose a portable global application-window inventory; cgroup grouping is not yet implemented"},
    {"process.telemetry", ProviderSupport::supported, "procfs process accounting"},
    {"services", ProviderSupport::unsupported, "systemd not yet probed"},
    {"sessions", ProviderSupport::unsupported, "logind/utmp not yet probed"},
    {"startup", ProviderSupport::supported,
     "XDG user/system autostart .desktop inventory; user-level systemd units are not yet implemented"},
    {"system.cpu", ProviderSupport::supported, "procfs aggregate and per-logical-processor counters"},
    {"system.cpu.logicalProcessors", ProviderSupport::supported, "procfs cpuN counters"},
    {"system.cpu.kernelTimes", ProviderSupport::supported, "procfs system, IRQ, and soft-IRQ counters"},
    {"system.memory", ProviderSupport::supported, "procfs meminfo, vmstat, and PSI where available"},
    {"thermal.sensors", ProviderSupport::degraded,
     "hwmon temperatures when the platform driver exposes readable sensor inputs"},
};

}  // namespace

void SetCapability(CapabilityTable& table, const std::string& key, core::ProviderSupport support,
                   std::string description) {
    auto& row = table[key];
    row.key = key;
    row.support = support;
    row.description = std::move(description);
}

CapabilityTable InitialCapabilityTable(const InstalledAppsCapability& installedApps) {
    CapabilityTable table;
    for (const Row& row : kRows) SetCapability(table, row.key, row.support, row.description);
    // 0 after a completed refresh; otherwise 2 minus whether a complete inventory is held.
    const auto installedSupport = installedApps.refreshCompleted
                                      ? ProviderSupport::supported
                                      : static_cast<ProviderSupport>(2 - (installedApps.haveCompleteInventory ? 1 : 0));
    SetCapability(table, "installedApps", installedSupport, installedApps.statusText);
    return table;
}

}  // namespace korv::providers
