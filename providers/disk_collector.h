#pragma once

#include "core/snapshot.h"
#include "providers/diskstats.h"
#include "providers/provider_context.h"
#include "providers/stage_result.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace korv::providers {

inline constexpr std::size_t kMaxBlockDevices = 65536;
inline constexpr int kBlockDeviceCountExceededError = 75;  // EOVERFLOW
inline constexpr std::size_t kSysfsAttributeLimit = 4096;
inline constexpr std::size_t kMountInfoLimit = 4194304;

struct BlockDeviceRef {
    std::string name;
    std::string deviceId;
    std::filesystem::path devicePath;  // canonical <sys>/class/block/<name>/device, empty when it has none
};

// One row per whole block device: /proc/diskstats counters joined with /sys/class/block metadata.
// Partitions and loop, ram and zram devices are left out; device-mapper and md devices stay.
// Rates are deltas against the previous sample of the same device name (mark and sweep); the first
// sample of a device, and any sample after a counter went backwards, has counters but no rates.
// Runs on the sampling thread only.
class DiskCollector {
public:
    explicit DiskCollector(ProviderRoots roots);
    // deviceLimit replaces kMaxBlockDevices (tests).
    DiskCollector(ProviderRoots roots, std::size_t deviceLimit);

    // Appends one DeviceSnapshot (kind core::DeviceKind::disk) per whole block device to devices,
    // ordered by name. On failure appends nothing and keeps the previous baselines.
    StageResult Collect(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices);
    void ResetBaselines();
    // The whole devices of the last Collect, in output order.
    const std::vector<BlockDeviceRef>& Devices() const;

private:
    struct Baseline {
        DiskStatsRow counters;
        std::uint64_t sampleNs = 0;
        std::string deviceLink;  // text of the device link, to tell when devicePath must be resolved again
        std::filesystem::path devicePath;
        bool seen = false;
    };
    struct Pending {
        core::DeviceSnapshot snapshot;
        const DiskStatsRow* counters = nullptr;
        std::string deviceLink;
    };

    void FillDevice(int deviceFd, const DiskStatsRow& counters, const CollectContext& ctx, Pending& pending);
    void FillRates(const DiskStatsRow& now, const CollectContext& ctx, core::DiskBlock& disk) const;
    void RefreshRootDisks(int classFd);

    std::size_t deviceLimit_;
    std::filesystem::path sysRoot_;
    std::string diskstatsPath_;
    std::string mountInfoPath_;
    std::string classPath_;

    std::string buffer_;
    std::string attribute_;
    std::string pathScratch_;
    std::vector<char> directoryBuffer_;
    std::vector<DiskStatsRow> rows_;
    std::vector<Pending> pending_;
    std::vector<std::string> names_;      // whole devices of the last good sample, sorted
    std::vector<std::string> rootDisks_;  // whole devices that hold the root file system
    bool rootDisksKnown_ = false;
    std::map<std::string, Baseline, std::less<>> baselines_;
    std::vector<BlockDeviceRef> refs_;
};

}  // namespace korv::providers
