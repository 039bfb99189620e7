#pragma once

namespace korv::providers {

// What a walk of the process table reports, in the program's own words.
inline constexpr const char* kProcessTableRefreshed = "procfs process table refreshed";
inline constexpr const char* kProcessEnumerationFailed = "procfs process directory enumeration failed";
inline constexpr const char* kProcessIterationFailed = "procfs process directory iteration failed";
inline constexpr const char* kProcessCountExceeded = "procfs process count exceeded safety limit";
inline constexpr const char* kProcessEnumerationCancelled = "Process enumeration cancelled";
inline constexpr const char* kProcessCollectionCancelled = "Process collection cancelled";
inline constexpr const char* kNoStableProcesses = "No stable readable processes were observed";

inline constexpr int kProcessCountExceededError = 75;

}  // namespace korv::providers
