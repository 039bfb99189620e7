#include "host/linux_client/process_filter_proxy_model.h"
#include "host/linux_client/process_row.h"
#include "host/linux_client/process_table_columns.h"
#include "host/linux_client/process_table_model.h"
#include "tests/gui/process_snapshot_script.h"

#include <gtest/gtest.h>

#include <QAbstractItemModelTester>
#include <QSortFilterProxyModel>

#include <random>
#include <string>
#include <vector>

namespace korv::host::linux_client {
namespace {

using core::ProcessKey;
using test::DesktopProcesses;
using test::FindScripted;
using test::Scripted;
using test::ScriptedProcess;
using test::ScriptedSnapshot;

class ProcessFilterProxyTest : public ::testing::Test {
protected:
    ProcessFilterProxyTest()
        : proxy_(model_), tester_(&proxy_, QAbstractItemModelTester::FailureReportingMode::Fatal) {}

    void Apply(std::uint64_t generation, const std::vector<ScriptedProcess>& processes) {
        model_.ApplySnapshot(ScriptedSnapshot(generation, processes));
    }

    // The names of every row the proxy shows, depth first, in its order.
    QStringList VisibleNames(const QModelIndex& parent = QModelIndex()) const {
        QStringList names;
        for (int row = 0; row < proxy_.rowCount(parent); ++row) {
            const QModelIndex index = proxy_.index(row, 0, parent);
            names << proxy_.data(index, kProcessSortRole).toString();
            if (model_.IsGroupHeader(proxy_.mapToSource(index))) names.last() = proxy_.data(index).toString();
            names << VisibleNames(index);
        }
        return names;
    }

