#include "providers/process_descriptors.h"

#include "providers/bounded_read.h"
#include "providers/process_directory.h"

#include <fcntl.h>
#include <unistd.h>

namespace korv::providers {

DirectoryCount CountDirectoryEntries(int directoryFd, const char* relativePath, std::vector<char>& buffer) {
    DirectoryCount result;
    int fd;
    do {
        fd = ::openat(directoryFd, relativePath, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        result.error = errno;
        return result;
    }
    result.error = ForEachDirectoryEntry(fd, buffer, [&](std::string_view) {
        ++result.count;
        return true;
    });
    ::close(fd);
    if (result.error != 0) result.count = 0;
    return result;
}

bool DescriptorCountDue(const DescriptorCountState& state, std::uint64_t nowNs) noexcept {
    return !state.tried || nowNs < state.triedNs || nowNs - state.triedNs > kDescriptorCountReuseNs;
}

void ApplyDescriptorCount(DescriptorCountState& state, const DirectoryCount* read, std::uint64_t nowNs,
                          std::uint64_t generation, core::Metric<std::uint64_t>& out) {
    if (read != nullptr) {
        state.tried = true;
        state.triedNs = nowNs;
        state.error = read->error;
        if (read->error == 0) {
            state.have = true;
            state.count = read->count;
            state.readNs = nowNs;
            state.generation = generation;
        }
    }
    const std::uint64_t age = nowNs >= state.readNs ? nowNs - state.readNs : 0;
    if (state.have && state.error == 0) {
        out.Set(state.count, state.generation);
        out.sampleAgeNs = age;
        return;
    }
    if (state.have && age < kDescriptorCountKeepNs) {
        out.value = state.count;
        out.availability = core::MetricAvailability::stale;
        out.lastGoodGeneration = state.generation;
        out.sampleAgeNs = age;
        return;
    }
    state.have = false;
    out.MarkMissing(state.error != 0 ? AvailabilityFromErrno(state.error) : core::MetricAvailability::notYetAvailable);
}

}  // namespace korv::providers
