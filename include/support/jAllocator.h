#pragma once

#include "Export.h"

#include <cstddef>

namespace kor {

namespace detail {

/// Ends the process with an error in the log: a block of `size` bytes cannot be had.
[[noreturn]] KOR_API void allocationFailed(std::size_t size);

} // namespace detail

/// The allocator of every object and buffer that the library creates. Stateless, safe from any thread.
///
/// Blocks carry a small hidden header, large ones up to a page more, in which `memAddInfo` keeps its books,
/// so nothing but `localFree` may free them.
class KOR_API jAllocator {
public:
    jAllocator(const jAllocator&) = delete;
    jAllocator& operator=(const jAllocator&) = delete;

    /// The process's allocator; never null, usable until the process has ended.
    static jAllocator* get();

    /// A block of at least `size` bytes, aligned for every fundamental type, and to a page of 4 KiB from 64
    /// KiB on; its content is indeterminate. Never null: a request that the system cannot meet ends the
    /// process with an error in the log.
    void* localAlloc(std::size_t size);

    /// Gives a block of `localAlloc` back; null does nothing. A block that is still registered is
    /// unregistered first.
    void localFree(void* block);

private:
    constexpr jAllocator() = default;
};

} // namespace kor
