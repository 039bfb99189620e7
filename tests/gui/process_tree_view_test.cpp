#include "host/linux_client/detail_pane_widget.h"
#include "host/linux_client/process_filter_proxy_model.h"
#include "host/linux_client/process_item_delegate.h"
#include "host/linux_client/process_row.h"
#include "host/linux_client/process_table_columns.h"
#include "host/linux_client/process_table_model.h"
#include "host/linux_client/process_tree_view.h"
#include "host/linux_client/processes_page.h"
#include "host/linux_client/theme.h"
#include "tests/gui/process_snapshot_script.h"

#include <gtest/gtest.h>

#include <QAbstractItemModelTester>
#include <QApplication>
#include <QDir>
#include <QHeaderView>
#include <QImage>
#include <QMenu>
#include <QPainter>
#include <QStyleOptionViewItem>
#include <QStandardItemModel>
#include <QTest>

#include <set>

namespace korv::host::linux_client {
namespace {

using core::ProcessKey;
using test::DesktopProcesses;
using test::FindScripted;
using test::Scripted;
using test::ScriptedProcess;
using test::ScriptedSnapshot;

constexpr int kWaitMs = 5000;

// ---- the view on its own ----

class ProcessTreeViewTest : public ::testing::Test {
protected:
    ProcessTreeViewTest() : proxy_(model_) {}

    std::unique_ptr<ProcessTreeView> MakeView() {
        return std::make_unique<ProcessTreeView>(proxy_, &settings_, [this] { ++saves_; });
    }

