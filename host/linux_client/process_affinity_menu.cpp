#include "host/linux_client/process_affinity_menu.h"

#include <QAction>
#include <QCoreApplication>
#include <QMenu>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("QMainWindow", source);
}

}  // namespace

std::uint64_t AllProcessorsMask(long processors) noexcept {
    if (processors < 1 || processors > kAffinityMenuMaxProcessors) return 0;
    return processors == kAffinityMenuMaxProcessors ? ~std::uint64_t{0}
                                                    : (std::uint64_t{1} << processors) - 1;
}

void FillAffinityMenu(QMenu& menu, const AffinityMenuState& state, const AffinityActionTag& tag) {
    if (state.processors < 1 || state.processors > kAffinityMenuMaxProcessors) {
        QAction* line = menu.addAction(
            Text("Unavailable on systems with more than %1 processors").arg(kAffinityMenuMaxProcessors));
        line->setEnabled(false);
        return;
    }
    const std::uint64_t all = AllProcessorsMask(state.processors);
    const std::uint64_t shown = state.readable ? state.combinedMask & all : 0;
    const bool enabled = state.actionable && state.readable;

    if (state.readable && state.threadsDiffer) {
        menu.addAction(Text("Threads differ; showing their combined affinity"))->setEnabled(false);
        menu.addSeparator();
    }
    QAction* everything = menu.addAction(Text("All processors"));
    everything->setCheckable(true);
    everything->setChecked(state.readable && shown == all);
    everything->setEnabled(enabled);
    if (tag) tag(everything, -1);
    menu.addSeparator();
    for (long cpu = 0; cpu < state.processors; ++cpu) {
        QAction* entry = menu.addAction(Text("CPU %1").arg(cpu));
        entry->setCheckable(true);
        entry->setChecked(((shown >> cpu) & 1U) != 0);
        entry->setEnabled(enabled);
        if (tag) tag(entry, static_cast<int>(cpu));
    }
}

AffinityToggle ToggleAffinityProcessor(std::uint64_t current, int processor, long processors) {
    AffinityToggle toggle;
    const std::uint64_t all = AllProcessorsMask(processors);
    if (all == 0 || processor < 0 || processor >= processors) {
        toggle.refusal = Text("Set affinity failed");
        return toggle;
    }
    const std::uint64_t next = (current & all) ^ (std::uint64_t{1} << processor);
    if (next == 0) {
        toggle.refusal = Text("At least one processor must remain selected");
        return toggle;
    }
    toggle.mask = next;
    return toggle;
}

}  // namespace korv::host::linux_client
