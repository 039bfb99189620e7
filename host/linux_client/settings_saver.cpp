#include "host/linux_client/settings_saver.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <cstdio>
#include <system_error>

namespace korv::host::linux_client {

SettingsSaver::SettingsSaver(std::filesystem::path path, QObject* parent)
    : QObject(parent), path_(std::move(path)), worker_([this] { Run(); }) {}

SettingsSaver::~SettingsSaver() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    worker_.join();
}

void SettingsSaver::Save(core::Settings settings) {
    {
        const std::lock_guard lock(mutex_);
        pending_ = Job{std::move(settings), nextTicket_++};
    }
    changed_.notify_all();
}

std::optional<std::string> SettingsSaver::SaveAtExit(core::Settings settings) {
    std::unique_lock lock(mutex_);
    const std::uint64_t ticket = nextTicket_++;
    pending_ = Job{std::move(settings), ticket};
    changed_.notify_all();
    changed_.wait(lock, [&] { return finishedTicket_ >= ticket; });
    std::optional<std::string> error = finishedTicket_ == ticket ? lastError_ : std::nullopt;
    lock.unlock();
    if (error.has_value()) {
        std::fprintf(stderr, std::string(core::kSettingsSaveFailedAtExitLine).c_str(), error->c_str());
    }
    return error;
}

std::optional<std::string> SettingsSaver::Write(const core::Settings& settings) const {
    if (path_.empty()) {
        return std::string(core::kSettingsPersistenceUnavailable);
    }
    std::error_code error;
    if (path_.has_parent_path()) {
        std::filesystem::create_directories(path_.parent_path(), error);
        if (error) {
            return "could not create " + path_.parent_path().string() + ": " + error.message();
        }
    }
    return core::SettingsStore::Save(path_, settings);
}

void SettingsSaver::Run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || pending_.has_value(); });
        if (!pending_.has_value()) {
            return;  // stopping with nothing left to write
        }
        Job job = std::move(*pending_);
        pending_.reset();
        lock.unlock();
        std::optional<std::string> error = Write(job.settings);
        if (error.has_value()) {
            const QString message = QCoreApplication::translate("TaskManagerWindow", "Settings could not be saved: %1")
                                        .arg(QString::fromStdString(*error));
            QMetaObject::invokeMethod(this, [this, message] { emit saveFailed(message); }, Qt::QueuedConnection);
        }
        lock.lock();
        finishedTicket_ = job.ticket;
        lastError_ = std::move(error);
        changed_.notify_all();
    }
}

}  // namespace korv::host::linux_client
