#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace korv::host::linux_client {

// The arguments of a start in another language: "--language <code>" and the relaunch marker, which
// keeps the new start from handing itself over to the one that is closing. An empty code (the
// system's language) passes as such, and the new start falls back to the system locale.
QStringList LanguageRelaunchArguments(const QString& code);

// Starts `program` detached with those arguments. Returns the reason when it could not be started.
std::optional<QString> StartLanguageRelaunch(const QString& program, const QString& code);

}  // namespace korv::host::linux_client
