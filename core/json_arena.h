#pragma once

#include "core/json.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace korv::core {

// Backing store of a parsed or copied JSON tree: its nodes, decoded strings and long number
// texts. Nodes inside it never own anything, so it is freed without walking them.
struct JsonArena {
    std::vector<std::unique_ptr<std::byte[]>> blocks;
    std::byte* next = nullptr;
    std::size_t left = 0;
    std::size_t blockSize = 4096;

    // bytes need not be a multiple of 8; every result is 8-aligned and not null, even for 0 bytes.
    void* Allocate(std::size_t bytes)
    {
        bytes = bytes == 0 ? 8 : (bytes + 7) & ~std::size_t{7};
        if (bytes > left) {
            return Grow(bytes);
        }
        void* result = next;
        next += bytes;
        left -= bytes;
        return result;
    }

private:
    void* Grow(std::size_t bytes)
    {
        // A large request gets a block of its own, so the current block keeps serving small ones.
        if (bytes > blockSize / 2) {
            blocks.emplace_back(new std::byte[bytes]);
            return blocks.back().get();
        }
        if (blockSize < (std::size_t{8} << 20)) {
            blockSize *= 2;
        }
        blocks.emplace_back(new std::byte[blockSize]);
        next = blocks.back().get() + bytes;
        left = blockSize - bytes;
        return blocks.back().get();
    }
};

// The owned storage of a root or copied value: the value points at content, and freeing the
// arena frees this record too, since it lives in the arena's blocks.
struct JsonOwnedRoot {
    JsonValue content;
    JsonArena* arena = nullptr;
};

}  // namespace korv::core
