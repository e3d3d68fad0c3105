#pragma once

#include "support/BlockHeader.h"

#include <kit/jList.h>
#include <kor/KorData.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace kor::detail {

/// Memory in bytes that a received packet takes as a block in a list: its own bytes, the node, and what the
/// allocator and the system keep for the two.
inline std::uint64_t memoryOf(std::uint32_t packetBytes) {
    constexpr std::uint64_t kSystem = 16;
    return packetBytes + sizeof(jList<KorData>::Node) + 2 * (sizeof(BlockHeader) + kSystem);
}

/// The same for all blocks of frames up to the last one.
inline std::uint64_t memoryOf(const jList<KorData>& blocks, int lastFrame = std::numeric_limits<int>::max()) {
    std::uint64_t bytes = 0;
    for (const KorData& block : blocks)
        if (block.frameID <= lastFrame)
            bytes += memoryOf(static_cast<std::uint32_t>(std::max(block.size, 0)));
    return bytes;
}

} // namespace kor::detail
