#include "host/linux_client/application_paths.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

namespace korv::host::linux_client {
namespace {

QString SettingsFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
}

}  // namespace

QString SettingsFilePath()
{
    const QString folder = SettingsFolder();
    return folder.isEmpty() ? QString() : folder + QStringLiteral("/settings.json");
}

std::string SettingsFileSystemPath()
{
    return QFile::encodeName(SettingsFilePath()).toStdString();
}

bool EnsureSettingsFolder()
{
    const QString folder = SettingsFolder();
    return !folder.isEmpty() && QDir().mkpath(folder);
}

}  // namespace korv::host::linux_client
