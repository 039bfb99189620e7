#include "host/linux_client/task_manager_window.h"

#include "core/sampling_engine.h"
#include "core/shutdown_watchdog.h"
#include "core/snapshot.h"
#include "host/linux_client/application_paths.h"
#include "host/linux_client/command_bar.h"
#include "host/linux_client/display_snapshot.h"
#include "host/linux_client/display_tint.h"
#include "host/linux_client/history_store.h"
#include "host/linux_client/language_relaunch.h"
#include "host/linux_client/navigation_rail.h"
#include "host/linux_client/page_catalog.h"
#include "host/linux_client/performance_page.h"
#include "host/linux_client/placeholder_page.h"
#include "host/linux_client/power_freq_page.h"
#include "host/linux_client/process_page_actions.h"
#include "host/linux_client/process_table_model.h"
#include "host/linux_client/process_tree_view.h"
#include "host/linux_client/processes_page.h"
#include "host/linux_client/settings_dialog.h"
#include "host/linux_client/settings_page.h"
#include "host/linux_client/summary_page.h"
#include "host/linux_client/system_info_page.h"
#include "host/linux_client/unit_formats.h"
#include "host/linux_client/uptime_odometer_widget.h"
#include "host/linux_client/settings_saver.h"
#include "host/linux_client/smoke_run.h"
#include "host/linux_client/snapshot_mailbox.h"
#include "host/linux_client/startup_report.h"
#include "host/linux_client/status_bar_widget.h"
#include "host/linux_client/theme.h"
#include "host/linux_client/window_menus.h"
#include "providers/platform_services.h"

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QStackedWidget>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

#include <cstdio>
#include <cstdlib>

namespace korv::host::linux_client {
namespace {

constexpr int kSelfTestTimeoutMs = 10000;
constexpr int kWatchdogExitCode = 1;

QString Text(const char* source) {
    return QCoreApplication::translate("TaskManagerWindow", source);
}

void HardExit(int code) noexcept {
    std::_Exit(code);
}

QSize SizeFor(WindowSizeChoice choice) {
    switch (choice) {
    case WindowSizeChoice::narrow:
        return {900, 780};
    case WindowSizeChoice::wide:
        return {1600, 900};
    case WindowSizeChoice::normal:
        break;
    }
    return {1240, 800};
}

std::unique_ptr<providers::PlatformServices> CreateLinuxServices() {
    return providers::CreatePlatformServices();
}

}  // namespace

struct TaskManagerWindow::Impl {
    Impl(TaskManagerWindow& owner, SmokeOptions smokeOptions, core::SettingsLoadResult loaded)
        : window(owner),
          options(std::move(smokeOptions)),
          settings(std::move(loaded.settings)),
          savedSettings(settings),
          loadStatus(loaded.status),
          loadError(std::move(loaded.error)),
          history(HistoryStore::CapacityFor(settings.graphHistoryMultiplier, settings.graphPixelsPerUpdate)),
          watchdog(&HardExit, kWatchdogExitCode) {}

    void BuildShell();
    QWidget* CreatePage(int stackIndex, QWidget* parent);
    PageEnvironment MakePageEnvironment();
    void OnSettingsChanged();
    void ApplyLiveSettings();
    void SetCpuScaleFrom(const std::shared_ptr<const core::SystemSnapshot>& snapshot);
    ApplyPlan PlanNow() const;
    void FeedVisiblePages(const std::shared_ptr<const core::SystemSnapshot>& snapshot);
    void FeedPage(SnapshotPage* page, bool shouldFeed, const std::shared_ptr<const core::SystemSnapshot>& snapshot);
    void ConnectShell();
    void BuildProcessViewMenu(QMenu& menu);
    void ApplyThemeAndTint();
    void SetDisplayMode(DisplayModeChoice mode, bool remember);
    void SetStatusBarShown(bool shown, bool remember);
    void SetSidebarShown(bool shown);
    void ReportSettingsLoad();
    void CreateServices(const ServicesFactory& factory);
    void StartPlatform();
    void ConnectProcessesPage();
    void SetBoolPreference(const core::BoolPreference& preference, bool value);
    void ShowSettings();
    void AskToRelaunch(const QString& code);
    void RelaunchInLanguage(const QString& code);
    void StartSmokeRun();
    void SelectStackIndex(int stackIndex);
    void StepPage(int delta);
    void Deliver();
    void ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot);
    void SaveSettingsSoon();
    void RememberGeometry();
    void Teardown();
    void SaveSettingsAtExit();
    void ShowAbout();

    TaskManagerWindow& window;
    const SmokeOptions options;
    core::Settings settings;
    core::Settings savedSettings;  // what the file holds as far as this window knows
    const core::SettingsLoadStatus loadStatus;
    const std::string loadError;

