#include "host/linux_client/process_action_queue.h"
#include "host/linux_client/process_affinity_menu.h"
#include "host/linux_client/process_page_actions.h"
#include "process_test_child.h"
#include "providers/platform_services.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTest>

#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <sched.h>
#include <stdexcept>
#include <vector>

namespace korv::host::linux_client {
namespace {

using test::AffinityOf;
using test::TestChild;

constexpr int kWaitMs = 30000;

// Holds every Resolve at its start until the test opens the gate, so that the worker is known to be
// busy while the test fills the queue.
class GatedResolver final : public core::IProcessResolver {
public:
    explicit GatedResolver(core::IProcessResolver& real) : real_(real) {}

    core::ResolveResult Resolve(const core::ProcessKey& key) override {
        std::unique_lock lock(mutex_);
        ++entered_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
        lock.unlock();
        return real_.Resolve(key);
    }

    bool WaitUntilEntered(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, test::kChildPatience, [&] { return entered_ >= count; });
    }

    void Open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    core::IProcessResolver& real_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int entered_ = 0;
    bool open_ = false;
};

// The real Linux provider with its resolver behind the gate.
class GatedServices final : public providers::PlatformServices {
public:
    GatedServices() : real_(providers::CreatePlatformServices()), gate_(real_->ProcessResolver()) {}
    core::ISnapshotSource& SnapshotSource() override { return real_->SnapshotSource(); }
    core::IProcessResolver& ProcessResolver() override { return gate_; }
    core::IActionBackend& ActionBackend() override { return real_->ActionBackend(); }
    providers::CapabilityTable Capabilities() const override { return real_->Capabilities(); }
    std::shared_ptr<core::ProcessDetails> ProcessDetails(const core::ProcessKey& key) override {
        return real_->ProcessDetails(key);
    }
    GatedResolver& Gate() { return gate_; }

private:
    std::unique_ptr<providers::PlatformServices> real_;
    GatedResolver gate_;
};

// Opens the gate when a test ends early, so that the worker can finish and be joined.
struct GateOpener {
    GatedResolver& gate;
    ~GateOpener() { gate.Open(); }
};

class ProcessPageActionsTest : public ::testing::Test {
protected:
    void SetUp() override { services = providers::CreatePlatformServices(); }

    std::unique_ptr<ProcessPageActions> MakeActions(providers::PlatformServices* platform) {
        PageEnvironment environment;
        environment.settings = &settings;
        environment.services = platform;
        environment.requestSample = [this] { ++samplesRequested; };
        environment.showStatus = [this](const QString& text) { statuses.push_back(text); };
        return std::make_unique<ProcessPageActions>(environment, nullptr);
    }

    bool WaitForStatuses(qsizetype count) {
        return QTest::qWaitFor([&] { return statuses.size() >= count; }, kWaitMs);
    }