    core::Settings settings_;
    int saves_ = 0;
    ProcessTableModel model_;
    ProcessFilterProxyModel proxy_;
};

// A cell outside the paint in progress is left alone: that is what keeps a glowing cell from
// redrawing its whole row at every frame.
TEST(ProcessItemDelegateTest, PaintsOnlyCellsThePaintReaches) {
    QStandardItemModel cells(1, 2);
    cells.setData(cells.index(0, 0), QStringLiteral("WWWWWWWW"));
    cells.setData(cells.index(0, 1), QStringLiteral("WWWWWWWW"));
    QRegion region(QRect(0, 0, 100, 20));
    ProcessItemDelegate delegate([&region]() -> const QRegion& { return region; });

    const auto paintCell = [&](int column, const QRect& rect) {
        QImage image(200, 20, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::white);
        QPainter painter(&image);
        QStyleOptionViewItem option;
        option.rect = rect;
        option.state = QStyle::State_Enabled;
        option.palette.setColor(QPalette::Text, Qt::black);
        delegate.paint(&painter, option, cells.index(0, column));
        painter.end();
        return image;
    };
    QImage blank(200, 20, QImage::Format_ARGB32_Premultiplied);
    blank.fill(Qt::white);
    EXPECT_NE(paintCell(0, QRect(0, 0, 100, 20)), blank);    // inside the paint: drawn
    EXPECT_EQ(paintCell(1, QRect(100, 0, 100, 20)), blank);  // beside it: skipped
}

TEST_F(ProcessTreeViewTest, IsSetUpForWholeRowsAndMovableSortableColumns) {
    const auto view = MakeView();
    EXPECT_EQ(view->selectionBehavior(), QAbstractItemView::SelectRows);
    EXPECT_EQ(view->selectionMode(), QAbstractItemView::ExtendedSelection);
    EXPECT_EQ(view->editTriggers(), QAbstractItemView::NoEditTriggers);
    EXPECT_TRUE(view->uniformRowHeights());
    EXPECT_FALSE(view->alternatingRowColors());
    EXPECT_TRUE(view->isSortingEnabled());
    EXPECT_TRUE(view->header()->sectionsMovable());
    EXPECT_TRUE(view->header()->isFirstSectionMovable());
    EXPECT_TRUE(view->header()->stretchLastSection());
    EXPECT_EQ(view->header()->sortIndicatorSection(), static_cast<int>(ProcessTableColumn::memory));
    EXPECT_EQ(view->header()->sortIndicatorOrder(), Qt::DescendingOrder);
}

TEST_F(ProcessTreeViewTest, ColumnsOpenAtTheirInitialWidths) {
    const auto view = MakeView();
    const int widths[] = {220, 70, 90, 100, 70, 90, 90, 90, 70, 90, 60, 60};
    for (int column = 0; column < 12; ++column) {
        EXPECT_EQ(view->header()->sectionSize(column), widths[column])
            << model_.headerData(column, Qt::Horizontal).toString().toStdString();
    }
}

TEST_F(ProcessTreeViewTest, HiddenColumnsAndWidthsComeFromTheSettings) {
    settings_.processTableHiddenColumns = {"pid", "nice", "no such column", "name"};
    settings_.processTableColumnWidths = {{"user", 150}, {"diskRead", 40}, {"no such column", 10}};
    const auto view = MakeView();
    QHeaderView* columns = view->header();
    EXPECT_TRUE(columns->isSectionHidden(1));
    EXPECT_TRUE(columns->isSectionHidden(11));
    EXPECT_FALSE(columns->isSectionHidden(0)) << "the name always stays";
    EXPECT_FALSE(columns->isSectionHidden(2));
    EXPECT_EQ(columns->sectionSize(3), 150);
    EXPECT_EQ(columns->sectionSize(6), 40);
    EXPECT_EQ(saves_, 0) << "reading the settings writes nothing";
}

TEST_F(ProcessTreeViewTest, TheHeaderMenuHidesColumnsAndResizingKeepsWidths) {
    {
        const auto view = MakeView();
        view->show();
        view->ShowHeaderMenu(QPoint(5, 5));
        QMenu* menu = view->findChild<QMenu*>();
        ASSERT_NE(menu, nullptr);
        QAction* status = nullptr;
        QAction* name = nullptr;
        for (QAction* action : menu->actions()) {
            if (action->text() == QStringLiteral("Status")) status = action;
            if (action->text() == QStringLiteral("Name")) name = action;
        }
        ASSERT_NE(status, nullptr);
        ASSERT_NE(name, nullptr);
        EXPECT_FALSE(name->isEnabled());
        EXPECT_TRUE(status->isChecked());
        status->trigger();
        EXPECT_TRUE(view->header()->isSectionHidden(2));
        EXPECT_EQ(settings_.processTableHiddenColumns, std::vector<std::string>{"status"});
        view->header()->resizeSection(4, 123);
        EXPECT_EQ(settings_.processTableColumnWidths["cpu"], 123U);
        EXPECT_EQ(settings_.processTableColumnWidths.count("status"), 0U) << "hiding is no width";
        EXPECT_GE(saves_, 2);
        menu->close();
    }
    const auto reopened = MakeView();
    EXPECT_TRUE(reopened->header()->isSectionHidden(2));
    EXPECT_EQ(reopened->header()->sectionSize(4), 123);
    reopened->SetColumnHidden(2, false);
    EXPECT_FALSE(reopened->header()->isSectionHidden(2));
    EXPECT_TRUE(settings_.processTableHiddenColumns.empty());
}

TEST_F(ProcessTreeViewTest, HeaderStateRoundTripsThroughProcessesColumnOrder) {
    {
        const auto view = MakeView();
        view->header()->resizeSection(3, 150);
        view->header()->moveSection(5, 1);
        EXPECT_EQ(saves_, 2) << "the width and the order are each kept";
        EXPECT_FALSE(core::StringPreference(settings_, "processesColumnOrder", "").empty());
    }
    const auto restored = MakeView();
    EXPECT_EQ(restored->header()->visualIndex(5), 1);
    EXPECT_EQ(restored->header()->sectionSize(3), 150);
}

TEST_F(ProcessTreeViewTest, AnUnusableHeaderStateIsIgnored) {
    for (const std::string& text : {std::string("not base64 at all!"), std::string("AAAA"),
                                    QByteArray("\xff\x00\x00\x00\x07", 5).toBase64().toStdString()}) {
        core::WriteStringPreference(settings_, "processesColumnOrder", text);
        const auto view = MakeView();
        EXPECT_FALSE(view->RestoreHeaderState()) << text;
        EXPECT_EQ(view->header()->visualIndex(5), 5) << text;
        EXPECT_EQ(view->header()->sectionSize(0), ProcessTableColumnInitialWidth(0)) << text;
        EXPECT_EQ(view->header()->count(), kProcessTableColumnCount);
    }
}

TEST_F(ProcessTreeViewTest, AStateOfAnotherColumnSetKeepsEveryColumn) {
    QStandardItemModel fiveColumns(1, 5);
    QHeaderView fewer(Qt::Horizontal);
    fewer.setModel(&fiveColumns);
    fewer.moveSection(4, 0);
    core::WriteStringPreference(settings_, "processesColumnOrder", fewer.saveState().toBase64().toStdString());
    const auto view = MakeView();
    ASSERT_EQ(view->header()->count(), kProcessTableColumnCount);
    std::set<int> shown;
    for (int visual = 0; visual < kProcessTableColumnCount; ++visual) shown.insert(view->header()->logicalIndex(visual));
    EXPECT_EQ(shown.size(), static_cast<std::size_t>(kProcessTableColumnCount));
}

// ---- the page ----

class ProcessesPageTest : public ::testing::Test {
protected:
    ProcessesPageTest() {
        settings_.visualFrameRate = 30;
        page_ = std::make_unique<ProcessesPage>(Environment());
        page_->Model().FreezeClockAt(10'000);
        page_->resize(1100, 500);
        page_->show();
    }

    PageEnvironment Environment() {
        PageEnvironment environment;
        environment.settings = &settings_;
        environment.settingsChanged = [this] { ++saves_; };
        return environment;
    }

    void Apply(std::uint64_t generation, const std::vector<ScriptedProcess>& processes) {
        page_->ApplySnapshot(ScriptedSnapshot(generation, processes));
    }
    QModelIndex ProxyRow(std::uint32_t pid, int column = 0) const {
        return page_->Proxy().mapFromSource(page_->Model().IndexForKey(ProcessKey{pid, 100}, column));
    }
    QString Cell(std::uint32_t pid, int column) const {
        return page_->Model().data(page_->Model().IndexForKey(ProcessKey{pid, 100}, column)).toString();
    }
    QString CurrentName() const {
        return page_->View().currentIndex().sibling(page_->View().currentIndex().row(), 0).data(kProcessSortRole).toString();
    }
    std::set<std::uint32_t> SelectedPids() const {
        std::set<std::uint32_t> pids;
        for (const ProcessKey& key : page_->SelectedProcessKeys()) pids.insert(key.pid);
        return pids;
    }

    core::Settings settings_;
    int saves_ = 0;
    std::unique_ptr<ProcessesPage> page_;
};

TEST_F(ProcessesPageTest, FirstSortIsByMemoryDescendingAndEveryParentStartsExpanded) {
    Apply(1, DesktopProcesses());
    const QModelIndex systemd = ProxyRow(1);
    ASSERT_EQ(page_->Proxy().rowCount(systemd), 2);
    EXPECT_EQ(page_->Proxy().index(0, 0, systemd).data(kProcessSortRole).toString(), QStringLiteral("bash"));
    EXPECT_EQ(page_->Proxy().index(1, 0, systemd).data(kProcessSortRole).toString(), QStringLiteral("cron"));
    for (std::uint32_t pid : {1U, 200U, 300U}) EXPECT_TRUE(page_->View().isExpanded(ProxyRow(pid))) << pid;
    EXPECT_TRUE(page_->AllRecordsTaken());
    EXPECT_NE(page_->CurrentSnapshot(), nullptr);
}

TEST_F(ProcessesPageTest, FoldedRowsStayFoldedThroughAPatchAndAReset) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    page_->View().collapse(ProxyRow(300));
    EXPECT_TRUE(page_->CollapsedKeys().contains(ProcessKey{300, 100}));
    EXPECT_EQ(Cell(300, 4), QStringLiteral("40.0%"));

