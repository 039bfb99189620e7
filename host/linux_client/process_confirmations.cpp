#include "host/linux_client/process_confirmations.h"

#include <QCoreApplication>
#include <QMessageBox>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("QMainWindow", source);
}

bool AskYesNo(QWidget* parent, const ConfirmationText& question) {
    return QMessageBox::question(parent, question.title, question.text, QMessageBox::Yes | QMessageBox::No) ==
           QMessageBox::Yes;
}

}  // namespace

std::optional<ConfirmationText> TerminationConfirmation(const std::vector<core::ProcessSnapshot>& rows, bool force) {
    if (rows.empty()) return std::nullopt;
    ConfirmationText question;
    question.title = force ? Text("Force terminate process") : Text("Terminate process");
    if (rows.size() > 1) {
        question.text = force ? Text("Force terminate the %1 selected processes? They are not given the chance to "
                                     "clean up, so unsaved data will be lost.")
                              : Text("Terminate the %1 selected processes? Unsaved data may be lost.");
        question.text = question.text.arg(rows.size());
        return question;
    }
    const QString name = QString::fromStdString(rows.front().name);
    if (name.isEmpty()) {
        question.text = force ? Text("Force terminate the selected process? It is not given the chance to clean up, "
                                     "so unsaved data will be lost.")
                              : Text("Terminate the selected process? Unsaved data may be lost.");
        return question;
    }
    question.text = force ? Text("Force terminate %1? It is not given the chance to clean up, so unsaved data will "
                                 "be lost.")
                          : Text("Terminate %1? Unsaved data may be lost.");
    question.text = question.text.arg(name);
    return question;
}

ConfirmationText ProcessTreeConfirmation(std::size_t selectedCount, std::size_t totalCount, bool force) {
    ConfirmationText question;
    question.title = force ? Text("Force quit process tree") : Text("End process tree");
    if (selectedCount <= 1) {
        const std::size_t descendants = totalCount > 0 ? totalCount - 1 : 0;
        question.text = force ? Text("This force quits the selected process and its %1 descendants.")
                              : Text("This terminates the selected process and its %1 descendants. Continue?");
        question.text = question.text.arg(descendants);
    } else {
        question.text = force ? Text("This force quits the %1 selected processes and their descendants: %2 processes "
                                     "in total.")
                              : Text("This terminates the %1 selected processes and their descendants: %2 processes "
                                     "in total. Continue?");
        question.text = question.text.arg(selectedCount).arg(totalCount);
    }
    if (force) {
        question.text += QLatin1Char(' ') +
                         Text("They will be stopped immediately without a chance to clean up. Unsaved data will be lost.");
    }
    return question;
}

bool AskTermination(QWidget* parent, const std::vector<core::ProcessSnapshot>& rows, bool force) {
    const std::optional<ConfirmationText> question = TerminationConfirmation(rows, force);
    return question && AskYesNo(parent, *question);
}

bool AskProcessTree(QWidget* parent, std::size_t selectedCount, std::size_t totalCount, bool force) {
    if (selectedCount == 0) return false;
    return AskYesNo(parent, ProcessTreeConfirmation(selectedCount, totalCount, force));
}

}  // namespace korv::host::linux_client
