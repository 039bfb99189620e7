#pragma once

#include "core/snapshot.h"

#include <QString>

#include <cstddef>
#include <optional>
#include <vector>

class QWidget;

namespace korv::host::linux_client {

// A question put to the user before processes are ended: its title and its text.
struct ConfirmationText {
    QString title;
    QString text;
};

// "Terminate process" or "Force terminate process", worded for one named process, one without a
// name, or several. Nothing for an empty selection, which is never asked about.
std::optional<ConfirmationText> TerminationConfirmation(const std::vector<core::ProcessSnapshot>& rows, bool force);

// "End process tree" or "Force quit process tree". `totalCount` counts the selected processes and
// all their descendants, each once.
ConfirmationText ProcessTreeConfirmation(std::size_t selectedCount, std::size_t totalCount, bool force);

// Asks with Yes and No and no default button; true only for Yes. An empty selection is false
// without asking.
bool AskTermination(QWidget* parent, const std::vector<core::ProcessSnapshot>& rows, bool force);
bool AskProcessTree(QWidget* parent, std::size_t selectedCount, std::size_t totalCount, bool force);

}  // namespace korv::host::linux_client