    FindScripted(processes, 301)->cpu = 20.0;
    Apply(2, processes);
    EXPECT_FALSE(page_->View().isExpanded(ProxyRow(300)));
    EXPECT_TRUE(page_->View().isExpanded(ProxyRow(1)));

    FindScripted(processes, 400)->parentPid = 300;  // cron moves under the shell: a reset
    Apply(3, processes);
    EXPECT_FALSE(page_->View().isExpanded(ProxyRow(300)));
    EXPECT_TRUE(page_->View().isExpanded(ProxyRow(1)));
    EXPECT_TRUE(page_->View().isExpanded(ProxyRow(200)));
    EXPECT_EQ(page_->Model().data(page_->Model().IndexForKey(ProcessKey{400, 100}).parent()).toString(),
              QStringLiteral("bash"));

    page_->View().expand(ProxyRow(300));
    EXPECT_FALSE(page_->CollapsedKeys().contains(ProcessKey{300, 100}));
    EXPECT_FALSE(page_->Model().CollapsedKeys().contains(ProcessKey{300, 100}));
}

TEST_F(ProcessesPageTest, SelectionAndCurrentRowSurviveAPatchAndAReset) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    QItemSelectionModel* selection = page_->View().selectionModel();
    selection->setCurrentIndex(ProxyRow(301), QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    selection->select(ProxyRow(400), QItemSelectionModel::Select | QItemSelectionModel::Rows);
    EXPECT_EQ(SelectedPids(), (std::set<std::uint32_t>{301, 400}));

    FindScripted(processes, 301)->memory *= 3;
    Apply(2, processes);
    EXPECT_EQ(SelectedPids(), (std::set<std::uint32_t>{301, 400}));
    EXPECT_EQ(CurrentName(), QStringLiteral("gcc"));

    FindScripted(processes, 201)->parentPid = 0;  // the helper leaves firefox: a reset
    Apply(3, processes);
    EXPECT_EQ(SelectedPids(), (std::set<std::uint32_t>{301, 400}));
    EXPECT_EQ(CurrentName(), QStringLiteral("gcc"));
}

TEST_F(ProcessesPageTest, SelectionDetailsFollowTheOneSelectedProcess) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    DetailPaneWidget& details = page_->DetailPane();
    EXPECT_TRUE(details.isVisibleTo(page_.get()));
    EXPECT_FALSE(details.HasSelection());
    EXPECT_EQ(details.PlaceholderText(), QStringLiteral("Select a single entry for detail information."));
    const auto field = [&details](const char* label) {
        for (const DetailField& f : details.Fields()) {
            if (f.label == QLatin1String(label)) return f.value;
        }
        return QString();
    };

