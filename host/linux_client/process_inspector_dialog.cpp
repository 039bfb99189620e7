#include "host/linux_client/process_inspector_dialog.h"

#include "host/linux_client/process_environment_widget.h"
#include "host/linux_client/unit_formats.h"

#include <QApplication>
#include <QClipboard>
#include <QCoreApplication>
#include <QFont>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMetaObject>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QSplitter>
#include <QTimer>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <thread>
#include <vector>

namespace korv::host::linux_client {
namespace {

constexpr std::string_view kWidthKey = "processInspectorWidthDips";
constexpr std::string_view kHeightKey = "processInspectorHeightDips";

QString Text(const char* source) {
    return QCoreApplication::translate("ProcessInspectorDialog", source);
}

QString StateWord(core::ProcessState state) {
    const char* word = "Unknown";
    switch (state) {
    case core::ProcessState::running: word = "Running"; break;
    case core::ProcessState::sleeping: word = "Sleeping"; break;
    case core::ProcessState::stopped: word = "Stopped"; break;
    case core::ProcessState::suspended: word = "Suspended"; break;
    case core::ProcessState::zombie: word = "Zombie"; break;
    case core::ProcessState::notResponding: word = "Not responding"; break;
    case core::ProcessState::unknown: break;
    }
    return QCoreApplication::translate("ProcessTableModel", word);
}

QString UnreadableWord(core::MetricAvailability availability) {
    return availability == core::MetricAvailability::accessDenied
               ? QCoreApplication::translate("QObject", "Access denied")
               : QCoreApplication::translate("QObject", "Unavailable");
}

template <typename T, typename Format>
QString MetricText(const core::Metric<T>& metric, Format format) {
    if (!core::CarriesValue(metric.availability) || !metric.value) return FormatAvailability(metric.availability);
    return AppendStale(format(*metric.value), metric.availability);
}

QString Count(std::uint64_t value) {
    return QLocale().toString(static_cast<qulonglong>(value));
}

std::optional<int> StoredDips(const core::Settings& settings, std::string_view key) {
    const QString text = QString::fromStdString(core::StringPreference(settings, key, ""));
    bool ok = false;
    const double value = text.toDouble(&ok);
    if (!ok || !std::isfinite(value) || value < 1.0 || value > 100000.0) return std::nullopt;
    return static_cast<int>(std::lround(value));
}

QLabel* SectionTitle(const QString& text, QWidget* parent) {
    auto* title = new QLabel(text, parent);
    title->setObjectName(QStringLiteral("InspectorSectionTitle"));
    QFont font = title->font();
    font.setWeight(QFont::DemiBold);
    title->setFont(font);
    return title;
}

struct Read {
    std::shared_ptr<ProcessInspectorState> state;
    std::jthread thread;
};

}  // namespace

QSize InspectorSizeFromSettings(const core::Settings& settings, const QRect& available) {
    int width = StoredDips(settings, kWidthKey).value_or(kInspectorDefaultWidth);
    int height = StoredDips(settings, kHeightKey).value_or(kInspectorDefaultHeight);
    if (available.isValid()) {
        width = std::min(width, available.width());
        height = std::min(height, available.height());
    }
    return {std::max(width, kInspectorMinimumWidth), std::max(height, kInspectorMinimumHeight)};
}

void StoreInspectorSize(core::Settings& settings, const QSize& size) {
    core::WriteStringPreference(settings, kWidthKey, std::to_string(size.width()));
    core::WriteStringPreference(settings, kHeightKey, std::to_string(size.height()));
}

struct ProcessInspectorDialog::Impl {
    ProcessInspectorInput input;
    DetailsReader reader;
    core::Settings* settings = nullptr;
    std::function<void()> settingsChanged;
    RowSource rowSource;
    WorkerKeeper keeper;

    std::uint64_t generation = 0;
    std::vector<Read> reads;  // the current read last; earlier ones were cancelled
    bool loading = false;
    std::shared_ptr<const core::ProcessDetails> details;
    QTimer loadingTimer;

