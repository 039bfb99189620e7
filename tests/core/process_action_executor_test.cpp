#include "core/process_action_executor.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korv::core {
namespace {

const ProcessKey kTarget{4242, 987654};

class FixedProcess : public ResolvedProcess {
public:
    explicit FixedProcess(ProcessKey key) : key_(key) {}
    ProcessKey Key() const override { return key_; }

private:
    ProcessKey key_;
};

// Answers every Resolve with one scripted result and remembers what it was asked.
class ScriptedResolver : public IProcessResolver {
public:
    ResolveResult Resolve(const ProcessKey& key) override {
        asked.push_back(key);
        return answer;
    }

    ResolveResult answer;
    std::vector<ProcessKey> asked;
};

// Records each call and answers with a result that no validation step could have made.
class RecordingBackend : public IActionBackend {
public:
    ActionResult Execute(const ResolvedProcess& process, const ProcessAction& action) override {
        calls.push_back({process.Key(), action});
        seenProcess = &process;
        ActionResult result;
        result.status = ActionStatus::succeeded;
        result.errorNumber = 0;
        result.textId = "backend.marker";
        result.detail = "ran";
        return result;
    }

    struct Call {
        ProcessKey key;
        ProcessAction action;
    };
    std::vector<Call> calls;
    const ResolvedProcess* seenProcess = nullptr;
};

ResolveResult Resolved(ProcessKey key) {
    ResolveResult result;
    result.status = ResolveStatus::resolved;
    result.process = std::make_shared<FixedProcess>(key);
    return result;
}

ProcessAction Action(ProcessActionKind kind, std::optional<std::int32_t> signal = std::nullopt,
                     std::optional<std::int32_t> nice = std::nullopt) {
    ProcessAction action;
    action.kind = kind;
    action.target = kTarget;
    action.signal = signal;
    action.nice = nice;
    return action;
}

class ProcessActionExecutorTest : public ::testing::Test {
protected:
    ActionResult Run(const ProcessAction& action) { return ExecuteProcessAction(resolver, backend, action); }

    ScriptedResolver resolver;
    RecordingBackend backend;

