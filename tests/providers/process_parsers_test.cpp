#include "providers/bounded_read.h"
#include "providers/proc_pid_stat.h"
#include "providers/process_cgroup.h"
#include "providers/process_descriptors.h"
#include "providers/process_directory.h"
#include "providers/process_figures.h"
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

TEST(ProcessFiguresTest, CommandLineIsOneLineOfBlankSeparatedArguments) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {std::string("python3\0-m\0http.server\0", 23), "python3 -m http.server"},
        {std::string("sh\0-c\0echo a  b\0", 16), "sh -c echo a  b"},
        {std::string("a\0\0b\0\0", 6), "a  b"},  // an empty argument keeps its place
        {"nginx: worker process", "nginx: worker process"},  // rewritten in place, no NUL
        {std::string("x\0line\none\ttab\0", 15), "x line one tab"},
        {"", ""},
        {std::string("\0", 1), ""},
    };
    std::string joined = "left over";
    for (const auto& [raw, shown] : cases) {
        JoinArguments(raw, joined);
        EXPECT_EQ(joined, shown) << shown;
    }
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

// Descriptor counts: what the last read gave is reused while that read is at most 999,999,999 ns
// old; after a failed read a count is kept as stale while it is younger than 2 s, then the errno
// decides.
TEST(DescriptorCountTest, ReuseAndFailureRules) {
    struct Step {
        std::uint64_t atNs;
        std::optional<DirectoryCount> read;  // none: reused when not due
        bool due;
        MetricAvailability availability;
        std::uint64_t value;
        std::uint64_t ageNs;
        std::uint64_t lastGoodGeneration;
    };
    constexpr int kDenied = EACCES;
    const std::vector<Step> steps = {
        {5, std::nullopt, true, MetricAvailability::notYetAvailable, 0, 0, 0},
        {1'000, DirectoryCount{7, 0}, true, MetricAvailability::valid, 7, 0, 2},
        {1'000 + 999'999'999, std::nullopt, false, MetricAvailability::valid, 7, 999'999'999, 2},
        {1'000 + 1'000'000'000, DirectoryCount{0, kDenied}, true, MetricAvailability::stale, 7, 1'000'000'000, 2},
        {1'000 + 1'999'999'999, std::nullopt, false, MetricAvailability::stale, 7, 1'999'999'999, 2},
        {1'000 + 2'000'000'000, DirectoryCount{0, kDenied}, true, MetricAvailability::accessDenied, 0, 0, 0},
        {1'000 + 2'500'000'000, std::nullopt, false, MetricAvailability::accessDenied, 0, 0, 0},
        {1'000 + 3'000'000'001, DirectoryCount{0, ESRCH}, true, MetricAvailability::notYetAvailable, 0, 0, 0},
        {1'000 + 4'000'000'002, DirectoryCount{0, 0}, true, MetricAvailability::zero, 0, 0, 9},
        {1'000 + 3'000'000'000, DirectoryCount{4, 0}, true, MetricAvailability::valid, 4, 0, 10},  // clock went back
    };
    DescriptorCountState state;
    core::Metric<std::uint64_t> metric;
    std::uint64_t generation = 0;
    for (const Step& step : steps) {
        ++generation;
        EXPECT_EQ(DescriptorCountDue(state, step.atNs), step.due) << step.atNs;
        metric = {};
        ApplyDescriptorCount(state, step.read ? &*step.read : nullptr, step.atNs, generation, metric);
        EXPECT_EQ(metric.availability, step.availability) << step.atNs;
        EXPECT_EQ(metric.value.value_or(0), step.value) << step.atNs;
        EXPECT_EQ(metric.value.has_value(), core::CarriesValue(step.availability)) << step.atNs;
        if (metric.value) {
            EXPECT_EQ(metric.sampleAgeNs, step.ageNs) << step.atNs;
            EXPECT_EQ(metric.lastGoodGeneration, step.lastGoodGeneration) << step.atNs;
        }
    }
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