    QLabel* header = nullptr;
    QLabel* state = nullptr;
    QGridLayout* summary = nullptr;
    std::vector<std::pair<QString, QLabel*>> summaryValues;
    QLineEdit* commandLine = nullptr;
    QPushButton* copyCommandLine = nullptr;
    ProcessEnvironmentWidget* environment = nullptr;
    QTreeWidget* descriptors = nullptr;
    QLabel* loadingLabel = nullptr;
    QLabel* message = nullptr;
    QPushButton* refresh = nullptr;

    void PruneFinishedReads() {
        // A finished worker has nothing left to do, so joining it here does not wait.
        std::erase_if(reads, [this](Read& read) {
            return read.state->generation != generation && read.state->finished.load();
        });
    }

    void AddSummaryRow(const QString& label, const QString& value) {
        const int index = static_cast<int>(summaryValues.size());
        const int row = index / 2;
        const int column = (index % 2) * 2;
        auto* name = new QLabel(label);
        name->setObjectName(QStringLiteral("SummaryLabel"));
        name->setForegroundRole(QPalette::PlaceholderText);
        auto* shown = new QLabel(value);
        shown->setTextInteractionFlags(Qt::TextSelectableByMouse);
        summary->addWidget(name, row, column);
        summary->addWidget(shown, row, column + 1);
        summaryValues.emplace_back(label, shown);
    }

    void ClearSummary() {
        while (QLayoutItem* item = summary->takeAt(0)) {
            delete item->widget();
            delete item;
        }
        summaryValues.clear();
    }

    void FillSummary() {
        const std::optional<core::ProcessSnapshot>& row = input.row;
        const QString status = input.exited ? QCoreApplication::translate("ProcessTableModel", "Exited")
                                            : row ? StateWord(row->state)
                                                  : FormatAvailability(core::MetricAvailability::notYetAvailable);
        AddSummaryRow(Text("Status"), status);
        if (row) {
            AddSummaryRow(Text("CPU"), MetricText(row->cpuPercent, [](double v) { return FormatPercent(v); }));
            AddSummaryRow(Text("Memory"),
                          MetricText(row->workingSetBytes, [](std::uint64_t v) { return FormatBytes(v); }));
            AddSummaryRow(Text("Threads"), MetricText(row->threadCount, Count));
        } else {
            const QString none = FormatAvailability(core::MetricAvailability::notYetAvailable);
            AddSummaryRow(Text("CPU"), none);
            AddSummaryRow(Text("Memory"), none);
            AddSummaryRow(Text("Threads"), none);
            return;
        }
        if (row->architecture != core::ProcessArchitecture::unknown) {
            AddSummaryRow(Text("Architecture"), QString::fromUtf8(core::ToString(row->architecture)));
        }
        AddSummaryRow(Text("Category"), row->group == core::ProcessGroup::apps
                                            ? QCoreApplication::translate("ProcessTableModel", "Applications")
                                            : QCoreApplication::translate("ProcessTableModel", "Background processes"));
        if (!input.session.isEmpty()) AddSummaryRow(Text("Session"), input.session);
        const auto addIfPresent = [this](const QString& label, const auto& metric, auto format) {
            if (core::CarriesValue(metric.availability) && metric.value) {
                AddSummaryRow(label, AppendStale(format(*metric.value), metric.availability));
            }
        };
        const auto bytes = [](std::uint64_t v) { return FormatBytes(v); };
        addIfPresent(Text("Private memory"), row->privateBytes, bytes);
        addIfPresent(Text("Page faults"), row->pageFaults, Count);
        addIfPresent(Text("Disk read"), row->readBytes, bytes);
        addIfPresent(Text("Disk write"), row->writeBytes, bytes);
        addIfPresent(Text("Read operations"), row->readOperations, Count);
        addIfPresent(Text("Write operations"), row->writeOperations, Count);
        addIfPresent(Text("Base priority"), row->nice, [](double v) { return QString::number(std::lround(v)); });
    }

