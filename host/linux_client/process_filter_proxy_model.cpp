#include "host/linux_client/process_filter_proxy_model.h"

#include "host/linux_client/process_table_columns.h"
#include "host/linux_client/process_table_model.h"

namespace korv::host::linux_client {

ProcessFilterProxyModel::ProcessFilterProxyModel(ProcessTableModel& source, QObject* parent)
    : QSortFilterProxyModel(parent), source_(source) {
    setSourceModel(&source_);
    setSortRole(kProcessSortRole);
    setFilterRole(kProcessSearchRole);
    setSortCaseSensitivity(Qt::CaseInsensitive);
    setDynamicSortFilter(false);
    setRecursiveFilteringEnabled(true);
    // The followed row passes any filter, so a change of it may show or hide a row.
    connect(&source_, &ProcessTableModel::FollowedKeyChanged, this, [this] {
        if (!filterText_.isEmpty()) invalidateFilter();
    });
}

ProcessFilterProxyModel::~ProcessFilterProxyModel() = default;

void ProcessFilterProxyModel::SetFilterText(const QString& text) {
    const QString trimmed = text.trimmed();
    if (trimmed == filterText_) return;
    filterText_ = trimmed;
    invalidateFilter();
}

QString ProcessFilterProxyModel::FilterText() const {
    return filterText_;
}

void ProcessFilterProxyModel::RefreshFilter() {
    invalidateFilter();
}

ProcessTableModel& ProcessFilterProxyModel::SourceModel() const {
    return source_;
}

bool ProcessFilterProxyModel::filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const {
    if (filterText_.isEmpty()) return true;
    const QModelIndex row = source_.index(sourceRow, 0, sourceParent);
    if (!row.isValid() || source_.IsGroupHeader(row)) return false;
    const std::optional<core::ProcessKey> key = source_.KeyForIndex(row);
    if (key && key == source_.FollowedKey()) return true;
    const QString* searchText = source_.SearchText(row);
    return searchText != nullptr && searchText->contains(filterText_, Qt::CaseInsensitive);
}

bool ProcessFilterProxyModel::lessThan(const QModelIndex& left, const QModelIndex& right) const {
    // The order the sort role's values give, without a variant per comparison; the two group
    // headers keep their places whichever way the user sorts.
    return source_.SortLessThan(left, right, sortOrder());
}

}  // namespace korv::host::linux_client
