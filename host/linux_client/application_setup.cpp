#include "host/linux_client/application_setup.h"

#include "host/linux_client/shell_style.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <QApplication>
#include <QCoreApplication>
#include <QFontDatabase>
#include <QIcon>
#include <QLibraryInfo>
#include <QtGlobal>
#include <QTranslator>

#include "core/settings.h"
#include "host/linux_client/application_paths.h"

// Q_INIT_RESOURCE declares its initializer where it is used, so it must run outside any namespace.
static void InitializeGuiLibraryResources()
{
    Q_INIT_RESOURCE(korv);
    Q_INIT_RESOURCE(korv_fonts);
}

namespace korv::host::linux_client {
namespace {

constexpr std::string_view kScreensaverOption = "--screensaver";
constexpr std::string_view kRegisterScreensaverOption = "--register-screensaver";

constexpr std::array<const char*, 9> kSingleInstanceSkipPrefixes{
    "--self-test", "--smoke",      "--capture", "--page=",           "--device=",
    "--window-size=", "--popout-skin=", "--record", "--language-relaunch",
};

}  // namespace

QStringList ArgumentList(int argc, char* argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments << QString::fromLocal8Bit(argv[i]);
    }
    return arguments;
}

std::string ScreensaverHelperPath(std::string_view executablePath, std::string_view option)
{
    std::string_view helper;
    if (option == kScreensaverOption) {
        helper = "korv-screensaver";
    } else if (option == kRegisterScreensaverOption) {
        helper = "korv-register-screensaver";
    } else {
        return {};
    }
    const std::size_t slash = executablePath.rfind('/');
    // The folder with its trailing slash; a bare name lives in the working folder.
    const std::string_view folder = slash == std::string_view::npos ? std::string_view("./")
                                                                    : executablePath.substr(0, slash + 1);
    std::string path;
    path.reserve(folder.size() + helper.size());
    path.append(folder).append(helper);
    return path;
}

