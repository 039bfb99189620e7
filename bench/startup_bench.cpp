// Time from process start to the first snapshot applied in the main window, as the program itself
// reports it in a smoke run. Runs the real executable headless (offscreen platform, so no X server
// start is counted) with a private configuration folder.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace {

constexpr std::string_view kReportPrefix = "korv: first snapshot applied after ";

// KORV_TASK_MANAGER, else korv-task-manager beside this benchmark.
std::string FindExecutable() {
    if (const char* path = std::getenv("KORV_TASK_MANAGER"); path != nullptr && *path != '\0') {
        return path;
    }
    char self[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) {
        return {};
    }
    self[length] = '\0';
    return (std::filesystem::path(self).parent_path() / "korv-task-manager").string();
}

struct RunOutcome {
    std::optional<double> milliseconds;
    int status = -1;
    std::string errorText;
};

std::optional<double> ParseReport(const std::string& text) {
    const std::size_t at = text.find(kReportPrefix);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    const char* begin = text.c_str() + at + kReportPrefix.size();
    char* end = nullptr;
    const double value = std::strtod(begin, &end);
    if (end == begin) {
        return std::nullopt;
    }
    return value;
}

RunOutcome RunSmoke(const std::string& executable, const std::string& configHome) {
    RunOutcome outcome;
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        outcome.errorText = std::string("pipe: ") + std::strerror(errno);
        return outcome;
    }

    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        if (!text.starts_with("QT_QPA_PLATFORM=") && !text.starts_with("KORV_STARTUP_REPORT=") &&
            !text.starts_with("XDG_CONFIG_HOME=")) {
            environment.emplace_back(text);
        }
    }
    environment.emplace_back("QT_QPA_PLATFORM=offscreen");
    environment.emplace_back("KORV_STARTUP_REPORT=1");
    environment.emplace_back("XDG_CONFIG_HOME=" + configHome);
    std::vector<char*> envp;
    for (std::string& entry : environment) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);

    std::string program = executable;
    std::string smoke = "--smoke";
    std::string page = "--page=summary";
    char* argv[] = {program.data(), smoke.data(), page.data(), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    pid_t child = -1;
    const int spawned = ::posix_spawn(&child, executable.c_str(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (spawned != 0) {
        ::close(pipeFds[0]);
        outcome.errorText = std::string("posix_spawn: ") + std::strerror(spawned);
        return outcome;
    }

    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(pipeFds[0], buffer, sizeof(buffer));
        if (count > 0) {
            outcome.errorText.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    ::close(pipeFds[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.milliseconds = ParseReport(outcome.errorText);
    return outcome;
}

void BM_StartupToFirstSnapshot(benchmark::State& state) {
    const std::string executable = FindExecutable();
    if (executable.empty() || ::access(executable.c_str(), X_OK) != 0) {
        state.SkipWithError("korv-task-manager not found: build it, or set KORV_TASK_MANAGER to its path");
        return;
    }
    char folderTemplate[] = "/tmp/korv-startup-bench-XXXXXX";
    if (::mkdtemp(folderTemplate) == nullptr) {
        state.SkipWithError("could not make a private configuration folder");
        return;
    }
    const std::string configHome = folderTemplate;

    double total = 0.0;
    std::int64_t runs = 0;
    for (auto _ : state) {
        const RunOutcome outcome = RunSmoke(executable, configHome);
        if (outcome.status != 0 || !outcome.milliseconds.has_value()) {
            const std::string message = "smoke run failed (status " + std::to_string(outcome.status) + "): " +
                                        outcome.errorText.substr(0, 200);
            state.SkipWithError(message.c_str());
            break;
        }
        state.SetIterationTime(*outcome.milliseconds / 1000.0);
        total += *outcome.milliseconds;
        ++runs;
    }
    if (runs > 0) {
        state.counters["first_snapshot_ms"] = benchmark::Counter(total / static_cast<double>(runs));
    }
    std::error_code ignored;
    std::filesystem::remove_all(configHome, ignored);
}

// Each run is a whole smoke run of about 1.7 s, so a handful of iterations is enough.
BENCHMARK(BM_StartupToFirstSnapshot)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
