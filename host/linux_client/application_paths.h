#pragma once

#include <QString>

namespace korv::host::linux_client {

// The settings file in the application's writable configuration location; creates nothing.
QString SettingsFilePath();

// Makes the folder that holds the settings file, so that a save can succeed.
bool EnsureSettingsFolder();

}  // namespace korv::host::linux_client
