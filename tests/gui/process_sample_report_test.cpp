#include "host/linux_client/process_sample_report.h"
#include "process_test_child.h"
#include "providers/bounded_read.h"
#include "tests/core/temp_folder_test_base.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QRegularExpression>
#include <QString>
#include <QTest>
#include <QStringList>

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <pthread.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>
#include <sstream>

namespace korv::host::linux_client {
namespace {

namespace fs = std::filesystem;

constexpr char kClosingLineFormat[] =
    "(Threads listed: %1 of %2. The rest had unreadable stacks, or the report reached its collection limit.)";
constexpr char kStacksNotReadable[] =
    "Not readable: per-thread kernel stacks are root-only on most systems. Run KORV as root to capture them.";
constexpr char kSmapsNotReadable[] =
    "Not readable: summarizing another user's memory mappings needs ptrace access. Run KORV as that user or as root.";

std::string ReadWhole(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void Write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

std::string Trimmed(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

QStringList Lines(const std::string& text) {
    return QString::fromStdString(text).split(QLatin1Char('\n'));
}

int CountThreadLines(const QStringList& lines) {
    return static_cast<int>(lines.filter(QRegularExpression(QStringLiteral("^Thread \\d+ \\(.*\\):$"))).size());
}

class ProcessSampleReportTest : public core::TempFolderTest {
protected:
    ProcessSampleReportTest() : TempFolderTest("sample-report") {}

    // A process below `proc` with `threads` threads numbered from 900, each with a stack of the
    // given size (none when 0), and no readable memory summary.
    core::ProcessKey MakeFixture(const fs::path& proc, int threads, std::size_t stackBytes) {
        const core::ProcessKey key{4321, 777};
        const fs::path root = proc / "4321";
        Write(root / "stat", "4321 (fake) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 " + std::to_string(threads) +
                                 " 0 777 1000 10\n");
        Write(root / "comm", "fake\n");
        Write(root / "cmdline", std::string("fake\0--flag\0value\0", 18));
        Write(root / "status", "Name:\tfake\nState:\tS (sleeping)\n");
        fs::create_directories(root / "task");
        const std::string stack = stackBytes == 0 ? std::string() : std::string(stackBytes - 1, 's') + "\n";
        for (int i = 0; i < threads; ++i) {
            // Thousands of entries: plain system calls keep the set-up short.
            const std::string task = (root / "task" / std::to_string(900 + i)).string();
            EXPECT_EQ(::mkdir(task.c_str(), 0755), 0);
            WriteFast(task + "/comm", "worker-" + std::to_string(i) + "\n");
            if (stackBytes != 0) WriteFast(task + "/stack", stack);
        }
        return key;
    }

    static void WriteFast(const std::string& path, const std::string& text) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0) << path;
        EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        ::close(fd);
    }
};

TEST_F(ProcessSampleReportTest, ARealChildsReportHasEveryPartInOrder) {
    test::TestChild child;
    ASSERT_TRUE(child.Started());
    const core::ProcessKey key = child.Key();
    const std::string proc = "/proc/" + std::to_string(key.pid);

    const SampleReportResult result = CreateProcessSample("/proc", key, dir, {});
    ASSERT_EQ(result.status, SampleReportStatus::written) << result.error;
    EXPECT_EQ(result.path, dir / ("TaskManager-" + std::to_string(key.pid) + "-" + std::to_string(key.startTime) +
                                  "-sample.txt"));
    EXPECT_EQ(Names().size(), 1u) << "no temporary file is left beside the report";
    EXPECT_EQ(SampleReportMessage(result),
              QStringLiteral("The file was written to:\n") + QString::fromStdString(result.path.string()));

    const std::string report = ReadWhole(result.path);
    const QStringList lines = Lines(report);
    ASSERT_GT(lines.size(), 8);
    EXPECT_EQ(lines[0], QStringLiteral("KORV process sample"));
    const std::string comm = Trimmed(providers::ReadFileBounded(proc + "/comm", 4096).text);
    EXPECT_EQ(lines[1].toStdString(), "Process: " + comm + " (" + std::to_string(key.pid) + ")");
    ASSERT_TRUE(lines[2].startsWith(QStringLiteral("Collected: ")));
    EXPECT_TRUE(QDateTime::fromString(lines[2].mid(11), Qt::ISODate).isValid()) << lines[2].toStdString();
    std::string arguments = providers::ReadFileBounded(proc + "/cmdline", 1 << 20).text;
    while (!arguments.empty() && arguments.back() == '\0') arguments.pop_back();
    std::replace(arguments.begin(), arguments.end(), '\0', ' ');
    EXPECT_EQ(lines[3].toStdString(), "Command line: " + arguments);
    EXPECT_EQ(lines[4], QString());
    EXPECT_EQ(lines[5].toStdString(), "Name:\t" + comm);
    EXPECT_TRUE(lines.contains(QStringLiteral("Pid:\t%1").arg(key.pid)));

    const bool smapsReadable = providers::ReadFileBounded(proc + "/smaps_rollup", 65536).Ok();
    EXPECT_EQ(report.find(kSmapsNotReadable) == std::string::npos, smapsReadable);
    if (smapsReadable) {
        EXPECT_NE(report.find("\nRss:"), std::string::npos);
    }

    const bool stackReadable =
        providers::ReadFileBounded(proc + "/task/" + std::to_string(key.pid) + "/stack", 65536).Ok();
    if (stackReadable) {
        EXPECT_TRUE(lines.contains(QStringLiteral("Thread %1 (%2):").arg(key.pid).arg(QString::fromStdString(comm))));
        EXPECT_EQ(report.find("(Threads listed:"), std::string::npos) << "the only thread was listed";
    } else {
        EXPECT_TRUE(lines.contains(QString::fromLatin1(kStacksNotReadable)));
    }
}

class SampleExitStepTest : public ProcessSampleReportTest, public ::testing::WithParamInterface<int> {};

TEST_P(SampleExitStepTest, AProcessThatExitsDuringCollectionLeavesNoFile) {
    test::TestChild child;
    ASSERT_TRUE(child.Started());
    int steps = 0;
    const SampleReportResult result = CreateProcessSample("/proc", child.Key(), dir, {}, [&] {
        if (++steps == GetParam()) child.KillAndReap();
    });
    EXPECT_GE(steps, GetParam());
    EXPECT_EQ(result.status, SampleReportStatus::exited);
    EXPECT_TRUE(Names().empty());
    EXPECT_EQ(SampleReportMessage(result), QStringLiteral("That process has exited or its process ID was reused."));
}

INSTANTIATE_TEST_SUITE_P(AfterEachStep, SampleExitStepTest, ::testing::Values(1, 2, 3, 4));

TEST_F(ProcessSampleReportTest, AStopOrAnotherStartTimeLeavesNoFile) {
    test::TestChild child;
    ASSERT_TRUE(child.Started());

    std::stop_source stop;
    const SampleReportResult stopped =
        CreateProcessSample("/proc", child.Key(), dir, stop.get_token(), [&] { stop.request_stop(); });
    EXPECT_EQ(stopped.status, SampleReportStatus::stopped);
    EXPECT_TRUE(SampleReportMessage(stopped).isEmpty()) << "a cancelled sample says nothing";

    core::ProcessKey reused = child.Key();
    reused.startTime += 1;
    EXPECT_EQ(CreateProcessSample("/proc", reused, dir, {}).status, SampleReportStatus::exited);
    EXPECT_TRUE(Names().empty());
}

TEST_F(ProcessSampleReportTest, AFailedWriteSaysWhere) {
    test::TestChild child;
    ASSERT_TRUE(child.Started());
    const fs::path missing = dir / "missing" / "deeper";
    const SampleReportResult result = CreateProcessSample("/proc", child.Key(), missing, {});
    EXPECT_EQ(result.status, SampleReportStatus::writeFailed);
    EXPECT_FALSE(result.error.empty());
    EXPECT_EQ(SampleReportMessage(result), QStringLiteral("The sample report could not be written to %1.")
                                               .arg(QString::fromStdString(result.path.string())));
    EXPECT_TRUE(Names().empty());
}

void* ParkThread(void*) {
    for (;;) ::pause();
    return nullptr;
}

TEST_F(ProcessSampleReportTest, AtMost4096ThreadsAreListedInThreadIdOrder) {
    constexpr int kExtraThreads = 4200;
    test::TestChild child([] {
        pthread_attr_t attributes;
        ::pthread_attr_init(&attributes);
        ::pthread_attr_setstacksize(&attributes, PTHREAD_STACK_MIN);
        for (int i = 0; i < kExtraThreads; ++i) {
            pthread_t thread;
            if (::pthread_create(&thread, &attributes, ParkThread, nullptr) != 0) ::_exit(3);
        }
    });
    ASSERT_TRUE(child.Started());
    const std::string task = "/proc/" + std::to_string(child.Pid()) + "/task";
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            std::error_code error;
            const auto entries = fs::directory_iterator(task, error);
            return !error && std::distance(fs::begin(entries), fs::end(entries)) == kExtraThreads + 1;
        },
        30000))
        << "the child did not start its threads";
    const core::ProcessKey key = child.Key();

    const ProcessSampleText sample = CollectProcessSample("/proc", key, {});
    ASSERT_EQ(sample.status, SampleCollectStatus::collected);
    const QStringList lines = Lines(sample.text);
    const std::string mainStack = task + "/" + std::to_string(key.pid) + "/stack";
    if (!providers::ReadFileBounded(mainStack, 65536).Ok()) {
        EXPECT_EQ(CountThreadLines(lines), 0);
        EXPECT_TRUE(lines.contains(QString::fromLatin1(kStacksNotReadable)));
        GTEST_SKIP() << "kernel stacks are not readable here, so the thread limit cannot show";
    }
    EXPECT_EQ(CountThreadLines(lines), static_cast<int>(kSampleReportMaxThreads));
    EXPECT_TRUE(lines.contains(QString::fromLatin1(kClosingLineFormat).arg(4096).arg(kExtraThreads + 1)));
    // The lowest 4,096 thread ids, in order. Ids wrap at pid_max, so the main thread is not
    // always the lowest one.
    std::vector<std::uint32_t> tids;
    for (const QString& line : lines.filter(QRegularExpression(QStringLiteral("^Thread \\d+ ")))) {
        tids.push_back(line.section(QLatin1Char(' '), 1, 1).toUInt());
    }
    std::vector<std::uint32_t> expected;
    for (const auto& entry : fs::directory_iterator(task)) {
        expected.push_back(static_cast<std::uint32_t>(std::stoul(entry.path().filename().string())));
    }
    std::sort(expected.begin(), expected.end());
    expected.resize(kSampleReportMaxThreads);
    EXPECT_EQ(tids, expected);
}

