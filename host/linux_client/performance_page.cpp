#include "host/linux_client/performance_page.h"

#include "host/linux_client/graph_widget.h"
#include "host/linux_client/history_store.h"
#include "host/linux_client/performance_device_list.h"
#include "host/linux_client/performance_device_pane.h"
#include "host/linux_client/performance_device_row.h"
#include "host/linux_client/performance_graphs.h"
#include "host/linux_client/performance_series.h"
#include "host/linux_client/theme.h"
#include "host/linux_client/unit_formats.h"

#include <QAction>
#include <QActionGroup>
#include <QClipboard>
#include <QCoreApplication>
#include <QEvent>
#include <QFrame>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QScrollArea>
#include <QVBoxLayout>

#include <algorithm>
#include <optional>

namespace korv::host::linux_client {
namespace {

constexpr int kListWidth = 270;

QString Text(const char* source) {
    return QCoreApplication::translate("PerformancePage", source);
}

QString Css(const QColor& color) {
    return color.name(color.alpha() == 255 ? QColor::HexRgb : QColor::HexArgb);
}

QString PageStyleSheet(const ShellColors& c) {
    QString sheet = QStringLiteral(R"(
#PerformanceHeader { background: @surface; border-bottom: 1px solid @border; }
#PerformanceHeader #PageTitle { color: @text; font-size: 24px; font-weight: 600; }
#DeviceList, #DeviceListContent { background: @window; border: none; }
#DeviceListDivider { background: @border; border: none; }
#DevicePane, #DevicePaneContent { background: @window; }
#DeviceTitle { color: @text; font-size: 24px; font-weight: 600; }
#DeviceModel { color: @muted; font-size: 14px; }
#SelectionHint { color: @muted; font-size: 16px; }
#GraphModeButton { color: @accent; background: transparent; border: none; padding: 2px 4px; font-size: 13px; }
#GraphModeButton:hover { text-decoration: underline; }
#GraphModeButton::menu-indicator { image: none; width: 0; }
#GraphHeading, #GraphCellCaption, #GraphLegend { color: @muted; font-size: 12px; }
)");
    sheet.replace(QStringLiteral("@surface"), Css(c.surface));
    sheet.replace(QStringLiteral("@border"), Css(c.border));
    sheet.replace(QStringLiteral("@window"), Css(c.window));
    sheet.replace(QStringLiteral("@text"), Css(c.text));
    sheet.replace(QStringLiteral("@muted"), Css(c.mutedText));
    sheet.replace(QStringLiteral("@accent"), Css(c.accent));
    return sheet;
}

}  // namespace

struct PerformancePage::Impl {
    Impl(PerformancePage& owner, PageEnvironment environment);

    void BuildUi();
    void BuildContextMenu();
    void ReadSettings();
    void ApplyGraphSettingsToAll();
    void ApplyStyle();
    void Refresh();
    void SyncRows();
    void ResolveSelection();
    void Choose(const QString& id);
    void MoveSelection(int step);
    void UpdateContextMenu();
    void SetCpuMode(CpuGraphMode mode);
    void SetGpuMode(GpuGraphMode mode);
    const DeviceRowSpec* SelectedSpec() const;

    PerformancePage& page;
    PageEnvironment env;
    PerformanceSeries series;
    std::shared_ptr<const core::SystemSnapshot> snapshot;
    std::vector<DeviceRowSpec> specs;
    std::vector<PerformanceDeviceRow*> rows;
    PerformanceDeviceRow* placeholder = nullptr;
    QString selectedId;
    core::DeviceKind selectedKind = core::DeviceKind::other;
    std::optional<core::DeviceKind> pendingKind;
    PaneView view;
    DeviceListOptions listOptions;
    bool colorKeyed = true;
    QString styleSheet;