    // Shell.
    NavigationRail* rail = nullptr;
    CommandBar* commandBar = nullptr;
    QStackedWidget* stack = nullptr;
    StatusBarWidget* statusBar = nullptr;
    WindowMenus menus;
    std::unique_ptr<SettingsSaver> saver;
    SmokeRun* smokeRun = nullptr;
    SummaryPage* summaryPage = nullptr;
    PerformancePage* performancePage = nullptr;
    ProcessesPage* processesPage = nullptr;
    std::unique_ptr<ProcessPageActions> processActions;
    SystemInfoPage* systemInfoPage = nullptr;
    PowerFreqPage* powerFreqPage = nullptr;
    SettingsPage* settingsPage = nullptr;
    QPointer<SettingsDialog> settingsDialog;
    QString relaunchProgram = QCoreApplication::applicationFilePath();
    std::vector<SnapshotPage*> snapshotPages;
    core::Theme theme = core::Theme::system;
    DisplayModeChoice displayMode = DisplayModeChoice::color;

    // Delivery. The services outlive the engine: the engine is declared after them, and the close
    // path stops it before either is destroyed.
    std::unique_ptr<SnapshotMailbox> mailbox;
    std::unique_ptr<providers::PlatformServices> services;
    std::unique_ptr<core::SamplingEngine> engine;
    std::shared_ptr<const core::SystemSnapshot> currentSnapshot;
    std::shared_ptr<const core::SystemSnapshot> displaySnapshot;
    double cpuScale = 1.0;
    bool perCoreCpu = false;
    std::uint64_t lastGeneration = 0;
    std::uint64_t deliveredCount = 0;
    std::uint64_t lastMonotonicNs = 0;
    HistoryStore history;
    ApplyPlan lastPlan;
    bool applying = false;
    int pendingStackIndex = -1;
    bool refreshKeyHeld = false;
    bool selfTestActive = false;

    // Close.
    core::ShutdownClaim closeClaim;
    core::ShutdownWatchdog watchdog;
    bool closing = false;
};

void TaskManagerWindow::Impl::BuildShell() {
    window.setObjectName(QStringLiteral("TaskManagerWindow"));
    window.setWindowTitle(QCoreApplication::translate("QMainWindow", "Task Manager KORV"));

    auto* central = new QWidget(&window);
    central->setObjectName(QStringLiteral("CentralWidget"));
    auto* outer = new QHBoxLayout(central);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->setSpacing(0);

    rail = new NavigationRail(central);
    outer->addWidget(rail);

    auto* content = new QWidget(central);
    content->setObjectName(QStringLiteral("ContentArea"));
    auto* contentLayout = new QVBoxLayout(content);
    contentLayout->setContentsMargins(0, 0, 0, 0);
    contentLayout->setSpacing(0);
    commandBar = new CommandBar(content);
    contentLayout->addWidget(commandBar);

    stack = new QStackedWidget(content);
    stack->setObjectName(QStringLiteral("PageStack"));
    for (int index = 0; index < kStackPageCount; ++index) {
        QWidget* page = CreatePage(index, stack);
        page->setObjectName(PageName(PageForStackIndex(index)));
        stack->addWidget(page);
    }
    contentLayout->addWidget(stack, 1);
    outer->addWidget(content, 1);
    window.setCentralWidget(central);

    statusBar = new StatusBarWidget(&window);
    window.setStatusBar(statusBar);
    menus = BuildWindowMenus(*window.menuBar());
    menus.combinedDisks->setChecked(core::ReadBoolPreference(settings, core::kCombinedDisks));
    menus.combinedNetwork->setChecked(core::ReadBoolPreference(settings, core::kCombinedNetwork));
    menus.combinedGpus->setChecked(core::ReadBoolPreference(settings, core::kCombinedGpus));

    performancePage->FillWindowMenu(*menus.performanceMenu);
    menus.performanceMenu->setEnabled(true);
    QObject::connect(menus.performanceMenu, &QMenu::triggered, &window,
                     [this] { SelectStackIndex(kPerformanceStackIndex); });

    processActions = std::make_unique<ProcessPageActions>(MakePageEnvironment(), &window);
    menus.runNewTask->setEnabled(true);
    commandBar->SetProcessViewBuilder([this](QMenu& menu) { BuildProcessViewMenu(menu); });
}

PageEnvironment TaskManagerWindow::Impl::MakePageEnvironment() {
    PageEnvironment environment;
    environment.settings = &settings;
    environment.settingsChanged = [this] { OnSettingsChanged(); };
    environment.history = &history;
    environment.services = services.get();
    environment.requestSample = [this] { window.RequestSample(); };
    environment.showPage = [this](int stackIndex) { SelectStackIndex(stackIndex); };
    environment.showStatus = [this](const QString& text) { statusBar->ShowSettingsMessage(text); };
    return environment;
}