    QItemSelectionModel* selection = page_->View().selectionModel();
    selection->setCurrentIndex(ProxyRow(301), QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    ASSERT_TRUE(details.HasSelection());
    EXPECT_EQ(field("PID"), QStringLiteral("301"));
    EXPECT_EQ(field("Memory"), QStringLiteral("300.0 MB"));

    FindScripted(processes, 301)->memory = 600ULL << 20;  // the next sample refreshes the fields
    Apply(2, processes);
    EXPECT_EQ(field("Memory"), QStringLiteral("600.0 MB"));

    selection->select(ProxyRow(400), QItemSelectionModel::Select | QItemSelectionModel::Rows);
    EXPECT_FALSE(details.HasSelection()) << "two rows are no single entry";
}

TEST_F(ProcessesPageTest, ANewChildShowsUnlessItsParentWasFolded) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    processes.push_back(Scripted(700, 400, "sendmail"));
    Apply(2, processes);
    EXPECT_TRUE(page_->View().isExpanded(ProxyRow(400)));

    page_->View().collapse(ProxyRow(300));
    processes.push_back(Scripted(701, 301, "as"));
    Apply(3, processes);
    EXPECT_FALSE(page_->View().isExpanded(ProxyRow(300)));
    EXPECT_TRUE(page_->View().isExpanded(ProxyRow(301)));
}

TEST_F(ProcessesPageTest, CollapseAllAndExpandAllWorkOnlyInTreeMode) {
    Apply(1, DesktopProcesses());
    page_->CollapseAll();
    const std::set<ProcessKey> parents{ProcessKey{1, 100}, ProcessKey{200, 100}, ProcessKey{300, 100},
                                       kApplicationsHeaderKey, kBackgroundHeaderKey};
    EXPECT_EQ(page_->CollapsedKeys(), parents);
    EXPECT_EQ(page_->Model().CollapsedKeys(), parents);
    EXPECT_FALSE(page_->View().isExpanded(ProxyRow(1)));
    EXPECT_EQ(Cell(1, 4), QStringLiteral("40.5%")) << "systemd shows its whole subtree";

    page_->ExpandAll();
    EXPECT_TRUE(page_->CollapsedKeys().empty());
    EXPECT_TRUE(page_->View().isExpanded(ProxyRow(300)));
    EXPECT_EQ(Cell(1, 4), QStringLiteral("0.5%"));

    core::WriteBoolPreference(settings_, "processTreeEnabled", false);
    page_->SettingsChanged();
    EXPECT_EQ(page_->Model().rowCount(page_->Model().IndexForKey(ProcessKey{1, 100})), 0) << "flat: no process has children";
    page_->CollapseAll();
    EXPECT_TRUE(page_->CollapsedKeys().empty());
}

TEST_F(ProcessesPageTest, DeleteKeyDoubleClickAndContextMenuReachTheirHandlers) {
    Apply(1, DesktopProcesses());
    int deletes = 0;
    std::vector<std::pair<ProcessKey, bool>> activated;
    std::optional<QPoint> menuAt;
    page_->SetDeleteHandler([&] { ++deletes; });
    page_->SetActivateHandler([&](const ProcessKey& key, bool exited) { activated.emplace_back(key, exited); });
    page_->SetContextMenuHandler([&](const QPoint& position) { menuAt = position; });

    ProcessTreeView& view = page_->View();
    page_->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(page_.get(), kWaitMs));
    view.setFocus();
    ASSERT_TRUE(QTest::qWaitFor([&] { return view.hasFocus(); }, kWaitMs));
    QTest::keyClick(&view, Qt::Key_Delete);
    EXPECT_EQ(deletes, 1);

