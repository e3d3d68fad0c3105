#pragma once

#include <cstdint>

namespace kor::detail {

// Memory of large packets for the next packets of their size. The system takes large blocks back when they
// are freed and clears each page anew when they are asked for again, which costs as much as copying a packet.
// At most 16 MiB are kept for the process. Any thread.

/// Bytes to allocate for a packet of `size` bytes: at most an eighth more.
std::uint32_t blockCapacity(std::uint32_t size);

/// A kept block of `blockCapacity(size)` bytes; null when there is none.
void* takeSpareBlock(std::uint32_t size);

/// Keeps a block of `blockCapacity(size)` bytes, or frees it. The oldest give way.
void keepSpareBlock(void* block, std::uint32_t size);

} // namespace kor::detail
