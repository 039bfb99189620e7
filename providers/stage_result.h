#pragma once

#include <cstdint>
#include <string>

namespace korv::providers {

// What one collector stage of a Collect tick reports for its provider health row.
struct StageResult {
    bool ok = false;
    std::string message;  // shown as it stands in the provider health row
    int error = 0;        // errno of the failing read or call, or a collector's own code
    std::uint64_t durationNs = 0;
};

}  // namespace korv::providers