QWidget* TaskManagerWindow::Impl::CreatePage(int stackIndex, QWidget* parent) {
    SnapshotPage* page = nullptr;
    switch (stackIndex) {
    case kSummaryStackIndex:
        page = summaryPage = new SummaryPage(MakePageEnvironment(), parent);
        summaryPage->SetOnShowDevice([this](core::DeviceKind kind) {
            if (performancePage != nullptr) performancePage->SelectDevice(kind);
            SelectStackIndex(kPerformanceStackIndex);
        });
        break;
    case kPerformanceStackIndex:
        page = performancePage = new PerformancePage(MakePageEnvironment(), parent);
        break;
    case kProcessesStackIndex:
        page = processesPage = new ProcessesPage(MakePageEnvironment(), parent);
        break;
    case kSystemInfoStackIndex:
        page = systemInfoPage = new SystemInfoPage(MakePageEnvironment(), parent);
        break;
    case kPowerAndFreqStackIndex:
        page = powerFreqPage = new PowerFreqPage(MakePageEnvironment(), parent);
        break;
    case kSettingsStackIndex:
        page = settingsPage = new SettingsPage(MakePageEnvironment(), parent);
        break;
    default:
        return new PlaceholderPage(RailLabel(stackIndex), parent);
    }
    snapshotPages.push_back(page);
    return page;
}

// A page changed a preference: everything the window applies is re-read, every page hears of it,
// and the file is saved on the background worker.
void TaskManagerWindow::Impl::OnSettingsChanged() {
    SetTemperatureScale(settings.temperatureUnit == core::TemperatureUnit::fahrenheit ? TemperatureScale::fahrenheit
                                                                                     : TemperatureScale::celsius);
    if (const auto mode = DisplayModeFromWord(QString::fromStdString(core::StringPreference(settings, "displayMode", "color")))) {
        displayMode = *mode;
    }
    theme = settings.theme;
    ApplyThemeAndTint();
    ApplyLiveSettings();
    for (SnapshotPage* page : snapshotPages) {
        page->SettingsChanged();
    }
    if (settingsDialog != nullptr) {
        settingsDialog->Form()->Reload();
    }
    SaveSettingsSoon();
}

// The settings that act on the window and the engine rather than on one page, applied as they change.
void TaskManagerWindow::Impl::ApplyLiveSettings() {
    // Each is compared with what the engine or the window runs with now, so only what moved is applied.
    const auto cadence = static_cast<core::Cadence>(settings.updateSpeed);
    if (engine != nullptr && cadence != engine->CurrentCadence()) {
        const bool wasPaused = engine->CurrentCadence() == core::Cadence::paused;
        engine->SetCadence(cadence);
        if (wasPaused) engine->RequestSample();  // the first reading at the new speed comes now
    }

    const QString family = QString::fromStdString(settings.applicationFont);
    if (family != QApplication::font().family()) {
        if (ApplyApplicationFont(family)) {
            // The window holds the font it was given at start; the toolkit does not pass a new one on,
            // and styled children keep the font worked out when they were polished until re-polished.
            window.setFont(QApplication::font());
            const QString sheet = window.styleSheet();
            window.setStyleSheet(QString());
            window.setStyleSheet(sheet);
        }
    }

    if (settings.alwaysOnTop != window.windowFlags().testFlag(Qt::WindowStaysOnTopHint)) {
        const bool shown = window.isVisible();
        window.setWindowFlag(Qt::WindowStaysOnTopHint, settings.alwaysOnTop);
        if (shown) window.show();  // changing a window flag hides the window
    }

    if (perCoreCpu != settings.perCoreCpuStatistics) {
        perCoreCpu = settings.perCoreCpuStatistics;
        if (currentSnapshot != nullptr && !closing && !applying) {
            // The process table shows the new scale now; the summary's averages take it from the
            // next sample rather than counting the last one twice.
            SetCpuScaleFrom(currentSnapshot);
            FeedPage(processesPage, PlanNow().summaryAndProcesses, displaySnapshot);
        }
    }
}

void TaskManagerWindow::Impl::SetCpuScaleFrom(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    const double scale = CpuScaleFor(*snapshot, perCoreCpu);
    displaySnapshot = MakeDisplaySnapshot(snapshot, scale);
    if (scale != cpuScale) {
        cpuScale = scale;
        // Readings of another scale must not blend into the new ones.
        if (processesPage != nullptr) processesPage->SetCpuScale(scale);
    }
}

void TaskManagerWindow::Impl::FeedPage(SnapshotPage* page, bool shouldFeed,
                                       const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    if (page != nullptr && shouldFeed) {
        page->ApplySnapshot(snapshot);
    }
}

