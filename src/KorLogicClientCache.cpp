#include <kor/KorLogicClient.h>

#include "src/BlockLimit.h"
#include "src/Tracked.h"
#include <kor/KorCoders.h>
#include <kor/Record.h>
#include <support/BufferReader.h>
#include <support/jLog.h>

namespace kor {

namespace {

using BlockNode = jList<KorData>::Node;

const char* const kFile = "src/KorLogicClient";

/// False when the block ends, by an `End` record or by a record that is not sound, before it names its frame.
bool readFrame(const KorData& block, int& frame) {
    BufferReader reader(block.data, static_cast<std::uint32_t>(block.size));
    while (!KorCoderBase::decodeEnd(reader)) {
        if (KorCoderBase::decodeBegin(reader, frame)) {
            return true;
        }
        if (!skipRecord(reader)) {
            return false;
        }
    }
    return false;
}

} // namespace

void KorLogicClient::process_data(int earlierFrame, int) {
    process_cache(earlierFrame);
    jList<KorData>& received = client->getData();
    std::size_t cachedBytes = detail::bytesIn(cache);
    BlockNode* next = nullptr;
    for (BlockNode* node = received.head; node; node = next) {
        next = node->next;
        KorData& block = node->value;
        int frame = 0;
        if (!readFrame(block, frame)) {
            jLog::error("%s:unknown error, line:%d", "KorLogicClient::process_data", 395);
            continue;
        }
        block.frameID = frame;
        const std::size_t size = static_cast<std::size_t>(block.size);
        if (frame < earlierFrame) {
            applyData(&block, 1.0);
            detail::freeBytes(block.data, kFile, __LINE__, "KorLogicClient::process_data");
            received.remove(node);
        } else if (cache.count < detail::kMostBlocks && cachedBytes + size <= detail::kMostBlockBytes) {
            block.applied = false;
            cache.push_back(block);
            cachedBytes += size;
            block.data = nullptr;
            block.size = 0;
            received.remove(node);
        }
    }
}

void KorLogicClient::process_cache(int frame) {
    BlockNode* next = nullptr;
    for (BlockNode* node = cache.head; node; node = next) {
        next = node->next;
        if (node->value.frameID < frame) {
            if (!node->value.applied) {
                applyData(&node->value, 1.0);
            }
            detail::freeBytes(node->value.data, kFile, __LINE__, "KorLogicClient::process_cache");
            cache.remove(node);
        }
    }
}

void KorLogicClient::clear_cache() {
    for (KorData& block : cache) {
        detail::freeBytes(block.data, kFile, __LINE__, "KorLogicClient::clear_cache");
    }
    cache.release();
}

KorData* KorLogicClient::find_cache(int frame) {
    for (KorData& block : cache) {
        if (block.frameID == frame) {
            return &block;
        }
    }
    return nullptr;
}

} // namespace kor
