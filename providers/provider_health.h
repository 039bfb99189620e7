#pragma once

#include "core/snapshot.h"
#include "providers/provider_context.h"

#include <cstdint>
#include <map>
#include <string>

namespace korv::providers {

// Builds provider health rows and remembers, per provider, the last good reading and the run of
// failures (saturating at 4,294,967,295). Used on the sampling thread only.
class ProviderHealthTracker {
public:
    struct Outcome {
        bool ok = true;
        core::ProviderHealth stateOnFailure = core::ProviderHealth::degraded;
        std::string diagnostic;
        std::uint64_t durationNs = 0;
        std::int64_t nativeError = 0;
    };

    core::ProviderHealthRecord Record(const std::string& provider, const Outcome& outcome, const CollectContext& ctx);
    std::uint32_t ConsecutiveFailures(const std::string& provider) const;
    // Sets the run of failures directly (tests; a restored state).
    void SetConsecutiveFailures(const std::string& provider, std::uint32_t failures);

private:
    struct History {
        std::uint64_t lastGoodGeneration = 0;
        std::uint64_t lastGoodMonotonicNs = 0;
        std::uint32_t consecutiveFailures = 0;
    };
    std::map<std::string, History, std::less<>> history_;
};

}  // namespace korv::providers
