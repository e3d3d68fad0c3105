#pragma once

#include <cstdint>

namespace kor {

/// One received packet that is kept for later handling. A plain structure: a copy shares the bytes.
struct KorData {
    /// Frame that the data belongs to. 0 on the master; on the slave, taken from the packet's `Begin` record
    /// when the block leaves the endpoint, and without meaning before.
    std::int32_t frameID = 0;

    /// The packet's bytes, from `jAllocator`. They belong to whoever holds the entry, who frees them with
    /// `memRemoveInfo` and `jAllocator::localFree`.
    unsigned char* data = nullptr;

    std::int32_t size = 0; ///< number of bytes at `data`

    /// True: the slave's cache drops the block without applying it once more. The library clears it when the
    /// block enters the cache and never sets it; an application may, from inside `KorLogicClient::applyData`.
    bool applied = false;
};

} // namespace kor
