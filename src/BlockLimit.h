#pragma once

#include <kit/jList.h>
#include <kor/KorData.h>

#include <algorithm>
#include <cstddef>

namespace kor::detail {

/// What a list of frame-data blocks may hold on a slave, received or cached: far more than frames ahead of
/// their time ever take, so reaching it means that nobody takes them out or that the sender means harm.
inline constexpr std::size_t kMostBlockBytes = std::size_t{512} << 20;
inline constexpr int kMostBlocks = 65536;

inline std::size_t bytesIn(const jList<KorData>& blocks) {
    std::size_t bytes = 0;
    for (const KorData& block : blocks) {
        bytes += static_cast<std::size_t>(std::max(block.size, 0));
    }
    return bytes;
}

} // namespace kor::detail
