#include "host/linux_client/process_affinity_menu.h"
#include "host/linux_client/process_context_menu.h"
#include "host/linux_client/process_page_actions.h"
#include "process_test_child.h"
#include "providers/platform_services.h"

#include <gtest/gtest.h>

#include <QTest>

#include <mutex>
#include <optional>
#include <sched.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace korv::host::linux_client {
namespace {

using test::AffinityOf;
using test::TestChild;

constexpr int kWaitMs = 30000;

// The real Linux provider, noting on which thread each affinity call arrives.
class RecordingServices final : public providers::PlatformServices {
public:
    RecordingServices() : real_(providers::CreatePlatformServices()) {}
    core::ISnapshotSource& SnapshotSource() override { return real_->SnapshotSource(); }
    core::IProcessResolver& ProcessResolver() override { return real_->ProcessResolver(); }
    core::IActionBackend& ActionBackend() override { return real_->ActionBackend(); }
    providers::CapabilityTable Capabilities() const override { return real_->Capabilities(); }
    std::shared_ptr<core::ProcessDetails> ProcessDetails(const core::ProcessKey& key) override {
        return real_->ProcessDetails(key);
    }
    providers::AffinityReading ReadAffinity(const core::ProcessKey& key) override {
        Note(reads_);
        return real_->ReadAffinity(key);
    }
    providers::AffinityResult SetAffinity(const core::ProcessKey& key, std::uint64_t mask) override {
        Note(sets_);
        return real_->SetAffinity(key, mask);
    }

    std::vector<std::thread::id> Reads() const {
        std::lock_guard lock(mutex_);
        return reads_;
    }
    std::vector<std::thread::id> Sets() const {
        std::lock_guard lock(mutex_);
        return sets_;
    }

private:
    void Note(std::vector<std::thread::id>& calls) {
        std::lock_guard lock(mutex_);
        calls.push_back(std::this_thread::get_id());
    }

    std::unique_ptr<providers::PlatformServices> real_;
    mutable std::mutex mutex_;
    std::vector<std::thread::id> reads_;
    std::vector<std::thread::id> sets_;
};

// Opening the menu reads the threads' masks on the action worker, and the click sets the new mask
// through the services on that worker too; the GUI thread touches neither.
TEST(ProcessAffinityWorkerTest, TheMenuReadsAndTheClickSetsOffTheGuiThread) {
    const long processors = ::sysconf(_SC_NPROCESSORS_CONF);
    if (processors < 2 || processors > 64) GTEST_SKIP() << "needs 2 to 64 processors, has " << processors;
    if (AffinityOf(::getpid()) != AllProcessorsMask(processors)) GTEST_SKIP() << "this test runs on a restricted set";
    TestChild child;
    ASSERT_TRUE(child.Started());
    RecordingServices services;
    QStringList statuses;
    PageEnvironment environment;
    environment.services = &services;
    environment.showStatus = [&statuses](const QString& text) { statuses.push_back(text); };
    ProcessPageActions actions(environment, nullptr);

    std::optional<AffinityMenuState> shownState;
    actions.SetMenuRunner([&shownState](const ProcessMenuContext& context, const QPoint&) {
        shownState = context.affinity;
        return ProcessMenuChoice{ProcessMenuCommand::affinity, 0};
    });
    core::ProcessSnapshot row;
    row.key = child.Key();
    row.name = "child";
    actions.ShowProcessContextMenu(QPoint(10, 10), actions.MenuContext({row}, false, false));
    EXPECT_FALSE(shownState.has_value()) << "the menu waits for the reading";

    ASSERT_TRUE(QTest::qWaitFor([&] { return !statuses.isEmpty(); }, kWaitMs));
    EXPECT_EQ(statuses.back(), QStringLiteral("Set affinity succeeded"));
    ASSERT_TRUE(shownState.has_value());
    EXPECT_TRUE(shownState->readable);
    EXPECT_EQ(shownState->combinedMask, AllProcessorsMask(processors));
    EXPECT_EQ(AffinityOf(child.Pid()), AllProcessorsMask(processors) & ~std::uint64_t{1});

    const std::vector<std::thread::id> reads = services.Reads();
    const std::vector<std::thread::id> sets = services.Sets();
    ASSERT_EQ(reads.size(), 2U) << "once for the menu, once more for the click";
    ASSERT_EQ(sets.size(), 1U);
    for (const std::thread::id id : {reads[0], reads[1], sets[0]}) EXPECT_NE(id, std::this_thread::get_id());
}

}  // namespace
}  // namespace korv::host::linux_client
