#include <kor/KorLogicClient.h>

#include "src/BlockMemory.h"
#include "support/Tracked.h"
#include <kor/KorCoders.h>
#include <kor/Record.h>
#include <support/BufferReader.h>
#include <support/jLog.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace kor {

namespace {

const char* const kFile = "src/KorLogicClient";

/// Belongs to a text that operators search the log for; it does not follow the code.
constexpr int kNoFrameMark = 395;

/// False when the block ends, by an `End` record or by a record that is not sound, before it names its frame.
bool readFrame(const KorData& block, int& frame) {
    BufferReader reader(block.data, static_cast<std::uint32_t>(block.size));
    while (!KorCoderBase::decodeEnd(reader)) {
        if (KorCoderBase::decodeBegin(reader, frame))
            return true;
        if (!skipRecord(reader))
            return false;
    }
    return false;
}

/// The last frame, from `present` on, up to which the blocks take no more than `room` bytes.
int lastFrameWithin(std::uint64_t room, const jList<KorData>& blocks, int present) {
    std::int64_t last = present;
    std::int64_t beyond = present;
    for (const KorData& block : blocks)
        beyond = std::max<std::int64_t>(beyond, block.frameID);
    while (last < beyond) {
        const std::int64_t middle = (last + beyond + 1) / 2;
        if (detail::memoryOf(blocks, static_cast<int>(middle)) <= room)
            last = middle;
        else
            beyond = middle - 1;
    }
    return static_cast<int>(last);
}

} // namespace

void KorLogicClient::process_data(int earlierFrame, int laterFrame) {
    process_cache(earlierFrame);
    client->getData().removeIf([&](KorData& block) {
        if (!readFrame(block, block.frameID)) {
            jLog::error("%s:unknown error, line:%d", "KorLogicClient::process_data", kNoFrameMark);
            return false;
        }
        if (block.frameID < earlierFrame) {
            applyData(&block, 1.0);
            detail::freeBytes(block.data, kFile, __LINE__, "KorLogicClient::process_data");
        } else {
            block.applied = false;
            cache.push_back(block);
        }
        return true;
    });
    trim_cache(laterFrame);
}

/// Leaves half of the memory to blocks that arrive: while the cache takes more, the frames furthest ahead go,
/// up to the present one.
void KorLogicClient::trim_cache(int presentFrame) {
    const std::uint64_t room = client->maxBlockBytes / 2;
    client->cachedBytes = detail::memoryOf(cache);
    if (client->cachedBytes <= room)
        return;
    const int last = lastFrameWithin(room, cache, presentFrame);
    cache.removeIf([&](KorData& block) {
        if (block.frameID <= last)
            return false;
        detail::freeBytes(block.data, kFile, __LINE__, "KorLogicClient::process_data");
        droppedBlocks = droppedBlocks + 1;
        if (!std::exchange(warnedOfFullCache, true))
            jLog::warning("KorLogicClient:the cache is full, frames beyond %d are dropped", last);
        return true;
    });
    client->cachedBytes = detail::memoryOf(cache);
}

void KorLogicClient::process_cache(int frame) {
    cache.removeIf([&](KorData& block) {
        if (block.frameID >= frame)
            return false;
        if (!block.applied)
            applyData(&block, 1.0);
        detail::freeBytes(block.data, kFile, __LINE__, "KorLogicClient::process_cache");
        return true;
    });
}

void KorLogicClient::clear_cache() {
    for (KorData& block : cache)
        detail::freeBytes(block.data, kFile, __LINE__, "KorLogicClient::clear_cache");
    cache.release();
}

KorData* KorLogicClient::find_cache(int frame) {
    for (KorData& block : cache)
        if (block.frameID == frame)
            return &block;
    return nullptr;
}

} // namespace kor
