#pragma once

#include "host/linux_client/smoke_options.h"

#include <QObject>
#include <QString>

#include <functional>
#include <vector>

class QWidget;

namespace korv::host::linux_client {

// One timed step of a smoke run.
struct SmokeStep {
    enum class Kind { selectPage, startScan, requestSample, selectDevice, capture, finish };
    int atMs = 0;
    Kind kind = Kind::finish;
    int stackIndex = -1;  // for selectPage
};

// The timetable of a smoke run, in time order: the page selection (each page at 80 ms steps when
// cycling, else the chosen page at once), a scan 200 ms in when asked and possible, samples at
// 120, 420, 720 and 1,020 ms, the device at 1,600 ms (2,880 ms when cycling), the capture and the
// finish 50 ms later.
std::vector<SmokeStep> BuildSmokeSchedule(const SmokeOptions& options, bool scanAvailable);

// What a smoke run drives in the window. A missing function stands for a feature that is not there.
struct SmokeHooks {
    std::function<void(int stackIndex)> selectPage;
    std::function<void()> requestSample;
    std::function<void(const QString& target)> startScan;
    std::function<void(core::DeviceKind device)> selectDevice;
    std::function<QWidget*(CaptureScope scope)> captureWidget;
    // Returns false when the recording cannot start; it ends the run itself when it can.
    std::function<bool(RecordingTarget target, int seconds)> startRecording;
    std::function<void(int status)> exit;
};

// Runs the timetable on the GUI thread's event loop and ends the program with its status: 0 for a
// finished run, 1 for a capture that could not be saved or a recording that could not start.
class SmokeRun : public QObject {
    Q_OBJECT
public:
    SmokeRun(SmokeOptions options, SmokeHooks hooks, QObject* parent = nullptr);
    void Start();

private:
    void RunStep(const SmokeStep& step);
    void Finish();

    SmokeOptions options_;
    SmokeHooks hooks_;
    bool finished_ = false;
};

// Saves a widget as PNG; returns false when the file could not be written.
bool SaveWidgetPng(QWidget& widget, const QString& path);

}  // namespace korv::host::linux_client
