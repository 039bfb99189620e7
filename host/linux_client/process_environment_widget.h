#pragma once

#include "core/metric.h"

#include <QString>
#include <QWidget>

#include <memory>
#include <string>
#include <vector>

namespace korv::host::linux_client {

// The environment of a process as a filterable table of "Variable" and "Value". The filter text
// matches either column, ignoring case; "Copy" puts the selected row on the clipboard as
// NAME=value. When the environment cannot be read, its availability word replaces the table.
class ProcessEnvironmentWidget : public QWidget {
    Q_OBJECT
public:
    explicit ProcessEnvironmentWidget(QWidget* parent = nullptr);
    ~ProcessEnvironmentWidget() override;

    // "KEY=value" entries as the process holds them; an entry without "=" is a name with no value.
    void SetEnvironment(const std::vector<std::string>& entries, core::MetricAvailability availability);
    void SetFilterText(const QString& text);

    // Rows that pass the filter, and the text that stands in for an unreadable environment.
    int VisibleRowCount() const;
    QString VisibleEntry(int row) const;  // NAME=value of a visible row
    QString UnavailableText() const;      // empty while the table is shown
    void SelectVisibleRow(int row);
    // NAME=value of the selected row; empty when none is selected.
    QString SelectedEntry() const;
    void CopySelected();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
