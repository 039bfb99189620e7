#include "tests/providers/private_system_bus.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace korv::providers::test_support {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kPython = "/usr/bin/python3";
constexpr const char* kAddressVariable = "DBUS_SYSTEM_BUS_ADDRESS";
// Generous: the machine is a small shared VM and python start-up alone can take seconds there.
constexpr auto kStartBound = 60s;

std::string FindDbusDaemon() {
    const char* path = std::getenv("PATH");
    std::string directories = path != nullptr ? path : "";
    directories += ":/usr/bin:/bin";
    std::stringstream stream(directories);
    std::string directory;
    while (std::getline(stream, directory, ':')) {
        if (directory.empty()) continue;
        const std::string candidate = directory + "/dbus-daemon";
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return {};
}

// Forks and execs argv with stdout and stderr going to logPath; keepFd (if not -1) stays open in
// the child. argv is prepared before the fork, since only exec-safe calls may follow it.
pid_t Spawn(const std::vector<std::string>& arguments, const std::filesystem::path& logPath, int keepFd = -1) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (log < 0) return -1;
    const pid_t child = ::fork();
    if (child == 0) {
        const int null = ::open("/dev/null", O_RDONLY);
        if (null >= 0) ::dup2(null, STDIN_FILENO);
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
        if (keepFd >= 0) ::fcntl(keepFd, F_SETFD, 0);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(log);
    return child;
}

bool Exited(pid_t child, int* status = nullptr) {
    int ignored = 0;
    return ::waitpid(child, status != nullptr ? status : &ignored, WNOHANG) == child;
}

void EndAndReap(pid_t child) {
    if (child <= 0) return;
    ::kill(child, SIGTERM);
    const auto until = Clock::now() + 10s;
    while (Clock::now() < until) {
        if (Exited(child)) return;
        std::this_thread::sleep_for(20ms);
    }
    ::kill(child, SIGKILL);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}

std::string Tail(const std::filesystem::path& logPath) {
    std::ifstream in(logPath);
    std::stringstream text;
    text << in.rdbuf();
    std::string all = text.str();
    return all.size() > 2000 ? all.substr(all.size() - 2000) : all;
}

}  // namespace

std::string PrivateSystemBus::MissingTool() {
    if (FindDbusDaemon().empty()) return "dbus-daemon is not installed";
    if (::access(kPython, X_OK) != 0) return std::string(kPython) + " is not installed";
    const pid_t child = Spawn({kPython, "-c", "import dbusmock"}, "/dev/null");
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return "python3-dbusmock is not installed for /usr/bin/python3";
    }
    return {};
}

