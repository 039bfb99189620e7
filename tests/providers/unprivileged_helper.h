#pragma once

#include <grp.h>
#include <optional>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <type_traits>
#include <unistd.h>

namespace korv::providers::test_support {

inline constexpr uid_t kNobody = 65534;
inline constexpr gid_t kNogroup = 65534;

// Forks a helper that gives up root for nobody (with limitNice, also a nice limit of 0, so that no
// lowering is allowed), lets body fill the report there and sends it back through a pipe. The tests
// run as root, so this is how a user without CAP_SYS_NICE or CAP_KILL is reached. The report's
// `dropped` tells whether the switch of user worked.
template <typename Report, typename Body>
    requires std::is_trivially_copyable_v<Report>
std::optional<Report> RunAsNobody(Body body, bool limitNice = false) {
    int fds[2];
    if (::pipe(fds) != 0) return std::nullopt;
    const pid_t helper = ::fork();
    if (helper < 0) return std::nullopt;
    if (helper == 0) {
        ::close(fds[0]);
        Report report{};
        const rlimit noNice{0, 0};
        report.dropped = (!limitNice || ::setrlimit(RLIMIT_NICE, &noNice) == 0) && ::setgroups(0, nullptr) == 0 &&
                         ::setgid(kNogroup) == 0 && ::setuid(kNobody) == 0 && ::geteuid() == kNobody;
        if (report.dropped) body(report);
        const ssize_t written = ::write(fds[1], &report, sizeof(report));
        ::_exit(written == static_cast<ssize_t>(sizeof(report)) ? 0 : 1);
    }
    ::close(fds[1]);
    Report report{};
    const ssize_t got = ::read(fds[0], &report, sizeof(report));
    ::close(fds[0]);
    ::waitpid(helper, nullptr, 0);
    if (got != static_cast<ssize_t>(sizeof(report))) return std::nullopt;
    return report;
}

}  // namespace korv::providers::test_support
