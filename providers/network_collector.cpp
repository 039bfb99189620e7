#include "providers/network_collector.h"

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
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace korv::providers {
namespace {

constexpr const char* kSource = "linux.network";
constexpr const char* kCollected = "procfs and sysfs network metrics collected";
constexpr const char* kStatsUnavailable = "procfs network statistics unavailable";
constexpr const char* kCountExceeded = "Network-interface count exceeded safety limit";
constexpr const char* kStopped = "network collection stopped";
constexpr std::size_t kAttributeLimit = 4096;
constexpr std::uint64_t kBitsPerMegabit = 1000000;

std::string_view Trim(std::string_view text) noexcept {
    const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\0'; };
    while (!text.empty() && space(text.front())) text.remove_prefix(1);
    while (!text.empty() && space(text.back())) text.remove_suffix(1);
    return text;
}

template <typename T>
bool ParseNumber(std::string_view text, T& out) noexcept {
    text = Trim(text);
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return !text.empty() && ec == std::errc{} && end == text.data() + text.size();
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

bool IsDirectoryAt(int directoryFd, const char* path) noexcept {
    struct stat info {};
    return ::fstatat(directoryFd, path, &info, 0) == 0 && S_ISDIR(info.st_mode);
}

bool LinkExistsAt(int directoryFd, const char* path) noexcept {
    struct stat info {};
    return ::fstatat(directoryFd, path, &info, AT_SYMLINK_NOFOLLOW) == 0;
}

// "02:fc:00:00:00:01" -> "02fc00000001", for the stable key.
void AppendHexDigits(std::string& out, std::string_view address) {
    for (const char c : address) {
        if (c != ':') out.push_back(c);
    }
}

}  // namespace

NetworkCollector::NetworkCollector(ProviderRoots roots) : NetworkCollector(std::move(roots), SystemNetwork()) {}

NetworkCollector::NetworkCollector(ProviderRoots roots, INetworkSystem& system)
    : system_(system),
      netDevPath_((roots.proc / "net/dev").string()),
      classPath_((roots.sys / "class/net").string()) {}

void NetworkCollector::ResetBaselines() { baselines_.clear(); }

StageResult NetworkCollector::Collect(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices) {
    const std::uint64_t start = SteadyNowNs();
    StageResult result;
    const auto finish = [&](int error, const char* message) {
        result.ok = error == 0;
        result.error = error;
        result.message = message;
        result.durationNs = SteadyNowNs() - start;
        return result;
    };
    if (ctx.resetBaselines) ResetBaselines();

    bool truncated = false;
    if (const int error = ReadFileBounded(netDevPath_.c_str(), kNetDevLimit, buffer_, &truncated); error != 0) {
        return finish(error, kStatsUnavailable);
    }
    std::string_view text = buffer_;
    if (truncated) text = text.substr(0, text.rfind('\n') + 1);  // a cut last line is no line
    ParseNetDev(text, rows_);
    const auto interfaces = static_cast<std::size_t>(
        std::count_if(rows_.begin(), rows_.end(), [](const NetDevRow& row) { return row.name != "lo"; }));
    if (interfaces > kMaxNetworkInterfaces) return finish(kNetworkInterfaceCountExceededError, kCountExceeded);

    CollectAddressBook(system_, addresses_, addressScratch_);

    const int classFd = OpenDirectoryAt(AT_FDCWD, classPath_.c_str());
    const int classError = classFd < 0 ? errno : 0;
    FdGuard classGuard(classFd);

    std::size_t used = 0;
    for (const NetDevRow& row : rows_) {
        if (ctx.stop.stop_requested()) return finish(ECANCELED, kStopped);
        if (row.name == "lo") continue;
        int interfaceFd = -1;
        int interfaceError = classError;
        if (classFd >= 0) {
            pathScratch_.assign(row.name);
            interfaceFd = OpenDirectoryAt(classFd, pathScratch_.c_str());
            interfaceError = interfaceFd < 0 ? errno : 0;
            // Gone between the two reads: only this row is lost.
            if (interfaceError == ENOENT) continue;
        }
        FdGuard interfaceGuard(interfaceFd);
        if (pending_.size() <= used) pending_.emplace_back();
        core::DeviceSnapshot& device = pending_[used++];
        device = core::DeviceSnapshot{};
        device.kind = core::DeviceKind::network;
        device.displayName = row.name;
        core::NetworkBlock& network = device.network;
        Put(network.interfaceName, row.name, ctx.generation);
        if (interfaceFd >= 0) {
            FillMetadata(interfaceFd, row, ctx.generation, device);
        } else {
            const auto why = AvailabilityFromErrno(interfaceError);
            for (auto* metric : {&network.type, &network.hardware, &network.hardwareAddress, &network.state,
                                 &network.networkName}) {
                Missing(*metric, why);
            }
            for (auto* metric : {&network.mtu, &network.linkBitsPerSecond}) Missing(*metric, why);
            Missing(network.signalStrengthPercent, why);
            device.id.assign("linux-net:name-").append(row.name);
        }
        FillAddresses(row, ctx.generation, network);
        Put(network.receivedBytesTotal, row.receiveBytes, ctx.generation);
        Put(network.sentBytesTotal, row.transmitBytes, ctx.generation);
        Put(network.receivedPacketsTotal, row.receivePackets, ctx.generation);
        Put(network.sentPacketsTotal, row.transmitPackets, ctx.generation);
        FillRates(row, ctx, network);
    }

    for (auto& [name, baseline] : baselines_) baseline.seen = false;
    for (const NetDevRow& row : rows_) {
        if (row.name == "lo") continue;
        Baseline& baseline = baselines_[row.name];
        baseline.counters = row;
        baseline.sampleNs = ctx.monotonicNs;
        baseline.seen = true;
    }
    std::erase_if(baselines_, [](const auto& item) { return !item.second.seen; });
    devices.insert(devices.end(), pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(used));
    return finish(0, kCollected);
}

void NetworkCollector::FillMetadata(int interfaceFd, const NetDevRow& row, std::uint64_t generation,
                                    core::DeviceSnapshot& device) {
    core::NetworkBlock& network = device.network;

    // The stable key: the interface index and the hardware address, which together survive a
    // rename and change when the interface is re-created.
    device.id.assign("linux-net:");
    std::uint64_t ifindex = 0;
    const bool haveIndex = ReadFileBoundedAt(interfaceFd, "ifindex", kAttributeLimit, attribute_) == 0 &&
                           ParseNumber(attribute_, ifindex);
    if (haveIndex) {
        device.id.append(std::to_string(ifindex));
    } else {
        device.id.append("name-").append(row.name);
    }
    if (const int error = ReadFileBoundedAt(interfaceFd, "address", kAttributeLimit, attribute_); error != 0) {
        Missing(network.hardwareAddress, AvailabilityFromErrno(error));
    } else if (const std::string_view address = Trim(attribute_); address.empty()) {
        Missing(network.hardwareAddress, core::MetricAvailability::notApplicable);
    } else {
        Put(network.hardwareAddress, std::string(address), generation);
        if (haveIndex) AppendHexDigits(device.id.append("-"), address);
    }

    const bool backed = LinkExistsAt(interfaceFd, "device");
    const bool wireless = IsDirectoryAt(interfaceFd, "wireless");
    Put(network.type, std::string(wireless ? "Wi-Fi" : backed ? "Ethernet" : "Virtual"), generation);

    if (backed) {
        char link[4096];
        const ssize_t length = ::readlinkat(interfaceFd, "device/driver", link, sizeof link);
        if (length > 0) {
            std::string_view target(link, static_cast<std::size_t>(length));
            target = target.substr(target.rfind('/') + 1);
            Put(network.hardware, std::string(target), generation);
        } else {
            Missing(network.hardware, AvailabilityFromErrno(errno));
        }
    } else {
        Missing(network.hardware, core::MetricAvailability::notApplicable);
    }

    // Wireless network names and signal strength come from nl80211, which this collector does not use.
    const auto radio = wireless ? core::MetricAvailability::unsupported : core::MetricAvailability::notApplicable;
    Missing(network.networkName, radio);
    Missing(network.signalStrengthPercent, radio);

    std::int64_t megabits = 0;
    // Reading speed fails with EINVAL while the link is down; a negative value means unknown.
    if (ReadFileBoundedAt(interfaceFd, "speed", kAttributeLimit, attribute_) == 0 && ParseNumber(attribute_, megabits) &&
        megabits >= 0) {
        Put(network.linkBitsPerSecond, core::SaturatingMultiply(static_cast<std::uint64_t>(megabits), kBitsPerMegabit),
            generation);
    } else {
        Missing(network.linkBitsPerSecond, core::MetricAvailability::notApplicable);
    }

    std::uint64_t mtu = 0;
    if (const int error = ReadFileBoundedAt(interfaceFd, "mtu", kAttributeLimit, attribute_); error != 0) {
        Missing(network.mtu, AvailabilityFromErrno(error));
    } else if (!ParseNumber(attribute_, mtu)) {
        Missing(network.mtu, core::MetricAvailability::transientError);
    } else {
        Put(network.mtu, mtu, generation);
    }

    if (const int error = ReadFileBoundedAt(interfaceFd, "operstate", kAttributeLimit, attribute_); error != 0) {
        Missing(network.state, AvailabilityFromErrno(error));
    } else if (const std::string_view state = Trim(attribute_); state.empty()) {
        Missing(network.state, core::MetricAvailability::transientError);
    } else {
        Put(network.state, std::string(state), generation);
    }

    // A bond, bridge port or VLAN links what it sits on as lower_<name>; the first by name is kept.
    network.lowerDevice.clear();
    ForEachDirectoryEntry(interfaceFd, directoryBuffer_, [&](std::string_view entry) {
        if (entry.size() > 6 && entry.starts_with("lower_")) {
            const std::string_view lower = entry.substr(6);
            if (network.lowerDevice.empty() || lower < network.lowerDevice) network.lowerDevice.assign(lower);
        }
        return true;
    });
}

void NetworkCollector::FillAddresses(const NetDevRow& row, std::uint64_t generation,
                                     core::NetworkBlock& network) const {
    if (addresses_.error != 0) {
        const auto why = AvailabilityFromErrno(addresses_.error);
        Missing(network.ipv4Addresses, why);
        Missing(network.ipv6Addresses, why);
        Missing(network.primary, why);
        return;
    }
    const InterfaceAddressSummary* summary = addresses_.Find(row.name);
    Put(network.ipv4Addresses, summary ? summary->ipv4 : std::string(), generation);
    Put(network.ipv6Addresses, summary ? summary->ipv6 : std::string(), generation);
    Put(network.primary, summary != nullptr && summary->primary, generation);
}

void NetworkCollector::FillRates(const NetDevRow& now, const CollectContext& ctx, core::NetworkBlock& network) const {
    for (auto* metric : {&network.receiveBytesPerSecond, &network.sendBytesPerSecond, &network.receivePacketsPerSecond,
                         &network.sendPacketsPerSecond}) {
        Missing(*metric, core::MetricAvailability::notYetAvailable);
    }
    const auto found = baselines_.find(now.name);
    if (found == baselines_.end()) return;
    const Baseline& before = found->second;
    const NetDevRow& was = before.counters;
    // A counter that went backwards means the interface was re-created: a new baseline starts.
    if (now.receiveBytes < was.receiveBytes || now.transmitBytes < was.transmitBytes ||
        now.receivePackets < was.receivePackets || now.transmitPackets < was.transmitPackets) {
        return;
    }
    const std::uint64_t elapsedNs = ElapsedSinceNs(ctx, before.sampleNs);
    if (elapsedNs == 0) return;
    const double seconds = static_cast<double>(elapsedNs) / 1e9;
    const auto rate = [&](std::uint64_t later, std::uint64_t earlier) {
        return static_cast<double>(later - earlier) / seconds;
    };
    Put(network.receiveBytesPerSecond, rate(now.receiveBytes, was.receiveBytes), ctx.generation);
    Put(network.sendBytesPerSecond, rate(now.transmitBytes, was.transmitBytes), ctx.generation);
    Put(network.receivePacketsPerSecond, rate(now.receivePackets, was.receivePackets), ctx.generation);
    Put(network.sendPacketsPerSecond, rate(now.transmitPackets, was.transmitPackets), ctx.generation);
}

}  // namespace korv::providers
