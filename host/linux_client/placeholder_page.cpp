#include "host/linux_client/placeholder_page.h"

#include <QLabel>
#include <QVBoxLayout>

namespace korv::host::linux_client {

PlaceholderPage::PlaceholderPage(const QString& title, QWidget* parent) : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(28, 22, 28, 22);
    auto* heading = new QLabel(title, this);
    heading->setObjectName(QStringLiteral("PageTitle"));
    heading->setTextFormat(Qt::PlainText);
    layout->addWidget(heading);
    layout->addStretch(1);
}

}  // namespace korv::host::linux_client
