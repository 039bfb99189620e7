#pragma once

#include "core/telemetry_builder.h"
#include "providers/provider_context.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace korv::providers {

inline constexpr std::size_t kMaxVolumes = 64;

// One line of <proc>/self/mountinfo: "36 35 98:0 / /mnt/my\040disk rw - ext4 /dev/sda2 rw".
struct MountEntry {
    std::string root;        // the part of the file system mounted, "/" unless a bind mount
    std::string mountPoint;  // with the kernel's octal escapes (\040 for a space) undone
    std::string type;
    std::string source;
};

// The entries of a mountinfo text; lines that do not fit the format are skipped.
std::vector<MountEntry> ParseMountInfo(std::string_view text);

// Used space of the mounted file systems that sit on block devices: the first whole mount of each
// source, at most kMaxVolumes. Pseudo, network and FUSE file systems are left out, since statvfs on
// an unreachable server blocks; squashfs images are always full and left out too. Engine thread only.
class VolumeCollector {
public:
    explicit VolumeCollector(const ProviderRoots& roots);

    std::vector<core::VolumeUsage> Collect(const CollectContext& ctx);

private:
    std::string mountInfoPath_;
    std::string buffer_;
};

}  // namespace korv::providers
