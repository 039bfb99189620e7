#include "host/linux_client/smoke_run.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <algorithm>

namespace korv::host::linux_client {
namespace {

// The timetable.

int CountOf(const std::vector<SmokeStep>& steps, SmokeStep::Kind kind) {
    return static_cast<int>(std::count_if(steps.begin(), steps.end(), [kind](const SmokeStep& s) { return s.kind == kind; }));
}

const SmokeStep& FirstOf(const std::vector<SmokeStep>& steps, SmokeStep::Kind kind) {
    return *std::find_if(steps.begin(), steps.end(), [kind](const SmokeStep& s) { return s.kind == kind; });
}

TEST(SmokeSchedule, APageRunSelectsAtOnceSamplesFourTimesAndCapturesAt1650) {
    SmokeOptions options;
    options.enabled = true;
    options.page = 16;  // settings, stack place 14
    const auto steps = BuildSmokeSchedule(options, false);
    ASSERT_FALSE(steps.empty());
    EXPECT_EQ(steps.front().kind, SmokeStep::Kind::selectPage);
    EXPECT_EQ(steps.front().atMs, 0);
    EXPECT_EQ(steps.front().stackIndex, 14);
    std::vector<int> samples;
    for (const SmokeStep& step : steps) {
        if (step.kind == SmokeStep::Kind::requestSample) {
            samples.push_back(step.atMs);
        }
    }
    EXPECT_EQ(samples, (std::vector<int>{120, 420, 720, 1020}));
    EXPECT_EQ(CountOf(steps, SmokeStep::Kind::selectDevice), 0);
    EXPECT_EQ(CountOf(steps, SmokeStep::Kind::startScan), 0);
    EXPECT_EQ(FirstOf(steps, SmokeStep::Kind::capture).atMs, 1650);
    EXPECT_EQ(steps.back().kind, SmokeStep::Kind::finish);
    EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end(),
                               [](const SmokeStep& a, const SmokeStep& b) { return a.atMs < b.atMs; }));
}

TEST(SmokeSchedule, CyclingSelectsEveryPageEvery80MsAndCapturesLater) {
    SmokeOptions options;
    options.enabled = true;
    options.cyclePages = true;
    options.device = core::DeviceKind::gpu;
    const auto steps = BuildSmokeSchedule(options, false);
    std::vector<int> pages;
    for (const SmokeStep& step : steps) {
        if (step.kind == SmokeStep::Kind::selectPage) {
            EXPECT_EQ(step.atMs, 80 * (step.stackIndex + 1));
            pages.push_back(step.stackIndex);
        }
    }
    ASSERT_EQ(pages.size(), 15U);
    EXPECT_EQ(pages.front(), 0);
    EXPECT_EQ(pages.back(), 14);
    EXPECT_EQ(FirstOf(steps, SmokeStep::Kind::selectDevice).atMs, 2880);
    EXPECT_EQ(FirstOf(steps, SmokeStep::Kind::capture).atMs, 2930);
}

TEST(SmokeSchedule, AScanIsTimedOnlyWhenAskedAndPossible) {
    SmokeOptions options;
    options.enabled = true;
    options.scanTarget = QString();
    EXPECT_EQ(CountOf(BuildSmokeSchedule(options, false), SmokeStep::Kind::startScan), 0);
    const auto steps = BuildSmokeSchedule(options, true);
    ASSERT_EQ(CountOf(steps, SmokeStep::Kind::startScan), 1);
    EXPECT_EQ(FirstOf(steps, SmokeStep::Kind::startScan).atMs, 200);
    options.scanTarget.reset();
    EXPECT_EQ(CountOf(BuildSmokeSchedule(options, true), SmokeStep::Kind::startScan), 0);
}

// The real program.

const QString kBinary = QStringLiteral(KORV_TASK_MANAGER_BINARY);
constexpr int kRunTimeoutMs = 60000;

