#pragma once

#include <QFrame>

class QListWidget;
class QPushButton;

namespace korv::host::linux_client {

// The dark rail at the window's left: the fifteen page labels, a divider and a footer with the
// Settings and Colors buttons.
class NavigationRail : public QFrame {
    Q_OBJECT
public:
    explicit NavigationRail(QWidget* parent = nullptr);

    // Marks a stack place as current without emitting pageRequested.
    void SetCurrentStackIndex(int stackIndex);
    int CurrentStackIndex() const;

    QPushButton* SettingsButton() const { return settingsButton_; }
    QPushButton* ColorsButton() const { return colorsButton_; }

signals:
    void pageRequested(int stackIndex);

private:
    QListWidget* list_;
    QPushButton* settingsButton_;
    QPushButton* colorsButton_;
};

}  // namespace korv::host::linux_client
