#include "providers/process_user_names.h"

#include <algorithm>
#include <cerrno>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace korv::providers {

UserNameCache::UserNameCache(LookupFunction lookup) : lookup_(lookup) { names_.reserve(64); }

std::size_t UserNameCache::LookupBufferSize() noexcept {
    const long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    if (size < 1024 || size > 1048576) return 16384;
    return static_cast<std::size_t>(size);
}

bool UserNameCache::LookUpSystemUserName(std::uint32_t uid, std::string& name) {
    std::vector<char> buffer(LookupBufferSize());
    passwd entry{};
    passwd* found = nullptr;
    int error;
    do {
        error = ::getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data(), buffer.size(), &found);
    } while (error == EINTR);
    if (error != 0 || found == nullptr || found->pw_name == nullptr || found->pw_name[0] == '\0') return false;
    name = found->pw_name;
    return true;
}

const std::string& UserNameCache::Name(std::uint32_t uid, const std::stop_token& stop) {
    ++useSequence_;
    if (const auto it = names_.find(uid); it != names_.end()) {
        it->second.lastUse = useSequence_;
        return it->second.name;
    }
    if (stop.stop_requested()) {
        uncached_ = std::to_string(uid);
        return uncached_;
    }
    std::string name;
    if (!lookup_(uid, name)) name = std::to_string(uid);
    if (names_.size() >= kCapacity) {
        const auto oldest = std::min_element(names_.begin(), names_.end(), [](const auto& a, const auto& b) {
            return a.second.lastUse < b.second.lastUse;
        });
        names_.erase(oldest);
    }
    Entry& entry = names_[uid];
    entry.name = std::move(name);
    entry.lastUse = useSequence_;
    return entry.name;
}

}  // namespace korv::providers
