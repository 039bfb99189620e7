#pragma once

#include "core/process_details.h"
#include "core/settings.h"
#include "core/snapshot.h"

#include <QDialog>
#include <QRect>
#include <QSize>
#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <thread>

namespace korv::host::linux_client {

class ProcessEnvironmentWidget;

// What the inspector starts from: the process and the last data the table had for it.
struct ProcessInspectorInput {
    core::ProcessKey key;
    std::optional<core::ProcessSnapshot> row;
    bool exited = false;
    QString session;  // the session that holds the process; empty when none is known
};

// One read of the details, shared by reference count between the dialog and its worker. The
// worker fills `details` and sets `finished`; it never touches a widget.
struct ProcessInspectorState {
    std::uint64_t generation = 0;
    core::ProcessKey key;
    std::shared_ptr<core::ProcessDetails> details;  // null when the key no longer matched
    std::atomic<bool> finished{false};
};

inline constexpr int kInspectorMinimumWidth = 480;
inline constexpr int kInspectorMinimumHeight = 400;
inline constexpr int kInspectorDefaultWidth = 620;
inline constexpr int kInspectorDefaultHeight = 640;
// The "Loading…" line appears only for a read that takes longer than this, so a fast one doesn't flash.
inline constexpr int kInspectorLoadingDelayMs = 400;

// The stored size (`processInspectorWidthDips`, `processInspectorHeightDips`), or the default,
// clamped to the available screen area and to the minimum height.
QSize InspectorSizeFromSettings(const core::Settings& settings, const QRect& available);
void StoreInspectorSize(core::Settings& settings, const QSize& size);

// The process inspector: a modeless dialog with the process's summary, command line, environment
// and open descriptors. The details are read on a worker thread of its own, so the window never
// waits on /proc; "Refresh" starts a new read and cancels the one running, and closing the dialog
// cancels it too. GUI thread.
class ProcessInspectorDialog : public QDialog {
    Q_OBJECT
public:
    // Reads the details of a process; null when the key no longer matches, or when the read was
    // given up because `stop` was requested. Runs on a worker.
    using DetailsReader =
        std::function<std::shared_ptr<core::ProcessDetails>(const core::ProcessKey&, std::stop_token stop)>;
    // The process as the latest sample has it, for "Refresh"; nothing when the sample lacks it.
    using RowSource = std::function<std::optional<ProcessInspectorInput>(const core::ProcessKey&)>;
    // Takes the readers still running when the dialog goes, so that the GUI thread never waits
    // for one; the keeper joins them later, before the services they read through go.
    using WorkerKeeper = std::function<void(std::shared_ptr<ProcessInspectorState> state, std::jthread worker)>;

    // `settings` may be null; then the size is neither read nor kept.
    ProcessInspectorDialog(ProcessInspectorInput input, DetailsReader reader, core::Settings* settings,
                           std::function<void()> settingsChanged, QWidget* parent = nullptr);
    ~ProcessInspectorDialog() override;

    ProcessInspectorDialog(const ProcessInspectorDialog&) = delete;
    ProcessInspectorDialog& operator=(const ProcessInspectorDialog&) = delete;

    const core::ProcessKey& Key() const;
    // Reads the details anew, cancelling a read still running, and shows the summary of the
    // latest sample.
    void Refresh();
    void SetRowSource(RowSource source);
    // Without a keeper the destructor joins its readers itself.
    void SetWorkerKeeper(WorkerKeeper keeper);

    bool IsLoading() const;
    bool LoadingVisible() const;  // the "Loading…" line is shown now
    std::shared_ptr<const core::ProcessDetails> Details() const;
    QString HeaderText() const;
    QString MessageText() const;
    // The value beside a summary label such as "Status" or "Private memory"; nothing for a row not shown.
    std::optional<QString> SummaryValue(const QString& label) const;
    QString CommandLineText() const;
    QStringList DescriptorGroupTitles() const;
    // The entries under one group: "<fd>\t<target>", or the word that stands in.
    QStringList DescriptorEntries(int group) const;
    ProcessEnvironmentWidget& Environment();

signals:
    // A read ended, whatever its outcome.
    void DetailsLoaded();

public slots:
    void done(int result) override;

private:
    void ShowRead(const std::shared_ptr<ProcessInspectorState>& state);

    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
