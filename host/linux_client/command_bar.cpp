#include "host/linux_client/command_bar.h"

#include "host/linux_client/theme.h"

#include <QCoreApplication>
#include <QHBoxLayout>
#include <QIcon>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QPushButton>
#include <QToolButton>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("TaskManagerWindow", source);
}

// Three bars, drawn rather than shipped so that they follow the theme's text colour.
QIcon SidebarIcon(const QColor& color) {
    constexpr int kSize = 32;
    QPixmap pixmap(kSize, kSize);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing, true);
    QPen pen(color, 2.6, Qt::SolidLine, Qt::RoundCap);
    painter.setPen(pen);
    for (const int y : {9, 16, 23}) {
        painter.drawLine(QPointF(7, y), QPointF(25, y));
    }
    painter.end();
    return QIcon(pixmap);
}

// A small chevron that tells the Process View button opens a menu.
QIcon ChevronIcon(const QColor& color) {
    constexpr int kSize = 32;
    QPixmap pixmap(kSize, kSize);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.setPen(QPen(color, 2.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.drawPolyline(QPolygonF({QPointF(9, 13), QPointF(16, 20), QPointF(23, 13)}));
    painter.end();
    return QIcon(pixmap);
}

}  // namespace

CommandBar::CommandBar(QWidget* parent) : QFrame(parent) {
    setObjectName(QStringLiteral("CommandBar"));
    setAttribute(Qt::WA_StyledBackground, true);

    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(10, 8, 14, 8);
    layout->setSpacing(6);

    hideSidebar_ = new QToolButton(this);
    hideSidebar_->setObjectName(QStringLiteral("HideSidebarButton"));
    hideSidebar_->setToolTip(Text("Hide sidebar"));
    hideSidebar_->setAccessibleName(Text("Hide sidebar"));
    hideSidebar_->setIconSize(QSize(18, 18));
    hideSidebar_->setAutoRaise(true);
    layout->addWidget(hideSidebar_);

    processView_ = new QToolButton(this);
    processView_->setObjectName(QStringLiteral("ProcessViewButton"));
    processView_->setText(Text("Process &View"));
    processView_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    processView_->setLayoutDirection(Qt::RightToLeft);  // the chevron after the text
    processView_->setIconSize(QSize(12, 12));
    processView_->setPopupMode(QToolButton::InstantPopup);
    processViewMenu_ = new QMenu(processView_);
    processViewMenu_->setObjectName(QStringLiteral("ProcessViewMenu"));
    processView_->setMenu(processViewMenu_);
    connect(processViewMenu_, &QMenu::aboutToShow, this, [this] {
        processViewMenu_->clear();
        if (builder_) {
            builder_(*processViewMenu_);
        }
    });
    layout->addWidget(processView_);

    filter_ = new QLineEdit(this);
    filter_->setObjectName(QStringLiteral("FilterBox"));
    filter_->setAccessibleName(Text("Filter current table"));
    filter_->setToolTip(Text("Filter current table"));
    filter_->setPlaceholderText(Text("Filter by name, user, or PID"));
    filter_->setClearButtonEnabled(true);
    filter_->setMinimumWidth(180);
    filter_->setMaximumWidth(380);
    layout->addWidget(filter_, 1);
    layout->addStretch(1);

    runNewTask_ = new QPushButton(Text("Run &new task"), this);
    runNewTask_->setObjectName(QStringLiteral("RunNewTaskButton"));
    layout->addWidget(runNewTask_);

    refresh_ = new QPushButton(Text("&Refresh"), this);
    refresh_->setObjectName(QStringLiteral("RefreshButton"));
    layout->addWidget(refresh_);
}

void CommandBar::SetProcessViewBuilder(ProcessViewBuilder builder) {
    builder_ = std::move(builder);
}

void CommandBar::ApplyColors(const ShellColors& colors) {
    hideSidebar_->setIcon(SidebarIcon(colors.text));
    processView_->setIcon(ChevronIcon(colors.mutedText));
}

}  // namespace korv::host::linux_client
