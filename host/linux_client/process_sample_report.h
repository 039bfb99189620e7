#pragma once

#include "core/process_key.h"

#include <QString>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <stop_token>
#include <string>

class QWidget;

namespace korv::host::linux_client {

// At most this many threads of a process are considered for their kernel stacks.
inline constexpr std::size_t kSampleReportMaxThreads = 4096;
// The report stops collecting before it would grow beyond this size ...
inline constexpr std::size_t kSampleReportMaxBytes = 4194304;
// ... counting this margin on top of the next piece, so that the closing line still fits.
inline constexpr std::size_t kSampleReportPieceMargin = 320;

enum class SampleReportStatus { written, exited, writeFailed, stopped };

struct SampleReportResult {
    SampleReportStatus status = SampleReportStatus::stopped;
    std::filesystem::path path;  // where the report went, or was meant to go
    std::string error;           // the writer's reason when it failed
};

// "TaskManager-<pid>-<start time>-sample.txt".
QString SampleReportFileName(const core::ProcessKey& key);

enum class SampleCollectStatus { collected, exited, stopped };

struct ProcessSampleText {
    SampleCollectStatus status = SampleCollectStatus::stopped;
    std::string text;  // the report; empty unless collected
};

// Reads the report of the process below `procRoot` through one handle on its directory, so that a
// reused pid is never read in its place. The stop token is checked between steps, and
// `betweenSteps`, when given, runs there too. Worker thread; reads /proc, never touches a widget.
ProcessSampleText CollectProcessSample(const std::filesystem::path& procRoot, const core::ProcessKey& key,
                                       std::stop_token stop, const std::function<void()>& betweenSteps = {});

// Collects and writes the report into `directory` as a whole file, and only when the process still
// has the key's start time once everything was read; otherwise no file is left. Worker thread.
SampleReportResult CreateProcessSample(const std::filesystem::path& procRoot, const core::ProcessKey& key,
                                       const std::filesystem::path& directory, std::stop_token stop,
                                       const std::function<void()>& betweenSteps = {});

// The message for a finished sample: "The file was written to:\n<path>", the write failure, or the
// exited warning. Empty for a stopped collection, which shows nothing.
QString SampleReportMessage(const SampleReportResult& result);

// Shows that message in a box titled "Create process sample": information for a written report, a
// warning otherwise. GUI thread.
void ShowSampleReportResult(QWidget* parent, const SampleReportResult& result);

}  // namespace korv::host::linux_client
