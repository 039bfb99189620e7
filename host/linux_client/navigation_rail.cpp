#include "host/linux_client/navigation_rail.h"

#include "host/linux_client/page_catalog.h"
#include "host/linux_client/smoke_options.h"

#include <QCoreApplication>
#include <QListWidget>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace korv::host::linux_client {

NavigationRail::NavigationRail(QWidget* parent) : QFrame(parent) {
    setObjectName(QStringLiteral("NavigationRail"));
    setFixedWidth(212);
    setAttribute(Qt::WA_StyledBackground, true);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 10, 0, 10);
    layout->setSpacing(0);

    list_ = new QListWidget(this);
    list_->setObjectName(QStringLiteral("NavigationList"));
    list_->setAccessibleName(QCoreApplication::translate("TaskManagerWindow", "Task Manager pages"));
    list_->setFrameShape(QFrame::NoFrame);
    list_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    list_->setSelectionMode(QAbstractItemView::SingleSelection);
    list_->setUniformItemSizes(true);
    for (int index = 0; index < kStackPageCount; ++index) {
        list_->addItem(RailLabel(index));
    }
    layout->addWidget(list_, 1);

    auto* divider = new QFrame(this);
    divider->setObjectName(QStringLiteral("Divider"));
    divider->setFrameShape(QFrame::HLine);
    layout->addWidget(divider);

    auto* footer = new QWidget(this);
    footer->setObjectName(QStringLiteral("SidebarFooter"));
    auto* footerLayout = new QVBoxLayout(footer);
    footerLayout->setContentsMargins(8, 2, 8, 0);
    footerLayout->setSpacing(1);
    settingsButton_ = new QPushButton(QCoreApplication::translate("TaskManagerWindow", "&Settings"), footer);
    settingsButton_->setObjectName(QStringLiteral("SettingsButton"));
    colorsButton_ = new QPushButton(QCoreApplication::translate("TaskManagerWindow", "&Colors"), footer);
    colorsButton_->setObjectName(QStringLiteral("ColorsButton"));
    for (QPushButton* button : {settingsButton_, colorsButton_}) {
        button->setFlat(true);
        button->setCursor(Qt::PointingHandCursor);
        footerLayout->addWidget(button);
    }
    layout->addWidget(footer);

    connect(list_, &QListWidget::currentRowChanged, this, [this](int row) {
        if (row >= 0) {
            emit pageRequested(row);
        }
    });
}

void NavigationRail::SetCurrentStackIndex(int stackIndex) {
    const QSignalBlocker blocker(list_);
    list_->setCurrentRow(stackIndex);
}

int NavigationRail::CurrentStackIndex() const {
    return list_->currentRow();
}

}  // namespace korv::host::linux_client
