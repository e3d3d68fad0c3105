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

} // namespace detail

jAllocator* jAllocator::get() {
    static constinit jAllocator allocator;
    return &allocator;
}

void* jAllocator::localAlloc(std::size_t size) {
    constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max() - sizeof(detail::BlockHeader);
    void* raw = size <= kMost ? std::malloc(sizeof(detail::BlockHeader) + size) : nullptr;
    if (!raw) {
        detail::allocationFailed(size);
    }
    return detail::blockOf(new (raw) detail::BlockHeader);
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
