#include "providers/bounded_read.h"
#include "providers/file_descriptor.h"
#include "providers/proc_pid_stat.h"
#include "providers/process_collector.h"
#include "providers/process_directory.h"
#include "providers/process_figures.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

namespace korv::providers {
namespace {

constexpr std::size_t kArgumentListLimit = 4194304;  // cmdline and environ each
constexpr std::size_t kShownDescriptorLimit = 512;

// Pieces separated by NUL; the NUL that ends the last piece adds no empty piece.
void SplitOnNul(std::string_view text, std::vector<std::string>& out) {
    while (!text.empty()) {
        const std::size_t nul = text.find('\0');
        out.emplace_back(text.substr(0, nul));
        if (nul == std::string_view::npos) break;
        text.remove_prefix(nul + 1);
    }
}

void ReadArgumentList(int pidDirectory, const char* file, std::vector<std::string>& out,
                      core::MetricAvailability& availability, bool& truncated) {
    std::string text;
    const int error = ReadFileBoundedAt(pidDirectory, file, kArgumentListLimit, text, &truncated);
    if (error != 0) {
        availability = AvailabilityFromErrno(error);
        return;
    }
    SplitOnNul(text, out);
    availability = core::MetricAvailability::valid;
}

// "socket:[123]" becomes "socket (inode 123)", "pipe:[123]" "pipe (inode 123)".
core::OpenDescriptor DescribeTarget(std::int32_t fd, std::string_view target) {
    core::OpenDescriptor descriptor;
    descriptor.fd = fd;
    for (const auto& [prefix, word, kind] : {std::tuple{std::string_view("socket:["), "socket", core::DescriptorKind::socket},
                                             std::tuple{std::string_view("pipe:["), "pipe", core::DescriptorKind::pipe}}) {
        if (target.starts_with(prefix) && target.ends_with(']')) {
            const std::string_view inode = target.substr(prefix.size(), target.size() - prefix.size() - 1);
            descriptor.target = std::string(word) + " (inode " + std::string(inode) + ")";
            descriptor.kind = kind;
            return descriptor;
        }
    }
    descriptor.target = target;
    descriptor.kind = target.starts_with('/') ? core::DescriptorKind::file : core::DescriptorKind::other;
    return descriptor;
}

void ReadDescriptors(int pidDirectory, core::ProcessDetails& details, const std::stop_token& stop) {
    const FdGuard fdDirectory(OpenDirectoryAt(pidDirectory, "fd", 0));
    if (fdDirectory.get() < 0) {
        details.descriptorsAvailability = AvailabilityFromErrno(errno);
        return;
    }
    std::vector<std::int32_t> numbers;
    std::vector<char> buffer;
    const int error = ForEachDirectoryEntry(fdDirectory.get(), buffer, [&](std::string_view name) {
        std::int32_t fd = -1;
        const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), fd);
        if (ec == std::errc{} && end == name.data() + name.size() && fd >= 0) numbers.push_back(fd);
        return true;
    });
    if (error != 0) {
        details.descriptorsAvailability = AvailabilityFromErrno(error);
        return;
    }
    std::sort(numbers.begin(), numbers.end());
    const std::size_t shown = std::min(numbers.size(), kShownDescriptorLimit);
    details.descriptors.reserve(shown);
    char target[PATH_MAX];
    for (std::size_t i = 0; i < shown && !stop.stop_requested(); ++i) {
        char name[16];
        const ssize_t length = ::readlinkat(fdDirectory.get(), PidText(static_cast<std::uint32_t>(numbers[i]), name),
                                            target, sizeof target);
        if (length < 0) continue;  // closed since the listing
        details.descriptors.push_back(DescribeTarget(numbers[i], std::string_view(target, static_cast<std::size_t>(length))));
    }
    details.descriptorsNotShown = numbers.size() - shown;
    details.descriptorsAvailability = core::MetricAvailability::valid;
}

}  // namespace

std::shared_ptr<core::ProcessDetails> ReadProcessDetails(const ProviderRoots& roots, const core::ProcessKey& key,
                                                         std::stop_token stop) {
    if (key.pid == 0 || stop.stop_requested()) return nullptr;
    const FdGuard root(OpenDirectoryAt(AT_FDCWD, roots.proc.c_str(), 0));
    if (root.get() < 0) return nullptr;
    char pidName[16];
    // The directory descriptor pins the process: once it is gone, reads through it fail.
    const FdGuard directory(OpenDirectoryAt(root.get(), PidText(key.pid, pidName), O_NOFOLLOW));
    if (directory.get() < 0) return nullptr;

    std::string buffer;
    const ProcStatRead first = ReadProcPidStatAt(directory.get(), key.pid, buffer);
    if (!first.stat || first.stat->starttime != key.startTime) return nullptr;
    const ParsedProcStat& stat = *first.stat;

    auto details = std::make_shared<core::ProcessDetails>();
    details->key = key;
    details->parentPid = stat.ppid;
    details->state = StateFromLetter(stat.state);
    details->stateLetter = stat.state;
    details->nice = stat.nice;
    details->priority = stat.priority;
    details->threadCount = stat.numThreads;

    char target[PATH_MAX];
    const ssize_t length = ::readlinkat(directory.get(), "exe", target, sizeof target);
    if (length >= 0) {
        details->executablePath.assign(target, static_cast<std::size_t>(length));
        details->executableAvailability = core::MetricAvailability::valid;
    } else {
        // A live process without an executable is a kernel thread.
        details->executableAvailability =
            errno == ENOENT ? core::MetricAvailability::notApplicable : AvailabilityFromErrno(errno);
    }
    details->name = DisplayName(stat.comm, details->executablePath);

    if (stop.stop_requested()) return nullptr;
    ReadArgumentList(directory.get(), "cmdline", details->commandLine, details->commandLineAvailability,
                     details->commandLineTruncated);
    if (stop.stop_requested()) return nullptr;
    ReadArgumentList(directory.get(), "environ", details->environment, details->environmentAvailability,
                     details->environmentTruncated);
    if (stop.stop_requested()) return nullptr;
    ReadDescriptors(directory.get(), *details, stop);
    if (stop.stop_requested()) return nullptr;

    const ProcStatRead last = ReadProcPidStatAt(directory.get(), key.pid, buffer);
    if (!last.stat || last.stat->starttime != key.startTime) return nullptr;
    return details;
}

}  // namespace korv::providers
