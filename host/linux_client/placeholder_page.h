#pragma once

#include <QWidget>

namespace korv::host::linux_client {

// The page of a stack place whose page is not built yet: it shows its title and nothing else.
class PlaceholderPage : public QWidget {
    Q_OBJECT
public:
    explicit PlaceholderPage(const QString& title, QWidget* parent = nullptr);
};

}  // namespace korv::host::linux_client