struct RunResult {
    int exitCode = -1;
    bool crashed = false;
    QString errorText;
};

class SmokeProgramTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(root_.isValid());
        ASSERT_TRUE(QFileInfo::exists(kBinary)) << kBinary.toStdString();
        for (const char* folder : {"home", "config", "runtime"}) {
            QDir(root_.path()).mkpath(QLatin1String(folder));
        }
        QFile::setPermissions(root_.filePath(QStringLiteral("runtime")),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    }

    RunResult Run(const QStringList& arguments) {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), root_.filePath(QStringLiteral("home")));
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), root_.filePath(QStringLiteral("config")));
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), root_.filePath(QStringLiteral("runtime")));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        process.setProcessEnvironment(environment);
        process.start(kBinary, arguments);
        RunResult result;
        if (!process.waitForFinished(kRunTimeoutMs)) {
            process.kill();
            process.waitForFinished();
            result.crashed = true;
            return result;
        }
        result.crashed = process.exitStatus() != QProcess::NormalExit;
        result.exitCode = process.exitCode();
        result.errorText = QString::fromLocal8Bit(process.readAllStandardError());
        return result;
    }

    QString PathFor(const QString& name) const { return root_.filePath(name); }

    static bool IsPng(const QString& path) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            return false;
        }
        return file.read(8) == QByteArray("\x89PNG\r\n\x1a\n", 8);
    }

    QTemporaryDir root_;
};

class SmokeCapturePerPage : public SmokeProgramTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(SmokeCapturePerPage, ExitsZeroWithAPngOfThePage) {
    const QString page = QString::fromLatin1(GetParam());
    const QString path = PathFor(page + QStringLiteral(".png"));
    const RunResult result = Run({QStringLiteral("--smoke"), QStringLiteral("--page=") + page,
                                  QStringLiteral("--capture-scope=page"), QStringLiteral("--capture=") + path});
    ASSERT_FALSE(result.crashed) << result.errorText.toStdString();
    EXPECT_EQ(result.exitCode, 0) << result.errorText.toStdString();
    ASSERT_TRUE(IsPng(path));
    const QImage image(path);
    ASSERT_FALSE(image.isNull());
    EXPECT_GT(image.width(), 400);
    EXPECT_GT(image.height(), 300);
}

