#pragma once

#include "core/process_key.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

namespace korv::host::linux_client {

// A map from ProcessKey to a non-negative index, with open addressing in one flat array: a
// refresh looks up every process several times, and a node-based map costs an allocation per
// insert and a cache miss per probe. Clear keeps the capacity for the next refresh.
class ProcessKeyTable {
public:
    ProcessKeyTable() = default;
    ProcessKeyTable(std::initializer_list<std::pair<core::ProcessKey, int>> entries);

    void Clear() noexcept;
    void Reserve(std::size_t count);
    // Inserts when the key is absent; returns the index in the table and whether it was inserted.
    std::pair<int, bool> Insert(const core::ProcessKey& key, int index);
    // Inserts or replaces.
    void Assign(const core::ProcessKey& key, int index);
    // The index of a key, or -1.
    int Find(const core::ProcessKey& key) const noexcept;
    bool Contains(const core::ProcessKey& key) const noexcept { return Find(key) >= 0; }
    bool Erase(const core::ProcessKey& key) noexcept;
    std::size_t Size() const noexcept { return size_; }
    bool Empty() const noexcept { return size_ == 0; }
    void Swap(ProcessKeyTable& other) noexcept;

private:
    // Sixteen bytes, so that four share a cache line.
    struct Entry {
        std::uint64_t startTime = 0;
        std::uint32_t pid = 0;
        std::int32_t index = -1;  // -1: the place is empty

        bool Holds(const core::ProcessKey& key) const noexcept { return pid == key.pid && startTime == key.startTime; }
        core::ProcessKey Key() const noexcept { return core::ProcessKey{pid, startTime}; }
    };

    // The place of the key, taken for it when absent (`fresh`); the caller sets its index.
    Entry& Claim(const core::ProcessKey& key, bool& fresh);
    std::size_t Home(const core::ProcessKey& key) const noexcept;
    bool Crowded(std::size_t count) const noexcept;
    void Grow(std::size_t minimumCapacity);

    std::vector<Entry> entries_;  // a power of two long, at most three quarters full
    std::size_t size_ = 0;
};

}  // namespace korv::host::linux_client
