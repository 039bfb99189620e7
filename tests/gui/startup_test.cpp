#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>
#include <QIcon>
#include <QImage>
#include <QStandardPaths>
#include <QSvgRenderer>
#include <QTest>
#include <QTranslator>

#include "host/linux_client/application_paths.h"
#include "host/linux_client/application_setup.h"

namespace korv::host::linux_client {
namespace {

const QString kBinary = QStringLiteral(KORV_TASK_MANAGER_BINARY);
constexpr int kGenerousMs = 60000;

const QString kPageList = QStringLiteral(
    "summary, performance, processes, system-info, startup, users, services, power-and-freq, flight-recorder, "
    "connections, installed-apps, drivers, disk-space, benchmarks, settings");

// A private home for the program: its configuration, runtime folder (where the lock file goes) and
// temporary folder (where the instance socket goes) are its own, so no test meets a real instance.
class Sandbox {
public:
    Sandbox()
    {
        for (const char* folder : {"home", "config", "runtime", "tmp", "data", "cache"}) {
            QDir(root_.path()).mkpath(QLatin1String(folder));
        }
        QFile::setPermissions(Path("runtime"), QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                   QFileDevice::ExeOwner);
    }

    QString Path(const char* folder) const { return root_.filePath(QLatin1String(folder)); }

    QProcessEnvironment Environment() const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), Path("home"));
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), Path("config"));
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), Path("runtime"));
        environment.insert(QStringLiteral("XDG_DATA_HOME"), Path("data"));
        environment.insert(QStringLiteral("XDG_CACHE_HOME"), Path("cache"));
        environment.insert(QStringLiteral("TMPDIR"), Path("tmp"));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        environment.remove(QStringLiteral("DISPLAY"));
        environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
        return environment;
    }

    QString SettingsFolder() const { return Path("config") + QStringLiteral("/KORV/Task Manager KORV"); }
    QString SettingsFile() const { return SettingsFolder() + QStringLiteral("/settings.json"); }
    QString InstanceSocket() const
    {
        return Path("tmp") + QStringLiteral("/korv-task-manager-%1-1-0-0").arg(::getuid());
    }

    void Start(QProcess& process, const QStringList& arguments, const QString& program = kBinary) const
    {
        process.setProcessEnvironment(Environment());
        process.setWorkingDirectory(Path("home"));
        process.start(program, arguments);
    }

    // True once a running instance accepts connections on the socket.
    bool Listening() const
    {
        const QByteArray path = QFile::encodeName(InstanceSocket());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.constData(), sizeof(address.sun_path) - 1);
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool connected = ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        ::close(descriptor);
        return connected;
    }

private:
    QTemporaryDir root_{QDir::tempPath() + QStringLiteral("/korv-startup-XXXXXX")};
};

struct Outcome {
    bool finished = false;
    int exitCode = -1;
    QString out;
    QString err;
};

Outcome RunProgram(const Sandbox& sandbox, const QStringList& arguments, const QString& program = kBinary)
{
    QProcess process;
    sandbox.Start(process, arguments, program);
    Outcome outcome;
    if (!process.waitForStarted(kGenerousMs)) {
        return outcome;
    }
    outcome.finished = process.waitForFinished(kGenerousMs) && process.exitStatus() == QProcess::NormalExit;
    outcome.exitCode = process.exitCode();
    outcome.out = QString::fromUtf8(process.readAllStandardOutput());
    outcome.err = QString::fromUtf8(process.readAllStandardError());
    return outcome;
}

void WriteFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
}

