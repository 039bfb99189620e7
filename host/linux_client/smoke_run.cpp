#include "host/linux_client/smoke_run.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPixmap>
#include <QTimer>
#include <QWidget>

#include <algorithm>
#include <cstdio>

namespace korv::host::linux_client {
namespace {

constexpr int kPageStepMs = 80;
constexpr int kScanAtMs = 200;
constexpr int kSampleTimesMs[] = {120, 420, 720, 1020};
constexpr int kDeviceAtMs = 1600;
constexpr int kDeviceAtMsCycling = 2880;
constexpr int kCaptureDelayMs = 50;

void PrintError(const QString& text) {
    std::fprintf(stderr, "error: %s\n", text.toLocal8Bit().constData());
}

}  // namespace

std::vector<SmokeStep> BuildSmokeSchedule(const SmokeOptions& options, bool scanAvailable) {
    std::vector<SmokeStep> steps;
    if (options.cyclePages) {
        for (int index = 0; index < kStackPageCount; ++index) {
            steps.push_back({kPageStepMs * (index + 1), SmokeStep::Kind::selectPage, index});
        }
    } else {
        const int stackIndex = StackIndexForPage(options.page.value_or(0));
        steps.push_back({0, SmokeStep::Kind::selectPage, stackIndex < 0 ? 0 : stackIndex});
    }
    if (options.scanTarget.has_value() && scanAvailable) {
        steps.push_back({kScanAtMs, SmokeStep::Kind::startScan, -1});
    }
    for (const int at : kSampleTimesMs) {
        steps.push_back({at, SmokeStep::Kind::requestSample, -1});
    }
    const int deviceAt = options.cyclePages ? kDeviceAtMsCycling : kDeviceAtMs;
    if (options.device.has_value()) {
        steps.push_back({deviceAt, SmokeStep::Kind::selectDevice, -1});
    }
    steps.push_back({deviceAt + kCaptureDelayMs, SmokeStep::Kind::capture, -1});
    steps.push_back({deviceAt + kCaptureDelayMs, SmokeStep::Kind::finish, -1});
    std::stable_sort(steps.begin(), steps.end(),
                     [](const SmokeStep& a, const SmokeStep& b) { return a.atMs < b.atMs; });
    return steps;
}

bool SaveWidgetPng(QWidget& widget, const QString& path) {
    const QPixmap pixmap = widget.grab();
    return !pixmap.isNull() && pixmap.save(path, "PNG");
}

SmokeRun::SmokeRun(SmokeOptions options, SmokeHooks hooks, QObject* parent)
    : QObject(parent), options_(std::move(options)), hooks_(std::move(hooks)) {}

void SmokeRun::Start() {
    const bool scanAvailable = static_cast<bool>(hooks_.startScan);
    for (const SmokeStep& step : BuildSmokeSchedule(options_, scanAvailable)) {
        if (step.atMs == 0 && step.kind == SmokeStep::Kind::selectPage) {
            RunStep(step);
            continue;
        }
        // Steps of one time keep their order: single-shot timers of equal delay fire in creation order.
        QTimer::singleShot(step.atMs, Qt::PreciseTimer, this, [this, step] { RunStep(step); });
    }
}

void SmokeRun::RunStep(const SmokeStep& step) {
    if (finished_) {
        return;
    }
    switch (step.kind) {
    case SmokeStep::Kind::selectPage:
        if (hooks_.selectPage) {
            hooks_.selectPage(step.stackIndex);
        }
        break;
    case SmokeStep::Kind::startScan:
        if (hooks_.startScan) {
            // The empty target is the application's own folder.
            const QString target = options_.scanTarget.value_or(QString());
            hooks_.startScan(target.isEmpty() ? QCoreApplication::applicationDirPath() : target);
        }
        break;
    case SmokeStep::Kind::requestSample:
        if (hooks_.requestSample) {
            hooks_.requestSample();
        }
        break;
    case SmokeStep::Kind::selectDevice:
        if (hooks_.selectDevice && options_.device.has_value()) {
            hooks_.selectDevice(*options_.device);
        }
        break;
    case SmokeStep::Kind::capture:
        if (!options_.capturePath.isEmpty()) {
            QWidget* widget = hooks_.captureWidget ? hooks_.captureWidget(options_.captureScope) : nullptr;
            if (widget == nullptr || !SaveWidgetPng(*widget, options_.capturePath)) {
                PrintError(QStringLiteral("could not save the capture to %1")
                               .arg(QDir::toNativeSeparators(QFileInfo(options_.capturePath).absoluteFilePath())));
                finished_ = true;
                hooks_.exit(1);
            }
        }
        break;
    case SmokeStep::Kind::finish:
        Finish();
        break;
    }
}

void SmokeRun::Finish() {
    if (finished_) {
        return;
    }
    finished_ = true;
    if (!options_.recordTarget.has_value()) {
        hooks_.exit(0);
        return;
    }
    const int seconds = std::max(options_.recordSeconds, 1);
    if (!hooks_.startRecording || !hooks_.startRecording(*options_.recordTarget, seconds)) {
        std::fprintf(stderr, "error: --record could not start a recording\n");
        hooks_.exit(1);
    }
}

}  // namespace korv::host::linux_client
