#pragma once

#include "core/platform_interfaces.h"
#include "core/process_action.h"

namespace korv::core {

// The one entry for process commands. Checks the arguments before any system call, resolves the
// target, proves that the resolved process is the one the command names, and only then hands it to
// the backend. Holds no lock; safe from any thread on which the resolver and backend are.
ActionResult ExecuteProcessAction(IProcessResolver& resolver, IActionBackend& backend, const ProcessAction& action);

}  // namespace korv::core
