#include <gtest/gtest.h>

#include <QApplication>
#include <QStandardPaths>

#include "host/linux_client/application_setup.h"

int main(int argc, char* argv[])
{
    // Headless unless the caller chose a platform.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    // Settings that windows save in tests go to the toolkit's test folders, never the user's own.
    QStandardPaths::setTestModeEnabled(true);
    QApplication application(argc, argv);
    korv::host::linux_client::InitializeEmbeddedResources();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
