#pragma once

#include <cstddef>
#include <cstdint>
#include <stop_token>
#include <string>
#include <unordered_map>

namespace korv::providers {

// uid to user name, kept by the process collector on the sampling thread. At most kCapacity names;
// when full, the least recently used goes. A uid with no name shows as its decimal text.
class UserNameCache {
public:
    static constexpr std::size_t kCapacity = 4096;

    // Looks one uid up; returns false when the uid has no name. The default uses getpwuid_r.
    using LookupFunction = bool (*)(std::uint32_t uid, std::string& name);

    explicit UserNameCache(LookupFunction lookup = &LookUpSystemUserName);

    // After a stop request no new lookup is made: an unknown uid gets its decimal text, uncached.
    const std::string& Name(std::uint32_t uid, const std::stop_token& stop);

    std::size_t Size() const noexcept { return names_.size(); }
    bool Contains(std::uint32_t uid) const { return names_.find(uid) != names_.end(); }

    static bool LookUpSystemUserName(std::uint32_t uid, std::string& name);
    // sysconf(_SC_GETPW_R_SIZE_MAX), or 16,384 when that is below 1024 or above 1,048,576.
    static std::size_t LookupBufferSize() noexcept;

private:
    struct Entry {
        std::string name;
        std::uint64_t lastUse = 0;
    };

    LookupFunction lookup_;
    std::unordered_map<std::uint32_t, Entry> names_;
    std::uint64_t useSequence_ = 0;
    std::string uncached_;
};

}  // namespace korv::providers
