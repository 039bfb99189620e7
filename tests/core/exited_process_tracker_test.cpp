#include "core/exited_process_tracker.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace korv::core {
namespace {

constexpr std::uint64_t kSecond = 1'000'000'000ULL;
constexpr std::uint64_t kStart = 100 * kSecond;

ProcessSnapshot Process(ProcessKey key) {
    ProcessSnapshot process;
    process.key = key;
    process.name = "p" + std::to_string(key.pid) + "." + std::to_string(key.startTime);
    process.cpuPercent.Set(2.5);
    return process;
}

// Feeds one snapshot with the given live keys to the tracker and returns it.
class Feed {
public:
    std::shared_ptr<SystemSnapshot> Next(std::uint64_t monotonicNs, const std::vector<ProcessKey>& live) {
        auto snapshot = std::make_shared<SystemSnapshot>();
        snapshot->schemaVersion = 1;
        snapshot->generation = ++generation_;
        snapshot->monotonicNs = monotonicNs;
        for (const auto& key : live) snapshot->processes.push_back(Process(key));
        tracker_.Update(snapshot);
        return snapshot;
    }

    std::uint64_t Generation() const { return generation_; }

private:
    ExitedProcessTracker tracker_;
    std::uint64_t generation_ = 0;
};

std::vector<ProcessKey> Keys(const SystemSnapshot& snapshot) {
    std::vector<ProcessKey> keys;
    for (const auto& record : snapshot.exitedProcesses) keys.push_back(record.process.key);
    return keys;
}

const ProcessKey kA{10, 1}, kB{20, 2}, kC{30, 3};

TEST(ExitedProcessTrackerTest, GoneProcessCarriesThePresentSnapshotsTimeAndGeneration) {
    Feed feed;
    EXPECT_TRUE(feed.Next(kStart, {kA, kB, kC})->exitedProcesses.empty());
    const auto second = feed.Next(kStart + kSecond / 4, {kA, kC});
    ASSERT_EQ(second->exitedProcesses.size(), 1u);
    const ExitedProcessRecord& record = second->exitedProcesses[0];
    EXPECT_EQ(record.process.key, kB);
    EXPECT_EQ(record.process.name, "p20.2");
    EXPECT_EQ(record.process.cpuPercent.value, 2.5);
    EXPECT_EQ(record.exitedAtNs, kStart + kSecond / 4);
    EXPECT_EQ(record.exitedGeneration, 2u);
    // Later snapshots keep the one entry with its first times; it is not added again.
    const auto third = feed.Next(kStart + kSecond, {kA, kC});
    ASSERT_EQ(Keys(*third), std::vector<ProcessKey>{kB});
    EXPECT_EQ(third->exitedProcesses[0].exitedAtNs, kStart + kSecond / 4);
    EXPECT_EQ(third->exitedProcesses[0].exitedGeneration, 2u);
}

TEST(ExitedProcessTrackerTest, EntriesStayFiveSecondsAndNoLonger) {
    Feed feed;
    feed.Next(kStart, {kA, kB});
    feed.Next(kStart + kSecond, {kA});  // kB gone at kStart + 1 s
    EXPECT_EQ(Keys(*feed.Next(kStart + 3 * kSecond, {kA})), std::vector<ProcessKey>{kB});
    EXPECT_EQ(Keys(*feed.Next(kStart + 6 * kSecond, {kA})), std::vector<ProcessKey>{kB});
    EXPECT_TRUE(feed.Next(kStart + 6 * kSecond + 1, {kA})->exitedProcesses.empty());
}

TEST(ExitedProcessTrackerTest, KeyAliveAgainIsDropped) {
    Feed feed;
    feed.Next(kStart, {kA, kB});
    ASSERT_EQ(Keys(*feed.Next(kStart + kSecond, {kA})), std::vector<ProcessKey>{kB});
    EXPECT_TRUE(feed.Next(kStart + 2 * kSecond, {kB, kA})->exitedProcesses.empty());
}

TEST(ExitedProcessTrackerTest, UnsortedLiveListsAreNotMistakenForExits) {
    Feed feed;
    feed.Next(kStart, {kC, kA, kB});
    EXPECT_TRUE(feed.Next(kStart + kSecond, {kB, kC, kA})->exitedProcesses.empty());
    EXPECT_EQ(Keys(*feed.Next(kStart + 2 * kSecond, {kC, kA})), std::vector<ProcessKey>{kB});
}

TEST(ExitedProcessTrackerTest, ReusedPidWithOtherStartTimeIsAnExitAndANewProcess) {
    Feed feed;
    feed.Next(kStart, {kA, {500, 7}});
    const auto next = feed.Next(kStart + kSecond, {kA, {500, 9}});
    EXPECT_EQ(Keys(*next), (std::vector<ProcessKey>{ProcessKey{500, 7}}));
    EXPECT_EQ(feed.Next(kStart + 2 * kSecond, {kA, {500, 9}})->exitedProcesses.size(), 1u);
}

TEST(ExitedProcessTrackerTest, The65thExitPushesOutTheOldest) {
    Feed feed;
    std::vector<ProcessKey> many;
    for (std::uint32_t pid = 1; pid <= 64; ++pid) many.push_back({pid, 1});
    many.push_back({1000, 1});
    feed.Next(kStart, many);
    const auto full = feed.Next(kStart + kSecond, {{1000, 1}});
    ASSERT_EQ(full->exitedProcesses.size(), 64u);
    EXPECT_EQ(full->exitedProcesses.front().process.key, (ProcessKey{1, 1}));
    EXPECT_EQ(full->exitedProcesses.back().process.key, (ProcessKey{64, 1}));

    const auto over = feed.Next(kStart + 2 * kSecond, {});
    ASSERT_EQ(over->exitedProcesses.size(), 64u);
    EXPECT_EQ(over->exitedProcesses.front().process.key, (ProcessKey{2, 1}));
    EXPECT_EQ(over->exitedProcesses.back().process.key, (ProcessKey{1000, 1}));
    EXPECT_EQ(over->exitedProcesses.back().exitedGeneration, feed.Generation());
}

}  // namespace
}  // namespace korv::core
