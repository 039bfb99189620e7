#pragma once

#include <QFrame>

#include <functional>

class QLineEdit;
class QMenu;
class QPushButton;
class QToolButton;

namespace korv::host::linux_client {

struct ShellColors;

// The bar above the page stack: hide sidebar, Process View, the filter box, Run new task, Refresh.
class CommandBar : public QFrame {
    Q_OBJECT
public:
    // Fills the Process View menu; it is called each time the menu opens, on an emptied menu.
    using ProcessViewBuilder = std::function<void(QMenu& menu)>;

    explicit CommandBar(QWidget* parent = nullptr);

    void SetProcessViewBuilder(ProcessViewBuilder builder);
    // Redraws the icons in the theme's colours.
    void ApplyColors(const ShellColors& colors);

    QToolButton* HideSidebarButton() const { return hideSidebar_; }
    QToolButton* ProcessViewButton() const { return processView_; }
    QLineEdit* FilterBox() const { return filter_; }
    QPushButton* RunNewTaskButton() const { return runNewTask_; }
    QPushButton* RefreshButton() const { return refresh_; }

private:
    QToolButton* hideSidebar_;
    QToolButton* processView_;
    QMenu* processViewMenu_;
    QLineEdit* filter_;
    QPushButton* runNewTask_;
    QPushButton* refresh_;
    ProcessViewBuilder builder_;
};

}  // namespace korv::host::linux_client
