#pragma once

#include "core/process_key.h"

#include <cstdint>
#include <optional>
#include <string>

namespace korv::core {

enum class ProcessActionKind : std::uint32_t {
    terminate = 0,
    forceKill = 1,
    suspend = 2,
    resume = 3,
    sendSignal = 4,
    setPriority = 5,
    noLinuxForm = 6,
};

struct ProcessAction {
    ProcessActionKind kind = ProcessActionKind::terminate;
    ProcessKey target;
    std::optional<std::int32_t> nice;
    std::optional<std::int32_t> signal;
};

enum class ActionStatus : std::uint32_t {
    succeeded = 0,
    targetGone = 2,
    accessDenied = 3,
    unsupported = 4,
    invalidArgument = 5,
    failed = 8,
};

// A command's outcome: a stable text id such as "action.targetChanged" that the window maps to words.
struct ActionResult {
    ActionStatus status = ActionStatus::failed;
    int errorNumber = 0;
    std::string textId;
    std::optional<std::string> detail;
};

enum class ResolveStatus : std::uint32_t {
    resolved = 0,
    gone = 1,
    accessDenied = 2,
    unsupported = 3,
    failed = 4,
};

}  // namespace korv::core