    QScrollArea* list = nullptr;
    QWidget* listContent = nullptr;
    QVBoxLayout* listLayout = nullptr;
    PerformanceDevicePane* pane = nullptr;
    QMenu* contextMenu = nullptr;
    QMenu* changeGraphMenu = nullptr;
    QAction* overallAction = nullptr;
    QAction* logicalAction = nullptr;
    QAction* enginesAction = nullptr;
    QAction* kernelAction = nullptr;
    QAction* copyAction = nullptr;
};

namespace {

std::size_t SeriesCapacity(const PageEnvironment& env) {
    if (env.history != nullptr) return env.history->Capacity();
    if (env.settings != nullptr) {
        return HistoryStore::CapacityFor(env.settings->graphHistoryMultiplier, env.settings->graphPixelsPerUpdate);
    }
    return HistoryStore::CapacityFor(15, 16);
}

}  // namespace

PerformancePage::Impl::Impl(PerformancePage& owner, PageEnvironment environment)
    : page(owner), env(std::move(environment)), series(env.history, SeriesCapacity(env)) {}

void PerformancePage::Impl::BuildUi() {
    page.setObjectName(QStringLiteral("performance"));
    auto* outer = new QVBoxLayout(&page);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->setSpacing(0);

    auto* header = new QWidget(&page);
    header->setObjectName(QStringLiteral("PerformanceHeader"));
    header->setProperty("korvSurface", true);
    header->setAttribute(Qt::WA_StyledBackground, true);
    auto* headerLayout = new QHBoxLayout(header);
    headerLayout->setContentsMargins(24, 14, 24, 14);
    auto* heading = new QLabel(Text("Performance"), header);
    heading->setObjectName(QStringLiteral("PageTitle"));
    heading->setTextFormat(Qt::PlainText);
    headerLayout->addWidget(heading);
    headerLayout->addStretch(1);
    outer->addWidget(header);

    auto* body = new QHBoxLayout;
    body->setContentsMargins(0, 0, 0, 0);
    body->setSpacing(0);
    list = new QScrollArea(&page);
    list->setObjectName(QStringLiteral("DeviceList"));
    list->setAccessibleName(Text("Devices"));
    list->setWidgetResizable(true);
    list->setFrameShape(QFrame::NoFrame);
    list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    list->setFixedWidth(kListWidth);
    listContent = new QWidget(list);
    listContent->setObjectName(QStringLiteral("DeviceListContent"));
    listLayout = new QVBoxLayout(listContent);
    listLayout->setContentsMargins(8, 8, 8, 8);
    listLayout->setSpacing(2);
    listLayout->addStretch(1);
    list->setWidget(listContent);
    body->addWidget(list);

    auto* divider = new QFrame(&page);
    divider->setObjectName(QStringLiteral("DeviceListDivider"));
    divider->setFixedWidth(1);
    body->addWidget(divider);

    pane = new PerformanceDevicePane(&page);
    pane->setContextMenuPolicy(Qt::CustomContextMenu);
    pane->SetOnCpuMode([this](CpuGraphMode mode) { SetCpuMode(mode); });
    pane->SetOnGpuMode([this](GpuGraphMode mode) { SetGpuMode(mode); });
    QObject::connect(pane, &QWidget::customContextMenuRequested, &page, [this](const QPoint& position) {
        UpdateContextMenu();
        contextMenu->popup(pane->mapToGlobal(position));
    });
    body->addWidget(pane, 1);
    outer->addLayout(body, 1);
    BuildContextMenu();
}

void PerformancePage::Impl::BuildContextMenu() {
    contextMenu = new QMenu(&page);
    contextMenu->setObjectName(QStringLiteral("PerformanceContextMenu"));
    changeGraphMenu = contextMenu->addMenu(Text("Change graph to"));
    auto* group = new QActionGroup(changeGraphMenu);
    group->setExclusionPolicy(QActionGroup::ExclusionPolicy::ExclusiveOptional);
    overallAction = changeGraphMenu->addAction(Text("Overall utilization"));
    logicalAction = changeGraphMenu->addAction(Text("Logical processors"));
    enginesAction = changeGraphMenu->addAction(Text("Individual engines"));
    for (QAction* action : {overallAction, logicalAction, enginesAction}) {
        action->setCheckable(true);
        group->addAction(action);
    }
    QObject::connect(overallAction, &QAction::triggered, &page, [this] {
        if (selectedKind == core::DeviceKind::gpu) {
            SetGpuMode(GpuGraphMode::overall);
        } else {
            SetCpuMode(CpuGraphMode::combined);
        }
    });
    QObject::connect(logicalAction, &QAction::triggered, &page, [this] { SetCpuMode(CpuGraphMode::expanded); });
    QObject::connect(enginesAction, &QAction::triggered, &page, [this] { SetGpuMode(GpuGraphMode::engines); });
    kernelAction = contextMenu->addAction(Text("Show kernel times"));
    kernelAction->setCheckable(true);
    QObject::connect(kernelAction, &QAction::toggled, &page, [this](bool checked) {
        if (view.showKernelTimes == checked) return;
        view.showKernelTimes = checked;
        Refresh();
    });
    contextMenu->addSeparator();
    copyAction = contextMenu->addAction(Text("Copy"));
    QObject::connect(copyAction, &QAction::triggered, &page, [this] {
        if (QClipboard* clipboard = QGuiApplication::clipboard()) clipboard->setText(pane->ClipboardText());
    });
    UpdateContextMenu();
}

void PerformancePage::FillWindowMenu(QMenu& menu) {
    Impl& d = *impl_;
    int place = 0;
    for (QAction* action : {d.overallAction, d.logicalAction, d.enginesAction, d.kernelAction, d.copyAction}) {
        action->setShortcut(QKeySequence(Qt::CTRL | Qt::ALT | static_cast<Qt::Key>(Qt::Key_1 + place++)));
        action->setShortcutContext(Qt::WindowShortcut);
    }
    menu.addActions(d.changeGraphMenu->actions());
    menu.addSeparator();
    menu.addAction(d.kernelAction);
    menu.addAction(d.copyAction);
    QObject::connect(&menu, &QMenu::aboutToShow, this, [this] { impl_->UpdateContextMenu(); });
}

void PerformancePage::Impl::UpdateContextMenu() {
    const bool cpu = !selectedId.isEmpty() && selectedKind == core::DeviceKind::cpu;
    const bool gpu = !selectedId.isEmpty() && selectedKind == core::DeviceKind::gpu;
    changeGraphMenu->setEnabled(cpu || gpu);
    overallAction->setEnabled(cpu || gpu);
    logicalAction->setEnabled(cpu);
    enginesAction->setEnabled(gpu);
    overallAction->setChecked((cpu && view.cpuMode == CpuGraphMode::combined) ||
                              (gpu && view.gpuMode == GpuGraphMode::overall));
    logicalAction->setChecked(cpu && view.cpuMode == CpuGraphMode::expanded);
    enginesAction->setChecked(gpu && view.gpuMode == GpuGraphMode::engines);
    kernelAction->setEnabled(cpu && view.cpuMode != CpuGraphMode::efficiency);
    kernelAction->setChecked(view.showKernelTimes);
    copyAction->setEnabled(!selectedId.isEmpty());
}

void PerformancePage::Impl::ReadSettings() {
    if (env.settings == nullptr) return;
    const core::Settings& settings = *env.settings;
    listOptions = DeviceListOptionsFrom(settings);
    view.cpuMode = CpuGraphModeFromWord(core::StringPreference(settings, "cpuGraphMode", "combined"));
    view.gpuMode = GpuGraphModeFromWord(core::StringPreference(settings, "gpuGraphMode", "overall"));
    colorKeyed = settings.colorKeyedGraphs;
    SetTemperatureScale(settings.temperatureUnit == core::TemperatureUnit::fahrenheit ? TemperatureScale::fahrenheit
                                                                                      : TemperatureScale::celsius);
}

void PerformancePage::Impl::ApplyGraphSettingsToAll() {
    if (env.settings == nullptr) return;
    pane->ApplyGraphSettings(*env.settings);
    for (PerformanceDeviceRow* row : rows) {
        ApplyGraphSettings(*row->Graph(), *env.settings, true);
    }
}

void PerformancePage::Impl::ApplyStyle() {
    const QString sheet = PageStyleSheet(CurrentShellColors());
    if (sheet == styleSheet) return;
    styleSheet = sheet;
    page.setStyleSheet(sheet);
}

const DeviceRowSpec* PerformancePage::Impl::SelectedSpec() const {
    const auto found = std::find_if(specs.begin(), specs.end(), [this](const DeviceRowSpec& s) { return s.id == selectedId; });
    return found == specs.end() ? nullptr : &*found;
}

void PerformancePage::Impl::SyncRows() {
    const bool sameIds = std::equal(specs.begin(), specs.end(), rows.begin(), rows.end(),
                                    [](const DeviceRowSpec& spec, const PerformanceDeviceRow* row) {
                                        return spec.id == row->Id() && spec.kind == row->Kind();
                                    });
    if (!sameIds) {
        for (PerformanceDeviceRow* row : rows) delete row;
        rows.clear();
        for (const DeviceRowSpec& spec : specs) {
            auto* row = new PerformanceDeviceRow(spec.id, spec.kind, listContent);
            const QString id = spec.id;
            row->SetOnChosen([this, id] { Choose(id); });
            row->SetOnStep([this](int step) { MoveSelection(step); });
            if (env.settings != nullptr) ApplyGraphSettings(*row->Graph(), *env.settings, true);
            listLayout->insertWidget(listLayout->count() - 1, row);
            rows.push_back(row);
        }
    }
    if (specs.empty() && placeholder == nullptr) {
        placeholder = PerformanceDeviceRow::Placeholder(NoDevicesText(), listContent);
        listLayout->insertWidget(0, placeholder);
    } else if (!specs.empty() && placeholder != nullptr) {
        delete placeholder;
        placeholder = nullptr;
    }
    for (std::size_t i = 0; i < specs.size(); ++i) rows[i]->SetTitle(specs[i].title);
}

void PerformancePage::Impl::ResolveSelection() {
    const auto firstOfKind = [this](core::DeviceKind kind) -> const DeviceRowSpec* {
        const auto found = std::find_if(specs.begin(), specs.end(), [kind](const DeviceRowSpec& s) { return s.kind == kind; });
        return found == specs.end() ? nullptr : &*found;
    };
    if (pendingKind) {
        if (const DeviceRowSpec* spec = firstOfKind(*pendingKind)) {
            selectedId = spec->id;
            selectedKind = spec->kind;
            pendingKind.reset();
        }
    }
    if (!selectedId.isEmpty() && SelectedSpec() == nullptr) {
        // The row went away, or was folded into (or out of) a combined row: stay with its kind.
        const DeviceRowSpec* spec = firstOfKind(selectedKind);
        if (spec != nullptr) {
            selectedId = spec->id;
        } else {
            selectedId.clear();
        }
    }
    for (PerformanceDeviceRow* row : rows) row->SetSelected(row->Id() == selectedId);
}

void PerformancePage::Impl::Refresh() {
    if (snapshot) {
        specs = BuildDeviceRows(*snapshot, listOptions);
    }
    SyncRows();
    ResolveSelection();
    if (snapshot) {
        const GraphFeed feed{*snapshot, series, NominalIntervalNs(*snapshot), colorKeyed, CurrentShellColors().dark};
        for (std::size_t i = 0; i < specs.size(); ++i) {
            rows[i]->SetSubtitle(DeviceRowSubtitle(specs[i], *snapshot));
            FeedMiniGraph(*rows[i]->Graph(), specs[i], feed);
        }
        if (const DeviceRowSpec* spec = SelectedSpec()) {
            pane->Show(*spec, feed, view);
        } else {
            pane->ShowHint();
        }
    } else {
        pane->ShowHint();
    }
    UpdateContextMenu();
}

void PerformancePage::Impl::Choose(const QString& id) {
    const auto found = std::find_if(specs.begin(), specs.end(), [&id](const DeviceRowSpec& s) { return s.id == id; });
    if (found == specs.end()) return;
    pendingKind.reset();
    if (selectedId == id) return;
    selectedId = id;
    selectedKind = found->kind;
    Refresh();
}

void PerformancePage::Impl::MoveSelection(int step) {
    if (rows.empty()) return;
    const auto current = std::find_if(rows.begin(), rows.end(), [this](const PerformanceDeviceRow* r) { return r->Id() == selectedId; });
    int index = current == rows.end() ? (step > 0 ? -1 : static_cast<int>(rows.size()))
                                      : static_cast<int>(current - rows.begin());
    index = std::clamp(index + step, 0, static_cast<int>(rows.size()) - 1);
    PerformanceDeviceRow* row = rows[static_cast<std::size_t>(index)];
    Choose(row->Id());
    row->setFocus(Qt::OtherFocusReason);
    list->ensureWidgetVisible(row);
}

void PerformancePage::Impl::SetCpuMode(CpuGraphMode mode) {
    if (view.cpuMode == mode) return;
    view.cpuMode = mode;
    if (env.settings != nullptr) {
        core::WriteStringPreference(*env.settings, "cpuGraphMode", CpuGraphModeWord(mode).toStdString());
    }
    Refresh();
    if (env.settingsChanged) env.settingsChanged();
}

void PerformancePage::Impl::SetGpuMode(GpuGraphMode mode) {
    if (view.gpuMode == mode) return;
    view.gpuMode = mode;
    if (env.settings != nullptr) {
        core::WriteStringPreference(*env.settings, "gpuGraphMode", GpuGraphModeWord(mode).toStdString());
    }
    Refresh();
    if (env.settingsChanged) env.settingsChanged();
}

PerformancePage::PerformancePage(PageEnvironment environment, QWidget* parent)
    : SnapshotPage(parent), impl_(std::make_unique<Impl>(*this, std::move(environment))) {
    impl_->BuildUi();
    impl_->ReadSettings();
    impl_->ApplyGraphSettingsToAll();
    impl_->ApplyStyle();
    impl_->Refresh();
}

PerformancePage::~PerformancePage() = default;

void PerformancePage::ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    if (!snapshot) return;
    impl_->snapshot = snapshot;
    impl_->series.Feed(*snapshot);
    impl_->Refresh();
}

void PerformancePage::SettingsChanged() {
    impl_->ReadSettings();
    impl_->ApplyGraphSettingsToAll();
    impl_->Refresh();
}

void PerformancePage::SelectDevice(core::DeviceKind kind) {
    impl_->pendingKind = kind;
    impl_->Refresh();
}

QString PerformancePage::SelectedRowId() const {
    return impl_->selectedId;
}

QStringList PerformancePage::DeviceRowTitles() const {
    QStringList titles;
    if (impl_->placeholder != nullptr) titles << impl_->placeholder->Title();
    for (const PerformanceDeviceRow* row : impl_->rows) titles << row->Title();
    return titles;
}

void PerformancePage::changeEvent(QEvent* event) {
    SnapshotPage::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) {
        impl_->ApplyStyle();
        if (impl_->snapshot) impl_->Refresh();  // series colours follow the theme
    }
}

}  // namespace korv::host::linux_client
