#pragma once

#include <QString>

#include <cstdint>
#include <functional>
#include <optional>

class QAction;
class QMenu;

namespace korv::host::linux_client {

// An affinity mask has one bit a processor, so the submenu serves at most this many.
inline constexpr long kAffinityMenuMaxProcessors = 64;

// What the "Set affinity" submenu shows for one process.
struct AffinityMenuState {
    long processors = 0;              // configured processors of the machine
    bool readable = false;            // the threads' masks could be read
    std::uint64_t combinedMask = 0;   // the union of the threads' masks
    bool threadsDiffer = false;
    bool actionable = false;          // the backend works and the process can be acted on
};

// Processor -1 stands for "All processors".
using AffinityActionTag = std::function<void(QAction* action, int processor)>;

// Fills `menu` with the entries: a single disabled line on machines with fewer than 1 or more than
// 64 processors; otherwise the "threads differ" note when it applies, "All processors" and one
// "CPU %1" per processor, checked by the combined mask. `tag` marks each clickable entry.
void FillAffinityMenu(QMenu& menu, const AffinityMenuState& state, const AffinityActionTag& tag);

// All bits of `processors` processors: with 64 the whole word; 0 outside 1 to 64.
std::uint64_t AllProcessorsMask(long processors) noexcept;

// The mask after a click on "CPU <processor>", made from the mask as it is now. A mask left empty
// is refused with "At least one processor must remain selected".
struct AffinityToggle {
    std::optional<std::uint64_t> mask;
    QString refusal;
};
AffinityToggle ToggleAffinityProcessor(std::uint64_t current, int processor, long processors);

}  // namespace korv::host::linux_client
