#pragma once

#include <QString>

#include <string>

namespace korv::host::linux_client {

// The settings file in the application's writable configuration location; creates nothing.
QString SettingsFilePath();

// The same file as the bytes the file system names it by, for loading, saving and clearing alike,
// so that all three reach one file whatever the home folder is called; empty without a location.
std::string SettingsFileSystemPath();

// Makes the folder that holds the settings file, so that a save can succeed.
bool EnsureSettingsFolder();

}  // namespace korv::host::linux_client
