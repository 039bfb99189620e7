#include "providers/disk_collector.h"

#include "core/saturating.h"
#include "providers/bounded_read.h"
#include "providers/file_descriptor.h"
#include "providers/process_directory.h"
#include "providers/steady_clock.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <fcntl.h>
#include <limits>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <utility>

namespace korv::providers {
namespace {

constexpr const char* kSource = "linux.disk";
constexpr const char* kCollected = "procfs and sysfs block-device metrics collected";
constexpr const char* kStatsUnavailable = "procfs disk statistics unavailable";
constexpr const char* kEnumerationFailed = "sysfs block-device enumeration failed";
constexpr const char* kIterationFailed = "sysfs block-device iteration failed";
constexpr const char* kCountExceeded = "Block-device count exceeded safety limit";
constexpr const char* kStopped = "block-device collection stopped";
constexpr std::uint64_t kSectorBytes = 512;
// A size of 2^55 sectors or more does not fit in 64 bits once shifted to bytes.
constexpr std::uint64_t kSizeSaturationSectors = std::uint64_t{1} << 55;
// The root file system sits on at most a few layers (dm-crypt on LVM on md on partitions).
constexpr std::size_t kMaxRootDisks = 64;

bool ExistsAt(int directoryFd, const char* path) noexcept {
    struct stat info {};
    return ::fstatat(directoryFd, path, &info, 0) == 0;
}

std::string_view Trim(std::string_view text) noexcept {
    const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\0'; };
    while (!text.empty() && space(text.front())) text.remove_prefix(1);
    while (!text.empty() && space(text.back())) text.remove_suffix(1);
    return text;
}

bool ParseUnsigned(std::string_view text, std::uint64_t& out) noexcept {
    text = Trim(text);
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return !text.empty() && ec == std::errc{} && end == text.data() + text.size();
}

bool IgnoredName(std::string_view name) noexcept {
    return name.starts_with("loop") || name.starts_with("ram") || name.starts_with("zram");
}

// "none [mq-deadline] kyber": the active scheduler is the bracketed word. Devices without a choice
// print a single bare word.
std::string_view ActiveScheduler(std::string_view text) noexcept {
    const std::size_t open = text.find('[');
    if (open != std::string_view::npos) {
        const std::size_t close = text.find(']', open);
        if (close == std::string_view::npos) return {};
        return Trim(text.substr(open + 1, close - open - 1));
    }
    text = Trim(text);
    return text.find_first_of(" \t") == std::string_view::npos ? text : std::string_view{};
}

template <typename T>
void Put(core::Metric<T>& metric, T value, std::uint64_t generation) {
    metric.Set(std::move(value), generation);
    metric.source = kSource;
    metric.quality = core::MetricQuality::authoritative;
}

template <typename T>
void Missing(core::Metric<T>& metric, core::MetricAvailability why) {
    metric.MarkMissing(why);
    metric.source = kSource;
}

// Reads a small attribute relative to a device directory; returns 0 or an errno value.
int ReadAttribute(int deviceFd, const char* name, std::string& out) {
    return ReadFileBoundedAt(deviceFd, name, kSysfsAttributeLimit, out);
}

// The name of the whole device behind a sysfs block path: the directory itself, or for a
// partition the directory that holds it.
std::string WholeDeviceOf(const std::filesystem::path& blockPath) {
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(blockPath, error);
    if (error) return {};
    if (std::filesystem::exists(real / "partition", error)) return real.parent_path().filename().string();
    return real.filename().string();
}

struct RootMount {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::string source;
    bool found = false;
};

// The last mount of "/" in mountinfo: "36 35 98:0 / / rw - ext4 /dev/root rw".
RootMount FindRootMount(std::string_view text) {
    RootMount root;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;

        std::string_view fields[5];
        std::size_t count = 0;
        std::size_t at = 0;
        while (count < 5 && at < line.size()) {
            const std::size_t next = std::min(line.find(' ', at), line.size());
            fields[count++] = line.substr(at, next - at);
            at = next + 1;
        }
        if (count < 5 || fields[4] != "/") continue;
        const std::size_t colon = fields[2].find(':');
        if (colon == std::string_view::npos) continue;
        std::uint32_t major = 0;
        std::uint32_t minor = 0;
        const std::string_view majorText = fields[2].substr(0, colon);
        const std::string_view minorText = fields[2].substr(colon + 1);
        if (std::from_chars(majorText.data(), majorText.data() + majorText.size(), major).ec != std::errc{} ||
            std::from_chars(minorText.data(), minorText.data() + minorText.size(), minor).ec != std::errc{}) {
            continue;
        }
        root = RootMount{major, minor, {}, true};
        // After " - ": the file-system type, then the mount source.
        const std::size_t separator = line.find(" - ");
        if (separator != std::string_view::npos) {
            std::string_view rest = line.substr(separator + 3);
            const std::size_t typeEnd = rest.find(' ');
            if (typeEnd != std::string_view::npos) {
                rest = rest.substr(typeEnd + 1);
                root.source.assign(rest.substr(0, rest.find(' ')));
            }
        }
    }
    return root;
}

}  // namespace

