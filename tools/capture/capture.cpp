// korv-capture: shows the window on the live machine, waits, and saves what the screen shows.
//
//   korv-capture --out=<png> [--seconds=N] [--page=<name>] [--theme=dark|light] [--display=<mode>]
//                [--device=<kind>] [--filter=<text>] [--menu] [--inspect] [--window-size=<size>]
//
// --menu opens the process context menu on the first process row, --inspect opens the inspector on
// it; the picture is taken half a second later. Meant for a private HOME under xvfb-run.

#include "core/settings.h"
#include "host/linux_client/application_setup.h"
#include "host/linux_client/command_bar.h"
#include "host/linux_client/page_catalog.h"
#include "host/linux_client/process_filter_proxy_model.h"
#include "host/linux_client/process_table_model.h"
#include "host/linux_client/process_tree_view.h"
#include "host/linux_client/processes_page.h"
#include "host/linux_client/smoke_options.h"
#include "host/linux_client/task_manager_window.h"

#include <QApplication>
#include <QGuiApplication>
#include <QLineEdit>
#include <QPixmap>
#include <QScreen>
#include <QTimer>

#include <cstdio>
#include <memory>

namespace lc = korv::host::linux_client;

namespace {

struct CaptureOptions {
    QString out;
    int seconds = 30;
    QString filter;
    bool menu = false;
    bool inspect = false;
    QStringList windowArguments;  // what the window's own parser reads
};

bool TakeValue(const QString& argument, const char* prefix, QString& value) {
    if (!argument.startsWith(QLatin1String(prefix))) return false;
    value = argument.mid(static_cast<qsizetype>(qstrlen(prefix)));
    return true;
}

CaptureOptions ParseArguments(const QStringList& arguments) {
    CaptureOptions options;
    options.windowArguments << arguments.value(0);
    for (const QString& argument : arguments.mid(1)) {
        QString value;
        if (TakeValue(argument, "--out=", value)) {
            options.out = value;
        } else if (TakeValue(argument, "--seconds=", value)) {
            options.seconds = value.toInt();
        } else if (TakeValue(argument, "--filter=", value)) {
            options.filter = value;
        } else if (argument == QLatin1String("--menu")) {
            options.menu = true;
        } else if (argument == QLatin1String("--inspect")) {
            options.inspect = true;
        } else {
            options.windowArguments << argument;
        }
    }
    return options;
}

// The first process row; with `leaf`, the first without children (a double-click on a parent
// folds it instead of opening the inspector).
QModelIndex FirstProcessRow(lc::ProcessesPage& page, bool leaf) {
    lc::ProcessTreeView& view = page.View();
    for (QModelIndex row = view.indexAt(QPoint(4, 4)); row.isValid(); row = view.indexBelow(row)) {
        if (page.Model().IsGroupHeader(page.Proxy().mapToSource(row))) continue;
        if (!leaf || !page.Proxy().hasChildren(row)) return row;
    }
    return {};
}

}  // namespace

int main(int argc, char* argv[]) {
    QApplication application(argc, argv);
    lc::InitializeEmbeddedResources();
    lc::ApplyGuiIdentity(application);
    lc::RegisterEmbeddedFonts();

    const CaptureOptions capture = ParseArguments(QCoreApplication::arguments());
    lc::SmokeOptions options = lc::ParseSmokeOptions(capture.windowArguments);
    if (capture.out.isEmpty() || options.error) {
        std::fprintf(stderr, "usage: korv-capture --out=<png> [--seconds=N] [--page=<name>] ... %s\n",
                     options.error ? options.error->toUtf8().constData() : "");
        return 2;
    }
    // The window runs as it does for a user: no smoke schedule, the live engine at its cadence.
    options.enabled = false;
    const int stackIndex = lc::StackIndexForPage(options.page.value_or(0));

    korv::core::SettingsLoadResult settings;
    settings.settings.updateSpeed = korv::core::UpdateSpeed::normal;
    auto window = std::make_unique<lc::TaskManagerWindow>(options, std::move(settings));
    window->resize(1240, 800);
    window->show();
    window->SelectStackIndex(stackIndex < 0 ? 0 : stackIndex);
    if (!capture.filter.isEmpty()) {
        window->findChild<lc::CommandBar*>()->FilterBox()->setText(capture.filter);
    }

    int status = 0;
    const auto shoot = [&] {
        const QPixmap screen = QGuiApplication::primaryScreen()->grabWindow(0);
        const QPixmap picture = screen.copy(window->frameGeometry());
        if (picture.isNull() || !picture.save(capture.out, "PNG")) {
            std::fprintf(stderr, "could not save %s\n", capture.out.toLocal8Bit().constData());
            status = 1;
        }
        QCoreApplication::exit(status);
    };
    QTimer::singleShot(capture.seconds * 1000, window.get(), [&] {
        auto* page = window->findChild<lc::ProcessesPage*>();
        if ((capture.menu || capture.inspect) && page != nullptr) {
            const QModelIndex row = FirstProcessRow(*page, capture.inspect);
            QTimer::singleShot(500, window.get(), shoot);
            if (capture.menu) {
                const QRect rect = page->View().visualRect(row);
                emit page->View().customContextMenuRequested(rect.center());
            } else {
                emit page->View().doubleClicked(row);
            }
            return;
        }
        shoot();
    });
    QApplication::exec();
    window->close();
    window.reset();
    return status;
}