    core::Settings settings;
    std::unique_ptr<providers::PlatformServices> services;
    QStringList statuses;
    int samplesRequested = 0;
};

struct SignalCase {
    const char* actionName;
    int expectedSignal;
};

class ProcessSignalActionTest : public ProcessPageActionsTest, public ::testing::WithParamInterface<SignalCase> {};

TEST_P(ProcessSignalActionTest, EndsTheChildWithItsSignalAndAsksForAFreshSample) {
    TestChild child;
    ASSERT_TRUE(child.Started());
    auto actions = MakeActions(services.get());
    const QString name = QString::fromLatin1(GetParam().actionName);

    ASSERT_TRUE(actions->QueueProcessAction({child.Key()}, name));
    ASSERT_TRUE(WaitForStatuses(1));
    EXPECT_EQ(statuses.front(), name + QStringLiteral(" succeeded"));
    EXPECT_EQ(child.WaitForTerminatingSignal(), GetParam().expectedSignal);
    EXPECT_EQ(samplesRequested, 1);
}

INSTANTIATE_TEST_SUITE_P(Words, ProcessSignalActionTest,
                         ::testing::Values(SignalCase{"Terminate", SIGTERM}, SignalCase{"Force terminate", SIGKILL},
                                           SignalCase{"End process tree", SIGTERM},
                                           SignalCase{"Force quit process tree", SIGKILL},
                                           SignalCase{"Interrupt", SIGINT}, SignalCase{"Hang up", SIGHUP},
                                           SignalCase{"Kill", SIGKILL}));

TEST_F(ProcessPageActionsTest, SuspendAndResumeShowInTheChildsState) {
    TestChild child;
    ASSERT_TRUE(child.Started());
    auto actions = MakeActions(services.get());
    const core::ProcessKey key = child.Key();

    for (const auto& [suspend, resume] : {std::pair{"Suspend", "Resume"}, std::pair{"Stop", "Continue"}}) {
        statuses.clear();
        ASSERT_TRUE(actions->QueueProcessAction({key}, QString::fromLatin1(suspend)));
        ASSERT_TRUE(WaitForStatuses(1));
        EXPECT_EQ(statuses.back(), QString::fromLatin1(suspend) + QStringLiteral(" succeeded"));
        EXPECT_EQ(child.WaitForState('T'), 'T');

        ASSERT_TRUE(actions->QueueProcessAction({key}, QString::fromLatin1(resume)));
        ASSERT_TRUE(WaitForStatuses(2));
        EXPECT_EQ(statuses.back(), QString::fromLatin1(resume) + QStringLiteral(" succeeded"));
        EXPECT_EQ(child.WaitForState('S'), 'S');
    }
}

TEST_F(ProcessPageActionsTest, SetPriorityChangesTheChildsNice) {
    TestChild child;
    ASSERT_TRUE(child.Started());
    auto actions = MakeActions(services.get());

    for (const int nice : {10, 19}) {
        statuses.clear();
        ASSERT_TRUE(actions->QueueProcessAction({child.Key()}, QStringLiteral("Set priority"), nice));
        ASSERT_TRUE(WaitForStatuses(1));
        EXPECT_EQ(statuses.back(), QStringLiteral("Set priority succeeded"));
        const auto stat = child.Stat();
        ASSERT_TRUE(stat);
        EXPECT_EQ(stat->nice, nice);
    }
}

TEST_F(ProcessPageActionsTest, FailuresAreReportedWithTheirReason) {
    TestChild alive;
    TestChild gone;
    ASSERT_TRUE(alive.Started() && gone.Started());
    const core::ProcessKey goneKey = gone.Key();
    gone.KillAndReap();
    core::ProcessKey reused = alive.Key();
    reused.startTime += 1;
    auto actions = MakeActions(services.get());

    struct Case {
        std::vector<core::ProcessKey> keys;
        QString name;
        std::optional<std::int32_t> nice;
        QString expected;
    };
    const std::vector<Case> cases = {
        {{goneKey}, QStringLiteral("Terminate"), {}, QStringLiteral("Terminate failed: the process has exited")},
        {{reused}, QStringLiteral("Suspend"), {}, QStringLiteral("Suspend failed: the process has exited")},
        {{alive.Key()}, QStringLiteral("Set priority"), {}, QStringLiteral("Set priority failed: no priority was given")},
        {{alive.Key()}, QStringLiteral("Set priority"), 20,
         QStringLiteral("Set priority failed: the priority must lie between -20 and 19")},
    };
    for (const Case& c : cases) {
        statuses.clear();
        ASSERT_TRUE(actions->QueueProcessAction(c.keys, c.name, c.nice));
        ASSERT_TRUE(WaitForStatuses(1));
        EXPECT_EQ(statuses.back(), c.expected);
    }

    // A batch in which one of two fails says how many failed, and still acts on the other.
    statuses.clear();
    ASSERT_TRUE(actions->QueueProcessAction({goneKey, alive.Key()}, QStringLiteral("Terminate")));
    ASSERT_TRUE(WaitForStatuses(1));
    EXPECT_EQ(statuses.back(), QStringLiteral("Terminate failed: the process has exited (1 of 2 processes)"));
    EXPECT_EQ(alive.WaitForTerminatingSignal(), SIGTERM);
}

TEST_F(ProcessPageActionsTest, RequestsThatCannotBeQueuedAreRefusedInTheStatusLine) {
    TestChild child;
    ASSERT_TRUE(child.Started());

    auto withoutServices = MakeActions(nullptr);
    EXPECT_FALSE(withoutServices->BackendUsable());
    EXPECT_FALSE(withoutServices->QueueProcessAction({child.Key()}, QStringLiteral("Terminate")));
    ASSERT_EQ(statuses.size(), 1);
    EXPECT_EQ(statuses.back(), QStringLiteral("Process actions unavailable"));

    auto actions = MakeActions(services.get());
    EXPECT_FALSE(actions->QueueProcessAction({child.Key()}, QStringLiteral("Explode")));
    EXPECT_EQ(statuses.back(), QStringLiteral("Explode failed: not a known process action"));
    EXPECT_FALSE(actions->QueueProcessAction({}, QStringLiteral("Terminate")));
    EXPECT_EQ(statuses.size(), 2) << "an empty selection says nothing";

    actions->Shutdown();
    EXPECT_FALSE(actions->BackendUsable());
    EXPECT_FALSE(actions->QueueProcessAction({child.Key()}, QStringLiteral("Terminate")));
    EXPECT_EQ(statuses.back(), QStringLiteral("Process actions unavailable"));
    QCoreApplication::processEvents();
    // Alive and not stopped (it may be running or asleep): no request reached it.
    const auto stat = child.Stat();
    ASSERT_TRUE(stat.has_value()) << "nothing reached the child";
    EXPECT_TRUE(stat->state == 'S' || stat->state == 'R') << stat->state;
}

TEST_F(ProcessPageActionsTest, TheFourthRequestIsRefusedAndNoneOfTheFirstThreeIsLost) {
    GatedServices gated;
    auto actions = MakeActions(&gated);
    const GateOpener opener{gated.Gate()};
    std::vector<std::unique_ptr<TestChild>> children;
    for (int i = 0; i < 4; ++i) {
        children.push_back(std::make_unique<TestChild>());
        ASSERT_TRUE(children.back()->Started());
    }

    ASSERT_TRUE(actions->QueueProcessAction({children[0]->Key()}, QStringLiteral("Terminate")));
    ASSERT_TRUE(gated.Gate().WaitUntilEntered(1)) << "the worker holds the first request";
    ASSERT_TRUE(actions->QueueProcessAction({children[1]->Key()}, QStringLiteral("Terminate")));
    ASSERT_TRUE(actions->QueueProcessAction({children[2]->Key()}, QStringLiteral("Terminate")));
    EXPECT_EQ(actions->PendingActionCount(), 3u);
    EXPECT_FALSE(actions->QueueProcessAction({children[3]->Key()}, QStringLiteral("Terminate")));
    ASSERT_EQ(statuses.size(), 1);
    EXPECT_EQ(statuses.front(), QStringLiteral("Process action queue is busy"));

    gated.Gate().Open();
    ASSERT_TRUE(WaitForStatuses(4));
    for (qsizetype i = 1; i < statuses.size(); ++i) EXPECT_EQ(statuses[i], QStringLiteral("Terminate succeeded"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(children[static_cast<std::size_t>(i)]->WaitForTerminatingSignal(), SIGTERM) << i;
    EXPECT_EQ(samplesRequested, 3);
    EXPECT_EQ(children.back()->Stat()->state, 'S') << "the refused request never ran";
}

TEST_F(ProcessPageActionsTest, AResultThatArrivesAfterShutdownIsDropped) {
    GatedServices gated;
    auto actions = MakeActions(&gated);
    const GateOpener opener{gated.Gate()};
    TestChild child;
    ASSERT_TRUE(child.Started());

    ASSERT_TRUE(actions->QueueProcessAction({child.Key()}, QStringLiteral("Terminate")));
    ASSERT_TRUE(gated.Gate().WaitUntilEntered(1));
    gated.Gate().Open();
    ASSERT_EQ(child.WaitForTerminatingSignal(), SIGTERM) << "the action itself ran";
    actions->Shutdown();
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
    EXPECT_TRUE(statuses.isEmpty());
    EXPECT_EQ(samplesRequested, 0);
}

TEST_F(ProcessPageActionsTest, AffinityClicksChangeTheChildsMask) {
    const long processors = ::sysconf(_SC_NPROCESSORS_CONF);
    if (processors < 2 || processors > 64) GTEST_SKIP() << "needs 2 to 64 processors, has " << processors;
    if (AffinityOf(::getpid()) != AllProcessorsMask(processors)) GTEST_SKIP() << "this test runs on a restricted set";
    TestChild child;
    ASSERT_TRUE(child.Started());
    auto actions = MakeActions(services.get());

    const auto click = [&](int processor) {
        statuses.clear();
        EXPECT_TRUE(actions->QueueAffinityChange(child.Key(), processor));
        EXPECT_TRUE(WaitForStatuses(1));
        return statuses.isEmpty() ? QString() : statuses.back();
    };
    // Each click starts from the mask as it is when the worker gets to it.
    EXPECT_EQ(click(0), QStringLiteral("Set affinity succeeded"));
    EXPECT_EQ(AffinityOf(child.Pid()), AllProcessorsMask(processors) & ~std::uint64_t{1});
    for (int cpu = 2; cpu < processors; ++cpu) EXPECT_EQ(click(cpu), QStringLiteral("Set affinity succeeded"));
    EXPECT_EQ(AffinityOf(child.Pid()), 0b10u);
    EXPECT_EQ(click(1), QStringLiteral("At least one processor must remain selected"));
    EXPECT_EQ(AffinityOf(child.Pid()), 0b10u);
    EXPECT_EQ(click(-1), QStringLiteral("Set affinity succeeded"));
    EXPECT_EQ(AffinityOf(child.Pid()), AllProcessorsMask(processors));

    const core::ProcessKey key = child.Key();
    child.KillAndReap();
    statuses.clear();
    ASSERT_TRUE(actions->QueueAffinityChange(key, 0));
    ASSERT_TRUE(WaitForStatuses(1));
    EXPECT_EQ(statuses.back(), QStringLiteral("Set affinity failed: the process has exited"));
}

TEST(ProcessActionQueueTest, RunsEntriesInOrderAndReportsAThrowingEntry) {
    ProcessActionQueue queue;
    QStringList seen;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(queue.Enqueue([&seen, i](std::stop_token) {
            if (i == 1) throw std::runtime_error("broken");
            return ProcessActionQueue::Continuation([&seen, i] { seen.push_back(QString::number(i)); });
        }, [&seen] { seen.push_back(QStringLiteral("exception")); }),
                  ProcessQueueStatus::accepted);
    }
    ASSERT_TRUE(QTest::qWaitFor([&] { return seen.size() == 3; }, kWaitMs));
    EXPECT_EQ(seen, (QStringList{QStringLiteral("0"), QStringLiteral("exception"), QStringLiteral("2")}));
    queue.Shutdown();
    EXPECT_EQ(queue.Enqueue([](std::stop_token) { return ProcessActionQueue::Continuation(); }),
              ProcessQueueStatus::unavailable);
}

}  // namespace
}  // namespace korv::host::linux_client
