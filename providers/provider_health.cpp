#include "providers/provider_health.h"

#include "core/saturating.h"

namespace korv::providers {

core::ProviderHealthRecord ProviderHealthTracker::Record(const std::string& provider, const Outcome& outcome,
                                                         const CollectContext& ctx) {
    History& history = history_[provider];
    if (outcome.ok) {
        history.consecutiveFailures = 0;
        history.lastGoodGeneration = ctx.generation;
        history.lastGoodMonotonicNs = ctx.monotonicNs;
    } else {
        core::SaturatingIncrement(history.consecutiveFailures);
    }
    core::ProviderHealthRecord row;
    row.provider = provider;
    row.state = outcome.ok ? core::ProviderHealth::healthy : outcome.stateOnFailure;
    row.lastGoodGeneration = history.lastGoodGeneration;
    row.lastGoodMonotonicNs = history.lastGoodMonotonicNs;
    row.nativeError = outcome.nativeError;
    row.consecutiveFailures = history.consecutiveFailures;
    row.sampleDurationNs = outcome.durationNs;
    row.dataAgeNs = history.lastGoodGeneration != 0 && ctx.monotonicNs > history.lastGoodMonotonicNs
                        ? ctx.monotonicNs - history.lastGoodMonotonicNs
                        : 0;
    row.diagnostic = outcome.diagnostic;
    return row;
}

std::uint32_t ProviderHealthTracker::ConsecutiveFailures(const std::string& provider) const {
    const auto it = history_.find(provider);
    return it == history_.end() ? 0 : it->second.consecutiveFailures;
}

void ProviderHealthTracker::SetConsecutiveFailures(const std::string& provider, std::uint32_t failures) {
    history_[provider].consecutiveFailures = failures;
}

}  // namespace korv::providers