void TaskManagerWindow::Impl::BuildProcessViewMenu(QMenu& menu) {
    const auto addCheck = [this, &menu](const QString& text, const core::BoolPreference& preference) {
        QAction* action = menu.addAction(text);
        action->setCheckable(true);
        action->setChecked(core::ReadBoolPreference(settings, preference));
        QObject::connect(action, &QAction::toggled, &window,
                         [this, &preference](bool on) { SetBoolPreference(preference, on); });
    };
    addCheck(Text("Process tree"), core::kProcessTreeEnabled);
    addCheck(Text("Smooth CPU readings"), core::kSmoothProcessCpu);
    addCheck(Text("Show exited processes"), core::kShowExitedProcesses);
    menu.addSeparator();
    const bool tree = core::ReadBoolPreference(settings, core::kProcessTreeEnabled);
    QAction* expand = menu.addAction(Text("Expand all"));
    expand->setEnabled(tree);
    QObject::connect(expand, &QAction::triggered, &window, [this] { processesPage->ExpandAll(); });
    QAction* collapse = menu.addAction(Text("Collapse all"));
    collapse->setEnabled(tree);
    QObject::connect(collapse, &QAction::triggered, &window, [this] { processesPage->CollapseAll(); });
}

void TaskManagerWindow::Impl::SetBoolPreference(const core::BoolPreference& preference, bool value) {
    if (core::ReadBoolPreference(settings, preference) == value) {
        return;
    }
    core::WriteBoolPreference(settings, preference.key, value);
    OnSettingsChanged();
}

void TaskManagerWindow::Impl::ShowSettings() {
    if (!settings.showSettingsAsDialog) {
        SelectStackIndex(kSettingsStackIndex);
        return;
    }
    if (settingsDialog == nullptr) {
        settingsDialog = new SettingsDialog(&settings, [this] { OnSettingsChanged(); }, &window);
        settingsDialog->setAttribute(Qt::WA_DeleteOnClose);
        settingsDialog->Form()->SetLanguageChangedHandler([this](const QString& code) { AskToRelaunch(code); });
    }
    settingsDialog->show();
    settingsDialog->raise();
    settingsDialog->activateWindow();
}

// A translation is loaded once, at start; the new language needs a new start, which the user may
// put off.
void TaskManagerWindow::Impl::AskToRelaunch(const QString& code) {
    auto* box = new QMessageBox(QMessageBox::Question, Text("Change language"),
                                Text("The new language takes effect when Task Manager KORV starts again. "
                                     "Restart it now?"),
                                QMessageBox::Yes | QMessageBox::No, &window);
    box->setObjectName(QStringLiteral("LanguageRelaunchBox"));
    box->setDefaultButton(QMessageBox::No);
    box->setAttribute(Qt::WA_DeleteOnClose);
    QObject::connect(box, &QMessageBox::finished, &window, [this, code](int result) {
        if (result == QMessageBox::Yes) {
            RelaunchInLanguage(code);
        }
    });
    box->open();
}

void TaskManagerWindow::Impl::RelaunchInLanguage(const QString& code) {
    // The new start reads the file: it must hold every change before that start begins.
    if (saver->Available() && settings != savedSettings) {
        savedSettings = settings;
        if (const auto error = saver->SaveAtExit(settings)) {
            statusBar->ShowSettingsMessage(Text("Settings could not be saved: %1").arg(QString::fromStdString(*error)));
            return;
        }
    }
    if (const auto error = StartLanguageRelaunch(relaunchProgram, code)) {
        statusBar->ShowSettingsMessage(Text("Task Manager KORV could not restart: %1").arg(*error));
        return;
    }
    window.close();
}

void TaskManagerWindow::Impl::ConnectProcessesPage() {
    ProcessPageHooks hooks;
    hooks.currentSnapshot = [this] { return processesPage->CurrentSnapshot(); };
    hooks.setFollowedKey = [this](std::optional<core::ProcessKey> key) { processesPage->Model().SetFollowedKey(key); };
    hooks.expandAll = [this] { processesPage->ExpandAll(); };
    hooks.collapseAll = [this] { processesPage->CollapseAll(); };
    processActions->SetPageHooks(std::move(hooks));
    processesPage->SetContextMenuHandler([this](const QPoint& viewportPos) {
        const ProcessesPage::PointerRows pointer = processesPage->RowsAt(viewportPos);
        const ProcessMenuContext context = processActions->MenuContext(pointer.rows, pointer.exited, pointer.followed);
        processActions->ShowProcessContextMenu(processesPage->View().viewport()->mapToGlobal(viewportPos), context);
    });
    processesPage->SetDeleteHandler([this] {
        const std::vector<core::ProcessSnapshot> rows = processesPage->SelectedRows();
        if (!rows.empty()) {
            processActions->TerminateRows(rows, false);
        }
    });
    processesPage->SetActivateHandler([this](const core::ProcessKey& key, bool exited) {
        ProcessTableModel& model = processesPage->Model();
        processActions->ShowProcessDetails(key, model.RowSnapshot(model.IndexForKey(key)), exited);
    });
    QObject::connect(commandBar->FilterBox(), &QLineEdit::textChanged, &window,
                     [this](const QString& text) { processesPage->SetFilterText(text); });
    QObject::connect(commandBar->RunNewTaskButton(), &QPushButton::clicked, &window,
                     [this] { processActions->ShowRunNewTask(); });
    QObject::connect(menus.runNewTask, &QAction::triggered, &window, [this] { processActions->ShowRunNewTask(); });
}

