#pragma once

#include <QSortFilterProxyModel>
#include <QString>

namespace korv::host::linux_client {

class ProcessTableModel;

// Filters and sorts the process table. Sorting and filtering happen only when asked (the page
// sorts once per sample), so rows never move while a cell changes. Group headers keep their
// order whichever way the user sorts, and show through the filter only above a matching row.
class ProcessFilterProxyModel : public QSortFilterProxyModel {
    Q_OBJECT
public:
    explicit ProcessFilterProxyModel(ProcessTableModel& source, QObject* parent = nullptr);
    ~ProcessFilterProxyModel() override;

    // Trimmed; the same text (compared case-sensitively) changes nothing.
    void SetFilterText(const QString& text);
    QString FilterText() const;
    // Runs the filter again over the present rows (the page does so once per sample).
    void RefreshFilter();

    ProcessTableModel& SourceModel() const;

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const override;
    bool lessThan(const QModelIndex& left, const QModelIndex& right) const override;

private:
    ProcessTableModel& source_;
    QString filterText_;
};

}  // namespace korv::host::linux_client
