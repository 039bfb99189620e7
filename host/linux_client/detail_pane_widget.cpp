#include "host/linux_client/detail_pane_widget.h"

#include "host/linux_client/detail_field_grid.h"
#include "host/linux_client/performance_metric_text.h"
#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>
#include <QLabel>
#include <QVBoxLayout>

#include <cmath>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("DetailPaneWidget", source);
}

class ProcessFields {
public:
    void Add(const char* label, const QString& value) {
        if (!value.isEmpty()) list_.push_back(DetailField{Text(label), value, {}});
    }
    template <typename T, typename Format>
    void Add(const char* label, const core::Metric<T>& metric, Format format) {
        if (const auto text = OptionalMetricText(metric, format)) Add(label, *text);
    }
    DetailFieldList Take() { return std::move(list_); }

private:
    DetailFieldList list_;
};

QString Bytes(std::uint64_t value) {
    return FormatBytes(value);
}

}  // namespace

QString FormatCpuTime(std::uint64_t nanoseconds) {
    const std::uint64_t seconds = nanoseconds / 1'000'000'000ULL;
    return QStringLiteral("%1:%2:%3")
        .arg(seconds / 3600)
        .arg((seconds / 60) % 60, 2, 10, QLatin1Char('0'))
        .arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

DetailFieldList ProcessDetailFields(const core::ProcessSnapshot& p, const QString& cgroup) {
    ProcessFields f;
    f.Add("PID", QString::number(p.key.pid));
    if (p.parentKey.pid != 0) f.Add("Parent", QString::number(p.parentKey.pid));
    f.Add("User", QString::fromStdString(p.userName));
    f.Add("Threads", p.threadCount, [](std::uint64_t v) { return QString::number(v); });
    f.Add("CPU time", p.totalCpuTimeNs, &FormatCpuTime);
    f.Add("Kernel time", p.kernelTimeNs, &FormatCpuTime);
    f.Add("User time", p.userTimeNs, &FormatCpuTime);
    f.Add("Memory", p.workingSetBytes, &Bytes);
    f.Add("Peak memory", p.peakWorkingSetBytes, &Bytes);
    f.Add("Virtual", p.virtualBytes, &Bytes);
    f.Add("Shared", p.sharedBytes, &Bytes);
    f.Add("Swap", p.swapBytes, &Bytes);
    f.Add("File descriptors", p.handleCount, [](std::uint64_t v) { return QString::number(v); });
    f.Add("Nice", p.nice, [](double v) { return QString::number(std::lround(v)); });
    f.Add("Cgroup", cgroup);
    f.Add("Image path", QString::fromStdString(p.executablePath));
    return f.Take();
}

DetailPaneWidget::DetailPaneWidget(QWidget* parent) : QWidget(parent) {
    setObjectName(QStringLiteral("DetailPane"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(12, 10, 12, 10);
    layout->setSpacing(8);
    heading_ = new QLabel(Text("Selection details"), this);
    heading_->setObjectName(QStringLiteral("DetailPaneHeading"));
    heading_->setTextFormat(Qt::PlainText);
    layout->addWidget(heading_);
    placeholder_ = new QLabel(Text("Select a single entry for detail information."), this);
    placeholder_->setObjectName(QStringLiteral("DetailPanePlaceholder"));
    placeholder_->setTextFormat(Qt::PlainText);
    placeholder_->setWordWrap(true);
    layout->addWidget(placeholder_);
    grid_ = new DetailFieldGrid(this);
    layout->addWidget(grid_);
    layout->addStretch(1);
    ClearSelection();
}

void DetailPaneWidget::ShowFields(const DetailFieldList& fields) {
    hasSelection_ = true;
    grid_->SetFields(fields);
    placeholder_->hide();
    grid_->show();
}

void DetailPaneWidget::ShowProcess(const core::ProcessSnapshot& process, const QString& cgroup) {
    ShowFields(ProcessDetailFields(process, cgroup));
}

void DetailPaneWidget::ClearSelection() {
    hasSelection_ = false;
    grid_->SetFields({});
    grid_->hide();
    placeholder_->show();
}

const DetailFieldList& DetailPaneWidget::Fields() const {
    return grid_->Fields();
}

QString DetailPaneWidget::PlaceholderText() const {
    return placeholder_->text();
}

}  // namespace korv::host::linux_client
