#pragma once

#include "core/settings.h"

#include <QObject>
#include <QString>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace korv::host::linux_client {

// Saves copies of the settings record on a background worker, so that a slow disk never stalls the
// window. Requests that arrive while a save runs collapse into one: only the newest record is
// written. An empty path means there is no writable configuration location.
class SettingsSaver : public QObject {
    Q_OBJECT
public:
    explicit SettingsSaver(std::filesystem::path path, QObject* parent = nullptr);
    // Finishes the save that is running and the one that waits, then joins the worker.
    ~SettingsSaver() override;

    SettingsSaver(const SettingsSaver&) = delete;
    SettingsSaver& operator=(const SettingsSaver&) = delete;

    // GUI thread: queues a save of this copy; a failure arrives later as saveFailed.
    void Save(core::Settings settings);
    // GUI thread, at exit: waits for queued saves, then saves this record on the worker and waits
    // for it. A failure is printed as "KORV: settings save failed: %s\n" and returned.
    std::optional<std::string> SaveAtExit(core::Settings settings);

    bool Available() const { return !path_.empty(); }
    const std::filesystem::path& Path() const { return path_; }

signals:
    // "Settings could not be saved: %1", delivered on the GUI thread.
    void saveFailed(const QString& message);

private:
    struct Job {
        core::Settings settings;
        std::uint64_t ticket = 0;
    };

    void Run();
    std::optional<std::string> Write(const core::Settings& settings) const;

    std::filesystem::path path_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<Job> pending_;
    std::uint64_t nextTicket_ = 1;
    std::uint64_t finishedTicket_ = 0;
    std::optional<std::string> lastError_;  // of the save with ticket finishedTicket_
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace korv::host::linux_client