void TaskManagerWindow::Impl::ConnectShell() {
    QObject::connect(rail, &NavigationRail::pageRequested, &window, [this](int index) { SelectStackIndex(index); });
    QObject::connect(rail->SettingsButton(), &QPushButton::clicked, &window, [this] { ShowSettings(); });
    // The Colors panel is a section of the settings.
    QObject::connect(rail->ColorsButton(), &QPushButton::clicked, &window, [this] { ShowSettings(); });
    settingsPage->Form()->SetLanguageChangedHandler([this](const QString& code) { AskToRelaunch(code); });
    QObject::connect(commandBar->HideSidebarButton(), &QToolButton::clicked, &window,
                     [this] { SetSidebarShown(rail->isHidden()); });
    QObject::connect(commandBar->RefreshButton(), &QPushButton::clicked, &window, [this] { window.RequestSample(); });
    QObject::connect(statusBar, &StatusBarWidget::linkActivated, &window, [this](const QString& target) {
        if (target == QLatin1String(kProviderDiagnosticsLink)) {
            // Provider Diagnostics is a section of the System Info page.
            SelectStackIndex(kSystemInfoStackIndex);
            systemInfoPage->ShowCategory(QStringLiteral("providers"));
        } else if (target == QLatin1String(kPerformanceNetworkLink)) {
            SelectStackIndex(kPerformanceStackIndex);
        }
    });
    QObject::connect(saver.get(), &SettingsSaver::saveFailed, statusBar, &StatusBarWidget::ShowSettingsMessage);

    QObject::connect(menus.exit, &QAction::triggered, &window, &QWidget::close);
    QObject::connect(menus.find, &QAction::triggered, &window, [this] {
        QLineEdit* filter = commandBar->FilterBox();
        filter->setFocus(Qt::ShortcutFocusReason);
        filter->selectAll();
    });
    for (QAction* action : menus.pages) {
        QObject::connect(action, &QAction::triggered, &window,
                         [this, action] { SelectStackIndex(action->data().toInt()); });
    }
    QObject::connect(menus.previousPage, &QAction::triggered, &window, [this] { StepPage(-1); });
    QObject::connect(menus.nextPage, &QAction::triggered, &window, [this] { StepPage(1); });
    QObject::connect(menus.hideSidebar, &QAction::triggered, &window,
                     [this](bool hidden) { SetSidebarShown(!hidden); });
    QObject::connect(menus.hideStatusBar, &QAction::triggered, &window,
                     [this](bool hidden) { SetStatusBarShown(!hidden, true); });
    QObject::connect(menus.fullScreen, &QAction::triggered, &window, [this](bool full) {
        if (full) {
            window.showFullScreen();
        } else {
            window.showNormal();
        }
    });
    for (QAction* action : menus.displayColors) {
        QObject::connect(action, &QAction::triggered, &window, [this, action] {
            SetDisplayMode(static_cast<DisplayModeChoice>(action->data().toInt()), true);
        });
    }
    const auto connectCombined = [this](QAction* action, const core::BoolPreference& preference) {
        QObject::connect(action, &QAction::toggled, &window,
                         [this, &preference](bool on) { SetBoolPreference(preference, on); });
    };
    connectCombined(menus.combinedDisks, core::kCombinedDisks);
    connectCombined(menus.combinedNetwork, core::kCombinedNetwork);
    connectCombined(menus.combinedGpus, core::kCombinedGpus);
    ConnectProcessesPage();
    QObject::connect(menus.about, &QAction::triggered, &window, [this] { ShowAbout(); });
}

void TaskManagerWindow::Impl::ApplyThemeAndTint() {
    SetDisplayTint(TintModeForDisplayMode(displayMode),
                   GlowStrengthFromText(QString::fromStdString(core::StringPreference(settings, "displaySaturation", "1"))));
    ApplyShellTheme(&window, theme);
    commandBar->ApplyColors(CurrentShellColors());
    statusBar->RefreshColors();
    menus.displayColors[static_cast<std::size_t>(displayMode)]->setChecked(true);
    window.update();
}

void TaskManagerWindow::Impl::SetDisplayMode(DisplayModeChoice mode, bool remember) {
    displayMode = mode;
    ApplyThemeAndTint();
    if (remember) {
        core::WriteStringPreference(settings, "displayMode", DisplayModeWord(mode).toStdString());
        SaveSettingsSoon();
    }
}

void TaskManagerWindow::Impl::SetStatusBarShown(bool shown, bool remember) {
    statusBar->setVisible(shown);
    menus.hideStatusBar->setChecked(!shown);
    if (remember) {
        core::WriteBoolPreference(settings, "statusBarVisible", shown);
        SaveSettingsSoon();
    }
}