DiskCollector::DiskCollector(ProviderRoots roots) : DiskCollector(std::move(roots), kMaxBlockDevices) {}

DiskCollector::DiskCollector(ProviderRoots roots, std::size_t deviceLimit)
    : deviceLimit_(deviceLimit),
      sysRoot_(roots.sys),
      diskstatsPath_((roots.proc / "diskstats").string()),
      mountInfoPath_((roots.proc / "self/mountinfo").string()),
      classPath_((roots.sys / "class/block").string()) {}

void DiskCollector::ResetBaselines() {
    baselines_.clear();
    rootDisksKnown_ = false;
}

const std::vector<BlockDeviceRef>& DiskCollector::Devices() const { return refs_; }

StageResult DiskCollector::Collect(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices) {
    const std::uint64_t start = SteadyNowNs();
    StageResult result;
    const auto finish = [&](int error, const char* message) {
        result.ok = error == 0;
        result.error = error;
        result.message = message;
        result.durationNs = SteadyNowNs() - start;
        if (error != 0) refs_.clear();
        return result;
    };
    if (ctx.resetBaselines) ResetBaselines();

    bool truncated = false;
    if (const int error = ReadFileBounded(diskstatsPath_.c_str(), kDiskStatsLimit, buffer_, &truncated); error != 0) {
        return finish(error, kStatsUnavailable);
    }
    std::string_view text = buffer_;
    if (truncated) text = text.substr(0, text.rfind('\n') + 1);  // a cut last line is no line
    ParseDiskStats(text, rows_);
    std::sort(rows_.begin(), rows_.end(), [](const auto& a, const auto& b) { return a.name < b.name; });

    const int classFd = OpenDirectoryAt(AT_FDCWD, classPath_.c_str());
    if (classFd < 0) return finish(errno, kEnumerationFailed);
    FdGuard classGuard(classFd);

    std::size_t used = 0;
    std::size_t wholeDevices = 0;
    bool stopped = false;
    bool overflow = false;
    const int walkError = ForEachDirectoryEntry(classFd, directoryBuffer_, [&](std::string_view name) {
        if (ctx.stop.stop_requested()) {
            stopped = true;
            return false;
        }
        if (IgnoredName(name)) return true;
        pathScratch_.assign(name);
        const int deviceFd = OpenDirectoryAt(classFd, pathScratch_.c_str());
        if (deviceFd < 0) return true;  // gone since the directory was listed
        FdGuard deviceGuard(deviceFd);
        if (ExistsAt(deviceFd, "partition")) return true;
        if (++wholeDevices > deviceLimit_) {
            overflow = true;
            return false;
        }
        const auto row = std::lower_bound(rows_.begin(), rows_.end(), name,
                                          [](const DiskStatsRow& r, std::string_view key) { return r.name < key; });
        // A device without a statistics line (a bad line, or one that came or went between the two
        // reads) loses only its own row.
        if (row == rows_.end() || row->name != name) return true;
        if (pending_.size() <= used) pending_.emplace_back();
        FillDevice(deviceFd, *row, ctx, pending_[used++]);
        return true;
    });
    if (stopped) return finish(ECANCELED, kStopped);
    if (walkError != 0) return finish(walkError, kIterationFailed);
    if (overflow) return finish(kBlockDeviceCountExceededError, kCountExceeded);

    std::sort(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(used),
              [](const Pending& a, const Pending& b) { return a.snapshot.disk.blockName < b.snapshot.disk.blockName; });

    const bool sameSet = names_.size() == used &&
                         std::equal(names_.begin(), names_.end(), pending_.begin(),
                                    [](const std::string& n, const Pending& p) { return n == p.snapshot.disk.blockName; });
    if (!sameSet) {
        names_.clear();
        for (std::size_t i = 0; i < used; ++i) names_.push_back(pending_[i].snapshot.disk.blockName);
        rootDisksKnown_ = false;
    }
    if (!rootDisksKnown_) RefreshRootDisks(classFd);

    for (auto& [name, baseline] : baselines_) baseline.seen = false;
    refs_.clear();
    for (std::size_t i = 0; i < used; ++i) {
        Pending& entry = pending_[i];
        core::DiskBlock& disk = entry.snapshot.disk;
        Put(disk.systemDisk,
            std::find(rootDisks_.begin(), rootDisks_.end(), disk.blockName) != rootDisks_.end(), ctx.generation);

        auto [slot, added] = baselines_.try_emplace(disk.blockName);
        Baseline& baseline = slot->second;
        const bool reset = !added && (entry.counters->readsCompleted < baseline.counters.readsCompleted ||
                                      entry.counters->writesCompleted < baseline.counters.writesCompleted ||
                                      entry.counters->sectorsRead < baseline.counters.sectorsRead ||
                                      entry.counters->sectorsWritten < baseline.counters.sectorsWritten);
        if (added || reset || entry.deviceLink != baseline.deviceLink) {
            baseline.deviceLink = entry.deviceLink;
            std::error_code error;
            baseline.devicePath = entry.deviceLink.empty()
                                      ? std::filesystem::path{}
                                      : std::filesystem::canonical(sysRoot_ / "class/block" / disk.blockName / "device", error);
            if (error) baseline.devicePath.clear();
        }
        baseline.counters = *entry.counters;
        baseline.sampleNs = ctx.monotonicNs;
        baseline.seen = true;

        refs_.push_back({disk.blockName, entry.snapshot.id, baseline.devicePath});
        devices.push_back(entry.snapshot);
    }
    std::erase_if(baselines_, [](const auto& item) { return !item.second.seen; });
    return finish(0, kCollected);
}

