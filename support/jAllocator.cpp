#include <support/jAllocator.h>

#include "support/BlockHeader.h"

#include <support/jLog.h>

#include <cstdlib>
#include <limits>
#include <new>

namespace kor {

namespace detail {

void allocationFailed(std::size_t size) {
    jLog::error("%s:cannot allocate %zu bytes", "jAllocator::localAlloc", size);
    std::abort();
}

void* tryAllocate(std::size_t size) {
    constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max() - sizeof(BlockHeader);
    void* raw = size <= kMost ? std::malloc(sizeof(BlockHeader) + size) : nullptr;
    return raw ? blockOf(new (raw) BlockHeader) : nullptr;
}

} // namespace detail

jAllocator* jAllocator::get() {
    static constinit jAllocator allocator;
    return &allocator;
}

void* jAllocator::localAlloc(std::size_t size) {
    void* block = detail::tryAllocate(size);
    if (!block) {
        detail::allocationFailed(size);
    }
    return block;
}

void jAllocator::localFree(void* block) {
    if (!block) {
        return;
    }
    detail::BlockHeader* header = detail::headerOf(block);
    detail::untrack(*header);
    std::free(header);
}

} // namespace kor
