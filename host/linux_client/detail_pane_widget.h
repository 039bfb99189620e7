#pragma once

#include "core/snapshot.h"
#include "host/linux_client/detail_field.h"

#include <QString>
#include <QWidget>

class QLabel;

namespace korv::host::linux_client {

class DetailFieldGrid;

// Pure: the fields of one process in their fixed order ("PID", "Parent", "User", "Threads",
// "CPU time", "Kernel time", "User time", "Memory", "Peak memory", "Virtual", "Shared", "Swap",
// "File descriptors", "Nice", "Cgroup", "Image path"), each only when it has a value.
DetailFieldList ProcessDetailFields(const core::ProcessSnapshot& process, const QString& cgroup = {});

// "h:mm:ss" for a CPU time.
QString FormatCpuTime(std::uint64_t nanoseconds);

// The fields of the one entry that is selected, under the heading "Selection details"; with no
// single selection it says "Select a single entry for detail information.". GUI thread only.
class DetailPaneWidget : public QWidget {
    Q_OBJECT
public:
    explicit DetailPaneWidget(QWidget* parent = nullptr);

    void ShowFields(const DetailFieldList& fields);
    void ShowProcess(const core::ProcessSnapshot& process, const QString& cgroup = {});
    void ClearSelection();

    bool HasSelection() const { return hasSelection_; }
    const DetailFieldList& Fields() const;
    QString PlaceholderText() const;

private:
    QLabel* heading_;
    QLabel* placeholder_;
    DetailFieldGrid* grid_;
    bool hasSelection_ = false;
};

}  // namespace korv::host::linux_client
