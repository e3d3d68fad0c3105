#pragma once

#include <cstddef>
#include <cstdint>

namespace kor::detail {

/// What lies in front of every block of `jAllocator`. The tracker's books live here, so that registering a
/// block needs neither memory nor a lookup.
struct alignas(std::max_align_t) BlockHeader {
    BlockHeader* prev = nullptr; ///< neighbours in the shard's list of live blocks
    BlockHeader* next = nullptr;
    const char* file = nullptr;
    const char* label = nullptr;
    std::size_t size = 0;
    std::int32_t line = 0;
    std::uint16_t lead = 0; ///< bytes between what the system gave and this
    bool tracked = false;   ///< linked into the list; read by the block's owner only
    bool isArray : 1 = false;
    std::uint8_t shard : 7 = 0;
};

inline void* blockOf(BlockHeader* header) {
    return header + 1;
}

/// `block` must come from `jAllocator::localAlloc`.
inline BlockHeader* headerOf(void* block) {
    return static_cast<BlockHeader*>(block) - 1;
}

/// Blocks from this size on begin at a page.
constexpr std::size_t kPagedBytes = 64u << 10;

/// As `jAllocator::localAlloc`, but null when the system has no memory: for sizes that a peer decides on.
void* tryAllocate(std::size_t size);

/// The same, but throws `std::bad_alloc`.
void* allocateOrThrow(std::size_t size);

/// Takes a block out of the books. False when it was not in them.
bool untrack(BlockHeader& header);

} // namespace kor::detail
