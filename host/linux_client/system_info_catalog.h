#pragma once

#include "core/snapshot.h"

#include <QString>

#include <cstdint>
#include <vector>

namespace korv::host::linux_client {

// One line of the System Info page. Children are the lines beneath a head such as a disk or a
// provider; their depth is one more than their parent's.
struct SystemInfoRow {
    QString label;
    QString value;
    int depth = 0;
    std::vector<SystemInfoRow> children;
};

struct SystemInfoCategory {
    QString id;     // e.g. "providers"
    QString title;  // e.g. "Native Providers"
    QString group;  // "Hardware", "Software" or "Diagnostics"
    std::vector<SystemInfoRow> rows;
};

// The whole inventory, built afresh from one snapshot; the categories are in page order.
struct SystemInfoCatalog {
    std::vector<SystemInfoCategory> categories;

    const SystemInfoCategory* Find(const QString& id) const;
};

SystemInfoCatalog BuildSystemInfoCatalog(const core::SystemSnapshot& snapshot);

// "days:hh:mm:ss", e.g. 90061 s gives "1:01:01:01".
QString FormatUptime(std::uint64_t seconds);

// The text forms: a row is "%1%2: %3" with two blanks per level of depth, followed by its children;
// a category is its title, then its rows; the whole catalogue is its categories separated by blank lines.
QString SystemInfoRowText(const SystemInfoRow& row);
QString SystemInfoCategoryText(const SystemInfoCategory& category);
QString SystemInfoCatalogText(const SystemInfoCatalog& catalog);

}  // namespace korv::host::linux_client
