#include "host/linux_client/process_sample_report.h"

#include "core/atomic_file.h"
#include "providers/bounded_read.h"
#include "providers/proc_pid_stat.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QMessageBox>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace korv::host::linux_client {
namespace {

constexpr std::size_t kNameLimit = 4096;
constexpr std::size_t kCommandLineLimit = 262144;
constexpr std::size_t kStatusLimit = 65536;
constexpr std::size_t kSmapsRollupLimit = 65536;
constexpr std::size_t kStackLimit = 65536;

constexpr std::string_view kSmapsNotReadable =
    "Not readable: summarizing another user's memory mappings needs ptrace access. Run KORV as that user or as root.";
constexpr std::string_view kStacksNotReadable =
    "Not readable: per-thread kernel stacks are root-only on most systems. Run KORV as root to capture them.";

QString Text(const char* source) {
    return QCoreApplication::translate("QMainWindow", source);
}

class Descriptor {
public:
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    int Get() const noexcept { return fd_; }

private:
    int fd_;
};

bool IsGone(int error) noexcept {
    return error == ENOENT || error == ESRCH;
}

// Whether the open pid directory still belongs to the process of the key. Once that process is
// gone, reads through the handle fail even if the pid was reused.
bool StillMatches(int pidDirectory, const core::ProcessKey& key) {
    std::string buffer;
    const providers::ProcStatRead read = providers::ReadProcPidStatAt(pidDirectory, key.pid, buffer);
    return read.stat && read.stat->starttime == key.startTime;
}

void TrimTrailingNewlines(std::string& text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
}

void EndLine(std::string& text) {
    if (!text.empty() && text.back() != '\n') text.push_back('\n');
}

// Thread ids below the task folder, ascending.
std::vector<std::uint32_t> ListThreadIds(int pidDirectory) {
    std::vector<std::uint32_t> tids;
    const int taskFd = ::openat(pidDirectory, "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (taskFd < 0) return tids;
    DIR* directory = ::fdopendir(taskFd);
    if (directory == nullptr) {
        ::close(taskFd);
        return tids;
    }
    while (const dirent* entry = ::readdir(directory)) {
        const std::string_view name(entry->d_name);
        std::uint32_t tid = 0;
        const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), tid);
        if (ec == std::errc{} && end == name.data() + name.size() && tid > 0) tids.push_back(tid);
    }
    ::closedir(directory);
    std::sort(tids.begin(), tids.end());
    return tids;
}

struct StackSection {
    std::size_t listed = 0;
    bool stopped = false;
};

StackSection AppendThreadStacks(int pidDirectory, std::string& report, const std::stop_token& stop) {
    StackSection section;
    const std::vector<std::uint32_t> tids = ListThreadIds(pidDirectory);
    const std::size_t considered = std::min(tids.size(), kSampleReportMaxThreads);
    std::string stack;
    std::string name;
    for (std::size_t i = 0; i < considered; ++i) {
        if (stop.stop_requested()) {
            section.stopped = true;
            return section;
        }
        const std::string tid = std::to_string(tids[i]);
        if (providers::ReadFileBoundedAt(pidDirectory, ("task/" + tid + "/stack").c_str(), kStackLimit, stack) != 0) {
            continue;
        }
        if (providers::ReadFileBoundedAt(pidDirectory, ("task/" + tid + "/comm").c_str(), kNameLimit, name) != 0) {
            name.clear();
        }
        TrimTrailingNewlines(name);
        std::string piece = "Thread " + tid + " (" + name + "):\n" + stack;
        EndLine(piece);
        if (report.size() + piece.size() + kSampleReportPieceMargin > kSampleReportMaxBytes) break;
        report += piece;
        ++section.listed;
    }
    if (section.listed == 0) {
        report += kStacksNotReadable;
        report += '\n';
    } else if (section.listed < tids.size()) {
        report += "(Threads listed: " + std::to_string(section.listed) + " of " + std::to_string(tids.size()) +
                  ". The rest had unreadable stacks, or the report reached its collection limit.)\n";
    }
    return section;
}

}  // namespace

QString SampleReportFileName(const core::ProcessKey& key) {
    return QStringLiteral("TaskManager-%1-%2-sample.txt").arg(key.pid).arg(key.startTime);
}

