#pragma once

#include <QString>
#include <QStringList>

#include <optional>

class QWidget;

namespace korv::host::linux_client {

// A typed command line, split as a shell would split words: the program and its arguments.
struct RunTaskCommand {
    QString program;
    QStringList arguments;
};

// Trims and splits the text; nothing for a text that holds no word.
std::optional<RunTaskCommand> ParseRunTaskText(const QString& text);

// Starts the program detached, with this program's environment and no extra rights.
bool StartRunTask(const RunTaskCommand& command);

// "Could not run "<program>"."
QString RunTaskFailureText(const QString& program);

// Asks for a command line in a box titled "Run new task" and runs it; a failure is reported in a
// warning box with the same title. An empty text does nothing. GUI thread.
void ShowRunNewTaskDialog(QWidget* parent);

}  // namespace korv::host::linux_client
