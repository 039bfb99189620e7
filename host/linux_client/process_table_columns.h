#pragma once

#include <QString>
#include <Qt>

#include <optional>

namespace korv::host::linux_client {

// The thirteen columns of the process table, always present, in their logical order.
enum class ProcessTableColumn : int {
    name = 0,
    pid = 1,
    status = 2,
    user = 3,
    cpu = 4,
    memory = 5,
    diskRead = 6,
    diskWrite = 7,
    threads = 8,
    virtualMemory = 9,
    fileDescriptors = 10,
    nice = 11,
    command = 12,
};

inline constexpr int kProcessTableColumnCount = 13;

// The raw value of a cell, for sorting: Qt::UserRole + 1.
inline constexpr int kProcessSortRole = Qt::UserRole + 1;
// The text the filter searches (name, user, command line, path and PID), on column 0.
inline constexpr int kProcessSearchRole = Qt::UserRole + 2;

// The stored name of a column ("name", "pid", ..., "command"), used wherever a column is named in
// text; empty for a number outside the table.
QString ProcessTableColumnName(int column);
// The column a stored name stands for; nothing for an unknown name.
std::optional<int> ProcessTableColumnFromName(const QString& name);

// The translated header text, the alignment (always vertically centred) and the initial width.
QString ProcessTableColumnTitle(int column);
Qt::Alignment ProcessTableColumnAlignment(int column);
int ProcessTableColumnInitialWidth(int column);

}  // namespace korv::host::linux_client