ProcessSampleText CollectProcessSample(const std::filesystem::path& procRoot, const core::ProcessKey& key,
                                       std::stop_token stop, const std::function<void()>& betweenSteps) {
    ProcessSampleText result;
    const auto step = [&]() {
        if (betweenSteps) betweenSteps();
        return !stop.stop_requested();
    };
    if (key.pid == 0 || key.pid > static_cast<std::uint32_t>(INT_MAX)) {
        result.status = SampleCollectStatus::exited;
        return result;
    }
    const std::string path = (procRoot / std::to_string(key.pid)).string();
    const Descriptor pidDirectory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (pidDirectory.Get() < 0 || !StillMatches(pidDirectory.Get(), key)) {
        result.status = SampleCollectStatus::exited;
        return result;
    }

    std::string report = "KORV process sample\n";
    std::string name;
    if (providers::ReadFileBoundedAt(pidDirectory.Get(), "comm", kNameLimit, name) != 0) name.clear();
    TrimTrailingNewlines(name);
    report += "Process: " + name + " (" + std::to_string(key.pid) + ")\n";
    report += "Collected: " + QDateTime::currentDateTime().toString(Qt::ISODate).toStdString() + "\n";
    std::string arguments;
    if (providers::ReadFileBoundedAt(pidDirectory.Get(), "cmdline", kCommandLineLimit, arguments) != 0) {
        arguments.clear();
    }
    while (!arguments.empty() && arguments.back() == '\0') arguments.pop_back();
    std::replace(arguments.begin(), arguments.end(), '\0', ' ');
    report += "Command line: " + arguments + "\n";
    if (!step()) return result;

    std::string text;
    int error = providers::ReadFileBoundedAt(pidDirectory.Get(), "status", kStatusLimit, text);
    if (IsGone(error)) {
        result.status = SampleCollectStatus::exited;
        return result;
    }
    report += '\n';
    report += error == 0 ? text : "Not readable: " + std::string(std::strerror(error)) + "\n";
    EndLine(report);
    if (!step()) return result;

    error = providers::ReadFileBoundedAt(pidDirectory.Get(), "smaps_rollup", kSmapsRollupLimit, text);
    report += '\n';
    if (error == 0) {
        report += text;
        EndLine(report);
    } else {
        report += kSmapsNotReadable;
        report += '\n';
    }
    if (!step()) return result;

    report += '\n';
    if (AppendThreadStacks(pidDirectory.Get(), report, stop).stopped || !step()) return result;

    if (!StillMatches(pidDirectory.Get(), key)) {
        result.status = SampleCollectStatus::exited;
        return result;
    }
    result.status = SampleCollectStatus::collected;
    result.text = std::move(report);
    return result;
}

SampleReportResult CreateProcessSample(const std::filesystem::path& procRoot, const core::ProcessKey& key,
                                       const std::filesystem::path& directory, std::stop_token stop,
                                       const std::function<void()>& betweenSteps) {
    SampleReportResult result;
    result.path = directory / SampleReportFileName(key).toStdString();
    ProcessSampleText sample = CollectProcessSample(procRoot, key, stop, betweenSteps);
    if (sample.status == SampleCollectStatus::stopped) return result;
    if (sample.status == SampleCollectStatus::exited) {
        result.status = SampleReportStatus::exited;
        return result;
    }
    if (stop.stop_requested()) return result;
    if (const std::optional<std::string> error = core::WriteFileAtomically(result.path, sample.text)) {
        result.status = SampleReportStatus::writeFailed;
        result.error = *error;
        return result;
    }
    result.status = SampleReportStatus::written;
    return result;
}

QString SampleReportMessage(const SampleReportResult& result) {
    const QString path = QString::fromStdString(result.path.string());
    switch (result.status) {
    case SampleReportStatus::written: return Text("The file was written to:\n%1").arg(path);
    case SampleReportStatus::writeFailed: return Text("The sample report could not be written to %1.").arg(path);
    case SampleReportStatus::exited: return Text("That process has exited or its process ID was reused.");
    case SampleReportStatus::stopped: break;
    }
    return {};
}

void ShowSampleReportResult(QWidget* parent, const SampleReportResult& result) {
    const QString message = SampleReportMessage(result);
    if (message.isEmpty()) return;
    const QString title = Text("Create process sample");
    if (result.status == SampleReportStatus::written) {
        QMessageBox::information(parent, title, message);
    } else {
        QMessageBox::warning(parent, title, message);
    }
}

}  // namespace korv::host::linux_client