    void SetUp() override { resolver.answer = Resolved(kTarget); }
};

struct RefusedArgumentCase {
    const char* name;
    ProcessAction action;
    const char* textId;
};

class RefusedArgumentTest : public ProcessActionExecutorTest,
                            public ::testing::WithParamInterface<RefusedArgumentCase> {};

TEST_P(RefusedArgumentTest, IsRefusedBeforeAnyResolveOrCall) {
    const ActionResult result = Run(GetParam().action);
    EXPECT_EQ(result.status, ActionStatus::invalidArgument);
    EXPECT_EQ(result.textId, GetParam().textId);
    EXPECT_EQ(result.errorNumber, 0);
    EXPECT_TRUE(resolver.asked.empty());
    EXPECT_TRUE(backend.calls.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RefusedArgumentTest,
    ::testing::Values(
        RefusedArgumentCase{"PriorityWithoutNice", Action(ProcessActionKind::setPriority), "action.priority.missing"},
        RefusedArgumentCase{"PriorityWithOnlyASignal", Action(ProcessActionKind::setPriority, 15),
                            "action.priority.missing"},
        RefusedArgumentCase{"SignalMissing", Action(ProcessActionKind::sendSignal), "action.signal.invalid"},
        RefusedArgumentCase{"SignalMissingWithANice", Action(ProcessActionKind::sendSignal, std::nullopt, 5),
                            "action.signal.invalid"},
        RefusedArgumentCase{"SignalZero", Action(ProcessActionKind::sendSignal, 0), "action.signal.invalid"},
        RefusedArgumentCase{"SignalNegative", Action(ProcessActionKind::sendSignal, -9), "action.signal.invalid"},
        RefusedArgumentCase{"Signal128", Action(ProcessActionKind::sendSignal, 128), "action.signal.invalid"},
        RefusedArgumentCase{"SignalHuge", Action(ProcessActionKind::sendSignal, 2147483647),
                            "action.signal.invalid"}),
    [](const auto& row) { return std::string(row.param.name); });

struct PassedArgumentCase {
    const char* name;
    ProcessAction action;
};

class PassedArgumentTest : public ProcessActionExecutorTest,
                           public ::testing::WithParamInterface<PassedArgumentCase> {};

// The core only limits commands as such; a signal above Linux's 64 or a nice outside -20..19 is
// the backend's to refuse, so these must reach it unchanged.
TEST_P(PassedArgumentTest, ReachesTheBackendUnchanged) {
    const ProcessAction& action = GetParam().action;
    const ActionResult result = Run(action);
    EXPECT_EQ(result.textId, "backend.marker");
    ASSERT_EQ(resolver.asked.size(), 1u);
    EXPECT_EQ(resolver.asked[0], kTarget);
    ASSERT_EQ(backend.calls.size(), 1u);
    EXPECT_EQ(backend.calls[0].key, kTarget);
    EXPECT_EQ(backend.calls[0].action.kind, action.kind);
    EXPECT_EQ(backend.calls[0].action.target, action.target);
    EXPECT_EQ(backend.calls[0].action.signal, action.signal);
    EXPECT_EQ(backend.calls[0].action.nice, action.nice);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, PassedArgumentTest,
    ::testing::Values(PassedArgumentCase{"Signal1", Action(ProcessActionKind::sendSignal, 1)},
                      PassedArgumentCase{"Signal64", Action(ProcessActionKind::sendSignal, 64)},
                      PassedArgumentCase{"Signal65", Action(ProcessActionKind::sendSignal, 65)},
                      PassedArgumentCase{"Signal127", Action(ProcessActionKind::sendSignal, 127)},
                      PassedArgumentCase{"Nice20", Action(ProcessActionKind::setPriority, std::nullopt, 20)},
                      PassedArgumentCase{"NiceMinus21", Action(ProcessActionKind::setPriority, std::nullopt, -21)},
                      PassedArgumentCase{"TerminateIgnoresAStraySignal", Action(ProcessActionKind::terminate, 500)},
                      PassedArgumentCase{"ResumeWithoutArguments", Action(ProcessActionKind::resume)},
                      PassedArgumentCase{"NoLinuxFormIsTheBackendsToRefuse",
                                         Action(ProcessActionKind::noLinuxForm)}),
    [](const auto& row) { return std::string(row.param.name); });

struct ResolveFailureCase {
    const char* name;
    ResolveStatus status;
    int errorNumber;
    bool withProcess;
    ActionStatus expectedStatus;
    const char* textId;
};

class ResolveFailureTest : public ProcessActionExecutorTest,
                           public ::testing::WithParamInterface<ResolveFailureCase> {};

TEST_P(ResolveFailureTest, MapsToItsStatusAndKeepsTheErrno) {
    const ResolveFailureCase& row = GetParam();
    resolver.answer.status = row.status;
    resolver.answer.errorNumber = row.errorNumber;
    if (!row.withProcess) resolver.answer.process.reset();

    const ActionResult result = Run(Action(ProcessActionKind::forceKill));
    EXPECT_EQ(result.status, row.expectedStatus);
    EXPECT_EQ(result.textId, row.textId);
    EXPECT_EQ(result.errorNumber, row.errorNumber);
    EXPECT_EQ(resolver.asked.size(), 1u);
    EXPECT_TRUE(backend.calls.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ResolveFailureTest,
    ::testing::Values(
        ResolveFailureCase{"Gone", ResolveStatus::gone, ENOENT, false, ActionStatus::targetGone, "action.targetGone"},
        // A resolver that reports gone but still hands out a process must not be acted on.
        ResolveFailureCase{"GoneWithAProcess", ResolveStatus::gone, 0, true, ActionStatus::targetGone,
                           "action.targetGone"},
        ResolveFailureCase{"AccessDenied", ResolveStatus::accessDenied, EACCES, false, ActionStatus::accessDenied,
                           "action.accessDenied"},
        ResolveFailureCase{"Unsupported", ResolveStatus::unsupported, EOPNOTSUPP, false, ActionStatus::unsupported,
                           "action.unsupported"},
        ResolveFailureCase{"Failed", ResolveStatus::failed, EIO, false, ActionStatus::failed,
                           "action.resolve.failed"},
        ResolveFailureCase{"UnknownStatus", static_cast<ResolveStatus>(9), 0, true, ActionStatus::invalidArgument,
                           "action.resolve.invalid"},
        ResolveFailureCase{"ResolvedWithoutAProcess", ResolveStatus::resolved, 0, false,
                           ActionStatus::invalidArgument, "action.resolve.invalid"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(ProcessActionExecutorTest, ResolvedKeyWithAnotherStartTimeIsTargetChanged) {
    resolver.answer = Resolved(ProcessKey{kTarget.pid, kTarget.startTime + 1});
    const ActionResult result = Run(Action(ProcessActionKind::terminate));
    EXPECT_EQ(result.status, ActionStatus::targetGone);
    EXPECT_EQ(result.textId, "action.targetChanged");
    EXPECT_TRUE(backend.calls.empty());
}

TEST_F(ProcessActionExecutorTest, ResolvedKeyWithAnotherPidIsTargetChanged) {
    resolver.answer = Resolved(ProcessKey{kTarget.pid + 1, kTarget.startTime});
    const ActionResult result = Run(Action(ProcessActionKind::setPriority, std::nullopt, 3));
    EXPECT_EQ(result.status, ActionStatus::targetGone);
    EXPECT_EQ(result.textId, "action.targetChanged");
    EXPECT_TRUE(backend.calls.empty());
}

TEST_F(ProcessActionExecutorTest, HandsTheResolvedObjectItselfToTheBackendAndReturnsItsResult) {
    const ResolvedProcess* resolvedObject = resolver.answer.process.get();
    const ActionResult result = Run(Action(ProcessActionKind::suspend));
    EXPECT_EQ(backend.seenProcess, resolvedObject);
    EXPECT_EQ(result.status, ActionStatus::succeeded);
    EXPECT_EQ(result.textId, "backend.marker");
    EXPECT_EQ(result.detail, std::optional<std::string>("ran"));
}

}  // namespace
}  // namespace korv::core