void TaskManagerWindow::Impl::SetSidebarShown(bool shown) {
    rail->setVisible(shown);
    menus.hideSidebar->setChecked(!shown);
}

void TaskManagerWindow::Impl::ReportSettingsLoad() {
    if (!saver->Available()) {
        statusBar->ShowSettingsMessage(QString::fromUtf8(core::kSettingsPersistenceUnavailable.data(),
                                                         static_cast<qsizetype>(core::kSettingsPersistenceUnavailable.size())));
        return;
    }
    if (loadStatus == core::SettingsLoadStatus::failed) {
        const QString reason =
            loadError.empty() ? Text("unknown settings error") : QString::fromStdString(loadError);
        statusBar->ShowSettingsMessage(Text("Settings could not be loaded: %1").arg(reason));
    } else if (loadStatus == core::SettingsLoadStatus::reset && !loadError.empty()) {
        statusBar->ShowSettingsMessage(QString::fromStdString(loadError));
    }
}

void TaskManagerWindow::Impl::CreateServices(const ServicesFactory& factory) {
    try {
        services = factory ? factory() : nullptr;
    } catch (const std::exception&) {
        services.reset();
    }
}

void TaskManagerWindow::Impl::StartPlatform() {
    if (services == nullptr) {
        statusBar->ShowProviderUnavailable();
        return;
    }
    statusBar->ShowWaiting();
    SnapshotMailbox* box = mailbox.get();
    engine = std::make_unique<core::SamplingEngine>(
        services->SnapshotSource(),
        [box](std::shared_ptr<const core::SystemSnapshot> snapshot) { box->Post(std::move(snapshot)); },
        static_cast<core::Cadence>(settings.updateSpeed));
    engine->Start();
    if (settings.updateSpeed == core::UpdateSpeed::paused) {
        // A paused monitor still opens on one frozen sample rather than an empty window.
        engine->RequestSample();
    }
}

void TaskManagerWindow::Impl::StartSmokeRun() {
    SmokeHooks hooks;
    hooks.selectPage = [this](int index) { SelectStackIndex(index); };
    hooks.requestSample = [this] { window.RequestSample(); };
    hooks.selectDevice = [this](core::DeviceKind kind) { performancePage->SelectDevice(kind); };
    hooks.captureWidget = [this](CaptureScope scope) -> QWidget* {
        return scope == CaptureScope::page ? stack->currentWidget() : window.centralWidget();
    };
    hooks.exit = [](int status) { QCoreApplication::exit(status); };
    smokeRun = new SmokeRun(options, std::move(hooks), &window);
    smokeRun->Start();
}

void TaskManagerWindow::Impl::SelectStackIndex(int stackIndex) {
    if (stackIndex < 0 || stackIndex >= kStackPageCount) {
        return;
    }
    if (applying) {
        pendingStackIndex = stackIndex;
        return;
    }
    stack->setCurrentIndex(stackIndex);
    rail->SetCurrentStackIndex(stackIndex);
    // A page fed only while it can be seen shows the latest sample at once, not at the next tick.
    if (displaySnapshot != nullptr) {
        if (auto* page = qobject_cast<SnapshotPage*>(stack->widget(stackIndex))) {
            page->ApplySnapshot(displaySnapshot);
        }
    }
    menus.pages[static_cast<std::size_t>(stackIndex)]->setChecked(true);
}

void TaskManagerWindow::Impl::StepPage(int delta) {
    const int next = (stack->currentIndex() + delta + kStackPageCount) % kStackPageCount;
    SelectStackIndex(next);
}

void TaskManagerWindow::Impl::Deliver() {
    std::shared_ptr<const core::SystemSnapshot> snapshot = mailbox->TakeForDelivery();
    if (snapshot == nullptr || closing) {
        return;
    }
    currentSnapshot = snapshot;
    lastGeneration = snapshot->generation;
    SetCpuScaleFrom(snapshot);
    ApplySnapshot(displaySnapshot);
    if (refreshKeyHeld && engine != nullptr) {
        engine->RequestSample();
    }
}

void TaskManagerWindow::Impl::ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    applying = true;
    // 1. Uptime and the monotonic time. The odometer keeps counting while its page is away, so it
    // shows the right time, not a roll through every missed second, when the page opens.
    if (summaryPage != nullptr) summaryPage->Odometer()->SetUptimeSeconds(snapshot->uptimeNs / 1'000'000'000ULL);
    lastMonotonicNs = snapshot->monotonicNs;
    // 2. History behind every graph, for all pages whether they can be seen or not.
    history.Append(*snapshot);
    // 3. The popout, tray gadgets and recorders would be fed here; they work while hidden too.
    // 4. to 7. and 9.: pages, each only when it can be seen.
    FeedVisiblePages(snapshot);
    // 8. The status bar.
    statusBar->ShowSnapshot(*snapshot);
    ++deliveredCount;
    applying = false;
    // 10. A page change asked for during this delivery.
    if (pendingStackIndex >= 0) {
        const int index = std::exchange(pendingStackIndex, -1);
        SelectStackIndex(index);
    }
    ReportFirstSnapshotApplied();
    if (selfTestActive) {
        selfTestActive = false;
        std::printf("korv: self-test passed: generation %llu, %zu processes\n",
                    static_cast<unsigned long long>(snapshot->generation), snapshot->processes.size());
        std::fflush(stdout);
        QCoreApplication::exit(0);
    }
}

