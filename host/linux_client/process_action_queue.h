#pragma once

#include "core/platform_interfaces.h"
#include "core/process_action.h"

#include <QObject>
#include <QString>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

namespace korv::host::linux_client {

enum class ProcessQueueStatus { accepted, busy, unavailable };

// The one background worker for process commands, so that the window never waits on a slow action.
// Entries run one at a time in order. Each entry is work for the worker that returns what to do on
// the GUI thread with its outcome; that continuation arrives by a queued call and is dropped once
// the queue shuts down. The queue is made, fed and shut down on the GUI thread; it is a QObject only
// so that its continuations run in the GUI thread's event loop.
class ProcessActionQueue final : public QObject {
public:
    // Queued entries plus the one running: a further request is refused as busy. A queue kept this
    // short means an action never waits behind a long backlog the user has forgotten.
    static constexpr std::size_t kMaxPending = 3;

    using Continuation = std::function<void()>;                   // GUI thread
    using Work = std::function<Continuation(std::stop_token)>;    // worker thread

    explicit ProcessActionQueue(QObject* parent = nullptr);
    // Shuts down: the worker is stopped and joined here.
    ~ProcessActionQueue() override;

    ProcessActionQueue(const ProcessActionQueue&) = delete;
    ProcessActionQueue& operator=(const ProcessActionQueue&) = delete;

    // `onException` runs on the GUI thread in place of the work's continuation when the work throws.
    ProcessQueueStatus Enqueue(Work work, Continuation onException = {});
    // Entries waiting or running.
    std::size_t PendingCount() const;
    // Refuses further entries, drops the waiting ones, stops and joins the worker; results that
    // arrive later are dropped. Safe to call twice.
    void Shutdown();
    bool IsShutDown() const noexcept { return shutDown_; }

private:
    struct Entry {
        Work work;
        Continuation onException;
    };

    void Run(std::stop_token stop);
    void Deliver(Continuation continuation);

    mutable std::mutex mutex_;
    std::condition_variable_any wake_;
    std::deque<Entry> waiting_;
    std::size_t running_ = 0;
    bool closed_ = false;
    bool shutDown_ = false;  // GUI thread only
    std::jthread worker_;
};

// The command words of the menus, as the status line repeats them, and what each one does.
struct NamedProcessAction {
    core::ProcessActionKind kind = core::ProcessActionKind::terminate;
    std::optional<std::int32_t> signal;
};
// "Terminate", "Force terminate", "End process tree", "Force quit process tree", "Suspend",
// "Resume", the signal words "Interrupt", "Hang up", "Stop", "Continue", "Kill", and "Set priority".
std::optional<NamedProcessAction> ProcessActionForName(const QString& actionName);

// The reason behind a failed action, as it follows "<action> failed: ".
QString ActionFailureReason(const core::ActionResult& result);

struct ProcessBatchOutcome {
    std::size_t attempted = 0;
    std::size_t failed = 0;
    std::optional<core::ActionResult> firstFailure;
    bool stopped = false;  // the queue shut down before the batch ended
};

// Runs the actions in order through the one checked entry for process commands; an exception of
// the backend counts as the failure "action.worker.exception". Worker thread.
ProcessBatchOutcome RunProcessActions(core::IProcessResolver& resolver, core::IActionBackend& backend,
                                      const std::vector<core::ProcessAction>& actions, std::stop_token stop);

// "<words> succeeded", or "<words> failed: <reason>", with "(n of m processes)" when a batch of
// several failed in part.
QString ProcessBatchStatusText(const QString& actionWords, const ProcessBatchOutcome& outcome);

}  // namespace korv::host::linux_client
