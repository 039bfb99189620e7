#include "core/process_action_executor.h"

#include <string>
#include <utility>

namespace korv::core {
namespace {

// A limit on commands as such; the backend applies the platform's own, narrower range.
constexpr std::int32_t kMaxCommandSignal = 127;

ActionResult Refuse(ActionStatus status, std::string textId, int errorNumber = 0) {
    ActionResult result;
    result.status = status;
    result.errorNumber = errorNumber;
    result.textId = std::move(textId);
    return result;
}

}  // namespace

ActionResult ExecuteProcessAction(IProcessResolver& resolver, IActionBackend& backend, const ProcessAction& action) {
    if (action.kind == ProcessActionKind::setPriority && !action.nice) {
        return Refuse(ActionStatus::invalidArgument, "action.priority.missing");
    }
    if (action.kind == ProcessActionKind::sendSignal &&
        (!action.signal || *action.signal < 1 || *action.signal > kMaxCommandSignal)) {
        return Refuse(ActionStatus::invalidArgument, "action.signal.invalid");
    }

    const ResolveResult resolved = resolver.Resolve(action.target);
    switch (resolved.status) {
        case ResolveStatus::resolved:
            break;
        case ResolveStatus::gone:
            return Refuse(ActionStatus::targetGone, "action.targetGone", resolved.errorNumber);
        case ResolveStatus::accessDenied:
            return Refuse(ActionStatus::accessDenied, "action.accessDenied", resolved.errorNumber);
        case ResolveStatus::unsupported:
            return Refuse(ActionStatus::unsupported, "action.unsupported", resolved.errorNumber);
        case ResolveStatus::failed:
            return Refuse(ActionStatus::failed, "action.resolve.failed", resolved.errorNumber);
        default:
            return Refuse(ActionStatus::invalidArgument, "action.resolve.invalid", resolved.errorNumber);
    }
    if (!resolved.process) return Refuse(ActionStatus::invalidArgument, "action.resolve.invalid");

    if (resolved.process->Key() != action.target) return Refuse(ActionStatus::targetGone, "action.targetChanged");

    return backend.Execute(*resolved.process, action);
}

}  // namespace korv::core
