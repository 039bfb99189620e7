#include "providers/process_cgroup.h"

namespace korv::providers {

std::string_view UnifiedCgroupPath(std::string_view cgroupFile) noexcept {
    while (!cgroupFile.empty()) {
        const std::size_t newline = cgroupFile.find('\n');
        const std::string_view line = cgroupFile.substr(0, newline);
        if (line.starts_with("0::")) return line.substr(3);
        if (newline == std::string_view::npos) break;
        cgroupFile.remove_prefix(newline + 1);
    }
    return {};
}

CgroupScope ScopeFromCgroupPath(std::string_view path) noexcept {
    static constexpr std::string_view kAppSlice = "/app.slice/";
    CgroupScope result;
    for (std::size_t at = path.find(kAppSlice); at != std::string_view::npos; at = path.find(kAppSlice, at + 1)) {
        const std::size_t start = at + kAppSlice.size();
        const std::size_t end = path.find('/', start);
        const std::string_view component = path.substr(start, end == std::string_view::npos ? end : end - start);
        if (component.size() > 6 && component.ends_with(".scope")) {
            result.group = core::ProcessGroup::apps;
            result.scope = component;
            return result;
        }
    }
    return result;
}

}  // namespace korv::providers