TEST_F(ProcessSampleReportTest, AFixtureProcessReadsThroughTheGivenRoot) {
    const core::ProcessKey key = MakeFixture(dir / "proc", 120, 64);
    const ProcessSampleText sample = CollectProcessSample(dir / "proc", key, {});
    ASSERT_EQ(sample.status, SampleCollectStatus::collected);
    const QStringList lines = Lines(sample.text);
    EXPECT_EQ(lines[1], QStringLiteral("Process: fake (4321)"));
    EXPECT_EQ(lines[3], QStringLiteral("Command line: fake --flag value"));
    EXPECT_TRUE(lines.contains(QString::fromLatin1(kSmapsNotReadable)));
    EXPECT_EQ(CountThreadLines(lines), 120);
    // Numeric order: 900 ... 999 come before 1000.
    const qsizetype first = lines.indexOf(QStringLiteral("Thread 900 (worker-0):"));
    ASSERT_GE(first, 0);
    EXPECT_EQ(lines[first + 2], QStringLiteral("Thread 901 (worker-1):"));
    EXPECT_LT(lines.indexOf(QStringLiteral("Thread 999 (worker-99):")),
              lines.indexOf(QStringLiteral("Thread 1000 (worker-100):")));
    EXPECT_EQ(sample.text.find("(Threads listed:"), std::string::npos) << "every thread was listed";
}