    ProcessTableModel model_;
    ProcessFilterProxyModel proxy_;
    QAbstractItemModelTester tester_;
};

TEST_F(ProcessFilterProxyTest, IsSetUpToSortOnlyWhenAskedAndToFilterRecursively) {
    EXPECT_EQ(proxy_.sourceModel(), &model_);
    EXPECT_EQ(proxy_.sortRole(), kProcessSortRole);
    EXPECT_EQ(proxy_.sortCaseSensitivity(), Qt::CaseInsensitive);
    EXPECT_FALSE(proxy_.dynamicSortFilter());
    EXPECT_TRUE(proxy_.isRecursiveFilteringEnabled());
}

TEST_F(ProcessFilterProxyTest, AFilterMatchingOnlyAChildKeepsItsAncestorsAndTheHeader) {
    Apply(1, DesktopProcesses());
    proxy_.SetFilterText(QStringLiteral("gcc"));
    EXPECT_EQ(VisibleNames(), (QStringList{QStringLiteral("Background processes (4)"), QStringLiteral("systemd"),
                                           QStringLiteral("bash"), QStringLiteral("gcc")}));
}

struct FilterCase {
    const char* name;
    const char* text;
    std::vector<const char*> shown;  // process rows, depth first
};

class ProcessFilterMatches : public ProcessFilterProxyTest, public ::testing::WithParamInterface<FilterCase> {};

TEST_P(ProcessFilterMatches, SearchNameUserPathAndPidIgnoringCase) {
    Apply(1, DesktopProcesses());
    proxy_.SetFilterText(QString::fromUtf8(GetParam().text));
    QStringList processes;
    for (const QString& name : VisibleNames()) {
        if (!name.contains(QLatin1Char('('))) processes << name;
    }
    QStringList expected;
    for (const char* name : GetParam().shown) expected << QString::fromUtf8(name);
    EXPECT_EQ(processes, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ProcessFilterMatches,
    ::testing::Values(FilterCase{"empty", "", {"firefox", "firefox-helper", "systemd", "bash", "gcc", "cron"}},
                      FilterCase{"nameIgnoringCase", "FIREFOX", {"firefox", "firefox-helper"}},
                      FilterCase{"user", "root", {"systemd", "cron"}},
                      FilterCase{"pid", "301", {"systemd", "bash", "gcc"}},
                      FilterCase{"path", "/usr/bin/cr", {"systemd", "cron"}},
                      FilterCase{"trimmed", "  helper  ", {"firefox", "firefox-helper"}},
                      FilterCase{"headerWordsMatchNothing", "Background", {}},
                      FilterCase{"nothing", "no such process", {}}),
    [](const auto& testInfo) { return std::string(testInfo.param.name); });

// The Command column shows the command line, so that an argument finds its process; a process whose
// command line could not be read shows its executable, and a kernel thread shows nothing.
TEST_F(ProcessFilterProxyTest, TheCommandColumnShowsTheArgumentsThatTheFilterFinds) {
    const auto apply = [this](std::uint64_t generation, const char* pythonCommand) {
        auto snapshot = ScriptedSnapshot(generation, {Scripted(10, 0, "python3"), Scripted(11, 0, "cron"),
                                                      Scripted(12, 0, "kworker/0:1")});
        snapshot->processes[0].commandLine = pythonCommand;
        snapshot->processes[2].executablePath.clear();
        model_.ApplySnapshot(snapshot);
    };
    apply(1, "/usr/bin/python3 -m http.server 8080");
    const int command = static_cast<int>(ProcessTableColumn::command);
    const auto shown = [&](std::uint32_t pid) { return model_.IndexForKey({pid, 100}, command).data().toString(); };
    EXPECT_EQ(shown(10), QStringLiteral("/usr/bin/python3 -m http.server 8080"));
    EXPECT_EQ(shown(11), QStringLiteral("/usr/bin/cron"));
    EXPECT_EQ(shown(12), QString());

    proxy_.SetFilterText(QStringLiteral("HTTP.SERVER"));
    EXPECT_EQ(VisibleNames(), (QStringList{QStringLiteral("Background processes (3)"), QStringLiteral("python3")}));
    proxy_.SetFilterText(QStringLiteral("/usr/bin/python3"));
    EXPECT_EQ(VisibleNames(), (QStringList{QStringLiteral("Background processes (3)"), QStringLiteral("python3")}))
        << "the executable path is searched too";

    apply(2, "/usr/bin/python3 -m pydoc -p 8000");
    EXPECT_EQ(shown(10), QStringLiteral("/usr/bin/python3 -m pydoc -p 8000")) << "a new command line of the same key";
    proxy_.SetFilterText(QStringLiteral("pydoc"));
    EXPECT_EQ(VisibleNames(), (QStringList{QStringLiteral("Background processes (3)"), QStringLiteral("python3")}));
}

TEST_F(ProcessFilterProxyTest, TheFollowedRowShowsWhateverTheFilterSays) {
    Apply(1, DesktopProcesses());
    proxy_.SetFilterText(QStringLiteral("gcc"));
    model_.SetFollowedKey(ProcessKey{400, 100});
    EXPECT_TRUE(VisibleNames().contains(QStringLiteral("cron")));
    model_.SetFollowedKey(std::nullopt);
    EXPECT_FALSE(VisibleNames().contains(QStringLiteral("cron")));
}

TEST_F(ProcessFilterProxyTest, TheSameTextChangesNothingButAnotherCaseFiltersAgain) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    proxy_.SetFilterText(QStringLiteral(" GCC"));
    EXPECT_EQ(proxy_.FilterText(), QStringLiteral("GCC"));
    // Renamed behind the filter's back: the proxy filters only when asked.
    FindScripted(processes, 301)->name = "ld";
    Apply(2, processes);
    proxy_.SetFilterText(QStringLiteral("GCC "));
    EXPECT_TRUE(VisibleNames().contains(QStringLiteral("ld"))) << "the same text does not filter again";
    proxy_.SetFilterText(QStringLiteral("gcc"));
    EXPECT_FALSE(VisibleNames().contains(QStringLiteral("ld")));
    proxy_.RefreshFilter();
    EXPECT_TRUE(VisibleNames().isEmpty());
}

TEST_F(ProcessFilterProxyTest, SortingEitherWayNeverSwapsTheHeaders) {
    Apply(1, DesktopProcesses());
    for (int column = 0; column < kProcessTableColumnCount; ++column) {
        for (const Qt::SortOrder order : {Qt::AscendingOrder, Qt::DescendingOrder}) {
            proxy_.sort(column, order);
            ASSERT_EQ(proxy_.rowCount(), 2);
            EXPECT_EQ(proxy_.mapToSource(proxy_.index(0, 0)), model_.IndexForKey(kApplicationsHeaderKey))
                << "column " << column << " order " << order;
        }
    }
}

// A table whose every column holds ties, missing values and mixed case, in flat mode so that one
// parent has many children.
std::vector<ScriptedProcess> VariedProcesses() {
    std::mt19937 random(7);
    const std::vector<std::string> names{"alpha", "Alpha", "beta", "BETA", "gamma", "delta", "Epsilon", "zeta"};
    const std::vector<std::string> users{"root", "alice", "Bob", "bob", ""};
    std::vector<ScriptedProcess> processes;
    for (std::uint32_t pid = 10; pid < 130; ++pid) {
        ScriptedProcess process;
        process.pid = pid;
        process.name = names[random() % names.size()];
        process.user = users[random() % users.size()];
        process.cpu = static_cast<double>(random() % 5) * 2.5;
        process.memory = static_cast<std::uint64_t>(random() % 4) << 20;
        process.group = random() % 3 == 0 ? core::ProcessGroup::apps : core::ProcessGroup::background;
        processes.push_back(process);
    }
    return processes;
}

TEST_F(ProcessFilterProxyTest, TheTypedComparisonOrdersLikeTheSortRoleValues) {
    model_.SetRollUpEnabled(false);
    auto snapshot = ScriptedSnapshot(1, VariedProcesses());
    std::mt19937 random(11);
    for (core::ProcessSnapshot& process : snapshot->processes) {
        // Missing figures of several kinds, and a kernel thread without a path.
        switch (random() % 6) {
        case 0:
            process.cpuPercent.MarkMissing(core::MetricAvailability::accessDenied);
            process.handleCount.MarkMissing(core::MetricAvailability::accessDenied);
            break;
        case 1:
            process.workingSetBytes.MarkMissing(core::MetricAvailability::transientError);
            process.nice.MarkMissing(core::MetricAvailability::unsupported);
            break;
        case 2:
            process.executablePath.clear();
            process.readBytesPerSecond.Set(static_cast<double>(random() % 3) * 1000.0);
            break;
        case 3:
            process.state = core::ProcessState::running;
            process.virtualBytes.MarkMissing(core::MetricAvailability::notYetAvailable);
            break;
        default:
            process.writeBytesPerSecond.Set(static_cast<double>(random() % 3));
            process.threadCount.Set(random() % 4);
            break;
        }
    }
    model_.ApplySnapshot(snapshot);

    const auto keysUnderHeaders = [this](const QSortFilterProxyModel& sorted) {
        std::vector<ProcessKey> keys;
        for (int header = 0; header < sorted.rowCount(); ++header) {
            const QModelIndex parent = sorted.index(header, 0);
            for (int row = 0; row < sorted.rowCount(parent); ++row) {
                keys.push_back(*model_.KeyForIndex(sorted.mapToSource(sorted.index(row, 0, parent))));
            }
        }
        return keys;
    };
    for (bool percent : {false, true}) {
        model_.SetShowMemoryPercent(percent);
        // Both start from the model's order, and both sort stably: ties must come out alike too.
        ProcessFilterProxyModel typed(model_);
        QSortFilterProxyModel reference;
        reference.setSourceModel(&model_);
        reference.setSortRole(kProcessSortRole);
        reference.setSortCaseSensitivity(Qt::CaseInsensitive);
        reference.setDynamicSortFilter(false);
        for (int column = 0; column < kProcessTableColumnCount; ++column) {
            for (const Qt::SortOrder order : {Qt::AscendingOrder, Qt::DescendingOrder}) {
                typed.sort(column, order);
                reference.sort(column, order);
                // The reference may place the headers either way; the rows under each must agree.
                const std::vector<ProcessKey> expected = keysUnderHeaders(reference);
                std::vector<ProcessKey> actual = keysUnderHeaders(typed);
                if (model_.GroupOrder(reference.mapToSource(reference.index(0, 0))) != 0) {
                    ASSERT_EQ(order, Qt::DescendingOrder);
                    const auto applications = static_cast<std::ptrdiff_t>(typed.rowCount(typed.index(0, 0)));
                    std::rotate(actual.begin(), actual.begin() + applications, actual.end());
                }
                EXPECT_EQ(actual, expected) << "column " << column << " order " << order << " percent " << percent;
            }
        }
    }
}

}  // namespace
}  // namespace korv::host::linux_client
