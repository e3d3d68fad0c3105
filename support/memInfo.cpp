#include <support/memInfo.h>

#include "support/BlockHeader.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <string_view>
#include <thread>
#include <tuple>

namespace kor {

namespace {

using detail::BlockHeader;

/// A lock of a few instructions' hold. Gives its time slice away when the holder seems to have lost its own.
class ShardLock {
public:
    void lock() {
        for (int tries = 0; held_.test_and_set(std::memory_order_acquire); ++tries)
            if (tries >= kTriesBeforeYield)
                std::this_thread::yield();
    }
    void unlock() { held_.clear(std::memory_order_release); }

private:
    static constexpr int kTriesBeforeYield = 64;
    std::atomic_flag held_;
};

/// The live blocks that a few of the threads have registered, on cache lines of their own.
struct alignas(128) Shard {
    ShardLock lock;
    BlockHeader* first = nullptr;
    std::uint64_t totalBlocks = 0;
};

constexpr unsigned kShards = 64; // BlockHeader holds up to 128
constinit std::array<Shard, kShards> shards{};
constinit std::atomic<bool> trackingEnabled{true};
constinit std::atomic<unsigned> threadsSeen{0};

std::uint8_t shardOfThisThread() {
    thread_local const auto shard =
        static_cast<std::uint8_t>(threadsSeen.fetch_add(1, std::memory_order_relaxed) % kShards);
    return shard;
}

void link(Shard& shard, BlockHeader& header) {
    const std::lock_guard guard(shard.lock);
    header.prev = nullptr;
    header.next = shard.first;
    if (shard.first)
        shard.first->prev = &header;
    shard.first = &header;
    ++shard.totalBlocks;
}

} // namespace

namespace detail {

bool untrack(BlockHeader& header) {
    if (!header.tracked)
        return false;
    header.tracked = false;
    Shard& shard = shards[header.shard];
    const std::lock_guard guard(shard.lock);
    (header.prev ? header.prev->next : shard.first) = header.next;
    if (header.next)
        header.next->prev = header.prev;
    return true;
}

} // namespace detail

void memAddInfo(void* block, bool isArray, const char* file, int line, const char* label, std::size_t size) {
    if (!block)
        return;
    BlockHeader& header = *detail::headerOf(block);
    detail::untrack(header);
    if (!trackingEnabled.load(std::memory_order_relaxed))
        return;
    header.file = file ? file : "";
    header.label = label ? label : "";
    header.size = size;
    header.line = line;
    header.isArray = isArray;
    header.shard = shardOfThisThread() % kShards;
    header.tracked = true;
    link(shards[header.shard], header);
}

bool memRemoveInfo(void* block, const char*, int, const char*) {
    return block && detail::untrack(*detail::headerOf(block));
}

void setMemTracking(bool enabled) {
    trackingEnabled.store(enabled, std::memory_order_relaxed);
}

MemReport memReport() {
    using Key = std::tuple<std::string_view, std::string_view, int, bool>;
    std::map<Key, MemReportEntry> groups;
    MemReport report;
    for (Shard& shard : shards) {
        const std::lock_guard guard(shard.lock);
        report.totalBlocks += shard.totalBlocks;
        for (const BlockHeader* header = shard.first; header; header = header->next) {
            MemReportEntry& group = groups[{header->file, header->label, header->line, header->isArray}];
            group.file = header->file;
            group.label = header->label;
            group.line = header->line;
            group.isArray = header->isArray;
            ++group.blocks;
            group.bytes += header->size;
            ++report.liveBlocks;
            report.liveBytes += header->size;
        }
    }
    for (const auto& [key, group] : groups)
        report.entries.push_back(group);
    std::stable_sort(report.entries.begin(), report.entries.end(),
                     [](const MemReportEntry& a, const MemReportEntry& b) { return a.bytes > b.bytes; });
    return report;
}

} // namespace kor