    // A real double-click: a click first, then the double-click event.
    const auto doubleClick = [&view](const QModelIndex& index) {
        QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, view.visualRect(index).center());
        QTest::mouseDClick(view.viewport(), Qt::LeftButton, {}, view.visualRect(index).center());
    };
    doubleClick(ProxyRow(301));
    ASSERT_EQ(activated.size(), 1U);
    EXPECT_EQ(activated[0].first, (ProcessKey{301, 100}));
    EXPECT_FALSE(activated[0].second);

    doubleClick(ProxyRow(300));
    EXPECT_EQ(activated.size(), 1U) << "a parent only folds";
    EXPECT_FALSE(view.isExpanded(ProxyRow(300)));

    emit view.customContextMenuRequested(QPoint(12, 34));
    EXPECT_EQ(menuAt, QPoint(12, 34));
}

TEST_F(ProcessesPageTest, TypeAheadFindsNamesStepsThroughMatchesAndForgetsAfterAPause) {
    std::int64_t now = 50'000;
    page_->View().SetTypeAheadClock([&now] { return now; });
    auto processes = DesktopProcesses();
    processes.push_back(Scripted(401, 1, "cups").Memory(1ULL << 20));
    Apply(1, processes);
    // Shown: Applications, firefox, firefox-helper, Background, systemd, bash, gcc, cron, cups.
    ProcessTreeView& view = page_->View();
    QTest::keyClick(&view, Qt::Key_C);
    EXPECT_EQ(CurrentName(), QStringLiteral("cron"));
    QTest::keyClick(&view, Qt::Key_C);
    EXPECT_EQ(CurrentName(), QStringLiteral("cups")) << "the same letter steps to the next match";
    QTest::keyClick(&view, Qt::Key_C);
    EXPECT_EQ(CurrentName(), QStringLiteral("cron")) << "and wraps around";
    QTest::keyClick(&view, Qt::Key_U);
    EXPECT_EQ(view.TypeAheadText(), QStringLiteral("cu"));
    EXPECT_EQ(CurrentName(), QStringLiteral("cups"));
    QTest::keyClick(&view, Qt::Key_Backspace);
    EXPECT_EQ(view.TypeAheadText(), QStringLiteral("c"));
    QTest::keyClick(&view, Qt::Key_A, Qt::ControlModifier);
    EXPECT_EQ(view.TypeAheadText(), QStringLiteral("c")) << "a chord is the view's own";

    now += 1300;
    QTest::keyClick(&view, Qt::Key_Space);
    EXPECT_TRUE(view.TypeAheadText().isEmpty()) << "a blank starts nothing";
    QTest::keyClicks(&view, QStringLiteral("FIRE"));
    EXPECT_EQ(CurrentName(), QStringLiteral("firefox"));
    QTest::keyClicks(&view, QStringLiteral("fox-"));
    EXPECT_EQ(CurrentName(), QStringLiteral("firefox-helper"));
    EXPECT_EQ(SelectedPids(), (std::set<std::uint32_t>{201}));
}