void DiskCollector::FillDevice(int deviceFd, const DiskStatsRow& counters, const CollectContext& ctx,
                               Pending& pending) {
    const std::uint64_t generation = ctx.generation;
    pending.snapshot = core::DeviceSnapshot{};
    core::DeviceSnapshot& device = pending.snapshot;
    core::DiskBlock& disk = device.disk;
    device.kind = core::DeviceKind::disk;
    device.id.assign("linux-block:path:").append(counters.name);
    device.displayName = counters.name;
    disk.blockName = counters.name;
    pending.counters = &counters;

    char link[4096];
    const ssize_t linkLength = ::readlinkat(deviceFd, "device", link, sizeof link);
    pending.deviceLink.assign(link, linkLength > 0 ? static_cast<std::size_t>(linkLength) : 0);

    if (const int error = ReadAttribute(deviceFd, "device/model", attribute_); error != 0) {
        Missing(disk.description, AvailabilityFromErrno(error));
    } else if (const std::string_view model = Trim(attribute_); model.empty()) {
        Missing(disk.description, core::MetricAvailability::unsupported);
    } else {
        Put(disk.description, std::string(model), generation);
    }

    std::uint64_t number = 0;
    if (const int error = ReadAttribute(deviceFd, "size", attribute_); error != 0) {
        Missing(disk.capacityBytes, AvailabilityFromErrno(error));
    } else if (!ParseUnsigned(attribute_, number)) {
        Missing(disk.capacityBytes, core::MetricAvailability::transientError);
    } else {
        Put(disk.capacityBytes,
            number >= kSizeSaturationSectors ? std::numeric_limits<std::uint64_t>::max() : number * kSectorBytes,
            generation);
    }

    if (const int error = ReadAttribute(deviceFd, "queue/rotational", attribute_); error != 0) {
        Missing(disk.rotational, AvailabilityFromErrno(error));
        Missing(disk.type, AvailabilityFromErrno(error));
    } else if (!ParseUnsigned(attribute_, number)) {
        Missing(disk.rotational, core::MetricAvailability::transientError);
        Missing(disk.type, core::MetricAvailability::transientError);
    } else {
        Put(disk.rotational, number != 0, generation);
        Put(disk.type, std::string(number != 0 ? "Hard disk" : "Solid-state"), generation);
    }

    if (const int error = ReadAttribute(deviceFd, "queue/logical_block_size", attribute_); error != 0) {
        Missing(disk.logicalBlockSize, AvailabilityFromErrno(error));
    } else if (!ParseUnsigned(attribute_, number)) {
        Missing(disk.logicalBlockSize, core::MetricAvailability::transientError);
    } else {
        Put(disk.logicalBlockSize, number, generation);
    }

    if (const int error = ReadAttribute(deviceFd, "queue/scheduler", attribute_); error != 0) {
        Missing(disk.scheduler, AvailabilityFromErrno(error));
    } else if (const std::string_view scheduler = ActiveScheduler(attribute_); scheduler.empty()) {
        Missing(disk.scheduler, core::MetricAvailability::transientError);
    } else {
        Put(disk.scheduler, std::string(scheduler), generation);
    }

    Put(disk.readBytesTotal, core::SaturatingMultiply(counters.sectorsRead, kSectorBytes), generation);
    Put(disk.writeBytesTotal, core::SaturatingMultiply(counters.sectorsWritten, kSectorBytes), generation);
    FillRates(counters, ctx, disk);
}