TEST(Startup, CommandLineErrorsEndWithStatusOne)
{
    struct ErrorCase {
        QStringList arguments;
        QString line;
    };
    const std::vector<ErrorCase> cases = {
        {{"--page=Nowhere"}, "error: unknown --page value 'nowhere'. Valid values: " + kPageList + "\n"},
        {{"--page=apple-silicon"}, "error: unknown --page value 'apple-silicon'. Valid values: " + kPageList + "\n"},
        {{"--theme=sepia"}, "error: unknown --theme value 'sepia'. Valid values: dark, light\n"},
        {{"--smoke", "--device=floppy"},
         "error: unknown --device value 'floppy'. Valid values: cpu, memory, disk, network, gpu, npu, energy, "
         "thermals\n"},
        {{"--record-seconds=3"}, "error: --record-seconds needs --record=<target> to say what to film\n"},
        {{"--record-seconds=0", "--record=summary"},
         "error: unknown --record-seconds value '0'. Valid values: a whole number of seconds, 1 or more\n"},
        {{"--popout-skin="}, "error: --popout-skin requires a non-empty skin identifier\n"},
        {{"--reset-settings", "--display=red"},
         "error: unknown --display value 'red'. Valid values: color, mono, green, amber, blue\n"},
    };
    Sandbox sandbox;
    WriteFile(sandbox.SettingsFile(), "{\"schemaVersion\": 12}\n");
    for (const ErrorCase& errorCase : cases) {
        SCOPED_TRACE(errorCase.arguments.join(QLatin1Char(' ')).toStdString());
        const Outcome outcome = RunProgram(sandbox, errorCase.arguments);
        ASSERT_TRUE(outcome.finished);
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_EQ(outcome.err.toStdString(), errorCase.line.toStdString());
        EXPECT_EQ(outcome.out.toStdString(), "");
    }
    // A reset with a bad option beside it clears nothing.
    EXPECT_TRUE(QFileInfo::exists(sandbox.SettingsFile()));
}

TEST(Startup, ResetSettingsReportsWhatItDid)
{
    Sandbox sandbox;
    const std::string path = sandbox.SettingsFile().toStdString();

    Outcome outcome = RunProgram(sandbox, {"--reset-settings"});
    ASSERT_TRUE(outcome.finished);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out.toStdString(), "No settings file at " + path + ".\n");
    EXPECT_EQ(outcome.err.toStdString(), "");

    const QString quarantined = sandbox.SettingsFile() + QStringLiteral(".corrupt.1");
    WriteFile(sandbox.SettingsFile(), "{\"schemaVersion\": 12}\n");
    WriteFile(quarantined, "old");
    outcome = RunProgram(sandbox, {"--smoke", "--reset-settings"});
    ASSERT_TRUE(outcome.finished);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out.toStdString(), "Cleared " + path + ".\n");
    EXPECT_FALSE(QFileInfo::exists(sandbox.SettingsFile()));
    EXPECT_TRUE(QFileInfo::exists(quarantined)) << "only the settings file itself is removed";
}

TEST(Startup, ResetSettingsThatCannotClearFails)
{
    Sandbox sandbox;
    ASSERT_TRUE(QDir().mkpath(sandbox.SettingsFile()));
    WriteFile(sandbox.SettingsFile() + QStringLiteral("/inside"), "x");
    const Outcome outcome = RunProgram(sandbox, {"--reset-settings"});
    ASSERT_TRUE(outcome.finished);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.err.toStdString(),
              "error: could not clear " + sandbox.SettingsFile().toStdString() + ": Is a directory\n");
    EXPECT_EQ(outcome.out.toStdString(), "");
    EXPECT_TRUE(QFileInfo::exists(sandbox.SettingsFile() + QStringLiteral("/inside")));
}

TEST(Startup, ScreensaverWithoutItsHelperFails)
{
    Sandbox sandbox;
    for (const char* option : {"--screensaver", "--register-screensaver"}) {
        SCOPED_TRACE(option);
        const Outcome outcome = RunProgram(sandbox, {QLatin1String(option), "--page=nowhere"});
        ASSERT_TRUE(outcome.finished);
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_EQ(outcome.err.toStdString(), "KORV screensaver helper: No such file or directory\n");
    }
}

