#include "host/linux_client/process_table_columns.h"

#include <QCoreApplication>

#include <array>

namespace korv::host::linux_client {
namespace {

struct ColumnInfo {
    const char* name;
    const char* title;
    bool rightAligned;
    int width;
};

// The command column takes the rest of the header, so its width is only a starting point.
constexpr std::array<ColumnInfo, kProcessTableColumnCount> kColumns{{
    {"name", QT_TRANSLATE_NOOP("ProcessTableModel", "Name"), false, 220},
    {"pid", QT_TRANSLATE_NOOP("ProcessTableModel", "PID"), true, 70},
    {"status", QT_TRANSLATE_NOOP("ProcessTableModel", "Status"), false, 90},
    {"user", QT_TRANSLATE_NOOP("ProcessTableModel", "User name"), false, 100},
    {"cpu", QT_TRANSLATE_NOOP("ProcessTableModel", "CPU"), true, 70},
    {"memory", QT_TRANSLATE_NOOP("ProcessTableModel", "Memory"), true, 90},
    {"diskRead", QT_TRANSLATE_NOOP("ProcessTableModel", "Disk read"), true, 90},
    {"diskWrite", QT_TRANSLATE_NOOP("ProcessTableModel", "Disk write"), true, 90},
    {"threads", QT_TRANSLATE_NOOP("ProcessTableModel", "Threads"), true, 70},
    {"virtualMemory", QT_TRANSLATE_NOOP("ProcessTableModel", "Virtual"), true, 90},
    {"fileDescriptors", QT_TRANSLATE_NOOP("ProcessTableModel", "FDs"), true, 60},
    {"nice", QT_TRANSLATE_NOOP("ProcessTableModel", "Nice"), true, 60},
    {"command", QT_TRANSLATE_NOOP("ProcessTableModel", "Command"), false, 300},
}};

const ColumnInfo* Info(int column) {
    if (column < 0 || column >= kProcessTableColumnCount) return nullptr;
    return &kColumns[static_cast<std::size_t>(column)];
}

}  // namespace

QString ProcessTableColumnName(int column) {
    const ColumnInfo* info = Info(column);
    return info != nullptr ? QString::fromLatin1(info->name) : QString();
}

std::optional<int> ProcessTableColumnFromName(const QString& name) {
    for (int column = 0; column < kProcessTableColumnCount; ++column) {
        if (name == QLatin1String(kColumns[static_cast<std::size_t>(column)].name)) return column;
    }
    return std::nullopt;
}

QString ProcessTableColumnTitle(int column) {
    const ColumnInfo* info = Info(column);
    return info != nullptr ? QCoreApplication::translate("ProcessTableModel", info->title) : QString();
}

Qt::Alignment ProcessTableColumnAlignment(int column) {
    const ColumnInfo* info = Info(column);
    const Qt::Alignment horizontal = info != nullptr && info->rightAligned ? Qt::AlignRight : Qt::AlignLeft;
    return horizontal | Qt::AlignVCenter;
}

int ProcessTableColumnInitialWidth(int column) {
    const ColumnInfo* info = Info(column);
    return info != nullptr ? info->width : 0;
}

}  // namespace korv::host::linux_client
