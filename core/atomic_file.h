#pragma once

#include <cstddef>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace korv::core {

// How many quarantined ".corrupt." copies of a file are kept beside it.
inline constexpr std::size_t kKeptQuarantinedCopies = 5;
inline constexpr std::chrono::seconds kStaleTemporaryAge{60};

// Replaces `target` so that a reader sees either the old file or the new one whole, never a part:
// the text goes to a fresh temporary sibling, is synced, then renamed over the target. On success
// the leftovers of earlier saves are pruned. Returns an error text in the system's words on failure,
// in which case the old file is untouched and no temporary file is left behind.
// Safe to call from any thread; saves of one target should come from one thread at a time, since
// the pruning of one save removes the temporary file of another that is still in flight.
std::optional<std::string> WriteFileAtomically(const std::filesystem::path& target, std::string_view text);

// Removes every sibling named `<target name>.tmp.*` whose writer is gone: the process its name
// gives is not running, or it was last written more than kStaleTemporaryAge ago. A younger one of a
// live process may be that process's save in flight. Keeps only the kKeptQuarantinedCopies last
// (by path order) of the `<target name>.corrupt.*` siblings. Errors are ignored: this is tidying.
void PruneFileSiblings(const std::filesystem::path& target);

}  // namespace korv::core
