#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace korv::providers::test_support {

// A dbus-daemon of the test's own, listening on a socket in a temporary folder and standing in for
// the system bus, with python3-dbusmock services on it. While the object lives,
// DBUS_SYSTEM_BUS_ADDRESS points at it; the destructor ends and reaps every child, restores the
// variable and removes the folder.
class PrivateSystemBus {
public:
    PrivateSystemBus() = default;
    ~PrivateSystemBus();
    PrivateSystemBus(const PrivateSystemBus&) = delete;
    PrivateSystemBus& operator=(const PrivateSystemBus&) = delete;

    // What this machine lacks for a private bus (dbus-daemon, or dbusmock for /usr/bin/python3),
    // or an empty text when both are there. Tests skip with this reason.
    static std::string MissingTool();

    // Starts the daemon alone (once). Returns an empty text or what went wrong.
    std::string StartBus();
    // Starts the daemon if needed, then a dbusmock process serving the template on it, and waits
    // until serviceName has an owner. parametersJson, when not empty, is handed to the template.
    std::string Start(const std::string& serviceName, const std::filesystem::path& templatePath,
                      const std::string& parametersJson = {});

    const std::string& Address() const noexcept { return address_; }

    // Calls of method that the dbusmock object at objectPath has logged, or -1 when it cannot say.
    int MockCallCount(const std::string& serviceName, const std::string& objectPath, const std::string& method) const;

private:
    std::string WaitForName(const std::string& serviceName, pid_t owner) const;

    std::filesystem::path folder_;
    pid_t daemon_ = -1;
    std::vector<pid_t> services_;
    std::string address_;
    std::optional<std::string> previousAddress_;
    bool exported_ = false;
};

}  // namespace korv::providers::test_support