// The shell's pages that have no page of their own yet take no snapshot; the plan records who
// would have been fed.
ApplyPlan TaskManagerWindow::Impl::PlanNow() const {
    ApplyContext context;
    context.smokeMode = options.enabled;
    context.windowShown = window.isVisible();
    context.windowMinimized = window.isMinimized();
    context.currentStackIndex = stack->currentIndex();
    return PlanSnapshotApply(context);
}

void TaskManagerWindow::Impl::FeedVisiblePages(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    lastPlan = PlanNow();
    FeedPage(summaryPage, lastPlan.summaryAndProcesses, snapshot);
    FeedPage(processesPage, lastPlan.summaryAndProcesses, snapshot);
    FeedPage(performancePage, lastPlan.performance, snapshot);
    FeedPage(systemInfoPage, lastPlan.systemInfo, snapshot);
    FeedPage(powerFreqPage, lastPlan.powerAndFreq, snapshot);
}

void TaskManagerWindow::Impl::SaveSettingsSoon() {
    if (!saver->Available() || settings == savedSettings) {
        return;
    }
    savedSettings = settings;
    saver->Save(settings);
}

void TaskManagerWindow::Impl::RememberGeometry() {
    // A window opened by a smoke run has its size from the command line, which must not stick.
    if (!window.isVisible() || options.enabled || qApp->isSavingSession()) {
        return;
    }
    core::WriteStringPreference(settings, "mainWindowGeometry", window.saveGeometry().toBase64().toStdString());
}

void TaskManagerWindow::Impl::Teardown() {
    closing = true;
    watchdog.Arm(core::ShutdownWatchdog::CloseDeadline(core::ShutdownWatchdog::Clock::now()));
    // The popout, recorders, benchmarks and page workers would be stopped here; the smoke run's
    // timers are the only background work of the shell itself.
    delete smokeRun;
    smokeRun = nullptr;
    // The action queue and the inspectors read through the services, which go after the engine.
    if (processActions != nullptr) {
        processActions->Shutdown();
    }
    mailbox->Close();
    // Page caches would be cleared here, each under its own lock.
    if (engine != nullptr) {
        engine->RequestStop();
        engine->Join();
    }
    watchdog.Disarm();
}

void TaskManagerWindow::Impl::SaveSettingsAtExit() {
    if (!saver->Available() || settings == savedSettings) {
        return;
    }
    savedSettings = settings;
    saver->SaveAtExit(settings);
}

void TaskManagerWindow::Impl::ShowAbout() {
    QMessageBox::about(&window, Text("About Task Manager KORV"),
                       Text("<h3>Task Manager KORV</h3><p>Version %1</p>"
                            "<p>A task manager and machine monitor for the Linux desktop.</p>")
                           .arg(QCoreApplication::applicationVersion().toHtmlEscaped()));
}

TaskManagerWindow::TaskManagerWindow(SmokeOptions options, core::SettingsLoadResult settings, QWidget* parent)
    : TaskManagerWindow(std::move(options), std::move(settings), ServicesFactory(&CreateLinuxServices), parent) {}

TaskManagerWindow::TaskManagerWindow(SmokeOptions options, core::SettingsLoadResult settings, ServicesFactory factory,
                                     QWidget* parent)
    : QMainWindow(parent), impl_(std::make_unique<Impl>(*this, std::move(options), std::move(settings))) {
    Impl& d = *impl_;
    d.mailbox = std::make_unique<SnapshotMailbox>(this);
    d.saver = std::make_unique<SettingsSaver>(SettingsFileSystemPath());
    d.perCoreCpu = d.settings.perCoreCpuStatistics;
    if (ApplyApplicationFont(QString::fromStdString(d.settings.applicationFont))) {
        // This window existed before the font changed, and the toolkit only tells running windows.
        setFont(QApplication::font());
    }
    setWindowFlag(Qt::WindowStaysOnTopHint, d.settings.alwaysOnTop);
    // The pages and the process actions are lent the services, so these come first.
    d.CreateServices(factory);
    d.BuildShell();
    d.ConnectShell();

    d.theme = d.options.theme.has_value() ? static_cast<core::Theme>(*d.options.theme) : d.settings.theme;
    d.displayMode = d.options.displayMode.value_or(
        DisplayModeFromWord(QString::fromStdString(core::StringPreference(d.settings, "displayMode", "color")))
            .value_or(DisplayModeChoice::color));
    d.ApplyThemeAndTint();
    d.SetStatusBarShown(core::ReadBoolPreference(d.settings, "statusBarVisible", true), false);
    d.ReportSettingsLoad();

    const QByteArray geometry =
        QByteArray::fromBase64(QByteArray::fromStdString(core::StringPreference(d.settings, "mainWindowGeometry", "")));
    if (d.options.enabled || geometry.isEmpty() || !restoreGeometry(geometry)) {
        resize(SizeFor(d.options.windowSize.value_or(WindowSizeChoice::normal)));
    }

    const int firstPage = d.options.enabled ? StackIndexForPage(d.options.page.value_or(0))
                                            : StackIndexForDefaultPage(d.settings.defaultPage);
    d.SelectStackIndex(firstPage < 0 ? kSummaryStackIndex : firstPage);
    if (d.options.device.has_value()) {
        d.performancePage->SelectDevice(*d.options.device);
    }

    d.StartPlatform();
    if (d.options.enabled) {
        d.StartSmokeRun();
    }
}

