#include "host/linux_client/process_action_queue.h"

#include "core/process_action_executor.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <csignal>
#include <cstring>
#include <exception>
#include <utility>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("QMainWindow", source);
}

QString StatusReason(core::ActionStatus status) {
    switch (status) {
    case core::ActionStatus::targetGone: return Text("the process has exited");
    case core::ActionStatus::accessDenied: return Text("access denied");
    case core::ActionStatus::unsupported: return Text("not supported on this system");
    case core::ActionStatus::invalidArgument: return Text("invalid argument");
    case core::ActionStatus::succeeded:
    case core::ActionStatus::failed: break;
    }
    return Text("the system refused the request");
}

// The errno text in the system's own words, for failures that have no better reason.
QString WithErrno(const QString& reason, int errorNumber) {
    if (errorNumber == 0) return reason;
    return QStringLiteral("%1 (%2)").arg(reason, QString::fromLocal8Bit(std::strerror(errorNumber)));
}

}  // namespace

ProcessActionQueue::ProcessActionQueue(QObject* parent) : QObject(parent) {
    worker_ = std::jthread([this](std::stop_token stop) { Run(stop); });
}

ProcessActionQueue::~ProcessActionQueue() {
    Shutdown();
}

ProcessQueueStatus ProcessActionQueue::Enqueue(Work work, Continuation onException) {
    if (!work) return ProcessQueueStatus::unavailable;
    {
        std::lock_guard lock(mutex_);
        if (closed_) return ProcessQueueStatus::unavailable;
        if (waiting_.size() + running_ >= kMaxPending) return ProcessQueueStatus::busy;
        waiting_.push_back({std::move(work), std::move(onException)});
    }
    wake_.notify_one();
    return ProcessQueueStatus::accepted;
}

std::size_t ProcessActionQueue::PendingCount() const {
    std::lock_guard lock(mutex_);
    return waiting_.size() + running_;
}

void ProcessActionQueue::Shutdown() {
    shutDown_ = true;
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        waiting_.clear();
    }
    if (worker_.joinable()) {
        worker_.request_stop();
        wake_.notify_all();
        worker_.join();
    }
}

void ProcessActionQueue::Run(std::stop_token stop) {
    for (;;) {
        Entry entry;
        {
            std::unique_lock lock(mutex_);
            if (!wake_.wait(lock, stop, [this] { return !waiting_.empty(); })) return;
            entry = std::move(waiting_.front());
            waiting_.pop_front();
            running_ = 1;
        }
        Continuation continuation;
        try {
            continuation = entry.work(stop);
        } catch (...) {
            continuation = std::move(entry.onException);
        }
        {
            std::lock_guard lock(mutex_);
            running_ = 0;
        }
        if (continuation && !stop.stop_requested()) Deliver(std::move(continuation));
    }
}

void ProcessActionQueue::Deliver(Continuation continuation) {
    // The queue object outlives this call: its destructor joins this thread first. A call still
    // posted when the queue goes is discarded with it.
    QMetaObject::invokeMethod(
        this,
        [this, continuation = std::move(continuation)] {
            if (!shutDown_) continuation();
        },
        Qt::QueuedConnection);
}

std::optional<NamedProcessAction> ProcessActionForName(const QString& actionName) {
    using Kind = core::ProcessActionKind;
    struct Row {
        const char* name;
        Kind kind;
        int signal;
    };
    static constexpr Row kRows[] = {
        {"Terminate", Kind::terminate, 0},
        {"Force terminate", Kind::forceKill, 0},
        {"End process tree", Kind::terminate, 0},
        {"Force quit process tree", Kind::forceKill, 0},
        {"Suspend", Kind::suspend, 0},
        {"Resume", Kind::resume, 0},
        {"Interrupt", Kind::sendSignal, SIGINT},
        {"Hang up", Kind::sendSignal, SIGHUP},
        {"Stop", Kind::sendSignal, SIGSTOP},
        {"Continue", Kind::sendSignal, SIGCONT},
        {"Kill", Kind::sendSignal, SIGKILL},
        {"Set priority", Kind::setPriority, 0},
    };
    for (const Row& row : kRows) {
        if (actionName != QLatin1String(row.name)) continue;
        NamedProcessAction action;
        action.kind = row.kind;
        if (row.kind == Kind::sendSignal) action.signal = row.signal;
        return action;
    }
    return std::nullopt;
}

QString ActionFailureReason(const core::ActionResult& result) {
    const std::string& id = result.textId;
    if (id == "action.targetGone") return Text("the process has exited");
    if (id == "action.targetChanged") return Text("the process has exited or its process ID was reused");
    if (id == "action.accessDenied") return Text("access denied");
    if (id == "action.unsupported" || id == "action.unsupported.linux") return Text("not supported on Linux");
    if (id == "action.priority.missing") return Text("no priority was given");
    if (id == "action.priority.invalid") return Text("the priority must lie between -20 and 19");
    if (id == "action.signal.invalid") return Text("not a valid signal");
    if (id == "action.worker.exception") return Text("an internal error occurred");
    if (id == "action.resolve.invalid") return Text("the process could not be identified");
    if (id == "action.priority.failed" && result.status == core::ActionStatus::accessDenied) {
        return Text("access denied; raising a priority needs administrator rights");
    }
    if (result.status == core::ActionStatus::targetGone || result.status == core::ActionStatus::accessDenied) {
        return StatusReason(result.status);
    }
    if (id == "action.resolve.failed" || id == "action.validationFailed") {
        return WithErrno(Text("the process could not be read"), result.errorNumber);
    }
    if (id == "action.priority.failed") return WithErrno(Text("the priority could not be changed"), result.errorNumber);
    if (id == "action.signal.failed") return WithErrno(Text("the signal could not be sent"), result.errorNumber);
    return WithErrno(StatusReason(result.status), result.errorNumber);
}

ProcessBatchOutcome RunProcessActions(core::IProcessResolver& resolver, core::IActionBackend& backend,
                                      const std::vector<core::ProcessAction>& actions, std::stop_token stop) {
    ProcessBatchOutcome outcome;
    for (const core::ProcessAction& action : actions) {
        if (stop.stop_requested()) {
            outcome.stopped = true;
            break;
        }
        core::ActionResult result;
        try {
            result = core::ExecuteProcessAction(resolver, backend, action);
        } catch (...) {
            result.status = core::ActionStatus::failed;
            result.textId = "action.worker.exception";
        }
        ++outcome.attempted;
        if (result.status != core::ActionStatus::succeeded) {
            ++outcome.failed;
            if (!outcome.firstFailure) outcome.firstFailure = std::move(result);
        }
    }
    return outcome;
}

QString ProcessBatchStatusText(const QString& actionWords, const ProcessBatchOutcome& outcome) {
    if (outcome.failed == 0 || !outcome.firstFailure) return Text("%1 succeeded").arg(actionWords);
    QString text = Text("%1 failed: %2").arg(actionWords, ActionFailureReason(*outcome.firstFailure));
    if (outcome.attempted > 1) {
        text += QLatin1Char(' ') + Text("(%1 of %2 processes)").arg(outcome.failed).arg(outcome.attempted);
    }
    return text;
}

}  // namespace korv::host::linux_client
