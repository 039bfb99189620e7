#include "core/shutdown_watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace korv::core {
namespace {

using namespace std::chrono_literals;
using Clock = ShutdownWatchdog::Clock;

// Every watchdog that can fire lives in a child process: its callback ends that process.
constexpr int kFiredCode = 42;
constexpr int kSurvivedCode = 0;
constexpr int kFiredEarlyCode = 99;
constexpr unsigned kHangGuardSeconds = 20;
constexpr auto kPatience = 5s;
constexpr auto kPastDeadline = 400ms;

// Set in the child before arming: a fire before this instant means the deadline was not awaited.
std::atomic<Clock::rep> notBefore{0};
ShutdownWatchdog* reentered = nullptr;

void ExitChecked(int code) noexcept
{
    _exit(Clock::now().time_since_epoch().count() < notBefore.load() ? kFiredEarlyCode : code);
}

void ReturnWithoutExiting(int) noexcept {}

// Takes the watchdog's mutex from inside the callback, which deadlocks if the firing path still holds it.
void ArmAgainThenExit(int code) noexcept
{
    reentered->Arm(Clock::now());
    _exit(code);
}

// A child that hangs is ended by SIGALRM, which no expectation below accepts.
[[noreturn]] void RunChild(const std::function<void()>& body)
{
    alarm(kHangGuardSeconds);
    body();
    std::_Exit(kSurvivedCode);
}

// The children run watchdog threads, so they are started by fork and exec rather than a bare fork.
class ThreadsafeDeathStyle {
public:
    ThreadsafeDeathStyle() : previous(GTEST_FLAG_GET(death_test_style))
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
    ~ThreadsafeDeathStyle() { GTEST_FLAG_SET(death_test_style, previous); }
    ThreadsafeDeathStyle(const ThreadsafeDeathStyle&) = delete;
    ThreadsafeDeathStyle& operator=(const ThreadsafeDeathStyle&) = delete;

private:
    std::string previous;
};

struct CaseName {
    template <typename Case>
    std::string operator()(const ::testing::TestParamInfo<Case>& info) const
    {
        return info.param.name;
    }
};

struct DeadlineCase {
    const char* name;
    std::vector<Clock::duration> armOffsets;
    int exitCode;
    // Lets the worker settle on one deadline before the next Arm moves it.
    Clock::duration pauseBetweenArms = Clock::duration::zero();
};

class ShutdownWatchdogFiresDeathTest : public ::testing::TestWithParam<DeadlineCase> {
    ThreadsafeDeathStyle style;
};

TEST_P(ShutdownWatchdogFiresDeathTest, FiresWithItsExitCodeNoEarlierThanTheEarliestDeadline)
{
    const DeadlineCase& c = GetParam();
    EXPECT_EXIT(RunChild([&] {
        ShutdownWatchdog watchdog(&ExitChecked, c.exitCode);
        const Clock::time_point start = Clock::now();
        Clock::duration earliest = c.armOffsets.front();
        for (Clock::duration offset : c.armOffsets) {
            earliest = std::min(earliest, offset);
        }
        notBefore = (start + earliest).time_since_epoch().count();
        for (Clock::duration offset : c.armOffsets) {
            watchdog.Arm(start + offset);
            std::this_thread::sleep_for(c.pauseBetweenArms);
        }
        std::this_thread::sleep_for(kPatience);
        std::_Exit(kSurvivedCode); // before the destructor, which would fire an armed watchdog
    }),
                ::testing::ExitedWithCode(c.exitCode), "");
}

INSTANTIATE_TEST_SUITE_P(
    Deadlines, ShutdownWatchdogFiresDeathTest,
    ::testing::Values(DeadlineCase{"DeadlineJustPast", {-50ms}, kFiredCode},
                      DeadlineCase{"OtherExitCode", {-1ms}, 7},
                      DeadlineCase{"DeadlineAhead", {150ms}, kFiredCode},
                      DeadlineCase{"LaterArmDoesNotPostpone", {100ms, 1h}, kFiredCode},
                      DeadlineCase{"EarlierArmBringsForward", {1h, 300ms}, 3, 100ms}),
    CaseName());

struct QuietCase {
    const char* name;
    void (*steps)(ShutdownWatchdog&);
};

class ShutdownWatchdogQuietDeathTest : public ::testing::TestWithParam<QuietCase> {
    ThreadsafeDeathStyle style;
};

// The child outlives the deadline and the watchdog's destruction, then exits on its own.
TEST_P(ShutdownWatchdogQuietDeathTest, NeverFires)
{
    const QuietCase& c = GetParam();
    EXPECT_EXIT(RunChild([&] {
        {
            ShutdownWatchdog watchdog(&ExitChecked, kFiredCode);
            c.steps(watchdog);
            std::this_thread::sleep_for(kPastDeadline);
        }
        std::this_thread::sleep_for(100ms);
    }),
                ::testing::ExitedWithCode(kSurvivedCode), "");
}

INSTANTIATE_TEST_SUITE_P(
    Disarmed, ShutdownWatchdogQuietDeathTest,
    ::testing::Values(
        QuietCase{"NeverArmed", [](ShutdownWatchdog&) {}},
        QuietCase{"DisarmedBeforeDeadline",
                  [](ShutdownWatchdog& w) {
                      w.Arm(Clock::now() + 150ms);
                      w.Disarm();
                  }},
        QuietCase{"DisarmedTwice",
                  [](ShutdownWatchdog& w) {
                      w.Arm(Clock::now() + 100ms);
                      w.Disarm();
                      w.Disarm();
                  }},
        QuietCase{"ArmAfterDisarmIgnored",
                  [](ShutdownWatchdog& w) {
                      w.Disarm();
                      w.Arm(Clock::now() - 1ms);
                      w.Arm(Clock::now() + 100ms);
                  }},
        // Disarm must wake the worker instead of waiting out a far deadline; a hang trips the guard.
        QuietCase{"DisarmFarDeadline",
                  [](ShutdownWatchdog& w) {
                      w.Arm(Clock::now() + 1h);
                      std::this_thread::sleep_for(100ms);
                      w.Disarm();
                  }},
        QuietCase{"ArmAndDisarmFromManyThreads",
                  [](ShutdownWatchdog& w) {
                      std::latch go(6);
                      std::vector<std::jthread> threads;
                      for (int i = 0; i < 4; ++i) {
                          threads.emplace_back([&w, &go, i] {
                              go.arrive_and_wait();
                              for (int n = 0; n < 500; ++n) {
                                  w.Arm(Clock::now() + 1h + std::chrono::milliseconds(i * 500 + n));
                              }
                          });
                      }
                      for (int i = 0; i < 2; ++i) {
                          threads.emplace_back([&w, &go] {
                              go.arrive_and_wait();
                              w.Disarm();
                          });
                      }
                  }}),
    CaseName());

enum class FiringPath { deadline, destructor };

struct FiringCase {
    const char* name;
    FiringPath path;
    ShutdownWatchdog::HardExitCallback callback;
    std::function<bool(int)> expectedStatus;
};

class ShutdownWatchdogCallbackDeathTest : public ::testing::TestWithParam<FiringCase> {
    ThreadsafeDeathStyle style;
};

TEST_P(ShutdownWatchdogCallbackDeathTest, EndsTheProcess)
{
    const FiringCase& c = GetParam();
    EXPECT_EXIT(RunChild([&] {
        {
            ShutdownWatchdog watchdog(c.callback, kFiredCode);
            reentered = &watchdog;
            if (c.path == FiringPath::deadline) {
                watchdog.Arm(Clock::now() - 1ms);
                std::this_thread::sleep_for(kPatience);
                std::_Exit(kSurvivedCode);
            } else {
                // An hour away: only the destructor can fire within the child's life.
                watchdog.Arm(Clock::now() + 1h);
            }
        }
        std::this_thread::sleep_for(100ms);
    }),
                c.expectedStatus, "");
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ShutdownWatchdogCallbackDeathTest,
    ::testing::Values(
        FiringCase{"DestroyedWhileArmed", FiringPath::destructor, &ExitChecked,
                   ::testing::ExitedWithCode(kFiredCode)},
        FiringCase{"DeadlineCallbackReturns", FiringPath::deadline, &ReturnWithoutExiting,
                   ::testing::KilledBySignal(SIGABRT)},
        FiringCase{"DestructorCallbackReturns", FiringPath::destructor, &ReturnWithoutExiting,
                   ::testing::KilledBySignal(SIGABRT)},
        FiringCase{"DeadlineCallbackTakesLock", FiringPath::deadline, &ArmAgainThenExit,
                   ::testing::ExitedWithCode(kFiredCode)},
        FiringCase{"DestructorCallbackTakesLock", FiringPath::destructor, &ArmAgainThenExit,
                   ::testing::ExitedWithCode(kFiredCode)}),
    CaseName());

TEST(ShutdownWatchdogTest, RefusesANullCallback)
{
    EXPECT_THAT([] { ShutdownWatchdog watchdog(nullptr, kFiredCode); },
                ::testing::ThrowsMessage<std::invalid_argument>(
                    ::testing::StrEq("ShutdownWatchdog requires a hard-exit callback")));
}

TEST(ShutdownWatchdogTest, CloseDeadlineIsTwoSecondsAhead)
{
    for (const Clock::time_point now : {Clock::time_point{}, Clock::now()}) {
        EXPECT_EQ(ShutdownWatchdog::CloseDeadline(now) - now, std::chrono::nanoseconds(2'000'000'000));
    }
}

TEST(ShutdownClaimTest, OnlyTheFirstCloseClaimsTheTeardown)
{
    ShutdownClaim claim;
    EXPECT_TRUE(claim.TryClaim());
    EXPECT_FALSE(claim.TryClaim());
    EXPECT_FALSE(claim.TryClaim());
}

TEST(ShutdownClaimTest, RacingClosesHaveExactlyOneWinner)
{
    constexpr int kThreads = 8;
    for (int round = 0; round < 50; ++round) {
        ShutdownClaim claim;
        std::atomic<int> winners{0};
        std::latch go(kThreads);
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < kThreads; ++i) {
                threads.emplace_back([&] {
                    go.arrive_and_wait();
                    if (claim.TryClaim()) {
                        ++winners;
                    }
                });
            }
        }
        ASSERT_EQ(winners.load(), 1) << "round " << round;
    }
}

} // namespace
} // namespace korv::core