    void ShowDescriptors(const core::ProcessDetails* shown) {
        descriptors->clear();
        struct Group {
            const char* word;
            core::DescriptorKind kind;
        };
        static constexpr Group kGroups[] = {{"Files", core::DescriptorKind::file},
                                            {"Sockets", core::DescriptorKind::socket},
                                            {"Pipes", core::DescriptorKind::pipe},
                                            {"Other", core::DescriptorKind::other}};
        const bool readable = shown != nullptr && core::CarriesValue(shown->descriptorsAvailability);
        for (const Group& group : kGroups) {
            auto* item = new QTreeWidgetItem(descriptors);
            if (!readable) {
                item->setText(0, Text(group.word));
                auto* word = new QTreeWidgetItem(item);
                word->setText(0, shown ? UnreadableWord(shown->descriptorsAvailability)
                                       : FormatAvailability(core::MetricAvailability::notYetAvailable));
                word->setFirstColumnSpanned(true);
                continue;
            }
            int count = 0;
            for (const core::OpenDescriptor& descriptor : shown->descriptors) {
                if (descriptor.kind != group.kind) continue;
                auto* entry = new QTreeWidgetItem(item);
                entry->setText(0, QString::number(descriptor.fd));
                entry->setText(1, QString::fromStdString(descriptor.target));
                entry->setToolTip(1, entry->text(1));
                ++count;
            }
            item->setText(0, Text("%1 (%2)").arg(Text(group.word)).arg(count));
            if (count == 0) {
                auto* none = new QTreeWidgetItem(item);
                none->setText(0, Text("None"));
                none->setFirstColumnSpanned(true);
            }
        }
        for (int i = 0; i < descriptors->topLevelItemCount(); ++i) {
            descriptors->topLevelItem(i)->setFirstColumnSpanned(true);
        }
        if (readable && shown->descriptorsNotShown > 0) {
            auto* more = new QTreeWidgetItem(descriptors);
            more->setText(0, QString::fromStdString(core::HiddenDescriptorsLine(shown->descriptorsNotShown)));
            more->setFirstColumnSpanned(true);
        }
        descriptors->expandAll();
    }

    void ShowDetails() {
        const core::ProcessDetails* shown = details.get();
        if (shown == nullptr) {
            commandLine->clear();
            environment->SetEnvironment({}, core::MetricAvailability::notYetAvailable);
            ShowDescriptors(nullptr);
            copyCommandLine->setEnabled(false);
            return;
        }
        if (!input.row) header->setText(QStringLiteral("%1 (%2)").arg(QString::fromStdString(shown->name)).arg(shown->key.pid));
        state->setText(input.exited ? QCoreApplication::translate("ProcessTableModel", "Exited") : StateWord(shown->state));
        if (core::CarriesValue(shown->commandLineAvailability)) {
            QStringList words;
            for (const std::string& word : shown->commandLine) words.push_back(QString::fromStdString(word));
            QString text = words.join(QLatin1Char(' '));
            if (shown->commandLineTruncated) text += QStringLiteral(" …");
            commandLine->setText(text);
            commandLine->setPlaceholderText(Text("No command line"));
        } else {
            commandLine->clear();
            commandLine->setPlaceholderText(UnreadableWord(shown->commandLineAvailability));
        }
        commandLine->setCursorPosition(0);
        copyCommandLine->setEnabled(!commandLine->text().isEmpty());
        environment->SetEnvironment(shown->environment, shown->environmentAvailability);
        ShowDescriptors(shown);
    }
};

ProcessInspectorDialog::ProcessInspectorDialog(ProcessInspectorInput input, DetailsReader reader,
                                               core::Settings* settings, std::function<void()> settingsChanged,
                                               QWidget* parent)
    : QDialog(parent), impl_(std::make_unique<Impl>()) {
    impl_->input = std::move(input);
    impl_->reader = std::move(reader);
    impl_->settings = settings;
    impl_->settingsChanged = std::move(settingsChanged);
    const ProcessInspectorInput& in = impl_->input;

    setObjectName(QStringLiteral("ProcessInspectorDialog"));
    setMinimumSize(kInspectorMinimumWidth, kInspectorMinimumHeight);
    setSizeGripEnabled(true);
    const QString name = in.row ? QString::fromStdString(in.row->name) : QString();
    setWindowTitle(name.isEmpty() ? Text("Process details") : Text("Process details: %1").arg(name));

    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 12);
    outer->setSpacing(8);
    // Below the minimum content height the body scrolls rather than squeezing its tables shut.
    auto* scroll = new QScrollArea(this);
    scroll->setObjectName(QStringLiteral("InspectorScroll"));
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* body = new QWidget(scroll);
    body->setObjectName(QStringLiteral("InspectorBody"));
    scroll->setWidget(body);
    outer->addWidget(scroll, 1);

