#pragma once

namespace korv::host::linux_client {

// What the window knows about itself when a snapshot arrives.
struct ApplyContext {
    bool smokeMode = false;
    bool popoutShown = false;
    bool windowShown = false;
    bool windowMinimized = false;
    int currentStackIndex = 0;
    bool popoutHoldsPowerAndFreq = false;
    bool popoutHoldsPerformance = false;
};

// Which consumers a snapshot reaches. History, the popout, the tray gadgets and the recorders are
// fed always and so are not listed; each page only when it can be seen, so that a hidden page costs
// nothing during a tick.
struct ApplyPlan {
    bool visible = false;               // smoke mode, the popout is up, or shown and not minimized
    bool summaryAndProcesses = false;   // when visible
    bool powerAndFreq = false;          // its page is current in a visible window, or the popout holds it
    bool startup = false;               // only while its stack place is current
    bool users = false;
    bool services = false;
    bool installedApps = false;
    bool systemInfo = false;            // when visible, in smoke mode or while current
    bool performance = false;           // when visible, while current or held by the popout
};

ApplyPlan PlanSnapshotApply(const ApplyContext& context) noexcept;

}  // namespace korv::host::linux_client
