#include "core/settings.h"

#include <cerrno>
#include <chrono>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/atomic_file.h"
#include "core/settings_codec.h"

namespace korv::core {
namespace {

constexpr std::size_t kReadBlockBytes = 16384;

struct FileText {
    std::string text;
    std::string error;
    bool missing = false;
};

// One byte past the limit is read so that a file of exactly the limit is told apart from a larger one.
FileText ReadBounded(const std::filesystem::path& path)
{
    FileText result;
    int fd = -1;
    do {
        // O_NONBLOCK keeps a FIFO planted at the path from stalling the start.
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            result.missing = true;
        } else {
            result.error = "could not open settings file";
        }
        return result;
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        result.error = "could not open settings file";
        return result;
    }
    const std::size_t limit = kMaxSettingsFileBytes + 1;
    std::string& text = result.text;
    text.resize(limit);
    std::size_t total = 0;
    while (total < limit) {
        const std::size_t want = std::min(kReadBlockBytes, limit - total);
        const ssize_t got = ::read(fd, text.data() + total, want);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            ::close(fd);
            text.clear();
            result.error = "could not read settings file";
            return result;
        }
        if (got == 0) {
            break;
        }
        total += static_cast<std::size_t>(got);
    }
    ::close(fd);
    text.resize(total);
    if (total == limit) {
        text.clear();
        result.error = "settings file exceeds size limit";
    }
    return result;
}

// Moves a file that was read but cannot be used out of the way, so that no later save overwrites it.
// Returns the new path, or an empty path when the rename failed.
std::filesystem::path Quarantine(const std::filesystem::path& path)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    std::filesystem::path target;
    // rename replaces its target: never let one quarantined copy take the place of another.
    for (long long attempt = 0; attempt < 64; ++attempt) {
        target = path.native() + ".corrupt." + std::to_string(now + attempt);
        std::error_code error;
        if (!std::filesystem::exists(target, error) && !error) {
            break;
        }
    }
    const bool moved = ::rename(path.c_str(), target.c_str()) == 0;
    PruneFileSiblings(path);
    return moved ? target : std::filesystem::path();
}

}  // namespace

SettingsLoadResult SettingsStore::Load(const std::filesystem::path& path)
{
    SettingsLoadResult result;
    FileText file = ReadBounded(path);
    if (file.missing) {
        result.status = SettingsLoadStatus::missing;
        return result;
    }
    if (!file.error.empty()) {
        result.status = SettingsLoadStatus::failed;
        result.error = std::move(file.error);
        return result;
    }

    SettingsDecodeResult decoded = DecodeSettings(file.text);
    if (decoded.status == SettingsDecodeStatus::decoded) {
        result.settings = std::move(decoded.settings);
        result.status = SettingsLoadStatus::loaded;
        return result;
    }
    result.status = decoded.status == SettingsDecodeStatus::outdated ? SettingsLoadStatus::reset
                                                                        : SettingsLoadStatus::failed;
    result.error = std::move(decoded.error);
    result.quarantinedPath = Quarantine(path);
    if (result.quarantinedPath.empty()) {
        result.error = "quarantine failed: " + result.error;
    }
    return result;
}

std::optional<std::string> SettingsStore::Save(const std::filesystem::path& path, const Settings& settings)
{
    SettingsEncodeResult encoded = EncodeSettings(settings);
    if (encoded.error) {
        return encoded.error;
    }
    return WriteFileAtomically(path, encoded.text);
}

SettingsResetResult SettingsStore::Reset(const std::filesystem::path& path)
{
    SettingsResetResult result;
    // unlink, not remove: a directory at the settings path is not the settings file.
    if (::unlink(path.c_str()) == 0) {
        result.status = SettingsResetStatus::removed;
    } else if (errno == ENOENT) {
        result.status = SettingsResetStatus::absent;
    } else {
        result.status = SettingsResetStatus::failed;
        result.error = std::generic_category().message(errno);
    }
    return result;
}

}  // namespace korv::core
