#include "support/net/delivery/Block.h"

#include "support/BlockHeader.h"
#include "support/net/delivery/SpareBlocks.h"

#include <support/jAllocator.h>
#include <support/memInfo.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kor::detail {

namespace {
constexpr const char* kSource = "support/net/Block";

// Longer copies are plain stores, which wait when another processor was the last to read the block.
constexpr std::uint32_t kCopyBytes = 64u << 10;
} // namespace

void Block::free() {
    memRemoveInfo(data_, kSource, __LINE__, "Block::free");
    keepSpareBlock(data_, size_);
}

Block Block::allocate(std::uint32_t size) {
    Block block;
    void* const spare = takeSpareBlock(size);
    block.data_ = static_cast<unsigned char*>(spare != nullptr ? spare : tryAllocate(blockCapacity(size)));
    if (block.data_ == nullptr)
        return block;
    block.size_ = size;
    memAddInfo(block.data_, true, kSource, __LINE__, "Block::allocate", size);
    return block;
}

Block Block::copyOf(const void* data, std::uint32_t size) {
    Block block = allocate(size);
    if (!block)
        return block;
    const auto* const from = static_cast<const unsigned char*>(data);
    for (std::uint32_t at = 0; at < size; at += std::min(size - at, kCopyBytes))
        std::memcpy(block.data_ + at, from + at, std::min(size - at, kCopyBytes));
    return block;
}

unsigned char* Block::release() {
    size_ = 0;
    return std::exchange(data_, nullptr);
}

bool Block::grow(std::uint32_t size, std::uint32_t keep) {
    Block larger = allocate(size);
    if (!larger)
        return false;
    if (keep != 0)
        std::memcpy(larger.data_, data_, keep);
    *this = std::move(larger);
    return true;
}

} // namespace kor::detail
