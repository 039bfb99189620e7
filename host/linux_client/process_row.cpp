#include "host/linux_client/process_row.h"

#include <cmath>
#include <limits>

namespace korv::host::linux_client {
namespace {

bool Finite(double value) noexcept {
    return std::fabs(value) <= std::numeric_limits<double>::max();
}

}  // namespace

std::uint32_t RowGroupOf(core::ProcessGroup group) noexcept {
    return group == core::ProcessGroup::apps ? 0U : 1U;
}

RowFigure<double> FigureOf(const core::Metric<double>& metric) {
    RowFigure<double> figure;
    figure.availability = metric.availability;
    if (core::CarriesValue(metric.availability) && metric.value && Finite(*metric.value)) figure.value = *metric.value;
    return figure;
}

RowFigure<std::uint64_t> FigureOf(const core::Metric<std::uint64_t>& metric) {
    RowFigure<std::uint64_t> figure;
    figure.availability = metric.availability;
    if (core::CarriesValue(metric.availability) && metric.value) figure.value = *metric.value;
    return figure;
}

RowFigure<std::int32_t> NiceFigureOf(const core::Metric<double>& metric) {
    RowFigure<std::int32_t> figure;
    figure.availability = metric.availability;
    if (core::CarriesValue(metric.availability) && metric.value && Finite(*metric.value) &&
        std::fabs(*metric.value) < 2147483647.0) {
        figure.value = static_cast<std::int32_t>(std::lround(*metric.value));
    }
    return figure;
}

ProcessRowFigures FiguresOf(const core::ProcessSnapshot& process, std::optional<double> cpuPercent) {
    // Read in the record's own order: thousands of records are read per refresh.
    ProcessRowFigures figures;
    figures.cpuPercent.availability = process.cpuPercent.availability;
    figures.cpuPercent.value = cpuPercent;
    figures.memoryBytes = FigureOf(process.workingSetBytes);
    figures.virtualBytes = FigureOf(process.virtualBytes);
    figures.nice = NiceFigureOf(process.nice);
    if (core::CarriesValue(process.threadCount.availability) && process.threadCount.value) {
        const std::uint64_t threads = *process.threadCount.value;
        figures.threadCount = threads > std::numeric_limits<std::uint32_t>::max()
                                  ? std::numeric_limits<std::uint32_t>::max()
                                  : static_cast<std::uint32_t>(threads);
    }
    figures.fileDescriptorCount = FigureOf(process.handleCount);
    figures.diskReadBytesPerSecond = FigureOf(process.readBytesPerSecond);
    figures.diskWriteBytesPerSecond = FigureOf(process.writeBytesPerSecond);
    return figures;
}

void FillRowTexts(const core::ProcessSnapshot& process, ProcessRowValues& values) {
    values.name = QString::fromStdString(process.name);
    values.userName = QString::fromStdString(process.userName);
    values.userNameAvailability =
        process.userName.empty() ? core::MetricAvailability::notYetAvailable : core::MetricAvailability::valid;
    values.applicationKey = QString::fromStdString(process.applicationKey);
    // A process whose command line cannot be read shows its executable; a kernel thread has neither.
    const QString executable = QString::fromStdString(process.executablePath);
    values.commandLine = process.commandLine.empty() ? executable : QString::fromStdString(process.commandLine);
    values.commandLineAvailability = values.commandLine.isEmpty() ? core::MetricAvailability::notApplicable
                                                                  : core::MetricAvailability::valid;
    const QChar lineFeed(u'\n');
    QString search;
    search.reserve(values.name.size() + values.userName.size() + values.commandLine.size() + executable.size() + 16);
    search += values.name;
    search += lineFeed;
    search += values.userName;
    search += lineFeed;
    search += values.commandLine;
    search += lineFeed;
    search += executable;
    search += lineFeed;
    search += QString::number(process.key.pid);
    values.searchText = std::move(search);
}

bool RowTextsDiffer(const core::ProcessSnapshot& a, const core::ProcessSnapshot& b) noexcept {
    return a.name != b.name || a.userName != b.userName || a.applicationKey != b.applicationKey ||
           a.executablePath != b.executablePath || a.commandLine != b.commandLine || a.key.pid != b.key.pid;
}

}  // namespace korv::host::linux_client