PrivateSystemBus::~PrivateSystemBus() {
    for (auto it = services_.rbegin(); it != services_.rend(); ++it) EndAndReap(*it);
    EndAndReap(daemon_);
    if (exported_) {
        if (previousAddress_) {
            ::setenv(kAddressVariable, previousAddress_->c_str(), 1);
        } else {
            ::unsetenv(kAddressVariable);
        }
    }
    if (!folder_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
}

std::string PrivateSystemBus::StartBus() {
    if (daemon_ > 0) return {};
    const std::string daemon = FindDbusDaemon();
    if (daemon.empty()) return "dbus-daemon is not installed";
    std::string pattern = (std::filesystem::path(::testing::TempDir()) / "korv-bus-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) return std::string("mkdtemp failed: ") + std::strerror(errno);
    folder_ = pattern;

    const auto config = folder_ / "bus.conf";
    {
        std::ofstream out(config);
        out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig>\n"
               "  <listen>unix:path="
            << (folder_ / "system_bus_socket").string()
            << "</listen>\n"
               "  <auth>EXTERNAL</auth>\n"
               "  <policy context=\"default\">\n"
               "    <allow user=\"*\"/>\n"
               "    <allow own=\"*\"/>\n"
               "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
               "    <allow eavesdrop=\"true\"/>\n"
               "  </policy>\n"
               "</busconfig>\n";
        if (!out) return "the bus configuration could not be written";
    }

    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return std::string("pipe failed: ") + std::strerror(errno);
    const auto log = folder_ / "dbus-daemon.log";
    daemon_ = Spawn({daemon, "--config-file=" + config.string(), "--nofork", "--nopidfile",
                     "--print-address=" + std::to_string(pipeFds[1])},
                    log, pipeFds[1]);
    ::close(pipeFds[1]);
    if (daemon_ < 0) {
        ::close(pipeFds[0]);
        return "dbus-daemon could not be started";
    }
    // The daemon prints its address once it listens: that line is the signal to go on.
    std::string line;
    const auto until = Clock::now() + kStartBound;
    while (line.find('\n') == std::string::npos && Clock::now() < until) {
        pollfd poller{pipeFds[0], POLLIN, 0};
        if (::poll(&poller, 1, 200) <= 0) continue;
        char buffer[512];
        const ssize_t got = ::read(pipeFds[0], buffer, sizeof(buffer));
        if (got <= 0) break;
        line.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(pipeFds[0]);
    const auto end = line.find('\n');
    if (end == std::string::npos) return "dbus-daemon printed no address: " + Tail(log);
    address_ = line.substr(0, end);

    if (const char* previous = std::getenv(kAddressVariable)) previousAddress_ = previous;
    ::setenv(kAddressVariable, address_.c_str(), 1);
    exported_ = true;
    return {};
}

std::string PrivateSystemBus::Start(const std::string& serviceName, const std::filesystem::path& templatePath,
                                    const std::string& parametersJson) {
    if (std::string failure = StartBus(); !failure.empty()) return failure;
    std::vector<std::string> arguments = {kPython, "-m", "dbusmock", "--system", "--template", templatePath.string()};
    if (!parametersJson.empty()) {
        arguments.push_back("--parameters");
        arguments.push_back(parametersJson);
    }
    const pid_t service = Spawn(arguments, folder_ / (serviceName + ".log"));
    if (service < 0) return "dbusmock could not be started";
    services_.push_back(service);
    return WaitForName(serviceName, service);
}

std::string PrivateSystemBus::WaitForName(const std::string& serviceName, pid_t owner) const {
    sd_bus* bus = nullptr;
    if (const int r = sd_bus_open_system(&bus); r < 0)
        return std::string("private bus unreachable: ") + std::strerror(-r);
    std::string failure = "dbusmock did not claim " + serviceName + " in time";
    const auto until = Clock::now() + kStartBound;
    while (Clock::now() < until) {
        int status = 0;
        if (Exited(owner, &status)) {
            failure = "dbusmock exited before claiming " + serviceName + ": " + Tail(folder_ / (serviceName + ".log"));
            break;
        }
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int hasOwner = 0;
        const int r = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                         "NameHasOwner", &error, &reply, "s", serviceName.c_str());
        if (r >= 0) sd_bus_message_read(reply, "b", &hasOwner);
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        if (hasOwner != 0) {
            failure.clear();
            break;
        }
        std::this_thread::sleep_for(50ms);
    }
    sd_bus_flush_close_unref(bus);
    return failure;
}

int PrivateSystemBus::MockCallCount(const std::string& serviceName, const std::string& objectPath,
                                    const std::string& method) const {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) return -1;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int count = -1;
    if (sd_bus_call_method(bus, serviceName.c_str(), objectPath.c_str(), "org.freedesktop.DBus.Mock", "GetMethodCalls",
                           &error, &reply, "s", method.c_str()) >= 0 &&
        sd_bus_message_enter_container(reply, 'a', "(tav)") >= 0) {
        count = 0;
        while (sd_bus_message_skip(reply, "(tav)") > 0) ++count;
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    sd_bus_flush_close_unref(bus);
    return count;
}

}  // namespace korv::providers::test_support