TEST(Startup, ScreensaverHandsTheProcessToTheHelperBesideTheProgram)
{
    Sandbox sandbox;
    const QString folder = sandbox.Path("bin");
    ASSERT_TRUE(QDir().mkpath(folder));
    const QString program = folder + QStringLiteral("/korv-task-manager");
    ASSERT_TRUE(QFile::copy(kBinary, program));
    const QString record = sandbox.Path("helper-record.txt");
    const QFileDevice::Permissions executable =
        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;
    for (const char* helper : {"korv-screensaver", "korv-register-screensaver"}) {
        const QString script = QStringLiteral("#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" > '%1'\nexit 7\n").arg(record);
        WriteFile(folder + QLatin1Char('/') + QLatin1String(helper), script.toUtf8());
        ASSERT_TRUE(QFile::setPermissions(folder + QLatin1Char('/') + QLatin1String(helper), executable));
    }

    for (const char* option : {"--screensaver", "--register-screensaver"}) {
        SCOPED_TRACE(option);
        QFile::remove(record);
        const Outcome outcome = RunProgram(sandbox, {QLatin1String(option), "--page=nowhere", "two words"}, program);
        ASSERT_TRUE(outcome.finished);
        // The helper's own status: the program was replaced, not merely followed.
        EXPECT_EQ(outcome.exitCode, 7);
        QFile file(record);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QString helperPath = folder + QLatin1Char('/') + QString::fromLatin1(option).mid(2).prepend("korv-");
        EXPECT_EQ(QString::fromUtf8(file.readAll()).toStdString(),
                  (helperPath + QStringLiteral("\n--page=nowhere\ntwo words\n")).toStdString());
    }
}

TEST(Startup, OneInstanceAtATimeAndADeadOneDoesNotBlock)
{
    Sandbox sandbox;
    QProcess first;
    sandbox.Start(first, {});
    ASSERT_TRUE(first.waitForStarted(kGenerousMs));
    ASSERT_TRUE(QTest::qWaitFor([&] { return sandbox.Listening(); }, kGenerousMs)) << "the first start never listened";

    // A plain start, and one that only chooses a theme, both hand over and leave.
    for (const QStringList& arguments : {QStringList{}, QStringList{"--theme=dark"}}) {
        SCOPED_TRACE(arguments.join(QLatin1Char(' ')).toStdString());
        const Outcome second = RunProgram(sandbox, arguments);
        ASSERT_TRUE(second.finished);
        EXPECT_EQ(second.exitCode, 0);
        EXPECT_EQ(first.state(), QProcess::Running);
    }

    // A killed instance leaves its lock file and socket file behind.
    first.kill();
    ASSERT_TRUE(first.waitForFinished(kGenerousMs));
    ASSERT_TRUE(QFileInfo::exists(sandbox.InstanceSocket()));
    ASSERT_FALSE(sandbox.Listening());

    QProcess third;
    QElapsedTimer elapsed;
    elapsed.start();
    sandbox.Start(third, {});
    ASSERT_TRUE(third.waitForStarted(kGenerousMs));
    ASSERT_TRUE(QTest::qWaitFor([&] { return sandbox.Listening() || third.state() != QProcess::Running; }, kGenerousMs));
    ASSERT_EQ(third.state(), QProcess::Running) << "the start after a dead instance left";
    // The hand-over window is 2 s; the rest is slack for a busy machine.
    EXPECT_LT(elapsed.elapsed(), 20000);

    const Outcome fourth = RunProgram(sandbox, {});
    ASSERT_TRUE(fourth.finished);
    EXPECT_EQ(fourth.exitCode, 0);
    EXPECT_EQ(third.state(), QProcess::Running);

    third.kill();
    third.waitForFinished(kGenerousMs);
}

TEST(Startup, SelfTestAndSmokeRunsFinish)
{
    Sandbox sandbox;
    for (const QStringList& arguments : {QStringList{"--self-test"}, QStringList{"--smoke"}}) {
        SCOPED_TRACE(arguments.join(QLatin1Char(' ')).toStdString());
        const Outcome outcome = RunProgram(sandbox, arguments);
        ASSERT_TRUE(outcome.finished);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err.toStdString();
    }
}

QStringList Arguments(const QStringList& options)
{
    return QStringList{QStringLiteral("korv-task-manager")} + options;
}

TEST(StartupSteps, ScreensaverHelperLivesBesideTheProgram)
{
    struct HelperCase {
        const char* executable;
        const char* option;
        const char* helper;
    };
    const std::vector<HelperCase> cases = {
        {"/opt/korv/bin/korv-task-manager", "--screensaver", "/opt/korv/bin/korv-screensaver"},
        {"/opt/korv/bin/korv-task-manager", "--register-screensaver", "/opt/korv/bin/korv-register-screensaver"},
        {"/korv-task-manager", "--screensaver", "/korv-screensaver"},
        {"korv-task-manager", "--screensaver", "./korv-screensaver"},
        {"/opt/korv/bin/korv-task-manager", "--screensaver=1", ""},
        {"/opt/korv/bin/korv-task-manager", "--smoke", ""},
    };
    for (const HelperCase& helperCase : cases) {
        EXPECT_EQ(ScreensaverHelperPath(helperCase.executable, helperCase.option), helperCase.helper)
            << helperCase.executable << " " << helperCase.option;
    }
}

TEST(StartupSteps, ResetIsAskedForByAnyArgumentButTheProgramName)
{
    EXPECT_TRUE(RequestsSettingsReset(Arguments({"--reset-settings"})));
    EXPECT_TRUE(RequestsSettingsReset(Arguments({"--smoke", "--reset-settings", "--theme=dark"})));
    EXPECT_FALSE(RequestsSettingsReset(Arguments({"--reset-settings=1", "--reset"})));
    EXPECT_FALSE(RequestsSettingsReset({QStringLiteral("--reset-settings")}));
}

TEST(StartupSteps, PlatformPreferenceForXcb)
{
    struct PlatformCase {
        QStringList options;
        QByteArray qpa;
        QByteArray wayland;
        QByteArray display;
        QVersionNumber version;
        bool preferXcb;
    };
    const QVersionNumber older(6, 4, 2);
    const std::vector<PlatformCase> cases = {
        {{}, "", "wayland-0", ":0", older, true},
        {{}, "", "wayland-0", ":0", QVersionNumber(6, 5, 1), true},
        {{}, "", "wayland-0", ":0", QVersionNumber(6, 5, 2), false},
        {{}, "", "wayland-0", ":0", QVersionNumber(6, 8), false},
        {{}, "wayland", "wayland-0", ":0", older, false},
        {{}, "", "", ":0", older, false},
        {{}, "", "wayland-0", "", older, false},
        {{"-platform", "wayland"}, "", "wayland-0", ":0", older, false},
        {{"--platform", "wayland"}, "", "wayland-0", ":0", older, false},
        {{"-platform=wayland"}, "", "wayland-0", ":0", older, false},
        {{"--platform=wayland"}, "", "wayland-0", ":0", older, false},
        {{"--platformer"}, "", "wayland-0", ":0", older, true},
    };
    for (const PlatformCase& platformCase : cases) {
        SCOPED_TRACE(platformCase.options.join(QLatin1Char(' ')).toStdString() + " qpa=" +
                     platformCase.qpa.toStdString() + " version=" + platformCase.version.toString().toStdString());
        EXPECT_EQ(ShouldPreferXcb(Arguments(platformCase.options), platformCase.qpa, platformCase.wayland,
                                  platformCase.display, platformCase.version),
                  platformCase.preferXcb);
    }
}

TEST(StartupSteps, WhichStartsSkipTheSingleInstanceHandOver)
{
    for (const char* option :
         {"--self-test", "--self-test-extra", "--smoke", "--capture=/tmp/a.png", "--capture-scope=page", "--page=users",
          "--device=gpu", "--window-size=wide", "--popout-skin=x", "--record=summary", "--record-seconds=3",
          "--language-relaunch"}) {
        EXPECT_TRUE(SkipsSingleInstance(Arguments({"--theme=dark", QLatin1String(option)}))) << option;
    }
    for (const char* option : {"--theme=dark", "--display=mono", "--scan", "--scan=/srv", "--cycle-pages",
                               "--show-popout", "--language", "de", "--reset-settings", "-platform"}) {
        EXPECT_FALSE(SkipsSingleInstance(Arguments({QLatin1String(option)}))) << option;
    }
    EXPECT_FALSE(SkipsSingleInstance({QStringLiteral("--smoke")})) << "the program name is no option";
}

TEST(StartupSteps, LanguageComesFromTheLastCompletePair)
{
    struct LanguageCase {
        QStringList options;
        std::optional<QString> code;
    };
    const std::vector<LanguageCase> cases = {
        {{}, std::nullopt},
        {{"--language"}, std::nullopt},
        {{"--language", "DE"}, QStringLiteral("de")},
        {{"--language", "de", "--smoke", "--language", "fr_CA"}, QStringLiteral("fr_ca")},
        {{"--language", "de", "--language"}, QStringLiteral("de")},
        {{"--language=de"}, std::nullopt},
    };
    for (const LanguageCase& languageCase : cases) {
        EXPECT_EQ(LanguageArgument(Arguments(languageCase.options)), languageCase.code)
            << languageCase.options.join(QLatin1Char(' ')).toStdString();
    }
    EXPECT_EQ(LocaleForLanguage(QString()), QLocale::system());
    EXPECT_EQ(LocaleForLanguage(QStringLiteral("de")).language(), QLocale::German);
}

TEST(StartupSteps, GermanTranslationsAreEmbeddedAndInstalled)
{
    auto* application = QCoreApplication::instance();
    const int installed = InstallTranslators(*application, QLocale(QLocale::German, QLocale::Germany));
    EXPECT_GE(installed, 1);
    EXPECT_EQ(QCoreApplication::translate("TaskManagerWindow", "Summary").toStdString(), "\u00dcbersicht");
    EXPECT_EQ(QCoreApplication::translate("TaskManagerWindow", "Power & Freq").toStdString(), "Energie & Takt");
    EXPECT_EQ(QCoreApplication::translate("QMainWindow", "&File").toStdString(), "&Datei");
    EXPECT_EQ(QCoreApplication::translate("QObject", "The Linux client could not start: %1").toStdString(),
              "Der Linux-Client konnte nicht starten: %1");
    // Leave the rest of the suite in English.
    for (QTranslator* translator : application->findChildren<QTranslator*>(Qt::FindDirectChildrenOnly)) {
        QCoreApplication::removeTranslator(translator);
        delete translator;
    }
    EXPECT_EQ(QCoreApplication::translate("TaskManagerWindow", "Summary").toStdString(), "Summary");

    // A language without a translation installs nothing of ours, and that is no error.
    EXPECT_EQ(InstallTranslators(*application, QLocale(QLocale::Zulu)), 0);
}

TEST(StartupSteps, EmbeddedFontsRegister)
{
    const QStringList families = RegisterEmbeddedFonts();
    for (const char* family : {"Inter", "DSEG7 Classic", "DSEG14 Classic"}) {
        EXPECT_TRUE(families.contains(QLatin1String(family))) << family << " in " << families.join(", ").toStdString();
    }
    for (const char* licence : {":/korv/fonts/LICENSE-Inter.txt", ":/korv/fonts/LICENSE-DSEG.txt"}) {
        EXPECT_GT(QFileInfo(QLatin1String(licence)).size(), 0) << licence;
    }
}

TEST(StartupSteps, ApplicationIconIsEmbedded)
{
    const QImage icon(QString::fromLatin1(kApplicationIcon));
    ASSERT_FALSE(icon.isNull());
    EXPECT_EQ(icon.size(), QSize(256, 256));
    EXPECT_TRUE(icon.hasAlphaChannel());
    // Transparent corners around the rounded case, an opaque case in the middle.
    EXPECT_EQ(qAlpha(icon.pixel(0, 0)), 0);
    EXPECT_EQ(qAlpha(icon.pixel(128, 128)), 255);
    QSvgRenderer source(QStringLiteral(":/korv/app-icon.svg"));
    EXPECT_TRUE(source.isValid());
    EXPECT_EQ(source.defaultSize(), QSize(256, 256));
}

TEST(StartupSteps, SettingsFileLivesInTheApplicationsConfigurationFolder)
{
    const QString organisation = QCoreApplication::organizationName();
    const QString domain = QCoreApplication::organizationDomain();
    const QString name = QCoreApplication::applicationName();
    const QByteArray configHome = qgetenv("XDG_CONFIG_HOME");
    QTemporaryDir folder(QDir::tempPath() + QStringLiteral("/korv-paths-XXXXXX"));
    QStandardPaths::setTestModeEnabled(false);
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(folder.path()));

    ApplyApplicationIdentity();
    const QString expectedFolder = folder.path() + QStringLiteral("/KORV/Task Manager KORV");
    EXPECT_EQ(SettingsFilePath().toStdString(), (expectedFolder + QStringLiteral("/settings.json")).toStdString());
    EXPECT_FALSE(QFileInfo::exists(expectedFolder)) << "finding the path creates nothing";
    EXPECT_TRUE(EnsureSettingsFolder());
    EXPECT_TRUE(QFileInfo(expectedFolder).isDir());
    EXPECT_EQ(QCoreApplication::organizationDomain().toStdString(), "korv.app");

    QStandardPaths::setTestModeEnabled(true);
    if (configHome.isNull()) {
        qunsetenv("XDG_CONFIG_HOME");
    } else {
        qputenv("XDG_CONFIG_HOME", configHome);
    }
    QCoreApplication::setOrganizationName(organisation);
    QCoreApplication::setOrganizationDomain(domain);
    QCoreApplication::setApplicationName(name);
}

}  // namespace
}  // namespace korv::host::linux_client