TaskManagerWindow::~TaskManagerWindow() {
    if (impl_->closeClaim.TryClaim()) {
        impl_->Teardown();
        impl_->SaveSettingsAtExit();
    }
    impl_->engine.reset();
    impl_->services.reset();
}

void TaskManagerWindow::BeginSelfTest() {
    impl_->selfTestActive = true;
    QTimer::singleShot(kSelfTestTimeoutMs, this, [this] {
        if (!impl_->selfTestActive) {
            return;
        }
        impl_->selfTestActive = false;
        std::fprintf(stderr, "korv: self-test failed: no snapshot within %d seconds\n", kSelfTestTimeoutMs / 1000);
        QCoreApplication::exit(1);
    });
    RequestSample();
}

void TaskManagerWindow::ActivateFromAnotherInstance() {
    showNormal();
    show();
    raise();
    activateWindow();
}

void TaskManagerWindow::SetRelaunchProgram(const QString& program) {
    impl_->relaunchProgram = program;
}

void TaskManagerWindow::SelectStackIndex(int stackIndex) {
    impl_->SelectStackIndex(stackIndex);
}

int TaskManagerWindow::CurrentStackIndex() const {
    return impl_->stack->currentIndex();
}

void TaskManagerWindow::RequestSample() {
    if (impl_->engine != nullptr && !impl_->closing) {
        impl_->engine->RequestSample();
    }
}

std::shared_ptr<const core::SystemSnapshot> TaskManagerWindow::CurrentSnapshot() const {
    return impl_->currentSnapshot;
}

std::shared_ptr<const core::SystemSnapshot> TaskManagerWindow::DisplaySnapshot() const {
    return impl_->displaySnapshot;
}

double TaskManagerWindow::CpuScale() const {
    return impl_->cpuScale;
}

std::uint64_t TaskManagerWindow::LastGeneration() const {
    return impl_->lastGeneration;
}

std::uint64_t TaskManagerWindow::DeliveredSnapshotCount() const {
    return impl_->deliveredCount;
}

ApplyPlan TaskManagerWindow::LastApplyPlan() const {
    return impl_->lastPlan;
}

const HistoryStore& TaskManagerWindow::History() const {
    return impl_->history;
}

const core::Settings& TaskManagerWindow::CurrentSettings() const {
    return impl_->settings;
}

void TaskManagerWindow::changeEvent(QEvent* event) {
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::WindowStateChange && isMinimized() && impl_->settings.hideWhenMinimized &&
        !impl_->options.enabled) {
        // Out of the task bar too; a second start of the program brings the window back.
        QTimer::singleShot(0, this, [this] {
            if (isMinimized()) hide();
        });
    }
}

bool TaskManagerWindow::event(QEvent* event) {
    if (event->type() == SnapshotMailbox::DeliveryEventType()) {
        impl_->Deliver();
        return true;
    }
    return QMainWindow::event(event);
}

void TaskManagerWindow::closeEvent(QCloseEvent* event) {
    if (!impl_->closeClaim.TryClaim()) {
        QMainWindow::closeEvent(event);  // the teardown has run already
        return;
    }
    impl_->RememberGeometry();
    impl_->Teardown();
    QMainWindow::closeEvent(event);
    impl_->SaveSettingsAtExit();
}

void TaskManagerWindow::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_F5) {
        // Holding F5 samples as fast as delivery allows; the key's own repeats add nothing.
        if (!event->isAutoRepeat()) {
            impl_->refreshKeyHeld = true;
            RequestSample();
        }
        event->accept();
        return;
    }
    QMainWindow::keyPressEvent(event);
}

void TaskManagerWindow::keyReleaseEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_F5) {
        if (!event->isAutoRepeat()) {
            impl_->refreshKeyHeld = false;
        }
        event->accept();
        return;
    }
    QMainWindow::keyReleaseEvent(event);
}

}  // namespace korv::host::linux_client
