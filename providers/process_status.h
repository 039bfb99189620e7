#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace korv::providers {

// /proc/<pid>/status: only these keys are read; sizes are in kB. A key that the file lacks (a kernel
// thread has no Vm lines) stays empty.
struct ParsedProcStatus {
    std::optional<std::uint64_t> uid;  // the real uid, the first of the line's four
    std::optional<std::uint64_t> vmRssKib;
    std::optional<std::uint64_t> vmHwmKib;
    std::optional<std::uint64_t> rssAnonKib;
    std::optional<std::uint64_t> rssFileKib;
    std::optional<std::uint64_t> rssShmemKib;
    std::optional<std::uint64_t> vmSwapKib;
};

// /proc/<pid>/io.
struct ParsedProcIo {
    std::optional<std::uint64_t> syscr;
    std::optional<std::uint64_t> syscw;
    std::optional<std::uint64_t> readBytes;
    std::optional<std::uint64_t> writeBytes;
};

inline constexpr std::size_t kProcPidStatusLimit = 262144;
inline constexpr std::size_t kProcPidIoLimit = 65536;
inline constexpr int kEmptyIoError = 71;  // EPROTO: the kernel gave an empty io file

// "Key: value" lines, white space trimmed; the first number of the value is taken, and a number too
// large for 64 bits saturates. The first line of a key wins.
ParsedProcStatus ParseProcPidStatus(std::string_view text) noexcept;

struct ProcIoParse {
    ParsedProcIo io;
    int error = 0;  // kEmptyIoError for an empty file
};
ProcIoParse ParseProcPidIo(std::string_view text) noexcept;

}  // namespace korv::providers
