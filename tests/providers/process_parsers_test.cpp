#include "providers/bounded_read.h"
#include "providers/proc_pid_stat.h"
#include "providers/process_cgroup.h"
#include "providers/process_descriptors.h"
#include "providers/process_directory.h"
#include "providers/process_figures.h"
#include "providers/process_refresh.h"
#include "providers/process_status.h"
#include "providers/process_user_names.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace korv::providers {
namespace {

using core::MetricAvailability;
constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

std::string Fixture(const char* name) {
    const BoundedReadResult read = ReadFileBounded(std::string(KORV_TEST_FIXTURES) + "/process/" + name, 65536);
    EXPECT_TRUE(read.Ok()) << name;
    return read.text;
}

// A stat line with the given pid and name, state S, and the figures the collector uses.
std::string StatLine(const std::string& pidAndName, const std::string& tail = "") {
    return pidAndName + " S 7 7 7 0 -1 4194304 11 0 3 0 250 50 0 0 20 -5 4 0 123456 8192000 300" + tail + "\n";
}

struct NameCase {
    const char* line;
    const char* comm;
};

class StatNameTest : public ::testing::TestWithParam<NameCase> {};

TEST_P(StatNameTest, NameSurvivesParenthesesAndStateLetters) {
    const auto stat = ParseProcPidStat(StatLine(GetParam().line), 42);
    ASSERT_TRUE(stat.has_value());
    EXPECT_EQ(stat->comm, GetParam().comm);
    EXPECT_EQ(stat->state, 'S');
    EXPECT_EQ(stat->ppid, 7u);
    EXPECT_EQ(stat->starttime, 123456u);
}

INSTANTIATE_TEST_SUITE_P(NastyNames, StatNameTest,
                         ::testing::Values(NameCase{"42 (a) R (b)", "a) R (b"}, NameCase{"42 ()", ""},
                                           NameCase{"42 ())", ")"}, NameCase{"42 (x) Z 1 2 3)", "x) Z 1 2 3"},
                                           NameCase{"42 (two  spaces)", "two  spaces"},
                                           NameCase{"42 (new\nline)", "new\nline"},
                                           NameCase{"42 ((sd-pam))", "(sd-pam)"}));

TEST(ProcPidStatTest, ReadsTheFieldsBehindTheState) {
    const auto stat = ParseProcPidStat(Fixture("stat-nasty-name"), 4120);
    ASSERT_TRUE(stat.has_value());
    EXPECT_EQ(stat->comm, "a) R (b");
    EXPECT_EQ(stat->ppid, 1873u);
    EXPECT_EQ(stat->minflt, 24513u);
    EXPECT_EQ(stat->majflt, 12u);
    EXPECT_EQ(stat->utime, 845u);
    EXPECT_EQ(stat->stime, 312u);
    EXPECT_EQ(stat->priority, 20);
    EXPECT_EQ(stat->nice, 5);
    EXPECT_EQ(stat->numThreads, 6u);
    EXPECT_EQ(stat->starttime, 998877u);
    EXPECT_EQ(stat->vsize, 764731392u);
    EXPECT_EQ(stat->rss, 22835);
}

TEST(ProcPidStatTest, RejectsEveryOtherShape) {
    const std::string good = StatLine("42 (ok)");
    ASSERT_TRUE(ParseProcPidStat(good, 42));
    EXPECT_FALSE(ParseProcPidStat(good, 43)) << "another pid";
    EXPECT_FALSE(ParseProcPidStat(StatLine("0 (zero)"), 0)) << "pid 0";
    EXPECT_FALSE(ParseProcPidStat(StatLine("4294967296 (big)"), 0)) << "pid beyond 32 bits";
    EXPECT_FALSE(ParseProcPidStat("42 (no close S 1 2 3\n", 42));
    EXPECT_FALSE(ParseProcPidStat("42 (bad) Q 7 7 7 0 -1 4 11 0 3 0 250 50 0 0 20 -5 4 0 1 8 3\n", 42)) << "state";
    EXPECT_FALSE(ParseProcPidStat("42 (short) S 7 7 7 0 -1 4 11 0 3 0 250 50 0 0 20 -5 4 0 1 8\n", 42)) << "20 fields";
    EXPECT_FALSE(ParseProcPidStat("42 (zero) S 7 7 7 0 -1 4 11 0 3 0 250 50 0 0 20 -5 4 0 0 8 3\n", 42)) << "start 0";
    EXPECT_FALSE(ParseProcPidStat("42 (text) S x 7 7 0 -1 4 11 0 3 0 250 50 0 0 20 -5 4 0 1 8 3\n", 42)) << "ppid";
    EXPECT_FALSE(ParseProcPidStat("", 42));
}

TEST(ProcPidStatusTest, ReadsTheKeysOfAUserProcess) {
    const ParsedProcStatus status = ParseProcPidStatus(Fixture("status-user"));
    EXPECT_EQ(status.uid, 1000u) << "the real uid is the first of four";
    EXPECT_EQ(status.vmRssKib, 91340u);
    EXPECT_EQ(status.vmHwmKib, 98212u);
    EXPECT_EQ(status.rssAnonKib, 30528u);
    EXPECT_EQ(status.rssFileKib, 58716u);
    EXPECT_EQ(status.rssShmemKib, 2096u);
    EXPECT_EQ(status.vmSwapKib, 768u);
}

TEST(ProcPidStatusTest, KernelThreadHasNoMemoryKeys) {
    const ParsedProcStatus status = ParseProcPidStatus(Fixture("status-kernel-thread"));
    EXPECT_EQ(status.uid, 0u);
    EXPECT_FALSE(status.vmRssKib || status.vmHwmKib || status.rssAnonKib || status.rssFileKib ||
                 status.rssShmemKib || status.vmSwapKib);
}

TEST(ProcPidStatusTest, ScannerTrimsAndTakesOnlyTheFirstNumberOfTheFirstLine) {
    const ParsedProcStatus status =
        ParseProcPidStatus("  VmRSS :   12 kB  \nVmRSS:\t99 kB\nVmHWM:\tlots kB\nVmSwap:\t7kB\nUid 5\nRssAnon:");
    EXPECT_EQ(status.vmRssKib, 12u);
    EXPECT_FALSE(status.vmHwmKib);
    EXPECT_FALSE(status.vmSwapKib) << "a number glued to its unit is not a number";
    EXPECT_FALSE(status.uid);
    EXPECT_FALSE(status.rssAnonKib);
}

TEST(ProcPidStatusTest, SeventeenDigitKibFiguresSaturate) {
    const ParsedProcStatus status = ParseProcPidStatus(Fixture("status-huge"));
    ASSERT_EQ(status.vmRssKib, std::uint64_t{1} << 54);
    EXPECT_EQ(status.vmSwapKib, kMax) << "a number beyond 64 bits saturates";

    core::Metric<std::uint64_t> metric;
    SetKibMetric(metric, status.vmHwmKib, 9, MetricAvailability::notApplicable);
    EXPECT_EQ(metric.availability, MetricAvailability::valid);
    EXPECT_EQ(metric.value, ((std::uint64_t{1} << 54) - 1) * 1024);
    EXPECT_EQ(metric.lastGoodGeneration, 9u);
    for (const auto kib : {status.vmRssKib, status.rssAnonKib, status.vmSwapKib}) {
        SetKibMetric(metric, kib, 9, MetricAvailability::notApplicable);
        EXPECT_EQ(metric.availability, MetricAvailability::transientError);
        EXPECT_FALSE(metric.value.has_value());
    }
    SetKibSumMetric(metric, status.rssFileKib, status.rssShmemKib, 9, MetricAvailability::notApplicable);
    EXPECT_EQ(metric.availability, MetricAvailability::transientError) << "one saturated part spoils the sum";
    SetKibSumMetric(metric, std::uint64_t{2}, std::nullopt, 9, MetricAvailability::notApplicable);
    EXPECT_EQ(metric.value, 2048u);
    SetKibMetric(metric, std::nullopt, 9, MetricAvailability::notApplicable);
    EXPECT_EQ(metric.availability, MetricAvailability::notApplicable);
}

TEST(ProcPidIoTest, ReadsCountersAndReportsAnEmptyFile) {
    const ProcIoParse io = ParseProcPidIo(Fixture("io"));
    EXPECT_EQ(io.error, 0);
    EXPECT_EQ(io.io.syscr, 21873u);
    EXPECT_EQ(io.io.syscw, 7051u);
    EXPECT_EQ(io.io.readBytes, 15949824u);
    EXPECT_EQ(io.io.writeBytes, 602112u);
    EXPECT_EQ(ParseProcPidIo("").error, 71);
    const ProcIoParse partial = ParseProcPidIo("syscr: 5\n");
    EXPECT_EQ(partial.error, 0);
    EXPECT_EQ(partial.io.syscr, 5u);
    EXPECT_FALSE(partial.io.readBytes);
}

struct ScopeCase {
    const char* path;
    core::ProcessGroup group;
    const char* scope;
};

class CgroupScopeTest : public ::testing::TestWithParam<ScopeCase> {};

TEST_P(CgroupScopeTest, OnlyAScopeUnderAppSliceIsAnApplication) {
    const CgroupScope scope = ScopeFromCgroupPath(GetParam().path);
    EXPECT_EQ(scope.group, GetParam().group);
    EXPECT_EQ(scope.scope, GetParam().scope);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, CgroupScopeTest,
    ::testing::Values(ScopeCase{"/user.slice/app.slice/foo.service", core::ProcessGroup::background, ""},
                      ScopeCase{"/user.slice/user-1000.slice/user@1000.service/app.slice/app-foo-1234.scope",
                                core::ProcessGroup::apps, "app-foo-1234.scope"},
                      ScopeCase{"/app.slice/app-x.scope/child", core::ProcessGroup::apps, "app-x.scope"},
                      ScopeCase{"/my-app.slice/app-x.scope", core::ProcessGroup::background, ""},
                      ScopeCase{"/app.slice/.scope", core::ProcessGroup::background, ""},
                      ScopeCase{"/app.slice/a.service/app.slice/b.scope", core::ProcessGroup::apps, "b.scope"},
                      ScopeCase{"/", core::ProcessGroup::background, ""}, ScopeCase{"", core::ProcessGroup::background, ""}));

TEST(CgroupFileTest, TakesTheUnifiedLine) {
    EXPECT_EQ(UnifiedCgroupPath(Fixture("cgroup-app-scope")),
              "/user.slice/user-1000.slice/user@1000.service/app.slice/app-gnome-org.gnome.TextEditor-4120.scope");
    EXPECT_EQ(UnifiedCgroupPath(Fixture("cgroup-v1-only")), "");
    EXPECT_EQ(UnifiedCgroupPath("1:cpu:/x\n0::/app.slice/a.scope"), "/app.slice/a.scope");
}

TEST(ProcessFiguresTest, ClockTicksBecomeNanoseconds) {
    EXPECT_EQ(TicksToNanoseconds(150, 100), 1'500'000'000u);
    EXPECT_EQ(TicksToNanoseconds(1, 3), 333'333'333u);
    EXPECT_EQ(TicksToNanoseconds(5, 0), 0u);
    EXPECT_EQ(TicksToNanoseconds(kMax, 1), kMax);
    EXPECT_EQ(TicksToNanoseconds(kMax, 100), kMax);
    EXPECT_EQ(TicksToNanoseconds(20'000'000'001, 100), 200'000'000'010'000'000u)
        << "ticks times 10^9 would overflow; seconds and remainder do not";
}

TEST(ProcessFiguresTest, StateLetters) {
    using S = core::ProcessState;
    const std::pair<char, S> cases[] = {{'R', S::running}, {'S', S::sleeping}, {'D', S::sleeping}, {'I', S::sleeping},
                                        {'W', S::sleeping}, {'T', S::stopped},  {'t', S::stopped},  {'Z', S::zombie},
                                        {'X', S::unknown},  {'P', S::unknown},  {'K', S::unknown},  {'x', S::unknown}};
    for (const auto& [letter, state] : cases) EXPECT_EQ(StateFromLetter(letter), state) << letter;
}

TEST(ProcessFiguresTest, DisplayNameContinuesACutComm) {
    EXPECT_EQ(DisplayName("gnome-shell-cal", "/usr/libexec/gnome-shell-calendar-server"), "gnome-shell-calendar-server");
    EXPECT_EQ(DisplayName("Web Content", "/usr/lib/firefox/firefox"), "Web Content");
    EXPECT_EQ(DisplayName("python3", "/usr/bin/python3.11"), "python3");
    EXPECT_EQ(DisplayName("kworker/0:1H-kb", ""), "kworker/0:1H-kb");
}

TEST(ProcessFiguresTest, CpuPercentIsClampedToTheMachine) {
    EXPECT_DOUBLE_EQ(CpuPercent(500'000'000, 1'000'000'000, 2), 25.0);
    EXPECT_DOUBLE_EQ(CpuPercent(5'000'000'000, 1'000'000'000, 2), 100.0);
    EXPECT_DOUBLE_EQ(CpuPercent(1, 0, 2), 0.0);
}

TEST(PidNameTest, OnlyPositiveDecimalNames) {
    EXPECT_EQ(ParsePidName("1"), 1u);
    EXPECT_EQ(ParsePidName("4194304"), 4194304u);
    for (const char* name : {"0", "012", "self", "12a", "", "-3", "4294967296", "thread-self"}) {
        EXPECT_EQ(ParsePidName(name), 0u) << name;
    }
    char text[16];
    EXPECT_STREQ(PidText(4294967295u, text), "4294967295");
}

// Descriptor counts: a reuse repeats what the last read gave, with its age; after a failed read a
// count is kept as stale until it is 10 s old, then the errno decides.
TEST(DescriptorCountTest, ReuseAndFailureRules) {
    DescriptorCountState state;
    core::Metric<std::uint64_t> metric;
    ApplyDescriptorCount(state, nullptr, 5, 1, metric);
    EXPECT_EQ(metric.availability, MetricAvailability::notYetAvailable) << "nothing read yet";
    DirectoryCount ok{7, 0};
    ApplyDescriptorCount(state, &ok, 1'000, 3, metric);
    EXPECT_EQ(metric.value, 7u);
    EXPECT_EQ(metric.availability, MetricAvailability::valid);
    EXPECT_EQ(metric.sampleAgeNs, 0u);

    ApplyDescriptorCount(state, nullptr, 1'000 + 4'500'000'000, 4, metric);
    EXPECT_EQ(metric.value, 7u);
    EXPECT_EQ(metric.availability, MetricAvailability::valid);
    EXPECT_EQ(metric.lastGoodGeneration, 3u) << "a reused count keeps the generation it was read in";
    EXPECT_EQ(metric.sampleAgeNs, 4'500'000'000u);

    const DirectoryCount denied{0, EACCES};
    ApplyDescriptorCount(state, &denied, 1'000 + 5'000'000'000, 5, metric);
    EXPECT_EQ(metric.availability, MetricAvailability::stale);
    EXPECT_EQ(metric.value, 7u);
    EXPECT_EQ(state.readNs, 1'000u) << "a kept count keeps its old read time";
    ApplyDescriptorCount(state, nullptr, 1'000 + 9'999'999'999, 6, metric);
    EXPECT_EQ(metric.availability, MetricAvailability::stale) << "a reused failure stays stale, not valid";
    EXPECT_EQ(metric.sampleAgeNs, 9'999'999'999u);

    ApplyDescriptorCount(state, &denied, 1'000 + 10'000'000'000, 7, metric);
    EXPECT_EQ(metric.availability, MetricAvailability::accessDenied);
    EXPECT_FALSE(metric.value.has_value());
    ApplyDescriptorCount(state, nullptr, 1'000 + 12'000'000'000, 8, metric);
    EXPECT_EQ(metric.availability, MetricAvailability::accessDenied) << "reused until the next read";
    const DirectoryCount gone{0, ESRCH};
    ApplyDescriptorCount(state, &gone, 1'000 + 15'000'000'000, 9, metric);
    EXPECT_EQ(metric.availability, MetricAvailability::notYetAvailable);
    const DirectoryCount none{0, 0};
    ApplyDescriptorCount(state, &none, 1'000 + 20'000'000'000, 10, metric);
    EXPECT_EQ(metric.availability, MetricAvailability::zero);
    EXPECT_EQ(metric.sampleAgeNs, 0u);
}

// Reads of quiet processes: at most every interval (less the slack), the first one after first sight
// sooner by pid so that a crowd first seen together spreads over five ticks.
TEST(RefreshScheduleTest, FirstReadsSpreadOverFiveTicksThenEveryInterval) {
    constexpr std::uint64_t kSecond = 1'000'000'000;
    std::vector<int> dueAt(kRefreshPhases, 0);
    for (std::uint32_t pid = 100; pid < 100 + 5 * kRefreshPhases; ++pid) {
        const std::uint64_t due = NextReadNs(10 * kSecond, 5 * kSecond, pid, true);
        int tick = 1;
        while (!ReadDue(due, 5 * kSecond, (10 + tick) * kSecond)) ++tick;
        ASSERT_LE(tick, 5) << pid;
        ++dueAt[tick - 1];
        EXPECT_FALSE(ReadDue(due, 5 * kSecond, 10 * kSecond + 500'000'000)) << "never within a tick of the read";
    }
    EXPECT_EQ(dueAt, (std::vector<int>(kRefreshPhases, 5))) << "the same share of pids on each of five ticks";

    const std::uint64_t due = NextReadNs(20 * kSecond, 5 * kSecond, 104, false);
    EXPECT_FALSE(ReadDue(due, 5 * kSecond, 24 * kSecond));
    EXPECT_TRUE(ReadDue(due, 5 * kSecond, 25 * kSecond - 3'000'000)) << "a tick a few ms early is on time";
    EXPECT_TRUE(ReadDue(due, 5 * kSecond, 26 * kSecond));
    EXPECT_TRUE(ReadDue(due, 5 * kSecond, 19 * kSecond)) << "a clock that went back";
}

TEST(RefreshScheduleTest, StatusMarksFollowCpuMemoryAndFaults) {
    const std::optional<ParsedProcStat> base =
        ParseProcPidStat("42 (x) S 1 1 1 0 -1 0 10 0 2 0 30 40 0 0 20 0 1 0 900 4096 77 0\n", 42);
    ASSERT_TRUE(base);
    const StatusMarks marks = MarksOf(*base);
    EXPECT_EQ(marks, (StatusMarks{70, 77, 10, 2}));
    const std::vector<std::function<void(ParsedProcStat&)>> moves = {
        [](ParsedProcStat& s) { ++s.utime; }, [](ParsedProcStat& s) { ++s.stime; },
        [](ParsedProcStat& s) { --s.rss; },   [](ParsedProcStat& s) { ++s.minflt; },
        [](ParsedProcStat& s) { ++s.majflt; }};
    for (std::size_t i = 0; i < moves.size(); ++i) {
        ParsedProcStat moved = *base;
        moves[i](moved);
        EXPECT_NE(MarksOf(moved), marks) << "move " << i;
    }
    ParsedProcStat quiet = *base;
    quiet.vsize += 4096;
    quiet.state = 'R';
    EXPECT_EQ(MarksOf(quiet), marks) << "what status does not report leaves the marks alone";
}

std::uint32_t lookups = 0;
bool CountingLookup(std::uint32_t uid, std::string& name) {
    ++lookups;
    if (uid % 2 != 0) return false;
    name = "user" + std::to_string(uid);
    return true;
}

TEST(UserNameCacheTest, SystemNamesAndDecimalTextForUnknownUids) {
    UserNameCache cache;
    const std::stop_source running;
    EXPECT_EQ(cache.Name(0, running.get_token()), "root");
    EXPECT_EQ(cache.Name(3999999999u, running.get_token()), "3999999999");
}

TEST(UserNameCacheTest, LeastRecentlyUsedGoesWhenFull) {
    lookups = 0;
    UserNameCache cache(&CountingLookup);
    const std::stop_source running;
    for (std::uint32_t uid = 0; uid < UserNameCache::kCapacity; ++uid) cache.Name(uid, running.get_token());
    EXPECT_EQ(cache.Name(2, running.get_token()), "user2");
    EXPECT_EQ(cache.Name(3, running.get_token()), "3");
    EXPECT_EQ(lookups, UserNameCache::kCapacity) << "cached names, known or not, are not looked up again";
    EXPECT_EQ(cache.Name(0, running.get_token()), "user0");  // now uid 1 is the least recently used

    EXPECT_EQ(cache.Name(100000, running.get_token()), "user100000");
    EXPECT_EQ(cache.Size(), UserNameCache::kCapacity);
    EXPECT_FALSE(cache.Contains(1));
    EXPECT_TRUE(cache.Contains(0));
    EXPECT_TRUE(cache.Contains(4));
}

TEST(UserNameCacheTest, NoLookupAfterAStopRequest) {
    lookups = 0;
    UserNameCache cache(&CountingLookup);
    std::stop_source stop;
    stop.request_stop();
    EXPECT_EQ(cache.Name(8, stop.get_token()), "8");
    EXPECT_EQ(lookups, 0u);
    EXPECT_FALSE(cache.Contains(8)) << "the decimal stand-in is not cached";
    const std::stop_source running;
    EXPECT_EQ(cache.Name(8, running.get_token()), "user8");
}

}  // namespace
}  // namespace korv::providers