INSTANTIATE_TEST_SUITE_P(EveryPage, SmokeCapturePerPage,
                         ::testing::Values("summary", "performance", "processes", "system-info", "startup", "users",
                                           "services", "power-and-freq", "flight-recorder", "connections",
                                           "installed-apps", "drivers", "disk-space", "benchmarks", "settings"),
                         [](const ::testing::TestParamInfo<const char*>& param) {
                             std::string name = param.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(SmokeProgramTest, WindowScopeHoldsTheRailAndIsWiderThanThePage) {
    const QString window = PathFor(QStringLiteral("window.png"));
    const QString page = PathFor(QStringLiteral("page.png"));
    ASSERT_EQ(Run({QStringLiteral("--smoke"), QStringLiteral("--capture=") + window}).exitCode, 0);
    ASSERT_EQ(Run({QStringLiteral("--smoke"), QStringLiteral("--capture-scope=page"), QStringLiteral("--capture=") + page})
                  .exitCode,
              0);
    const QImage windowImage(window);
    const QImage pageImage(page);
    ASSERT_FALSE(windowImage.isNull());
    ASSERT_FALSE(pageImage.isNull());
    EXPECT_GT(windowImage.width(), pageImage.width() + 150);  // the rail stands left of the page
}

TEST_F(SmokeProgramTest, ThemeAndWindowSizeShowInTheCapture) {
    const QString light = PathFor(QStringLiteral("light.png"));
    const QString dark = PathFor(QStringLiteral("dark-wide.png"));
    ASSERT_EQ(Run({QStringLiteral("--theme=light"), QStringLiteral("--window-size=narrow"),
                   QStringLiteral("--capture-scope=page"), QStringLiteral("--capture=") + light})
                  .exitCode,
              0);
    ASSERT_EQ(Run({QStringLiteral("--theme=dark"), QStringLiteral("--window-size=wide"),
                   QStringLiteral("--capture-scope=page"), QStringLiteral("--capture=") + dark})
                  .exitCode,
              0);
    const QImage lightImage(light);
    const QImage darkImage(dark);
    ASSERT_FALSE(lightImage.isNull());
    ASSERT_FALSE(darkImage.isNull());
    EXPECT_GT(darkImage.width(), lightImage.width());
    // The bottom right corner of a page is plain background.
    const QColor lightCorner = lightImage.pixelColor(lightImage.width() - 5, lightImage.height() - 5);
    const QColor darkCorner = darkImage.pixelColor(darkImage.width() - 5, darkImage.height() - 5);
    EXPECT_GT(lightCorner.lightness(), 200);
    EXPECT_LT(darkCorner.lightness(), 60);
}

TEST_F(SmokeProgramTest, GreenDisplayModeTintsTheRail) {
    const QString color = PathFor(QStringLiteral("color.png"));
    const QString green = PathFor(QStringLiteral("green.png"));
    ASSERT_EQ(Run({QStringLiteral("--smoke"), QStringLiteral("--display=color"), QStringLiteral("--capture=") + color})
                  .exitCode,
              0);
    ASSERT_EQ(Run({QStringLiteral("--smoke"), QStringLiteral("--display=green"), QStringLiteral("--capture=") + green})
                  .exitCode,
              0);
    const QColor plainRail = QImage(color).pixelColor(4, 4);
    const QColor greenRail = QImage(green).pixelColor(4, 4);
    EXPECT_GT(plainRail.blue(), plainRail.green());
    EXPECT_GT(greenRail.green(), greenRail.red());
    EXPECT_GT(greenRail.green(), greenRail.blue());
}

TEST_F(SmokeProgramTest, CyclingThroughThePagesEndsWithACapture) {
    const QString path = PathFor(QStringLiteral("cycle.png"));
    const RunResult result = Run({QStringLiteral("--smoke"), QStringLiteral("--cycle-pages"), QStringLiteral("--capture=") + path});
    EXPECT_EQ(result.exitCode, 0) << result.errorText.toStdString();
    EXPECT_TRUE(IsPng(path));
}

TEST_F(SmokeProgramTest, ACaptureThatCannotBeWrittenExitsOne) {
    const QString path = PathFor(QStringLiteral("missing-folder/shot.png"));
    const RunResult result = Run({QStringLiteral("--smoke"), QStringLiteral("--capture=") + path});
    ASSERT_FALSE(result.crashed);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.errorText.contains(QStringLiteral("error: could not save the capture to")))
        << result.errorText.toStdString();
    EXPECT_FALSE(QFileInfo::exists(path));
}

TEST_F(SmokeProgramTest, ARecordingThatCannotStartExitsOne) {
    const RunResult result = Run({QStringLiteral("--record=summary"), QStringLiteral("--record-seconds=1")});
    ASSERT_FALSE(result.crashed);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.errorText.contains(QStringLiteral("error: --record could not start a recording")))
        << result.errorText.toStdString();
}

TEST_F(SmokeProgramTest, ASmokeRunLeavesTheSettingsFileAlone) {
    const QString path = PathFor(QStringLiteral("plain.png"));
    ASSERT_EQ(Run({QStringLiteral("--smoke"), QStringLiteral("--theme=dark"), QStringLiteral("--capture=") + path})
                  .exitCode,
              0);
    EXPECT_FALSE(QFileInfo::exists(PathFor(QStringLiteral("config/KORV/Task Manager KORV/settings.json"))));
}

}  // namespace
}  // namespace korv::host::linux_client
