#include "host/linux_client/detail_field.h"

namespace korv::host::linux_client {

QString DetailFieldsText(const DetailFieldList& fields) {
    QString text;
    for (const DetailField& field : fields) {
        text += field.label + QLatin1Char('\t') + field.value + QLatin1Char('\n');
        if (!field.note.isEmpty()) {
            text += QLatin1Char('\t') + field.note + QLatin1Char('\n');
        }
    }
    return text;
}

}  // namespace korv::host::linux_client