void DiskCollector::FillRates(const DiskStatsRow& now, const CollectContext& ctx, core::DiskBlock& disk) const {
    constexpr auto later = core::MetricAvailability::notYetAvailable;
    for (auto* metric : {&disk.readBytesPerSecond, &disk.writeBytesPerSecond, &disk.activePercent,
                         &disk.averageResponseMs}) {
        Missing(*metric, later);
    }
    const auto found = baselines_.find(now.name);
    if (found == baselines_.end()) return;
    const Baseline& before = found->second;
    const DiskStatsRow& was = before.counters;
    // A counter that went backwards means the device was re-created: this sample starts a new baseline.
    if (now.readsCompleted < was.readsCompleted || now.writesCompleted < was.writesCompleted ||
        now.sectorsRead < was.sectorsRead || now.sectorsWritten < was.sectorsWritten) {
        return;
    }
    const std::uint64_t elapsedNs = ElapsedSinceNs(ctx, before.sampleNs);
    if (elapsedNs == 0) return;

    const double seconds = static_cast<double>(elapsedNs) / 1e9;
    const std::uint64_t generation = ctx.generation;
    Put(disk.readBytesPerSecond,
        static_cast<double>(now.sectorsRead - was.sectorsRead) * static_cast<double>(kSectorBytes) / seconds, generation);
    Put(disk.writeBytesPerSecond,
        static_cast<double>(now.sectorsWritten - was.sectorsWritten) * static_cast<double>(kSectorBytes) / seconds,
        generation);

    if (now.ioTicksMillis >= was.ioTicksMillis) {
        // io_ticks counts wall time with at least one request in flight; it can run ahead of the
        // sampling clock, so the share is clamped.
        const double busy = static_cast<double>(now.ioTicksMillis - was.ioTicksMillis) /
                            (static_cast<double>(elapsedNs) / 1e6) * 100.0;
        Put(disk.activePercent, std::min(busy, 100.0), generation);
    }

    if (now.readMillis >= was.readMillis && now.writeMillis >= was.writeMillis) {
        const std::uint64_t operations =
            (now.readsCompleted - was.readsCompleted) + (now.writesCompleted - was.writesCompleted);
        const std::uint64_t millis = (now.readMillis - was.readMillis) + (now.writeMillis - was.writeMillis);
        // With no request completed there is nothing to average: the time stays unknown, not zero.
        if (operations != 0) {
            Put(disk.averageResponseMs, static_cast<double>(millis) / static_cast<double>(operations), generation);
        }
    }
}

void DiskCollector::RefreshRootDisks(int classFd) {
    rootDisksKnown_ = true;
    rootDisks_.clear();
    if (ReadFileBounded(mountInfoPath_.c_str(), kMountInfoLimit, buffer_) != 0) return;
    const RootMount root = FindRootMount(buffer_);
    if (!root.found) return;

    std::uint32_t major = root.major;
    std::uint32_t minor = root.minor;
    if (major == 0 && root.source.starts_with('/')) {
        // btrfs and other multi-device file systems report an anonymous device number; the mount
        // source names the block device instead.
        struct stat info {};
        if (::stat(root.source.c_str(), &info) != 0 || !S_ISBLK(info.st_mode)) return;
        major = ::major(info.st_rdev);
        minor = ::minor(info.st_rdev);
    }
    const std::string number = std::to_string(major) + ":" + std::to_string(minor);
    std::string whole = WholeDeviceOf(sysRoot_ / "dev/block" / number);
    if (whole.empty()) return;
    rootDisks_.push_back(std::move(whole));

    // Device-mapper and md devices list what they are built from under slaves/.
    std::vector<char> listing;
    for (std::size_t i = 0; i < rootDisks_.size() && rootDisks_.size() < kMaxRootDisks; ++i) {
        pathScratch_.assign(rootDisks_[i]).append("/slaves");
        const int slavesFd = OpenDirectoryAt(classFd, pathScratch_.c_str());
        if (slavesFd < 0) continue;
        FdGuard slavesGuard(slavesFd);
        std::vector<std::string> slaves;
        ForEachDirectoryEntry(slavesFd, listing, [&](std::string_view slave) {
            slaves.emplace_back(slave);
            return slaves.size() < kMaxRootDisks;
        });
        for (const auto& slave : slaves) {
            std::string name = WholeDeviceOf(sysRoot_ / "class/block" / slave);
            if (name.empty() || std::find(rootDisks_.begin(), rootDisks_.end(), name) != rootDisks_.end()) continue;
            if (rootDisks_.size() >= kMaxRootDisks) break;
            rootDisks_.push_back(std::move(name));
        }
    }
}

}  // namespace korv::providers