TEST_F(ProcessesPageTest, GlowRepaintsSingleCellsAndTheTimerStopsWhenAllIsDark) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    EXPECT_FALSE(page_->GlowTimerActive());
    FindScripted(processes, 301)->cpu = 75.0;
    processes.push_back(Scripted(500, 300, "make").Cpu(1.0));
    Apply(2, processes);
    EXPECT_TRUE(page_->GlowTimerActive());
    EXPECT_EQ(page_->RunGlowTick().cells, 0) << "the refresh's own layout repaints everything";
    ASSERT_TRUE(QTest::qWaitFor([this] { return !page_->View().LayoutPending(); }, kWaitMs));

    const ProcessesPage::GlowRepaint repaint = page_->RunGlowTick();
    EXPECT_EQ(repaint.cells, 3) << "gcc's CPU, and both cells of make";
    EXPECT_EQ(repaint.rows, 0);
    const QHeaderView* header = page_->View().header();
    for (const QRect& rect : repaint.rects) {
        const bool cpu = rect.width() == header->sectionSize(4) && rect.left() == header->sectionViewportPosition(4);
        const bool memory = rect.width() == header->sectionSize(5) && rect.left() == header->sectionViewportPosition(5);
        EXPECT_TRUE(cpu || memory) << rect.x() << "," << rect.width();
        EXPECT_EQ(rect.height(), page_->View().visualRect(ProxyRow(301)).height());
    }

    // A frame in which no shade changed paints nothing.
    page_->Model().FreezeClock();
    page_->RunGlowTick();
    EXPECT_EQ(page_->RunGlowTick().cells, 0) << "the same shades again";

    page_->Model().FreezeClockAt(11'400);
    EXPECT_TRUE(QTest::qWaitFor([this] { return !page_->GlowTimerActive(); }, kWaitMs));
    EXPECT_FALSE(page_->Model().AnyGlowActive());
}

TEST_F(ProcessesPageTest, NoAnimationRunsAtAFrameRateOfZero) {
    settings_.visualFrameRate = 0;
    page_->SettingsChanged();
    auto processes = DesktopProcesses();
    Apply(1, processes);
    FindScripted(processes, 301)->cpu = 75.0;
    Apply(2, processes);
    EXPECT_TRUE(page_->Model().AnyGlowActive());
    EXPECT_FALSE(page_->GlowTimerActive());
}

TEST_F(ProcessesPageTest, AVanishedProcessStaysAsAnExitedRowWhileShown) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    std::erase_if(processes, [](const ScriptedProcess& p) { return p.pid == 400; });
    Apply(2, processes);
    EXPECT_TRUE(page_->Model().RowIsExited(ProcessKey{400, 100}));
    EXPECT_EQ(Cell(400, static_cast<int>(ProcessTableColumn::status)), QStringLiteral("Exited"));
    ASSERT_TRUE(QTest::qWaitFor([this] { return !page_->View().LayoutPending(); }, kWaitMs));
    EXPECT_EQ(page_->RunGlowTick().rows, 1);

    page_->ApplySnapshot(ScriptedSnapshot(9, processes, 8000));
    EXPECT_FALSE(page_->Model().IndexForKey(ProcessKey{400, 100}).isValid()) << "gone after five seconds";

    core::WriteBoolPreference(settings_, "showExitedProcesses", false);
    page_->SettingsChanged();
    std::erase_if(processes, [](const ScriptedProcess& p) { return p.pid == 301; });
    page_->ApplySnapshot(ScriptedSnapshot(10, processes, 9000));
    EXPECT_FALSE(page_->Model().IndexForKey(ProcessKey{301, 100}).isValid());
}

TEST_F(ProcessesPageTest, FollowingSelectsTheRowAndEndsWithTheProcess) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    page_->Model().SetFollowedKey(ProcessKey{400, 100});
    page_->SetFilterText(QStringLiteral("gcc"));
    Apply(2, processes);
    EXPECT_EQ(CurrentName(), QStringLiteral("cron"));
    EXPECT_EQ(SelectedPids(), (std::set<std::uint32_t>{400}));
    EXPECT_EQ(Cell(400, 0), QStringLiteral("\u2691 cron"));

    std::erase_if(processes, [](const ScriptedProcess& p) { return p.pid == 400; });
    Apply(3, processes);
    EXPECT_FALSE(page_->Model().FollowedKey().has_value());
    EXPECT_EQ(Cell(400, 0), QStringLiteral("cron")) << "the exited row loses its flag";
}

TEST_F(ProcessesPageTest, TheFilterBoxFiltersAndSortsAtOnce) {
    Apply(1, DesktopProcesses());
    page_->SetFilterText(QStringLiteral("fire"));
    EXPECT_EQ(page_->Proxy().rowCount(), 1);
    page_->SetFilterText(QString());
    EXPECT_EQ(page_->Proxy().rowCount(), 2);
}

