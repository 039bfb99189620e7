#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <QApplication>
#include <QCoreApplication>
#include <QLocale>
#include <QMessageBox>

#include "core/settings.h"
#include "host/linux_client/application_paths.h"
#include "host/linux_client/application_setup.h"
#include "host/linux_client/single_instance_coordinator.h"
#include "host/linux_client/smoke_options.h"
#include "host/linux_client/task_manager_window.h"

namespace lc = korv::host::linux_client;

namespace {

korv::core::SettingsLoadResult LoadSettings()
{
    const std::string path = lc::SettingsFileSystemPath();
    if (path.empty()) {
        return {};
    }
    return korv::core::SettingsStore::Load(path);
}

void ShowStartFailure(const QString& reason)
{
    const QString message =
        QCoreApplication::translate("QObject", "The Linux client could not start: %1").arg(reason);
    // Also on the error stream, for starts that have no one to see a message box.
    std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
    QMessageBox::critical(nullptr, QString::fromLatin1(lc::kApplicationName), message);
}

}  // namespace

int main(int argc, char* argv[])
{
    if (const std::optional<int> status = lc::RunScreensaverShortPath(argc, argv)) {
        return *status;
    }

    const QStringList arguments = lc::ArgumentList(argc, argv);
    lc::SmokeOptions options = lc::ParseSmokeOptions(arguments);
    if (options.error) {
        std::fprintf(stderr, "error: %s\n", options.error->toUtf8().constData());
        return 1;
    }

    if (lc::RequestsSettingsReset(arguments)) {
        return lc::RunSettingsReset(argc, argv);
    }

    lc::SelectPlatform(arguments);

    QApplication application(argc, argv);
    lc::InitializeEmbeddedResources();
    lc::ApplyGuiIdentity(application);
    lc::RegisterEmbeddedFonts();

    const bool coordinationSkipped = lc::SkipsSingleInstance(arguments);
    // Declared before the window so that it outlives the window's event loop.
    lc::SingleInstanceCoordinator coordinator(lc::InstanceCoordinatorConfig::ForThisProcess());
    if (!coordinationSkipped &&
        coordinator.Coordinate() == lc::SingleInstanceCoordinator::Outcome::handedOver) {
        return 0;
    }

    korv::core::SettingsLoadResult settings = LoadSettings();
    const std::optional<QString> languageArgument = lc::LanguageArgument(arguments);
    const QLocale locale = lc::LocaleForLanguage(
        languageArgument ? *languageArgument : QString::fromStdString(settings.settings.applicationLanguage));
    QLocale::setDefault(locale);
    lc::InstallTranslators(application, locale);

    std::unique_ptr<lc::TaskManagerWindow> window;
    try {
        window = std::make_unique<lc::TaskManagerWindow>(std::move(options), std::move(settings));
        lc::TaskManagerWindow* shown = window.get();
        coordinator.SetActivationCallback([shown] { shown->ActivateFromAnotherInstance(); });
        // The global summon shortcut is not built yet; it would start here with the same callback.
        window->show();
        if (arguments.mid(1).contains(QStringLiteral("--self-test"))) {
            window->BeginSelfTest();
        }
    } catch (const std::exception& error) {
        ShowStartFailure(QString::fromLocal8Bit(error.what()));
        return 1;
    }

    const int status = QApplication::exec();
    coordinator.SetActivationCallback({});
    window.reset();
    return status;
}
