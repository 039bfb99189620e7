#include "providers/cpu_topology.h"

#include "providers/bounded_read.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <set>
#include <tuple>
#include <unistd.h>

namespace korv::providers {
namespace {

bool IsBlank(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view Trim(std::string_view text) noexcept {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
    return text;
}

template <typename T>
std::optional<T> ParseWhole(std::string_view text) noexcept {
    text = Trim(text);
    T value{};
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc{} || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

// Index from a name such as "cpu12" or "node0"; nothing for "cpufreq" or "cpuidle".
std::optional<std::uint32_t> NumberedName(std::string_view name, std::string_view prefix) noexcept {
    if (name.size() <= prefix.size() || name.substr(0, prefix.size()) != prefix) return std::nullopt;
    const std::string_view digits = name.substr(prefix.size());
    if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) return std::nullopt;
    const auto value = ParseWhole<std::uint32_t>(digits);
    if (!value || *value > 65535) return std::nullopt;
    return value;
}

class Directory {
public:
    Directory(int parentFd, const char* path) {
        const int fd = ::openat(parentFd, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) {
            error_ = errno;
            return;
        }
        dir_ = ::fdopendir(fd);
        if (dir_ == nullptr) {
            error_ = errno;
            ::close(fd);
        }
    }
    ~Directory() {
        if (dir_ != nullptr) ::closedir(dir_);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    int Error() const noexcept { return error_; }
    int Fd() const noexcept { return dir_ != nullptr ? ::dirfd(dir_) : -1; }

    template <typename Visit>
    void ForEachName(Visit&& visit) {
        if (dir_ == nullptr) return;
        ::rewinddir(dir_);
        while (const dirent* entry = ::readdir(dir_)) visit(std::string_view(entry->d_name));
    }

private:
    DIR* dir_ = nullptr;
    int error_ = 0;
};

std::optional<std::string> ReadText(int dirFd, const std::string& relative) {
    std::string text;
    if (ReadFileBoundedAt(dirFd, relative.c_str(), kSysfsValueLimit, text) != 0) return std::nullopt;
    return std::string(Trim(text));
}

template <typename T>
std::optional<T> ReadNumber(int dirFd, const std::string& relative) {
    const auto text = ReadText(dirFd, relative);
    return text ? ParseWhole<T>(*text) : std::nullopt;
}

struct CacheEntry {
    std::uint64_t level = 0;
    std::string type;
    std::uint64_t bytes = 0;
};

// Keyed by level, type and shared_cpu_map: the CPUs that share one cache all list it.
void CollectCaches(int cpuDirFd, std::string_view cpuName,
                   std::map<std::tuple<std::uint64_t, std::string, std::string>, std::uint64_t>& caches) {
    const std::string cacheDir = std::string(cpuName) + "/cache";
    Directory dir(cpuDirFd, cacheDir.c_str());
    dir.ForEachName([&](std::string_view name) {
        if (!NumberedName(name, "index")) return;
        const std::string base = cacheDir + "/" + std::string(name) + "/";
        const auto level = ReadNumber<std::uint64_t>(cpuDirFd, base + "level");
        const auto type = ReadText(cpuDirFd, base + "type");
        const auto size = ReadText(cpuDirFd, base + "size");
        const auto map = ReadText(cpuDirFd, base + "shared_cpu_map");
        if (!level || !type || !size || !map) return;
        const auto bytes = ParseCacheSize(*size);
        if (!bytes) return;
        caches.emplace(std::make_tuple(*level, *type, *map), *bytes);
    });
}

CpuCacheTotals SumCaches(const std::map<std::tuple<std::uint64_t, std::string, std::string>, std::uint64_t>& caches) {
    CpuCacheTotals totals;
    for (const auto& [key, bytes] : caches) {
        const std::uint64_t level = std::get<0>(key);
        std::optional<std::uint64_t>* slot = level == 1   ? &totals.l1Bytes
                                             : level == 2 ? &totals.l2Bytes
                                             : level == 3 ? &totals.l3Bytes
                                                          : nullptr;
        if (slot == nullptr) continue;
        const std::uint64_t sum = slot->value_or(0) + bytes;
        *slot = sum < bytes ? UINT64_MAX : sum;
    }
    return totals;
}

}  // namespace

bool ParseCpuList(std::string_view text, std::vector<std::uint32_t>& out) {
    text = Trim(text);
    std::vector<std::uint32_t> found;
    while (!text.empty()) {
        const std::size_t comma = text.find(',');
        const std::string_view part = Trim(text.substr(0, comma));
        text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
        if (part.empty()) return false;
        const std::size_t dash = part.find('-');
        const auto first = ParseWhole<std::uint32_t>(part.substr(0, dash));
        const auto last = dash == std::string_view::npos ? first : ParseWhole<std::uint32_t>(part.substr(dash + 1));
        if (!first || !last || *first > *last || *last > 65535) return false;
        for (std::uint32_t i = *first; i <= *last; ++i) found.push_back(i);
        if (comma == std::string_view::npos) break;
        if (Trim(text).empty()) return false;  // a trailing comma
    }
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    out.insert(out.end(), found.begin(), found.end());
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return true;
}

std::optional<std::uint64_t> ParseCacheSize(std::string_view text) {
    text = Trim(text);
    if (text.empty()) return std::nullopt;
    std::uint64_t scale = 1;
    switch (text.back()) {
        case 'K': scale = 1024; break;
        case 'M': scale = 1024 * 1024; break;
        case 'G': scale = 1024 * 1024 * 1024; break;
        default: break;
    }
    if (scale != 1) text.remove_suffix(1);
    const auto value = ParseWhole<std::uint64_t>(text);
    if (!value || *value > UINT64_MAX / scale) return std::nullopt;
    return *value * scale;
}

CpuInfoSummary ParseCpuInfo(std::string_view text) {
    CpuInfoSummary summary;
    // Candidates for the model text in order of preference; the first line of each kind counts.
    constexpr std::string_view kModelKeys[] = {"model name", "Hardware", "Model", "Processor"};
    std::string_view models[4];
    std::optional<std::uint32_t> processor;

    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;

        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view key = Trim(line.substr(0, colon));
        const std::string_view value = Trim(line.substr(colon + 1));

        for (std::size_t i = 0; i < 4; ++i) {
            if (key == kModelKeys[i] && models[i].empty()) models[i] = value;
        }
        if (key == "processor") {
            processor = ParseWhole<std::uint32_t>(value);
        } else if (key == "cpu MHz") {
            const auto mhz = ParseWhole<double>(value);
            if (mhz && std::isfinite(*mhz) && *mhz > 0 && *mhz < 1e9) {
                const auto hz = static_cast<std::uint64_t>(std::llround(*mhz * 1e6));
                if (summary.nominalHz == 0) summary.nominalHz = hz;
                if (processor) summary.processorNominalHz.emplace_back(*processor, hz);
            }
        } else if (key == "flags" && !summary.flagsPresent) {
            summary.flagsPresent = true;
            // The kernel separates flags by single spaces; comparing whole tokens is the same as
            // searching the line padded with spaces for " vmx ".
            std::size_t at = 0;
            while (at < value.size()) {
                std::size_t stop = value.find_first_of(" \t", at);
                if (stop == std::string_view::npos) stop = value.size();
                const std::string_view flag = value.substr(at, stop - at);
                if (flag == "vmx" || flag == "svm") summary.hardwareVirtualization = true;
                if (flag == "hypervisor") summary.hypervisor = true;
                at = stop + 1;
            }
        }
    }
    for (const std::string_view model : models) {
        if (!model.empty()) {
            summary.modelName.assign(model);
            break;
        }
    }
    std::sort(summary.processorNominalHz.begin(), summary.processorNominalHz.end());
    return summary;
}

const LogicalCpuTopology* CpuTopology::Find(std::uint32_t index) const noexcept {
    const auto it = std::lower_bound(cpus.begin(), cpus.end(), index,
                                     [](const LogicalCpuTopology& cpu, std::uint32_t key) { return cpu.index < key; });
    return it != cpus.end() && it->index == index ? &*it : nullptr;
}

CpuTopology ReadCpuTopology(const std::filesystem::path& cpuDirectory) {
    CpuTopology topology;
    Directory root(AT_FDCWD, cpuDirectory.c_str());
    if (root.Error() != 0) {
        topology.error = root.Error();
        return topology;
    }
    root.ForEachName([&](std::string_view name) {
        if (const auto index = NumberedName(name, "cpu")) topology.cpus.emplace_back().index = *index;
    });
    std::sort(topology.cpus.begin(), topology.cpus.end(),
              [](const LogicalCpuTopology& a, const LogicalCpuTopology& b) { return a.index < b.index; });

    std::map<std::tuple<std::uint64_t, std::string, std::string>, std::uint64_t> caches;
    std::set<std::pair<std::int64_t, std::int64_t>> cores;
    for (auto& cpu : topology.cpus) {
        const std::string name = "cpu" + std::to_string(cpu.index);
        cpu.packageId = ReadNumber<std::int64_t>(root.Fd(), name + "/topology/physical_package_id");
        cpu.coreId = ReadNumber<std::int64_t>(root.Fd(), name + "/topology/core_id");
        cpu.hasCpufreq = ::faccessat(root.Fd(), (name + "/cpufreq").c_str(), F_OK, 0) == 0;
        Directory cpuDir(root.Fd(), name.c_str());
        cpuDir.ForEachName([&](std::string_view entry) {
            if (const auto node = NumberedName(entry, "node")) cpu.numaNode = *node;
        });
        // An offline CPU has no topology/ directory: the counts are of the CPUs that have one.
        if (cpu.packageId && cpu.coreId) cores.emplace(*cpu.packageId, *cpu.coreId);
        if (cpu.packageId) topology.packageIds.push_back(*cpu.packageId);
        CollectCaches(root.Fd(), name, caches);
    }
    std::sort(topology.packageIds.begin(), topology.packageIds.end());
    topology.packageIds.erase(std::unique(topology.packageIds.begin(), topology.packageIds.end()),
                              topology.packageIds.end());
    for (auto& cpu : topology.cpus) {
        if (!cpu.packageId) continue;
        const auto it = std::lower_bound(topology.packageIds.begin(), topology.packageIds.end(), *cpu.packageId);
        cpu.packageOrdinal = static_cast<std::uint32_t>(it - topology.packageIds.begin());
    }
    if (!cores.empty()) topology.physicalCoreCount = cores.size();
    if (!topology.packageIds.empty()) topology.socketCount = topology.packageIds.size();
    topology.caches = SumCaches(caches);
    return topology;
}

core::ProcessorClass HybridClasses::ClassOf(std::uint32_t index) const noexcept {
    const auto it = std::lower_bound(cpus.begin(), cpus.end(), index);
    if (it == cpus.end() || *it != index) return core::ProcessorClass::unknown;
    return classes[static_cast<std::size_t>(it - cpus.begin())];
}

HybridClasses ClassifyHybrid(std::span<const std::uint32_t> cpus,
                             std::span<const std::optional<std::uint64_t>> capacities,
                             std::span<const std::uint32_t> coreList, std::span<const std::uint32_t> atomList) {
    HybridClasses result;
    result.cpus.assign(cpus.begin(), cpus.end());
    result.classes.assign(cpus.size(), core::ProcessorClass::unknown);

    const bool allCapacities = capacities.size() == cpus.size() &&
                               std::all_of(capacities.begin(), capacities.end(), [](const auto& c) { return c.has_value(); });
    if (allCapacities) {
        std::uint64_t lowest = UINT64_MAX;
        std::uint64_t highest = 0;
        for (const auto& capacity : capacities) {
            lowest = std::min(lowest, *capacity);
            highest = std::max(highest, *capacity);
        }
        if (cpus.empty() || lowest == highest) return result;
        for (std::size_t i = 0; i < cpus.size(); ++i) {
            if (*capacities[i] == highest) result.classes[i] = core::ProcessorClass::performance;
            else if (*capacities[i] == lowest) result.classes[i] = core::ProcessorClass::efficiency;
        }
    } else {
        const auto contains = [](std::span<const std::uint32_t> list, std::uint32_t cpu) {
            return std::find(list.begin(), list.end(), cpu) != list.end();
        };
        for (std::size_t i = 0; i < cpus.size(); ++i) {
            if (contains(coreList, cpus[i])) result.classes[i] = core::ProcessorClass::performance;
            else if (contains(atomList, cpus[i])) result.classes[i] = core::ProcessorClass::efficiency;
        }
    }
    const auto has = [&](core::ProcessorClass wanted) {
        return std::find(result.classes.begin(), result.classes.end(), wanted) != result.classes.end();
    };
    result.hybrid = has(core::ProcessorClass::performance) && has(core::ProcessorClass::efficiency);

    // Keep the lookup sorted by CPU even if the caller's list was not.
    std::vector<std::size_t> order(result.cpus.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return result.cpus[a] < result.cpus[b]; });
    HybridClasses sorted{.cpus = {}, .classes = {}, .hybrid = result.hybrid};
    for (const std::size_t i : order) {
        sorted.cpus.push_back(result.cpus[i]);
        sorted.classes.push_back(result.classes[i]);
    }
    return sorted;
}

const HybridClasses& HybridClassCache::Get(const std::filesystem::path& sysRoot, std::span<const std::uint32_t> cpus) {
    // Nothing to classify yet (sysfs and /proc/stat both failed): answer without caching.
    static const HybridClasses kNone;
    if (cpus.empty()) return kNone;
    const std::lock_guard lock(mutex_);
    if (classes_) return *classes_;

    const auto readList = [&](const char* pmu) {
        std::vector<std::uint32_t> list;
        const auto read = ReadFileBounded(sysRoot / "bus/event_source/devices" / pmu / "cpus", kSysfsValueLimit);
        if (read.Ok() && !ParseCpuList(read.text, list)) list.clear();
        return list;
    };
    const std::vector<std::uint32_t> coreList = readList("cpu_core");
    const std::vector<std::uint32_t> atomList = readList("cpu_atom");

    std::vector<std::optional<std::uint64_t>> capacities;
    capacities.reserve(cpus.size());
    const std::filesystem::path cpuRoot = sysRoot / "devices/system/cpu";
    for (const std::uint32_t cpu : cpus) {
        const auto read = ReadFileBounded(cpuRoot / ("cpu" + std::to_string(cpu)) / "cpu_capacity", kSysfsValueLimit);
        capacities.push_back(read.Ok() ? ParseWhole<std::uint64_t>(read.text) : std::nullopt);
    }
    classes_ = ClassifyHybrid(cpus, capacities, coreList, atomList);
    return *classes_;
}

}  // namespace korv::providers
