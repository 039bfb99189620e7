#include "host/linux_client/run_new_task_dialog.h"

#include <QCoreApplication>
#include <QInputDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QProcess>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("QMainWindow", source);
}

}  // namespace

std::optional<RunTaskCommand> ParseRunTaskText(const QString& text) {
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty()) return std::nullopt;
    QStringList words = QProcess::splitCommand(trimmed);
    if (words.isEmpty()) return std::nullopt;
    RunTaskCommand command;
    command.program = words.takeFirst();
    command.arguments = std::move(words);
    return command;
}

bool StartRunTask(const RunTaskCommand& command) {
    if (command.program.isEmpty()) return false;
    return QProcess::startDetached(command.program, command.arguments);
}

QString RunTaskFailureText(const QString& program) {
    return Text("Could not run \"%1\".").arg(program);
}

void ShowRunNewTaskDialog(QWidget* parent) {
    bool accepted = false;
    const QString title = Text("Run new task");
    const QString text = QInputDialog::getText(parent, title, Text("Type the name of a program, and it will be run:"),
                                               QLineEdit::Normal, QString(), &accepted);
    if (!accepted) return;
    const std::optional<RunTaskCommand> command = ParseRunTaskText(text);
    if (!command) return;
    if (!StartRunTask(*command)) {
        QMessageBox::warning(parent, title, RunTaskFailureText(command->program.isEmpty() ? text.trimmed()
                                                                                          : command->program));
    }
}

}  // namespace korv::host::linux_client
