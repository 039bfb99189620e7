#include "host/linux_client/process_page_actions.h"

#include "host/linux_client/process_action_queue.h"
#include "host/linux_client/process_affinity_menu.h"
#include "host/linux_client/process_confirmations.h"
#include "host/linux_client/process_sample_report.h"
#include "host/linux_client/process_tree_selection.h"
#include "host/linux_client/run_new_task_dialog.h"
#include "providers/platform_services.h"
#include "providers/process_affinity.h"

#include <QApplication>
#include <QClipboard>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QPointer>

#include <algorithm>
#include <unistd.h>

namespace korv::host::linux_client {
namespace {

constexpr char kSearchEndpoint[] = "https://www.bing.com/search?q=";
constexpr std::string_view kShowMemoryPercentKey = "showMemoryPercent";

QString Text(const char* source) {
    return QCoreApplication::translate("QMainWindow", source);
}

QString Words(const QString& actionName) {
    return QCoreApplication::translate("QMainWindow", actionName.toUtf8().constData());
}

long ConfiguredProcessors() {
    return ::sysconf(_SC_NPROCESSORS_CONF);
}

std::vector<core::ProcessKey> KeysOf(const std::vector<core::ProcessSnapshot>& rows) {
    std::vector<core::ProcessKey> keys;
    keys.reserve(rows.size());
    for (const core::ProcessSnapshot& row : rows) keys.push_back(row.key);
    return keys;
}

// The live record of the key, else the one kept for it after it exited.
std::optional<ProcessInspectorInput> FindInSnapshot(const core::SystemSnapshot& snapshot, const core::ProcessKey& key) {
    ProcessInspectorInput input;
    input.key = key;
    const auto live = std::lower_bound(snapshot.processes.begin(), snapshot.processes.end(), key,
                                       [](const core::ProcessSnapshot& row, const core::ProcessKey& wanted) {
                                           return row.key < wanted;
                                       });
    if (live != snapshot.processes.end() && live->key == key) {
        input.row = *live;
    } else {
        const auto exited = std::find_if(snapshot.exitedProcesses.begin(), snapshot.exitedProcesses.end(),
                                         [&key](const core::ExitedProcessRecord& record) {
                                             return record.process.key == key;
                                         });
        if (exited == snapshot.exitedProcesses.end()) return std::nullopt;
        input.row = exited->process;
        input.exited = true;
    }
    for (const core::SessionSnapshot& session : snapshot.sessions) {
        const bool member = std::any_of(session.members.begin(), session.members.end(),
                                        [&key](const core::SessionMember& m) { return m.key == key; });
        if (member) {
            input.session = QString::fromStdString(session.displayName.empty() ? session.id : session.displayName);
            break;
        }
    }
    return input;
}

}  // namespace

QUrl SearchOnlineUrl(const QString& processName) {
    return QUrl::fromEncoded(QByteArray(kSearchEndpoint) + QUrl::toPercentEncoding(processName), QUrl::StrictMode);
}

std::optional<QUrl> FileLocationUrl(const QString& executablePath) {
    if (executablePath.isEmpty()) return std::nullopt;
    return QUrl::fromLocalFile(QFileInfo(executablePath).absolutePath());
}

QString ProcessNamesText(const std::vector<core::ProcessSnapshot>& rows) {
    QStringList lines;
    for (const core::ProcessSnapshot& row : rows) {
        lines.push_back(QStringLiteral("%1 (%2)").arg(QString::fromStdString(row.name)).arg(row.key.pid));
    }
    return lines.join(QLatin1Char('\n'));
}

struct ProcessPageActions::Impl {
    PageEnvironment environment;
    QPointer<QWidget> dialogParent;
    ProcessPageHooks hooks;
    std::unique_ptr<ProcessActionQueue> queue;
    std::vector<QPointer<ProcessInspectorDialog>> inspectors;
    bool shutDown = false;

    void Status(const QString& text) const {
        if (environment.showStatus) environment.showStatus(text);
    }

    void SettingsChanged() const {
        if (environment.settingsChanged) environment.settingsChanged();
    }

    void TogglePreference(std::string_view key, bool current) const {
        if (environment.settings == nullptr) return;
        core::WriteBoolPreference(*environment.settings, key, !current);
        SettingsChanged();
    }

