#pragma once

// Replaces the operators new and delete of the program that includes this, in one file of it. The bytes of
// packets are not counted.

#include <support/memInfo.h>

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string_view>

namespace kor::testing_support {

inline std::atomic<std::int64_t> newBytes{0};

/// What the program holds, by new and in the library's own allocator.
inline std::int64_t liveBytes() {
    std::int64_t bytes = newBytes;
    for (const MemReportEntry& entry : memReport().entries)
        if (!std::string_view(entry.label).starts_with("Block::"))
            bytes += static_cast<std::int64_t>(entry.bytes);
    return bytes;
}

/// So many more allocations of this thread succeed; below 0: all do.
inline thread_local int allocationsLeft = -1;

} // namespace kor::testing_support

// All forms: a sanitizer has its own of each, which do not call the others.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    int& left = kor::testing_support::allocationsLeft;
    void* const block = left == 0 ? nullptr : std::malloc(size);
    if (block == nullptr)
        return nullptr;
    left -= left > 0 ? 1 : 0;
    kor::testing_support::newBytes += static_cast<std::int64_t>(malloc_usable_size(block));
    return block;
}
void* operator new(std::size_t size) {
    if (void* const block = operator new(size, std::nothrow))
        return block;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return operator new(size, std::nothrow);
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* block) noexcept {
    if (block != nullptr)
        kor::testing_support::newBytes -= static_cast<std::int64_t>(malloc_usable_size(block));
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}
void operator delete[](void* block) noexcept {
    operator delete(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    operator delete(block);
}
