#include "host/linux_client/process_key_table.h"

#include <algorithm>
#include <bit>

namespace korv::host::linux_client {
namespace {

constexpr std::size_t kMinimumCapacity = 16;

// splitmix64's finaliser: pids and start times are small and close together, so their bits
// must be spread before the low bits choose a place.
std::uint64_t Mix(std::uint64_t value) noexcept {
    value ^= value >> 30;
    value *= 0xBF58476D1CE4E5B9ULL;
    value ^= value >> 27;
    value *= 0x94D049BB133111EBULL;
    value ^= value >> 31;
    return value;
}

}  // namespace

ProcessKeyTable::ProcessKeyTable(std::initializer_list<std::pair<core::ProcessKey, int>> entries) {
    Reserve(entries.size());
    for (const auto& [key, index] : entries) Assign(key, index);
}

std::size_t ProcessKeyTable::Home(const core::ProcessKey& key) const noexcept {
    const std::uint64_t hash = Mix((static_cast<std::uint64_t>(key.pid) << 32) ^ key.startTime ^ (key.startTime >> 32));
    return static_cast<std::size_t>(hash) & (entries_.size() - 1);
}

void ProcessKeyTable::Clear() noexcept {
    for (Entry& entry : entries_) entry.index = -1;
    size_ = 0;
}

bool ProcessKeyTable::Crowded(std::size_t count) const noexcept {
    return count * 4 > entries_.size() * 3;
}

void ProcessKeyTable::Reserve(std::size_t count) {
    if (Crowded(count)) Grow(count * 4 / 3 + 1);
}

void ProcessKeyTable::Grow(std::size_t minimumCapacity) {
    const std::size_t capacity = std::bit_ceil(std::max(minimumCapacity, kMinimumCapacity));
    if (capacity <= entries_.size()) return;
    std::vector<Entry> old(capacity);
    old.swap(entries_);
    size_ = 0;
    for (const Entry& entry : old) {
        if (entry.index >= 0) Insert(entry.Key(), entry.index);
    }
}

ProcessKeyTable::Entry& ProcessKeyTable::Claim(const core::ProcessKey& key, bool& fresh) {
    if (Crowded(size_ + 1)) Grow(entries_.size() * 2);
    const std::size_t mask = entries_.size() - 1;
    for (std::size_t place = Home(key);; place = (place + 1) & mask) {
        Entry& entry = entries_[place];
        fresh = entry.index < 0;
        if (fresh) {
            entry = Entry{key.startTime, key.pid, -1};
            ++size_;
            return entry;
        }
        if (entry.Holds(key)) return entry;
    }
}

std::pair<int, bool> ProcessKeyTable::Insert(const core::ProcessKey& key, int index) {
    bool fresh = false;
    Entry& entry = Claim(key, fresh);
    if (fresh) entry.index = index;
    return {entry.index, fresh};
}

void ProcessKeyTable::Assign(const core::ProcessKey& key, int index) {
    bool fresh = false;
    Claim(key, fresh).index = index;
}

int ProcessKeyTable::Find(const core::ProcessKey& key) const noexcept {
    if (size_ == 0) return -1;
    const std::size_t mask = entries_.size() - 1;
    for (std::size_t place = Home(key);; place = (place + 1) & mask) {
        const Entry& entry = entries_[place];
        if (entry.index < 0) return -1;
        if (entry.Holds(key)) return entry.index;
    }
}

bool ProcessKeyTable::Erase(const core::ProcessKey& key) noexcept {
    if (size_ == 0) return false;
    const std::size_t mask = entries_.size() - 1;
    std::size_t hole = Home(key);
    while (true) {
        const Entry& entry = entries_[hole];
        if (entry.index < 0) return false;
        if (entry.Holds(key)) break;
        hole = (hole + 1) & mask;
    }
    // Shift later members of the run back, so that no probe stops early at the hole.
    for (std::size_t next = (hole + 1) & mask;; next = (next + 1) & mask) {
        Entry& entry = entries_[next];
        if (entry.index < 0) break;
        const std::size_t home = Home(entry.Key());
        const bool movable = hole <= next ? (home <= hole || home > next) : (home <= hole && home > next);
        if (movable) {
            entries_[hole] = entry;
            hole = next;
        }
    }
    entries_[hole].index = -1;
    --size_;
    return true;
}

void ProcessKeyTable::Swap(ProcessKeyTable& other) noexcept {
    entries_.swap(other.entries_);
    std::swap(size_, other.size_);
}

}  // namespace korv::host::linux_client
