#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace korv::providers {

// The files that the process collector reads every tick.
enum class ProcFile : std::uint8_t { stat = 0, status = 1, io = 2, cgroup = 3 };
inline constexpr std::size_t kProcFileCount = 4;

// How many descriptors the collector may keep open between ticks. A kept process holds its
// /proc/<pid> directory and four files, about 16 KiB of kernel memory once they have been read.
class KeptDescriptorBudget {
public:
    static constexpr std::size_t kPerProcess = 5;
    static constexpr std::size_t kMaxProcesses = 4096;
    static constexpr std::size_t kReservedDescriptors = 1024;  // left to the rest of the program

    explicit KeptDescriptorBudget(std::size_t capacity) noexcept : capacity_(capacity) {}

    // Raises the soft RLIMIT_NOFILE once per program, toward the hard limit and only as far as the
    // table needs, and returns what the table may use beside kReservedDescriptors.
    static std::size_t SystemCapacity() noexcept;

    bool TryTake() noexcept {
        if (inUse_ + kPerProcess > capacity_) return false;
        inUse_ += kPerProcess;
        return true;
    }
    void Give() noexcept { inUse_ -= kPerProcess; }
    std::size_t InUse() const noexcept { return inUse_; }
    std::size_t Capacity() const noexcept { return capacity_; }

private:
    std::size_t capacity_;
    std::size_t inUse_ = 0;
};

// The procfs files of one process, read relative to its /proc/<pid> directory descriptor so that every
// read concerns the process that the directory was opened on: once that process is gone, reads fail
// with ESRCH or ENOENT even if its pid was reused. When kept, the file descriptors stay open between
// ticks and are re-read from offset 0.
class ProcessFiles {
public:
    ProcessFiles() = default;
    ~ProcessFiles() { Close(); }
    ProcessFiles(ProcessFiles&& other) noexcept;
    ProcessFiles& operator=(ProcessFiles&& other) noexcept;
    ProcessFiles(const ProcessFiles&) = delete;
    ProcessFiles& operator=(const ProcessFiles&) = delete;

    // Opens <root>/<pid> as a directory (no symbolic link followed). Keeps the files open when the
    // budget has room. Returns 0 or an errno value.
    int Open(int rootFd, std::uint32_t pid, KeptDescriptorBudget* budget);
    int Read(ProcFile file, std::size_t limit, std::string& out, bool* truncated = nullptr);
    // An open refused for lack of rights is remembered by a kept set; this forgets it, so that the
    // next read tries again.
    void RetryRefusedOpens() noexcept;
    void Close() noexcept;

    bool IsOpen() const noexcept { return directory_ >= 0; }
    bool Kept() const noexcept { return budget_ != nullptr; }
    int Directory() const noexcept { return directory_; }

private:
    struct Slot {
        int fd = -1;
        int refusedError = 0;
    };

    int directory_ = -1;
    std::array<Slot, kProcFileCount> files_{};
    KeptDescriptorBudget* budget_ = nullptr;  // set while the files are kept
};

const char* ProcFileName(ProcFile file) noexcept;

}  // namespace korv::providers
