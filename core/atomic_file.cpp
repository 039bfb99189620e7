#include "core/atomic_file.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korv::core {
namespace {

// Two saves in the same steady-clock tick still get distinct temporary names.
std::atomic<std::uint64_t> temporaryCounter{0};

std::string SystemMessage(int error)
{
    return std::generic_category().message(error);
}

std::filesystem::path TemporaryPathFor(const std::filesystem::path& target)
{
    const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
    const auto serial = temporaryCounter.fetch_add(1, std::memory_order_relaxed);
    std::string name = target.native();
    name += ".tmp.";
    name += std::to_string(::getpid());
    name += '.';
    name += std::to_string(ticks);
    name += '.';
    name += std::to_string(serial);
    return std::filesystem::path(std::move(name));
}

std::optional<std::string> WriteAll(int fd, std::string_view text)
{
    constexpr std::size_t kMaxChunk = static_cast<std::size_t>(std::numeric_limits<ssize_t>::max());
    std::size_t done = 0;
    while (done < text.size()) {
        const std::size_t chunk = std::min(text.size() - done, kMaxChunk);
        const ssize_t written = ::write(fd, text.data() + done, chunk);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return "write failed: " + SystemMessage(errno);
        }
        if (written == 0) {
            return std::string("write made no progress");
        }
        done += static_cast<std::size_t>(written);
    }
    return std::nullopt;
}

// Writes, syncs and closes the temporary file; the descriptor is closed on every path.
std::optional<std::string> FillTemporary(int fd, std::string_view text)
{
    if (auto error = WriteAll(fd, text)) {
        ::close(fd);
        return error;
    }
    if (::fsync(fd) != 0) {
        const int error = errno;
        ::close(fd);
        return "fsync failed: " + SystemMessage(error);
    }
    // close is not retried on EINTR: on Linux the descriptor is gone either way.
    if (::close(fd) != 0) {
        return "close failed: " + SystemMessage(errno);
    }
    return std::nullopt;
}

void SyncDirectory(const std::filesystem::path& directory)
{
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    ::fsync(fd);
    ::close(fd);
}

std::filesystem::path ParentOf(const std::filesystem::path& target)
{
    std::filesystem::path parent = target.parent_path();
    return parent.empty() ? std::filesystem::path(".") : parent;
}

// A temporary is left over when the writer its name gives (`<pid>.<ticks>.<serial>`) is no longer
// running, or when it was last written long ago (a pid can be reused, and older names carry none).
bool TemporaryIsLeftOver(const std::filesystem::path& path, std::string_view suffix)
{
    std::error_code timeError;
    const auto written = std::filesystem::last_write_time(path, timeError);
    if (!timeError && std::filesystem::file_time_type::clock::now() - written >= kStaleTemporaryAge) {
        return true;
    }
    long long pid = 0;
    const auto [end, error] = std::from_chars(suffix.data(), suffix.data() + suffix.size(), pid);
    if (error != std::errc() || end == suffix.data() + suffix.size() || *end != '.' || pid <= 0 ||
        pid > std::numeric_limits<pid_t>::max() || pid == ::getpid()) {
        return false;
    }
    return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

}  // namespace

std::optional<std::string> WriteFileAtomically(const std::filesystem::path& target, std::string_view text)
{
    const std::filesystem::path temporary = TemporaryPathFor(target);
    int fd = -1;
    do {
        fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return "open failed: " + SystemMessage(errno);
    }
    if (auto error = FillTemporary(fd, text)) {
        ::unlink(temporary.c_str());
        return error;
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return "rename failed: " + SystemMessage(error);
    }
    SyncDirectory(ParentOf(target));
    PruneFileSiblings(target);
    return std::nullopt;
}

void PruneFileSiblings(const std::filesystem::path& target)
{
    const std::string name = target.filename().native();
    if (name.empty()) {
        return;
    }
    const std::string temporaryPrefix = name + ".tmp.";
    const std::string quarantinePrefix = name + ".corrupt.";

    std::error_code error;
    std::filesystem::directory_iterator it(ParentOf(target), error);
    if (error) {
        return;
    }
    std::vector<std::filesystem::path> quarantined;
    for (const std::filesystem::directory_iterator end; it != end; it.increment(error)) {
        if (error) {
            break;
        }
        const std::string sibling = it->path().filename().native();
        if (sibling.starts_with(temporaryPrefix)) {
            // Two programs may save the same file at once: only a leftover of a writer that died
            // is removed, never a temporary that is about to be renamed into place.
            if (!TemporaryIsLeftOver(it->path(), sibling.substr(temporaryPrefix.size()))) {
                continue;
            }
            std::error_code ignored;
            std::filesystem::remove(it->path(), ignored);
        } else if (sibling.starts_with(quarantinePrefix)) {
            quarantined.push_back(it->path());
        }
    }
    if (quarantined.size() <= kKeptQuarantinedCopies) {
        return;
    }
    std::sort(quarantined.begin(), quarantined.end());
    const auto excess = static_cast<std::ptrdiff_t>(quarantined.size() - kKeptQuarantinedCopies);
    for (auto old = quarantined.begin(); old != quarantined.begin() + excess; ++old) {
        std::error_code ignored;
        std::filesystem::remove(*old, ignored);
    }
}

}  // namespace korv::core
