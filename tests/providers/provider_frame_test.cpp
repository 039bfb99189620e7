#include "providers/capability_table.h"
#include "providers/collect_budget.h"
#include "providers/provider_health.h"

#include <gtest/gtest.h>

#include <limits>

namespace korv::providers {
namespace {

using core::ProviderHealth;
using core::ProviderSupport;

TEST(DbusBudget, FollowsTheIntervalRule) {
    EXPECT_EQ(DbusBudgetNs(0), 200'000'000);
    EXPECT_EQ(DbusBudgetNs(-5), 200'000'000);
    EXPECT_EQ(DbusBudgetNs(250'000'000), 40'000'000);
    EXPECT_EQ(DbusBudgetNs(319'999'999), 40'000'000);
    EXPECT_EQ(DbusBudgetNs(320'000'000), 40'000'000);  // an eighth, not the flat rule
    EXPECT_EQ(DbusBudgetNs(400'000'000), 50'000'000);
    EXPECT_EQ(DbusBudgetNs(1'000'000'000), 125'000'000);
    EXPECT_EQ(DbusBudgetNs(1'600'000'000), 200'000'000);
    EXPECT_EQ(DbusBudgetNs(2'000'000'000), 200'000'000);
}

TEST(CapabilityTable, InitialRowsCarryTheirSupportAndWords) {
    const CapabilityTable table = InitialCapabilityTable({});
    EXPECT_EQ(table.size(), 24u);
    for (const auto& [key, row] : table) {
        EXPECT_EQ(row.key, key);
        EXPECT_FALSE(row.description.empty()) << key;
    }
    EXPECT_EQ(table.at("npu.telemetry").support, ProviderSupport::unsupported);
    EXPECT_EQ(table.at("npu.telemetry").description, "No vendor-neutral Linux NPU utilization provider");
    EXPECT_EQ(table.at("actions.suspend").support, ProviderSupport::degraded);
    EXPECT_EQ(table.at("actions.suspend").description, table.at("actions.terminate").description);
    EXPECT_EQ(table.at("services").description, "systemd not yet probed");
    EXPECT_EQ(table.at("system.memory").support, ProviderSupport::supported);
    EXPECT_EQ(table.at("installedApps").support, ProviderSupport::unsupported);
    EXPECT_EQ(table.at("installedApps").description, "Installed-application inventory has not been collected yet");
}

TEST(CapabilityTable, InstalledAppsSupportFollowsTheLastRefresh) {
    InstalledAppsCapability state;
    state.haveCompleteInventory = true;
    state.statusText = "partial";
    EXPECT_EQ(InitialCapabilityTable(state).at("installedApps").support, ProviderSupport::degraded);
    state.refreshCompleted = true;
    EXPECT_EQ(InitialCapabilityTable(state).at("installedApps").support, ProviderSupport::supported);
}

TEST(ProviderHealthTracker, RemembersTheLastGoodReadingAndCountsFailures) {
    ProviderHealthTracker tracker;
    CollectContext ctx;
    ctx.generation = 3;
    ctx.monotonicNs = 1'000;
    auto row = tracker.Record("linux.cpu", {true, ProviderHealth::unavailable, "fine", 5, 0}, ctx);
    EXPECT_EQ(row.state, ProviderHealth::healthy);
    EXPECT_EQ(row.lastGoodGeneration, 3u);
    EXPECT_EQ(row.dataAgeNs, 0u);

    ctx.generation = 4;
    ctx.monotonicNs = 1'500;
    row = tracker.Record("linux.cpu", {false, ProviderHealth::unavailable, "broken", 7, 5}, ctx);
    EXPECT_EQ(row.state, ProviderHealth::unavailable);
    EXPECT_EQ(row.lastGoodGeneration, 3u);
    EXPECT_EQ(row.lastGoodMonotonicNs, 1'000u);
    EXPECT_EQ(row.dataAgeNs, 500u);
    EXPECT_EQ(row.consecutiveFailures, 1u);
    EXPECT_EQ(row.nativeError, 5);
    EXPECT_EQ(row.diagnostic, "broken");

    ctx.generation = 5;
    row = tracker.Record("linux.cpu", {true, ProviderHealth::unavailable, "fine", 1, 0}, ctx);
    EXPECT_EQ(row.consecutiveFailures, 0u);
    EXPECT_EQ(row.lastGoodGeneration, 5u);
}

TEST(ProviderHealthTracker, FailureCounterSaturates) {
    ProviderHealthTracker tracker;
    const std::uint32_t max = std::numeric_limits<std::uint32_t>::max();
    tracker.SetConsecutiveFailures("linux.process", max);
    const auto row = tracker.Record("linux.process", {false, ProviderHealth::degraded, "x", 0, 0}, CollectContext{});
    EXPECT_EQ(row.consecutiveFailures, max);
    EXPECT_EQ(tracker.ConsecutiveFailures("linux.process"), max);
}

}  // namespace
}  // namespace korv::providers
