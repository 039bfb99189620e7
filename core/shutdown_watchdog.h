#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

namespace korv::core {

// Ends the process through a hard-exit callback when a teardown overruns its deadline, so that a hung
// provider, worker or destructor cannot keep a closed window's process alive.
// Arm and Disarm may be called from any thread, but not from the callback. The mutex is never held while
// the callback runs; the callback must end the process, and std::abort follows should it return.
class ShutdownWatchdog {
public:
    using HardExitCallback = void (*)(int) noexcept;
    using Clock = std::chrono::steady_clock;

    // Shared with the worker, so that it outlives an owner that hangs in its own teardown.
    struct State {
        std::mutex mutex;
        std::condition_variable_any wake;
        Clock::time_point deadline{};
        HardExitCallback callback = nullptr;
        std::int32_t exitCode = 0;
        bool armed = false;
        bool disarmed = false;
    };

    // Throws std::invalid_argument on a null callback.
    ShutdownWatchdog(HardExitCallback callback, std::int32_t exitCode);
    // Still armed: fires the callback at once on the calling thread. Otherwise stops and joins the worker.
    ~ShutdownWatchdog();

    ShutdownWatchdog(const ShutdownWatchdog&) = delete;
    ShutdownWatchdog& operator=(const ShutdownWatchdog&) = delete;
    ShutdownWatchdog(ShutdownWatchdog&&) = delete;
    ShutdownWatchdog& operator=(ShutdownWatchdog&&) = delete;

    // The earliest deadline wins; does nothing once disarmed.
    void Arm(Clock::time_point deadline);
    // Final: a disarmed watchdog never fires and cannot be armed again. Returns after the worker has ended.
    // Safe to call more than once.
    void Disarm();

    // The deadline the window's close path arms with: two seconds from now.
    static Clock::time_point CloseDeadline(Clock::time_point now);

private:
    void StopAndJoin();

    std::shared_ptr<State> state;
    std::mutex joinMutex;
    std::jthread worker;
};

// Decides which of several close requests runs the teardown: only the first claim succeeds.
class ShutdownClaim {
public:
    bool TryClaim() noexcept { return !claimed.test_and_set(std::memory_order_acq_rel); }

private:
    std::atomic_flag claimed;
};

} // namespace korv::core
