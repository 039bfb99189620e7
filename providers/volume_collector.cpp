#include "providers/volume_collector.h"

#include "providers/bounded_read.h"
#include "providers/disk_collector.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <sys/statvfs.h>

namespace korv::providers {
namespace {

// mountinfo writes a space, tab, newline and backslash in a path as \040, \011, \012 and \134.
std::string Unescape(std::string_view field) {
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && field.size() - i >= 4) {
            const auto octal = [](char c) { return c >= '0' && c <= '7'; };
            if (octal(field[i + 1]) && octal(field[i + 2]) && octal(field[i + 3])) {
                out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
                i += 3;
                continue;
            }
        }
        out += field[i];
    }
    return out;
}

std::vector<std::string_view> Split(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t at = 0;
    while (at < line.size()) {
        const std::size_t next = std::min(line.find(' ', at), line.size());
        if (next > at) fields.push_back(line.substr(at, next - at));
        at = next + 1;
    }
    return fields;
}

}  // namespace

std::vector<MountEntry> ParseMountInfo(std::string_view text) {
    std::vector<MountEntry> entries;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        const std::vector<std::string_view> fields = Split(text.substr(pos, end - pos));
        pos = end + 1;
        // Fields 1-6 are fixed, optional tagged fields follow, then "-", the type and the source.
        const auto separator = std::find(fields.begin(), fields.end(), std::string_view("-"));
        if (fields.size() < 6 || separator - fields.begin() < 6 || fields.end() - separator < 3) continue;
        entries.push_back(MountEntry{Unescape(fields[3]), Unescape(fields[4]), std::string(separator[1]),
                                     Unescape(separator[2])});
    }
    return entries;
}

VolumeCollector::VolumeCollector(const ProviderRoots& roots)
    : mountInfoPath_((roots.proc / "self/mountinfo").string()) {}

std::vector<core::VolumeUsage> VolumeCollector::Collect(const CollectContext& ctx) {
    std::vector<core::VolumeUsage> volumes;
    if (ReadFileBounded(mountInfoPath_.c_str(), kMountInfoLimit, buffer_) != 0) return volumes;
    std::set<std::string> seen;
    for (MountEntry& mount : ParseMountInfo(buffer_)) {
        if (volumes.size() >= kMaxVolumes || ctx.stop.stop_requested()) break;
        if (!mount.source.starts_with("/dev/") || mount.root != "/" || mount.type == "squashfs") continue;
        if (!seen.insert(mount.source).second) continue;
        core::VolumeUsage volume;
        volume.id = std::move(mount.source);
        volume.displayName = std::move(mount.mountPoint);
        volume.usedPercent.source = "linux.statvfs";
        struct statvfs info {};
        if (::statvfs(volume.displayName.c_str(), &info) != 0) {
            volume.usedPercent.MarkMissing(AvailabilityFromErrno(errno));
        } else {
            // As df counts it: space for ordinary users is what is used plus what they may still use.
            const double used = static_cast<double>(info.f_blocks - std::min(info.f_bfree, info.f_blocks));
            const double usable = used + static_cast<double>(info.f_bavail);
            if (info.f_blocks == 0 || usable <= 0.0) continue;
            volume.usedPercent.Set(std::min(100.0, 100.0 * used / usable), ctx.generation);
        }
        volumes.push_back(std::move(volume));
    }
    return volumes;
}

}  // namespace korv::providers
