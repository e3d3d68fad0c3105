#include <support/jAllocator.h>

#include "support/BlockHeader.h"

#include <support/jLog.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

namespace kor {

namespace detail {

namespace {
constexpr std::size_t kPageBytes = 4096;
} // namespace

void allocationFailed(std::size_t size) {
    jLog::error("%s:cannot allocate %zu bytes", "jAllocator::localAlloc", size);
    std::abort();
}

// Some processors copy a long block at a fifth of their speed when it lies up to 63 bytes behind its source,
// as counted within a page. Behind the header, that is where a block is filled from any other large one; at
// the beginning of a page it is not.
void* tryAllocate(std::size_t size) {
    constexpr std::size_t kMax = std::numeric_limits<std::size_t>::max() - sizeof(BlockHeader) - kPageBytes;
    if (size > kMax)
        return nullptr;
    const bool paged = size >= kPagedBytes;
    char* const raw = static_cast<char*>(std::malloc(sizeof(BlockHeader) + size + (paged ? kPageBytes : 0)));
    if (!raw)
        return nullptr;
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(raw) + sizeof(BlockHeader);
    const std::size_t lead = paged ? (kPageBytes - at % kPageBytes) % kPageBytes : 0;
    BlockHeader* const header = new (raw + lead) BlockHeader;
    header->lead = static_cast<std::uint16_t>(lead);
    return blockOf(header);
}

void* allocateOrThrow(std::size_t size) {
    void* const block = tryAllocate(size);
    if (!block)
        throw std::bad_alloc();
    return block;
}

} // namespace detail

jAllocator* jAllocator::get() {
    static constinit jAllocator allocator;
    return &allocator;
}

void* jAllocator::localAlloc(std::size_t size) {
    void* block = detail::tryAllocate(size);
    if (!block)
        detail::allocationFailed(size);
    return block;
}

void jAllocator::localFree(void* block) {
    if (!block)
        return;
    detail::BlockHeader* header = detail::headerOf(block);
    detail::untrack(*header);
    std::free(reinterpret_cast<char*>(header) - header->lead);
}

} // namespace kor
