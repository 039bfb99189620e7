#include "host/linux_client/process_cell_text.h"

#include "host/linux_client/process_table_columns.h"
#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>

namespace korv::host::linux_client {
namespace {

QString Translate(const char* text) {
    return QCoreApplication::translate("ProcessTableModel", text);
}

template <typename T, typename Format>
QString FigureText(const RowFigure<T>& figure, Format format) {
    if (!figure.value) return FormatAvailability(figure.availability);
    return AppendStale(format(*figure.value), figure.availability);
}

template <typename T>
QVariant SortValue(const RowFigure<T>& figure) {
    if (!figure.value) return {};
    if constexpr (std::is_same_v<T, std::uint64_t>) {
        return QVariant::fromValue<qulonglong>(*figure.value);
    } else {
        return QVariant::fromValue(*figure.value);
    }
}

QString Decimal(std::uint64_t value) {
    return QString::number(value);
}

}  // namespace

QString ProcessStateWord(core::ProcessState state) {
    using core::ProcessState;
    switch (state) {
    case ProcessState::running:
        return Translate("Running");
    case ProcessState::sleeping:
        return Translate("Sleeping");
    case ProcessState::stopped:
        return Translate("Stopped");
    case ProcessState::suspended:
        return Translate("Suspended");
    case ProcessState::zombie:
        return Translate("Zombie");
    case ProcessState::notResponding:
        return Translate("Not responding");
    default:
        return Translate("Unknown");
    }
}

QString ExitedStateWord() {
    return Translate("Exited");
}

QString GroupHeaderText(std::uint32_t groupOrder, std::size_t count) {
    const QString word = groupOrder == 0 ? Translate("Applications") : Translate("Background processes");
    return word + QStringLiteral(" (%1)").arg(static_cast<qulonglong>(count));
}

QString CpuCellNumber(double percent) {
    return QString::asprintf("%.1f%%", percent);
}

QString MemoryCellText(const RowFigure<std::uint64_t>& memory, const MemoryDisplayMode& mode) {
    return FigureText(memory, [&mode](std::uint64_t bytes) {
        if (mode.ShowsPercent()) {
            const double percent = static_cast<double>(bytes) * 100.0 / static_cast<double>(*mode.totalBytes);
            return QString::number(percent, 'f', 1) + QLatin1Char('%');
        }
        return FormatBytes(bytes);
    });
}

QString ProcessCellText(const ProcessRowValues& base, const ProcessRowFigures& shown, int column,
                        const MemoryDisplayMode& mode) {
    switch (static_cast<ProcessTableColumn>(column)) {
    case ProcessTableColumn::name:
        return base.name;
    case ProcessTableColumn::pid:
        return Decimal(base.key.pid);
    case ProcessTableColumn::status:
        return base.exited ? ExitedStateWord() : ProcessStateWord(base.state);
    case ProcessTableColumn::user:
        return core::CarriesValue(base.userNameAvailability) ? base.userName
                                                             : FormatAvailability(base.userNameAvailability);
    case ProcessTableColumn::cpu:
        return FigureText(shown.cpuPercent, CpuCellNumber);
    case ProcessTableColumn::memory:
        return MemoryCellText(shown.memoryBytes, mode);
    case ProcessTableColumn::diskRead:
        return FigureText(shown.diskReadBytesPerSecond, FormatRate);
    case ProcessTableColumn::diskWrite:
        return FigureText(shown.diskWriteBytesPerSecond, FormatRate);
    case ProcessTableColumn::threads:
        return Decimal(shown.threadCount);
    case ProcessTableColumn::virtualMemory:
        return FigureText(shown.virtualBytes, FormatBytes);
    case ProcessTableColumn::fileDescriptors:
        return FigureText(shown.fileDescriptorCount, Decimal);
    case ProcessTableColumn::nice:
        return FigureText(shown.nice, [](std::int32_t nice) { return QString::number(nice); });
    case ProcessTableColumn::command:
        return base.commandLine;
    }
    return {};
}

QVariant ProcessSortValue(const ProcessRowValues& base, const ProcessRowFigures& shown, int column,
                          const MemoryDisplayMode& mode) {
    switch (static_cast<ProcessTableColumn>(column)) {
    case ProcessTableColumn::name:
        return base.name;
    case ProcessTableColumn::pid:
        return QVariant::fromValue<uint>(base.key.pid);
    case ProcessTableColumn::status:
        return base.exited ? ExitedStateWord() : ProcessStateWord(base.state);
    case ProcessTableColumn::user:
        return core::CarriesValue(base.userNameAvailability) ? QVariant(base.userName) : QVariant();
    case ProcessTableColumn::cpu:
        return SortValue(shown.cpuPercent);
    case ProcessTableColumn::memory:
        if (!shown.memoryBytes.value) return {};
        if (mode.ShowsPercent()) {
            return static_cast<double>(*shown.memoryBytes.value) * 100.0 / static_cast<double>(*mode.totalBytes);
        }
        return QVariant::fromValue<qulonglong>(*shown.memoryBytes.value);
    case ProcessTableColumn::diskRead:
        return SortValue(shown.diskReadBytesPerSecond);
    case ProcessTableColumn::diskWrite:
        return SortValue(shown.diskWriteBytesPerSecond);
    case ProcessTableColumn::threads:
        return QVariant::fromValue<uint>(shown.threadCount);
    case ProcessTableColumn::virtualMemory:
        return SortValue(shown.virtualBytes);
    case ProcessTableColumn::fileDescriptors:
        return SortValue(shown.fileDescriptorCount);
    case ProcessTableColumn::nice:
        return SortValue(shown.nice);
    case ProcessTableColumn::command:
        return core::CarriesValue(base.commandLineAvailability) ? QVariant(base.commandLine) : QVariant();
    }
    return {};
}

}  // namespace korv::host::linux_client