    auto* layout = new QVBoxLayout(body);
    layout->setContentsMargins(16, 14, 16, 0);
    layout->setSpacing(8);

    auto* headerRow = new QHBoxLayout();
    impl_->header = new QLabel(QStringLiteral("%1 (%2)").arg(name).arg(in.key.pid), body);
    impl_->header->setObjectName(QStringLiteral("InspectorHeader"));
    QFont headerFont = impl_->header->font();
    headerFont.setPointSizeF(headerFont.pointSizeF() * 1.35);
    headerFont.setWeight(QFont::DemiBold);
    impl_->header->setFont(headerFont);
    impl_->header->setTextInteractionFlags(Qt::TextSelectableByMouse);
    impl_->state = new QLabel(in.exited  ? QCoreApplication::translate("ProcessTableModel", "Exited")
                              : in.row ? StateWord(in.row->state)
                                       : QString(),
                              body);
    impl_->state->setObjectName(QStringLiteral("InspectorState"));
    impl_->state->setForegroundRole(QPalette::PlaceholderText);
    headerRow->addWidget(impl_->header, 1);
    headerRow->addWidget(impl_->state, 0, Qt::AlignRight | Qt::AlignVCenter);
    layout->addLayout(headerRow);

    impl_->summary = new QGridLayout();
    impl_->summary->setHorizontalSpacing(12);
    impl_->summary->setVerticalSpacing(4);
    impl_->summary->setColumnStretch(1, 1);
    impl_->summary->setColumnStretch(3, 1);
    impl_->summary->setColumnMinimumWidth(2, 0);
    impl_->FillSummary();
    layout->addLayout(impl_->summary);
    layout->addSpacing(4);

    layout->addWidget(SectionTitle(Text("Command line"), body));
    auto* commandRow = new QHBoxLayout();
    impl_->commandLine = new QLineEdit(body);
    impl_->commandLine->setObjectName(QStringLiteral("InspectorCommandLine"));
    impl_->commandLine->setReadOnly(true);
    impl_->copyCommandLine = new QPushButton(Text("Copy"), body);
    impl_->copyCommandLine->setObjectName(QStringLiteral("InspectorCopyCommandLine"));
    impl_->copyCommandLine->setEnabled(false);
    commandRow->addWidget(impl_->commandLine, 1);
    commandRow->addWidget(impl_->copyCommandLine);
    layout->addLayout(commandRow);

    auto* splitter = new QSplitter(Qt::Vertical, body);
    splitter->setChildrenCollapsible(false);
    auto* environmentPanel = new QWidget(splitter);
    environmentPanel->setMinimumHeight(170);
    auto* environmentLayout = new QVBoxLayout(environmentPanel);
    environmentLayout->setContentsMargins(0, 4, 0, 4);
    environmentLayout->addWidget(SectionTitle(Text("Environment"), environmentPanel));
    impl_->environment = new ProcessEnvironmentWidget(environmentPanel);
    environmentLayout->addWidget(impl_->environment, 1);

