#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include <QByteArray>
#include <QLocale>
#include <QString>
#include <QStringList>
#include <QVersionNumber>

class QApplication;
class QCoreApplication;

namespace korv::host::linux_client {

inline constexpr char kOrganizationName[] = "KORV";
inline constexpr char kOrganizationDomain[] = "korv.app";
inline constexpr char kApplicationName[] = "Task Manager KORV";
inline constexpr char kApplicationVersion[] = "1.0.0 \u2014 RTM";
inline constexpr char kDesktopFileName[] = "com.korv.taskmanager";
inline constexpr char kApplicationIcon[] = ":/korv/app-icon.png";

// Registered at start; Inter stands for the interface faces and DSEG for the segment and
// dot-matrix readouts.
inline constexpr std::array<const char*, 6> kEmbeddedFontPaths{
    ":/korv/fonts/Inter-Regular.otf",  ":/korv/fonts/DSEG14Classic-Regular.ttf", ":/korv/fonts/Inter-SemiBold.otf",
    ":/korv/fonts/Inter-Light.otf",    ":/korv/fonts/Inter-Bold.otf",            ":/korv/fonts/DSEG7Classic-Regular.ttf",
};

// The command line as text, argv[0] included; usable before any toolkit object exists.
QStringList ArgumentList(int argc, char* argv[]);

// The helper that a screensaver option hands over to: the executable's folder joined with
// "korv-screensaver" or "korv-register-screensaver". Empty for any other option.
std::string ScreensaverHelperPath(std::string_view executablePath, std::string_view option);

// When argv[1] is a screensaver option, replaces the process with the helper beside the
// executable, passing argv[2...]; returns only with status 1 when that fails. Returns nothing
// for any other command line. Creates no toolkit object.
std::optional<int> RunScreensaverShortPath(int argc, char* argv[]);

bool RequestsSettingsReset(const QStringList& arguments);

// Removes the settings file and reports on the standard streams; returns the exit status.
int RunSettingsReset(int& argc, char* argv[]);

// A platform override is a non-empty QT_QPA_PLATFORM or a -platform argument in any spelling.
bool PlatformOverrideStands(const QStringList& arguments, const QByteArray& qpaPlatform);

// X11 is preferred only where both displays exist and the toolkit is older than 6.5.2.
bool ShouldPreferXcb(const QStringList& arguments, const QByteArray& qpaPlatform, const QByteArray& waylandDisplay,
                     const QByteArray& display, const QVersionNumber& runtimeVersion);

// Sets QT_QPA_PLATFORM before the application object exists, when ShouldPreferXcb says so.
void SelectPlatform(const QStringList& arguments);

// Makes the resources compiled into the GUI library (icon, fonts) reachable under ":/korv": a
// static library's resources are otherwise left out by the linker. Safe to call more than once.
void InitializeEmbeddedResources();

// Organisation and application names, which also place the configuration folder.
void ApplyApplicationIdentity();
void ApplyGuiIdentity(QApplication& application);

// Registers the embedded fonts; one that fails is left out. Returns the families registered.
QStringList RegisterEmbeddedFonts();

// Smoke runs, captures, self-tests and relaunches never take part in the hand-over to a running
// instance; a theme, display mode, scan or page cycle alone does.
bool SkipsSingleInstance(const QStringList& arguments);

// The code of the last complete "--language <code>" pair, lower-cased.
std::optional<QString> LanguageArgument(const QStringList& arguments);

// The system locale for an empty code, else the locale the code names.
QLocale LocaleForLanguage(const QString& code);

// Installs the toolkit's and the program's translators for the locale as children of the
// application; one that does not load is left out. Returns how many were installed.
int InstallTranslators(QCoreApplication& application, const QLocale& locale);

}  // namespace korv::host::linux_client
