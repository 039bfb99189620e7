#pragma once

#include <QString>

#include <vector>

namespace korv::host::linux_client {

// One line of a detail block: a label, its value, and an optional note that explains the value
// (for example why a reading needs more access).
struct DetailField {
    QString label;
    QString value;
    QString note;

    bool operator==(const DetailField&) const = default;
};

using DetailFieldList = std::vector<DetailField>;

// The fields as plain text, one "label<TAB>value" line each, notes on their own indented line.
QString DetailFieldsText(const DetailFieldList& fields);

}  // namespace korv::host::linux_client