    // Refusals are told in the status line, in the same words for every kind of request.
    bool Submit(ProcessActionQueue::Work work, const QString& words) {
        if (shutDown || !queue || environment.services == nullptr) {
            Status(Text("Process actions unavailable"));
            return false;
        }
        const ProcessQueueStatus status = queue->Enqueue(std::move(work), [this, words] {
            Status(Text("%1 failed: %2").arg(words, Text("an internal error occurred")));
        });
        if (status == ProcessQueueStatus::busy) {
            Status(Text("Process action queue is busy"));
            return false;
        }
        if (status == ProcessQueueStatus::unavailable) {
            Status(Text("Process actions unavailable"));
            return false;
        }
        return true;
    }

    ProcessPageActions::MenuRunner menuRunner;
    // Inspector reads still running when their dialog went; joined once finished, or at shutdown.
    std::vector<std::pair<std::shared_ptr<ProcessInspectorState>, std::jthread>> keptReaders;

    void KeepReader(std::shared_ptr<ProcessInspectorState> state, std::jthread worker) {
        std::erase_if(keptReaders, [](const auto& kept) { return kept.first->finished.load(); });
        keptReaders.emplace_back(std::move(state), std::move(worker));
    }

    void Completed(const QString& text) const {
        Status(text);
        if (environment.requestSample) environment.requestSample();
    }
};

ProcessPageActions::ProcessPageActions(PageEnvironment environment, QWidget* dialogParent)
    : impl_(std::make_unique<Impl>()) {
    impl_->environment = std::move(environment);
    impl_->dialogParent = dialogParent;
    if (impl_->environment.services != nullptr) impl_->queue = std::make_unique<ProcessActionQueue>();
}

ProcessPageActions::~ProcessPageActions() {
    Shutdown();
}

void ProcessPageActions::SetPageHooks(ProcessPageHooks hooks) {
    impl_->hooks = std::move(hooks);
}

bool ProcessPageActions::BackendUsable() const {
    return !impl_->shutDown && impl_->queue && !impl_->queue->IsShutDown() && impl_->environment.services != nullptr;
}

std::size_t ProcessPageActions::PendingActionCount() const {
    return impl_->queue ? impl_->queue->PendingCount() : 0;
}

std::size_t ProcessPageActions::OpenInspectorCount() const {
    return static_cast<std::size_t>(std::count_if(impl_->inspectors.begin(), impl_->inspectors.end(),
                                                  [](const QPointer<ProcessInspectorDialog>& d) { return !d.isNull(); }));
}

ProcessMenuContext ProcessPageActions::MenuContext(std::vector<core::ProcessSnapshot> rows, bool exited,
                                                   bool followed) const {
    ProcessMenuContext context;
    context.rows = std::move(rows);
    context.exited = exited;
    context.followed = followed;
    context.backendUsable = BackendUsable();
    context.logicalProcessors = ConfiguredProcessors();
    if (const core::Settings* settings = impl_->environment.settings) {
        context.processTree = core::ReadBoolPreference(*settings, core::kProcessTreeEnabled);
        context.smoothCpu = core::ReadBoolPreference(*settings, core::kSmoothProcessCpu);
        context.showExited = core::ReadBoolPreference(*settings, core::kShowExitedProcesses);
        context.showMemoryPercent = core::ReadBoolPreference(*settings, kShowMemoryPercentKey, false);
    }
    return context;
}

void ProcessPageActions::ShowProcessContextMenu(const QPoint& globalPos, const ProcessMenuContext& context) {
    if (context.rows.empty()) return;
    ProcessMenuContext shown = context;
    shown.backendUsable = shown.backendUsable && BackendUsable();
    if (shown.logicalProcessors == 0) shown.logicalProcessors = ConfiguredProcessors();
    providers::PlatformServices* services = impl_->environment.services;
    if (!shown.exited && shown.rows.size() == 1 && !shown.affinity && BackendUsable() && services != nullptr) {
        // The threads' masks are read on the action worker, never here: the menu opens when they are in.
        const core::ProcessKey key = shown.rows.front().key;
        const ProcessQueueStatus status = impl_->queue->Enqueue([this, services, key, shown, globalPos](std::stop_token) {
            const providers::AffinityReading reading = services->ReadAffinity(key);
            return ProcessActionQueue::Continuation([this, reading, shown, globalPos]() mutable {
                AffinityMenuState state;
                state.readable = reading.ok;
                state.combinedMask = reading.combinedMask;
                state.threadsDiffer = reading.threadsDiffer;
                state.actionable = reading.ok;
                shown.affinity = state;
                RunMenu(globalPos, shown);
            });
        });
        if (status == ProcessQueueStatus::accepted) return;
    }
    // Without a reading the affinity entries stand disabled.
    RunMenu(globalPos, shown);
}

void ProcessPageActions::SetMenuRunner(MenuRunner runner) {
    impl_->menuRunner = std::move(runner);
}

void ProcessPageActions::RunMenu(const QPoint& globalPos, const ProcessMenuContext& context) {
    const ProcessMenuChoice choice = impl_->menuRunner ? impl_->menuRunner(context, globalPos)
                                                       : ExecProcessContextMenu(context, globalPos, impl_->dialogParent);
    RunMenuChoice(choice, context);
}

void ProcessPageActions::RunMenuChoice(const ProcessMenuChoice& choice, const ProcessMenuContext& context) {
    if (context.rows.empty()) return;
    const std::vector<core::ProcessSnapshot>& rows = context.rows;
    const core::ProcessSnapshot& first = rows.front();
    using Command = ProcessMenuCommand;
    switch (choice.command) {
    case Command::none: return;
    case Command::inspect: {
        ProcessInspectorInput input;
        input.key = first.key;
        input.row = first;
        input.exited = true;
        ShowProcessDetails(input);
        return;
    }
    case Command::showDetails: ShowProcessDetails(first.key); return;
    case Command::terminate: TerminateRows(rows, false); return;
    case Command::forceTerminate: TerminateRows(rows, true); return;
    case Command::endTree: EndProcessTrees(rows, false); return;
    case Command::forceQuitTree: EndProcessTrees(rows, true); return;
    case Command::suspend: QueueProcessAction(KeysOf(rows), QStringLiteral("Suspend")); return;
    case Command::resume: QueueProcessAction(KeysOf(rows), QStringLiteral("Resume")); return;
    case Command::signalInterrupt: QueueProcessAction(KeysOf(rows), QStringLiteral("Interrupt")); return;
    case Command::signalHangUp: QueueProcessAction(KeysOf(rows), QStringLiteral("Hang up")); return;
    case Command::signalTerminate: QueueProcessAction(KeysOf(rows), QStringLiteral("Terminate")); return;
    case Command::signalStop: QueueProcessAction(KeysOf(rows), QStringLiteral("Stop")); return;
    case Command::signalContinue: QueueProcessAction(KeysOf(rows), QStringLiteral("Continue")); return;
    case Command::signalKill: QueueProcessAction(KeysOf(rows), QStringLiteral("Kill")); return;
    case Command::niceNormal: QueueProcessAction(KeysOf(rows), QStringLiteral("Set priority"), 0); return;
    case Command::niceLow: QueueProcessAction(KeysOf(rows), QStringLiteral("Set priority"), 10); return;
    case Command::niceLowest: QueueProcessAction(KeysOf(rows), QStringLiteral("Set priority"), 19); return;
    case Command::affinity: QueueAffinityChange(first.key, choice.processor); return;
    case Command::createSample: QueueProcessSample(first.key); return;
    case Command::openFileLocation:
        if (const std::optional<QUrl> url = FileLocationUrl(QString::fromStdString(first.executablePath))) {
            QDesktopServices::openUrl(*url);
        }
        return;
    case Command::searchOnline: QDesktopServices::openUrl(SearchOnlineUrl(QString::fromStdString(first.name))); return;
    case Command::copyName: QApplication::clipboard()->setText(ProcessNamesText(rows)); return;
    case Command::toggleProcessTree: impl_->TogglePreference(core::kProcessTreeEnabled.key, context.processTree); return;
    case Command::toggleSmoothCpu: impl_->TogglePreference(core::kSmoothProcessCpu.key, context.smoothCpu); return;
    case Command::toggleShowExited:
        impl_->TogglePreference(core::kShowExitedProcesses.key, context.showExited);
        return;
    case Command::expandAll:
        if (impl_->hooks.expandAll) impl_->hooks.expandAll();
        return;
    case Command::collapseAll:
        if (impl_->hooks.collapseAll) impl_->hooks.collapseAll();
        return;
    case Command::toggleFollow:
        if (impl_->hooks.setFollowedKey) {
            impl_->hooks.setFollowedKey(context.followed ? std::nullopt : std::optional<core::ProcessKey>(first.key));
        }
        return;
    case Command::showValues:
    case Command::showPercents: {
        const bool percents = choice.command == Command::showPercents;
        if (impl_->environment.settings == nullptr || percents == context.showMemoryPercent) return;
        core::WriteBoolPreference(*impl_->environment.settings, kShowMemoryPercentKey, percents);
        impl_->SettingsChanged();
        return;
    }
    }
}

void ProcessPageActions::ShowProcessDetails(const core::ProcessKey& key, const core::ProcessSnapshot* tableRow,
                                            bool exited) {
    const core::SystemSnapshot* snapshot = impl_->hooks.currentSnapshot ? impl_->hooks.currentSnapshot() : nullptr;
    std::optional<ProcessInspectorInput> input;
    if (snapshot != nullptr) input = FindInSnapshot(*snapshot, key);
    if (!input) {
        // A row the table keeps after its process left the samples: the inspector shows what it kept.
        input.emplace();
        input->key = key;
        if (tableRow != nullptr && tableRow->key == key) {
            input->row = *tableRow;
            input->exited = exited;
        }
    }
    ShowProcessDetails(*input);
}

void ProcessPageActions::ShowProcessDetails(const ProcessInspectorInput& input) {
    if (impl_->shutDown) return;
    std::erase_if(impl_->inspectors, [](const QPointer<ProcessInspectorDialog>& d) { return d.isNull(); });
    for (const QPointer<ProcessInspectorDialog>& open : impl_->inspectors) {
        if (open->Key() == input.key) {
            open->show();
            open->raise();
            open->activateWindow();
            return;
        }
    }
    ProcessInspectorDialog::DetailsReader reader;
    if (providers::PlatformServices* services = impl_->environment.services) {
        reader = [services](const core::ProcessKey& key, std::stop_token stop) {
            return services->ProcessDetailsUntil(key, std::move(stop));
        };
    }
    auto* dialog = new ProcessInspectorDialog(input, std::move(reader), impl_->environment.settings,
                                              impl_->environment.settingsChanged, impl_->dialogParent);
    dialog->SetRowSource([this](const core::ProcessKey& key) -> std::optional<ProcessInspectorInput> {
        const core::SystemSnapshot* snapshot = impl_->hooks.currentSnapshot ? impl_->hooks.currentSnapshot() : nullptr;
        return snapshot != nullptr ? FindInSnapshot(*snapshot, key) : std::nullopt;
    });
    dialog->SetWorkerKeeper([this](std::shared_ptr<ProcessInspectorState> state, std::jthread worker) {
        impl_->KeepReader(std::move(state), std::move(worker));
    });
    dialog->setAttribute(Qt::WA_DeleteOnClose, true);
    impl_->inspectors.emplace_back(dialog);
    dialog->show();
}

bool ProcessPageActions::ConfirmProcessTermination(const std::vector<core::ProcessSnapshot>& rows, bool force) {
    return AskTermination(impl_->dialogParent, rows, force);
}

void ProcessPageActions::TerminateRows(const std::vector<core::ProcessSnapshot>& rows, bool force) {
    if (!ConfirmProcessTermination(rows, force)) return;
    QueueProcessAction(KeysOf(rows), force ? QStringLiteral("Force terminate") : QStringLiteral("Terminate"));
}

void ProcessPageActions::EndProcessTrees(const std::vector<core::ProcessSnapshot>& rows, bool force) {
    if (rows.empty()) return;
    const core::SystemSnapshot* snapshot = impl_->hooks.currentSnapshot ? impl_->hooks.currentSnapshot() : nullptr;
    const std::vector<core::ProcessKey> keys =
        ProcessTreeKeys(snapshot != nullptr ? snapshot->processes : std::vector<core::ProcessSnapshot>{}, KeysOf(rows));
    if (!AskProcessTree(impl_->dialogParent, rows.size(), keys.size(), force)) return;
    QueueProcessAction(keys, force ? QStringLiteral("Force quit process tree") : QStringLiteral("End process tree"));
}

bool ProcessPageActions::QueueProcessAction(const std::vector<core::ProcessKey>& keys, const QString& actionName,
                                            std::optional<std::int32_t> nice) {
    if (keys.empty()) return false;
    const QString words = Words(actionName);
    const std::optional<NamedProcessAction> named = ProcessActionForName(actionName);
    if (!named) {
        impl_->Status(Text("%1 failed: %2").arg(words, Text("not a known process action")));
        return false;
    }
    providers::PlatformServices* services = impl_->environment.services;
    if (services == nullptr) {
        impl_->Status(Text("Process actions unavailable"));
        return false;
    }
    std::vector<core::ProcessAction> actions;
    actions.reserve(keys.size());
    for (const core::ProcessKey& key : keys) {
        core::ProcessAction action;
        action.kind = named->kind;
        action.target = key;
        action.signal = named->signal;
        if (named->kind == core::ProcessActionKind::setPriority) action.nice = nice;
        actions.push_back(action);
    }
    core::IProcessResolver& resolver = services->ProcessResolver();
    core::IActionBackend& backend = services->ActionBackend();
    Impl* impl = impl_.get();
    return impl_->Submit(
        [impl, &resolver, &backend, actions = std::move(actions), words](std::stop_token stop) {
            const ProcessBatchOutcome outcome = RunProcessActions(resolver, backend, actions, stop);
            const QString text = ProcessBatchStatusText(words, outcome);
            return ProcessActionQueue::Continuation([impl, text] { impl->Completed(text); });
        },
        words);
}

bool ProcessPageActions::QueueAffinityChange(const core::ProcessKey& key, int processor) {
    Impl* impl = impl_.get();
    providers::PlatformServices* services = impl_->environment.services;
    return impl_->Submit(
        [impl, services, key, processor](std::stop_token) {
            const long processors = ConfiguredProcessors();
            QString text;
            std::optional<std::uint64_t> mask;
            if (processor < 0) {
                const std::uint64_t all = AllProcessorsMask(processors);
                if (all != 0) mask = all;
                else text = Text("Set affinity failed");
            } else {
                const providers::AffinityReading now = services->ReadAffinity(key);
                if (!now.ok) {
                    text = Words(QString::fromStdString(now.message));
                } else {
                    const AffinityToggle toggle = ToggleAffinityProcessor(now.combinedMask, processor, processors);
                    mask = toggle.mask;
                    text = toggle.refusal;
                }
            }
            if (mask) {
                const providers::AffinityResult result = services->SetAffinity(key, *mask);
                text = Words(QString::fromStdString(result.message));
            }
            return ProcessActionQueue::Continuation([impl, text] { impl->Completed(text); });
        },
        Text("Set affinity"));
}

void ProcessPageActions::QueueProcessSample(const core::ProcessKey& key) {
    Impl* impl = impl_.get();
    const std::filesystem::path directory = QDir::tempPath().toStdString();
    impl_->Submit(
        [impl, key, directory](std::stop_token stop) {
            const SampleReportResult result = CreateProcessSample(providers::ProviderRoots{}.proc, key, directory, stop);
            return ProcessActionQueue::Continuation(
                [impl, result] { ShowSampleReportResult(impl->dialogParent, result); });
        },
        Text("Create process sample"));
}

void ProcessPageActions::ShowRunNewTask() {
    ShowRunNewTaskDialog(impl_->dialogParent);
}

void ProcessPageActions::Shutdown() {
    if (impl_->shutDown) return;
    impl_->shutDown = true;
    if (impl_->queue) impl_->queue->Shutdown();
    // Each inspector joins its own reader as it goes, before the services it reads through can go.
    for (QPointer<ProcessInspectorDialog>& dialog : impl_->inspectors) delete dialog.data();
    impl_->inspectors.clear();
    // Their readers were asked to stop; they are joined here, before the services can go.
    impl_->keptReaders.clear();
}

}  // namespace korv::host::linux_client