    auto* descriptorPanel = new QWidget(splitter);
    descriptorPanel->setMinimumHeight(130);
    auto* descriptorLayout = new QVBoxLayout(descriptorPanel);
    descriptorLayout->setContentsMargins(0, 4, 0, 0);
    descriptorLayout->addWidget(SectionTitle(Text("Open ports, sockets, and files"), descriptorPanel));
    impl_->descriptors = new QTreeWidget(descriptorPanel);
    impl_->descriptors->setObjectName(QStringLiteral("InspectorDescriptors"));
    impl_->descriptors->setColumnCount(2);
    impl_->descriptors->setHeaderHidden(true);
    impl_->descriptors->setUniformRowHeights(true);
    impl_->descriptors->setRootIsDecorated(true);
    impl_->descriptors->header()->setStretchLastSection(true);
    impl_->descriptors->setColumnWidth(0, 120);
    descriptorLayout->addWidget(impl_->descriptors, 1);
    splitter->addWidget(environmentPanel);
    splitter->addWidget(descriptorPanel);
    splitter->setStretchFactor(0, 3);
    splitter->setStretchFactor(1, 2);
    layout->addWidget(splitter, 1);

    auto* footer = new QHBoxLayout();
    footer->setContentsMargins(16, 0, 16, 0);
    impl_->loadingLabel = new QLabel(Text("Loading…"), this);
    impl_->loadingLabel->setObjectName(QStringLiteral("InspectorLoading"));
    impl_->loadingLabel->hide();
    impl_->message = new QLabel(this);
    impl_->message->setObjectName(QStringLiteral("InspectorMessage"));
    impl_->message->setWordWrap(true);
    impl_->refresh = new QPushButton(Text("Refresh"), this);
    impl_->refresh->setObjectName(QStringLiteral("InspectorRefresh"));
    auto* close = new QPushButton(Text("Close"), this);
    close->setObjectName(QStringLiteral("InspectorClose"));
    footer->addWidget(impl_->loadingLabel);
    footer->addWidget(impl_->message, 1);
    footer->addWidget(impl_->refresh);
    footer->addWidget(close);
    outer->addLayout(footer);

    const QScreen* screen = parent != nullptr && parent->screen() != nullptr ? parent->screen() : QApplication::primaryScreen();
    const QRect available = screen != nullptr ? screen->availableGeometry() : QRect();
    resize(impl_->settings != nullptr ? InspectorSizeFromSettings(*impl_->settings, available)
                                      : InspectorSizeFromSettings(core::Settings{}, available));

    impl_->loadingTimer.setSingleShot(true);
    impl_->loadingTimer.setInterval(kInspectorLoadingDelayMs);
    connect(&impl_->loadingTimer, &QTimer::timeout, this, [this] {
        if (impl_->loading) impl_->loadingLabel->show();
    });
    connect(impl_->refresh, &QPushButton::clicked, this, &ProcessInspectorDialog::Refresh);
    connect(close, &QPushButton::clicked, this, &QDialog::reject);
    connect(impl_->copyCommandLine, &QPushButton::clicked, this, [this] {
        QApplication::clipboard()->setText(impl_->commandLine->text());
    });

    impl_->ShowDescriptors(nullptr);
    Refresh();
}

ProcessInspectorDialog::~ProcessInspectorDialog() {
    // A reader posts through a guard that sees this dialog gone, so it may outlive the dialog.
    for (Read& read : impl_->reads) {
        read.thread.request_stop();
        if (impl_->keeper) impl_->keeper(std::move(read.state), std::move(read.thread));
    }
    impl_->reads.clear();
}

void ProcessInspectorDialog::SetRowSource(RowSource source) {
    impl_->rowSource = std::move(source);
}

void ProcessInspectorDialog::SetWorkerKeeper(WorkerKeeper keeper) {
    impl_->keeper = std::move(keeper);
}

const core::ProcessKey& ProcessInspectorDialog::Key() const {
    return impl_->input.key;
}

