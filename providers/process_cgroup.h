#pragma once

#include "core/snapshot_enums.h"

#include <cstddef>
#include <string_view>

namespace korv::providers {

inline constexpr std::size_t kProcPidCgroupLimit = 65536;
inline constexpr std::string_view kApplicationScopePrefix = "linux-application-scope:";

// The path of the cgroup v2 line ("0::<path>") of /proc/<pid>/cgroup; nothing when there is none.
std::string_view UnifiedCgroupPath(std::string_view cgroupFile) noexcept;

// A process belongs to an application when its cgroup path holds "/app.slice/" followed by a
// component that ends in ".scope"; that component names it. Everything else is background.
struct CgroupScope {
    core::ProcessGroup group = core::ProcessGroup::background;
    std::string_view scope;  // the ".scope" component, a view into the path
};
CgroupScope ScopeFromCgroupPath(std::string_view path) noexcept;

}  // namespace korv::providers