TEST_F(ProcessesPageTest, TheModelStaysConsistentThroughARunOfScriptedSamples) {
    QAbstractItemModelTester tester(&page_->Proxy(), QAbstractItemModelTester::FailureReportingMode::Fatal);
    auto processes = DesktopProcesses();
    page_->SetFilterText(QStringLiteral("a"));
    for (std::uint64_t generation = 1; generation <= 12; ++generation) {
        if (generation % 3 == 0) processes.push_back(Scripted(static_cast<std::uint32_t>(800 + generation), 300, "task"));
        if (generation % 4 == 0) std::erase_if(processes, [generation](const ScriptedProcess& p) {
            return p.pid == 800 + generation - 1 || p.pid == 800 + generation - 3;
        });
        if (generation == 7) FindScripted(processes, 301)->parentPid = 1;
        for (ScriptedProcess& process : processes) process.cpu = static_cast<double>((process.pid + generation) % 7);
        page_->ApplySnapshot(ScriptedSnapshot(generation, processes));
    }
    EXPECT_TRUE(page_->AllRecordsTaken());
}

// What a person sees: the glowing cell is green, the exited row is washed red, in both themes.
TEST_F(ProcessesPageTest, RendersTheGlowAndTheWashInBothThemes) {
    const QPalette original = QApplication::palette();
    for (const bool dark : {false, true}) {
        QApplication::setPalette(ShellPalette(ShellColorsFor(dark)));
        auto page = std::make_unique<ProcessesPage>(Environment());
        page->Model().FreezeClockAt(10'000);
        page->resize(1100, 360);
        page->show();
        auto processes = DesktopProcesses();
        page->ApplySnapshot(ScriptedSnapshot(1, processes));
        FindScripted(processes, 301)->cpu = 75.0;
        std::erase_if(processes, [](const ScriptedProcess& p) { return p.pid == 400; });
        page->ApplySnapshot(ScriptedSnapshot(2, processes));
        page->Model().FreezeClockAt(10'300);
        QApplication::processEvents();
        const QImage image = page->grab().toImage();
        if (const QString folder = qEnvironmentVariable("KORV_PROCESS_PAGE_SHOTS"); !folder.isEmpty()) {
            image.save(QDir(folder).filePath(dark ? "processes-dark.png" : "processes-light.png"));
        }

        ProcessTreeView& view = page->View();
        const QPoint origin = view.viewport()->mapTo(page.get(), QPoint(0, 0));
        const QModelIndex gccCpu = page->Proxy().mapFromSource(page->Model().IndexForKey(ProcessKey{301, 100}, 4));
        const QModelIndex cronName = page->Proxy().mapFromSource(page->Model().IndexForKey(ProcessKey{400, 100}, 2));
        const QModelIndex bashCpu = page->Proxy().mapFromSource(page->Model().IndexForKey(ProcessKey{300, 100}, 4));
        // Points left of the right-aligned numbers and right of the status word: no text there.
        const QColor glow = image.pixelColor(origin + view.visualRect(gccCpu).topLeft() + QPoint(4, 3));
        const QColor plain = image.pixelColor(origin + view.visualRect(bashCpu).topLeft() + QPoint(4, 3));
        const QColor wash = image.pixelColor(origin + view.visualRect(cronName).topRight() + QPoint(-4, 3));
        EXPECT_GT(glow.green(), glow.red() + 20) << (dark ? "dark" : "light");
        EXPECT_NE(glow, plain);
        EXPECT_GT(wash.red(), wash.green() + 20) << (dark ? "dark" : "light");

        // Filtered down to the compiler, which is followed: its ancestors and header stay.
        page->Model().SetFollowedKey(ProcessKey{301, 100});
        page->SetFilterText(QStringLiteral("gcc"));
        QApplication::processEvents();
        if (const QString folder = qEnvironmentVariable("KORV_PROCESS_PAGE_SHOTS"); !folder.isEmpty()) {
            page->grab().save(QDir(folder).filePath(dark ? "processes-filtered-dark.png" : "processes-filtered-light.png"));
        }
        EXPECT_EQ(page->Proxy().rowCount(), 1);
    }
    QApplication::setPalette(original);
}

}  // namespace
}  // namespace korv::host::linux_client