void ProcessInspectorDialog::Refresh() {
    for (Read& read : impl_->reads) read.thread.request_stop();
    impl_->PruneFinishedReads();
    auto state = std::make_shared<ProcessInspectorState>();
    state->generation = ++impl_->generation;
    state->key = impl_->input.key;
    impl_->message->clear();
    if (impl_->rowSource && impl_->generation > 1) {
        if (std::optional<ProcessInspectorInput> latest = impl_->rowSource(impl_->input.key)) {
            if (latest->session.isEmpty()) latest->session = impl_->input.session;
            impl_->input = std::move(*latest);
            impl_->ClearSummary();
            impl_->FillSummary();
            impl_->state->setText(impl_->input.exited ? QCoreApplication::translate("ProcessTableModel", "Exited")
                                  : impl_->input.row ? StateWord(impl_->input.row->state)
                                                     : impl_->state->text());
        }
    }

    if (!impl_->reader) {
        impl_->loading = false;
        impl_->loadingLabel->hide();
        impl_->details.reset();
        impl_->ShowDetails();
        impl_->message->setText(Text("Process details are unavailable."));
        emit DetailsLoaded();
        return;
    }
    impl_->loading = true;
    impl_->loadingLabel->hide();
    impl_->loadingTimer.start();
    const QPointer<ProcessInspectorDialog> guard(this);
    impl_->reads.push_back({state, std::jthread([guard, state, reader = impl_->reader](std::stop_token stop) {
                                std::shared_ptr<core::ProcessDetails> details;
                                if (!stop.stop_requested()) details = reader(state->key, stop);
                                state->details = std::move(details);
                                state->finished = true;
                                if (stop.stop_requested()) return;
                                // Posted to the application, which outlives every dialog; the
                                // guard is read on the GUI thread only.
                                QMetaObject::invokeMethod(
                                    QCoreApplication::instance(),
                                    [guard, state] {
                                        if (guard.isNull()) return;
                                        guard->ShowRead(state);
                                    },
                                    Qt::QueuedConnection);
                            })});
}

void ProcessInspectorDialog::ShowRead(const std::shared_ptr<ProcessInspectorState>& state) {
    if (state->generation != impl_->generation) return;
    impl_->loading = false;
    impl_->loadingTimer.stop();
    impl_->loadingLabel->hide();
    impl_->details = state->details;
    impl_->ShowDetails();
    if (!impl_->details) {
        impl_->message->setText(Text("The process exited before its details could be read."));
    }
    impl_->PruneFinishedReads();
    emit DetailsLoaded();
}

bool ProcessInspectorDialog::IsLoading() const {
    return impl_->loading;
}

bool ProcessInspectorDialog::LoadingVisible() const {
    return !impl_->loadingLabel->isHidden();
}

std::shared_ptr<const core::ProcessDetails> ProcessInspectorDialog::Details() const {
    return impl_->details;
}

QString ProcessInspectorDialog::HeaderText() const {
    return impl_->header->text();
}

QString ProcessInspectorDialog::MessageText() const {
    return impl_->message->text();
}

std::optional<QString> ProcessInspectorDialog::SummaryValue(const QString& label) const {
    for (const auto& [name, value] : impl_->summaryValues) {
        if (name == label) return value->text();
    }
    return std::nullopt;
}

QString ProcessInspectorDialog::CommandLineText() const {
    return impl_->commandLine->text();
}

QStringList ProcessInspectorDialog::DescriptorGroupTitles() const {
    QStringList titles;
    for (int i = 0; i < impl_->descriptors->topLevelItemCount(); ++i) {
        titles.push_back(impl_->descriptors->topLevelItem(i)->text(0));
    }
    return titles;
}

QStringList ProcessInspectorDialog::DescriptorEntries(int group) const {
    QStringList entries;
    const QTreeWidgetItem* item = impl_->descriptors->topLevelItem(group);
    if (item == nullptr) return entries;
    for (int i = 0; i < item->childCount(); ++i) {
        const QTreeWidgetItem* child = item->child(i);
        entries.push_back(child->text(1).isEmpty() ? child->text(0) : child->text(0) + QLatin1Char('\t') + child->text(1));
    }
    return entries;
}

ProcessEnvironmentWidget& ProcessInspectorDialog::Environment() {
    return *impl_->environment;
}

void ProcessInspectorDialog::done(int result) {
    for (Read& read : impl_->reads) read.thread.request_stop();
    impl_->loading = false;
    impl_->loadingTimer.stop();
    if (impl_->settings != nullptr && isVisible()) {
        StoreInspectorSize(*impl_->settings, size());
        if (impl_->settingsChanged) impl_->settingsChanged();
    }
    QDialog::done(result);
}

}  // namespace korv::host::linux_client
