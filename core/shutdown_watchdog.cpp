#include "core/shutdown_watchdog.h"

#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace korv::core {
namespace {

using Clock = ShutdownWatchdog::Clock;

[[noreturn]] void Fire(ShutdownWatchdog::HardExitCallback callback, std::int32_t exitCode) noexcept
{
    callback(exitCode);
    std::abort();
}

void Watch(std::stop_token stop, const std::shared_ptr<ShutdownWatchdog::State>& state)
{
    std::unique_lock lock(state->mutex);
    if (!state->wake.wait(lock, stop, [&] { return state->armed || state->disarmed; })) {
        return;
    }
    for (;;) {
        if (stop.stop_requested() || state->disarmed || !state->armed) {
            return;
        }
        const Clock::time_point deadline = state->deadline;
        if (Clock::now() >= deadline) {
            break;
        }
        // An earlier Arm moves the deadline; the loop then waits for the new one.
        state->wake.wait_until(lock, stop, deadline, [&] {
            return state->disarmed || !state->armed || state->deadline < deadline;
        });
    }
    const auto callback = state->callback;
    const std::int32_t exitCode = state->exitCode;
    lock.unlock();
    Fire(callback, exitCode);
}

} // namespace

ShutdownWatchdog::ShutdownWatchdog(HardExitCallback callback, std::int32_t exitCode)
    : state(std::make_shared<State>())
{
    if (callback == nullptr) {
        throw std::invalid_argument("ShutdownWatchdog requires a hard-exit callback");
    }
    state->callback = callback;
    state->exitCode = exitCode;
    worker = std::jthread([shared = state](std::stop_token stop) { Watch(std::move(stop), shared); });
}

ShutdownWatchdog::~ShutdownWatchdog()
{
    bool stillArmed = false;
    {
        const std::scoped_lock lock(state->mutex);
        stillArmed = state->armed;
    }
    if (stillArmed) {
        // The teardown this watchdog guards did not finish; waiting for the deadline would only delay the end.
        Fire(state->callback, state->exitCode);
    }
    StopAndJoin();
}

void ShutdownWatchdog::Arm(Clock::time_point deadline)
{
    {
        const std::scoped_lock lock(state->mutex);
        if (state->disarmed) {
            return;
        }
        if (!state->armed || deadline < state->deadline) {
            state->deadline = deadline;
        }
        state->armed = true;
    }
    state->wake.notify_all();
}

void ShutdownWatchdog::Disarm()
{
    {
        const std::scoped_lock lock(state->mutex);
        state->armed = false;
        state->disarmed = true;
    }
    StopAndJoin();
}

void ShutdownWatchdog::StopAndJoin()
{
    worker.request_stop();
    state->wake.notify_all();
    // Two threads may disarm at once; only one of them may join.
    const std::scoped_lock joinLock(joinMutex);
    if (worker.joinable()) {
        worker.join();
    }
}

ShutdownWatchdog::Clock::time_point ShutdownWatchdog::CloseDeadline(Clock::time_point now)
{
    return now + std::chrono::nanoseconds(2'000'000'000);
}

} // namespace korv::core
