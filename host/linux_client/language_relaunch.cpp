#include "host/linux_client/language_relaunch.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QProcess>

namespace korv::host::linux_client {

QStringList LanguageRelaunchArguments(const QString& code) {
    return {QStringLiteral("--language"), code, QStringLiteral("--language-relaunch")};
}

std::optional<QString> StartLanguageRelaunch(const QString& program, const QString& code) {
    const QFileInfo info(program);
    if (!info.isFile() || !info.isExecutable()) {
        return QCoreApplication::translate("TaskManagerWindow", "%1 is not an executable program").arg(program);
    }
    QProcess process;
    process.setProgram(program);
    process.setArguments(LanguageRelaunchArguments(code));
    process.setStandardInputFile(QProcess::nullDevice());
    qint64 pid = 0;
    if (!process.startDetached(&pid)) {
        return process.errorString();
    }
    return std::nullopt;
}

}  // namespace korv::host::linux_client