std::optional<int> RunScreensaverShortPath(int argc, char* argv[])
{
    if (argc < 2) {
        return std::nullopt;
    }
    const std::string_view option(argv[1]);
    if (option != kScreensaverOption && option != kRegisterScreensaverOption) {
        return std::nullopt;
    }
    char target[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", target, sizeof(target) - 1);
    if (length <= 0) {
        std::fputs("Cannot locate the KORV screensaver helper.\n", stderr);
        return 1;
    }
    const std::string helper =
        ScreensaverHelperPath(std::string_view(target, static_cast<std::size_t>(length)), option);
    std::vector<char*> helperArguments;
    helperArguments.push_back(const_cast<char*>(helper.c_str()));
    for (int i = 2; i < argc; ++i) {
        helperArguments.push_back(argv[i]);
    }
    helperArguments.push_back(nullptr);
    ::execv(helper.c_str(), helperArguments.data());
    std::perror("KORV screensaver helper");
    return 1;
}

bool RequestsSettingsReset(const QStringList& arguments)
{
    return arguments.mid(1).contains(QStringLiteral("--reset-settings"));
}

int RunSettingsReset(int& argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    ApplyApplicationIdentity();
    const std::string path = SettingsFileSystemPath();
    const core::SettingsResetResult result = core::SettingsStore::Reset(path);
    switch (result.status) {
    case core::SettingsResetStatus::removed:
        std::printf("Cleared %s.\n", path.c_str());
        return 0;
    case core::SettingsResetStatus::absent:
        std::printf("No settings file at %s.\n", path.c_str());
        return 0;
    case core::SettingsResetStatus::failed:
        break;
    }
    std::fprintf(stderr, "error: could not clear %s: %s\n", path.c_str(), result.error.c_str());
    return 1;
}

bool PlatformOverrideStands(const QStringList& arguments, const QByteArray& qpaPlatform)
{
    if (!qpaPlatform.isEmpty()) {
        return true;
    }
    for (const QString& argument : arguments.mid(1)) {
        if (argument == QLatin1String("-platform") || argument == QLatin1String("--platform") ||
            argument.startsWith(QLatin1String("-platform=")) || argument.startsWith(QLatin1String("--platform="))) {
            return true;
        }
    }
    return false;
}

bool ShouldPreferXcb(const QStringList& arguments, const QByteArray& qpaPlatform, const QByteArray& waylandDisplay,
                     const QByteArray& display, const QVersionNumber& runtimeVersion)
{
    // Toolkits before 6.5.2 misbehave on some Wayland compositors; later ones choose for themselves.
    return !PlatformOverrideStands(arguments, qpaPlatform) && !waylandDisplay.isEmpty() && !display.isEmpty() &&
           runtimeVersion < QVersionNumber(6, 5, 2);
}

void SelectPlatform(const QStringList& arguments)
{
    if (ShouldPreferXcb(arguments, qgetenv("QT_QPA_PLATFORM"), qgetenv("WAYLAND_DISPLAY"), qgetenv("DISPLAY"),
                        QVersionNumber::fromString(QString::fromLatin1(qVersion())))) {
        qputenv("QT_QPA_PLATFORM", "xcb;wayland");
    }
}

void InitializeEmbeddedResources()
{
    InitializeGuiLibraryResources();
}

void ApplyApplicationIdentity()
{
    QCoreApplication::setOrganizationName(QString::fromLatin1(kOrganizationName));
    QCoreApplication::setOrganizationDomain(QString::fromLatin1(kOrganizationDomain));
    QCoreApplication::setApplicationName(QString::fromLatin1(kApplicationName));
}

void ApplyGuiIdentity(QApplication& application)
{
    ApplyApplicationIdentity();
    QCoreApplication::setApplicationVersion(QString::fromUtf8(kApplicationVersion));
    QGuiApplication::setDesktopFileName(QString::fromLatin1(kDesktopFileName));
    QApplication::setStyle(new ShellStyle);  // Fusion, with check boxes that show on a dark window
    application.setWindowIcon(QIcon(QString::fromLatin1(kApplicationIcon)));
}

QStringList RegisterEmbeddedFonts()
{
    QStringList families;
    for (const char* path : kEmbeddedFontPaths) {
        const int id = QFontDatabase::addApplicationFont(QString::fromLatin1(path));
        if (id >= 0) {
            families << QFontDatabase::applicationFontFamilies(id);
        }
    }
    families.removeDuplicates();
    return families;
}

bool SkipsSingleInstance(const QStringList& arguments)
{
    for (const QString& argument : arguments.mid(1)) {
        for (const char* prefix : kSingleInstanceSkipPrefixes) {
            if (argument.startsWith(QLatin1String(prefix))) {
                return true;
            }
        }
    }
    return false;
}

std::optional<QString> LanguageArgument(const QStringList& arguments)
{
    std::optional<QString> code;
    for (qsizetype i = 1; i + 1 < arguments.size(); ++i) {
        if (arguments.at(i) == QLatin1String("--language")) {
            code = arguments.at(i + 1).toLower();
            ++i;
        }
    }
    return code;
}

QLocale LocaleForLanguage(const QString& code)
{
    return code.isEmpty() ? QLocale::system() : QLocale(code);
}

int InstallTranslators(QCoreApplication& application, const QLocale& locale)
{
    int installed = 0;
    const auto install = [&](const QString& name, const QString& folder) {
        auto* translator = new QTranslator(&application);
        if (translator->load(locale, name, QStringLiteral("_"), folder) &&
            QCoreApplication::installTranslator(translator)) {
            ++installed;
        } else {
            delete translator;
        }
    };
    install(QStringLiteral("qtbase"), QLibraryInfo::path(QLibraryInfo::TranslationsPath));
    install(QStringLiteral("korv"), QStringLiteral(":/i18n"));
    return installed;
}

}  // namespace korv::host::linux_client