TEST_F(ProcessSampleReportTest, CollectionStopsBeforeFourMebibytes) {
    constexpr std::size_t kStackBytes = 16000;
    const core::ProcessKey key = MakeFixture(dir / "proc", 300, kStackBytes);
    const ProcessSampleText sample = CollectProcessSample(dir / "proc", key, {});
    ASSERT_EQ(sample.status, SampleCollectStatus::collected);
    const QStringList lines = Lines(sample.text);
    const int listed = CountThreadLines(lines);
    ASSERT_GT(listed, 0);
    ASSERT_LT(listed, 300);

    const std::string closing =
        QString::fromLatin1(kClosingLineFormat).arg(listed).arg(300).toStdString() + "\n";
    ASSERT_TRUE(sample.text.ends_with(closing));
    EXPECT_LE(sample.text.size(), kSampleReportMaxBytes);
    // The next thread's piece, with the margin, would not have fitted.
    const std::string next = "Thread " + std::to_string(900 + listed) + " (worker-" + std::to_string(listed) + "):\n";
    EXPECT_GT(sample.text.size() - closing.size() + next.size() + kStackBytes + kSampleReportPieceMargin,
              kSampleReportMaxBytes);
}

TEST_F(ProcessSampleReportTest, NoReadableStackSaysWhy) {
    const core::ProcessKey key = MakeFixture(dir / "proc", 3, 0);
    const ProcessSampleText sample = CollectProcessSample(dir / "proc", key, {});
    ASSERT_EQ(sample.status, SampleCollectStatus::collected);
    const QStringList lines = Lines(sample.text);
    EXPECT_EQ(CountThreadLines(lines), 0);
    EXPECT_TRUE(lines.contains(QString::fromLatin1(kStacksNotReadable)));
    EXPECT_EQ(sample.text.find("(Threads listed:"), std::string::npos);
    EXPECT_EQ(SampleReportFileName(key), QStringLiteral("TaskManager-4321-777-sample.txt"));
}

}  // namespace
}  // namespace korv::host::linux_client
