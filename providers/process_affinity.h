#pragma once

#include "core/process_key.h"
#include "providers/provider_context.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace korv::providers {

// Sentences shown in the status line and the affinity submenu, as they stand.
inline constexpr std::string_view kAffinitySucceededText = "Set affinity succeeded";
inline constexpr std::string_view kAffinityPartialText = "Set affinity applied to %1 of %2 threads";
inline constexpr std::string_view kAffinityFailedText = "Set affinity failed";
inline constexpr std::string_view kAffinityAccessDeniedText = "Set affinity failed: access denied";
inline constexpr std::string_view kAffinityExitedText = "Set affinity failed: the process has exited";
inline constexpr std::string_view kAffinityEmptyMaskText = "At least one processor must remain selected";
inline constexpr std::string_view kAffinityThreadsDifferText = "Threads differ; showing their combined affinity";

// Affinity masks have one bit a processor, so only machines with 1 to 64 configured processors qualify.
inline constexpr long kAffinityMaxProcessors = 64;

struct AffinityResult {
    bool ok = false;  // at least one thread took the mask
    std::string message;
    std::uint32_t applied = 0;  // threads that took the mask
    std::uint32_t threads = 0;  // threads that were still there when tried
};

// Applies the mask to every thread of the process. The key is checked against stat first and the
// thread list is walked twice, so that a thread started during the first walk is caught; each
// thread is set at most once. Bits at or above the configured processor count are dropped.
// Runs on a worker, never on the GUI or sampling thread.
AffinityResult SetProcessAffinity(const ProviderRoots& roots, const core::ProcessKey& key, std::uint64_t mask);

struct AffinityReading {
    std::uint64_t combinedMask = 0;  // union of the threads' masks, limited to the configured processors
    bool threadsDiffer = false;      // show kAffinityThreadsDifferText above the entries
    bool ok = false;
    std::string message;  // the failure sentence when not ok
};

AffinityReading ReadProcessAffinity(const ProviderRoots& roots, const core::ProcessKey& key);

}  // namespace korv::providers
