#include <support/jAllocator.h>
#include <support/memInfo.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

using namespace kor;

namespace {

void* track(std::size_t size, const char* label = "Memory::track") {
    void* block = jAllocator::get()->localAlloc(size);
    memAddInfo(block, false, "tests/Memory", 1, label, size);
    return block;
}

TEST(Memory, BlocksAreAlignedAndWritable) {
    for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 100000U}) {
        void* block = jAllocator::get()->localAlloc(size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U);
        std::memset(block, 0xFF, size);
        jAllocator::get()->localFree(block);
    }
    jAllocator::get()->localFree(nullptr);
}

TEST(Memory, LargeBlocksBeginAtAPage) {
    std::vector<void*> blocks;
    for (const std::size_t size : {64U << 10, 100000U, 1U << 20, (1U << 20) + 7}) {
        blocks.push_back(track(size));
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back()) % 4096, 0U) << size;
        std::memset(blocks.back(), 0xFF, size);
    }
    EXPECT_EQ(memReport().liveBlocks, blocks.size());
    for (void* block : blocks)
        jAllocator::get()->localFree(block);
    EXPECT_EQ(memReport().liveBlocks, 0U);
}

TEST(Memory, ReportGroupsLiveBlocks) {
    const std::uint64_t before = memReport().totalBlocks;
    void* small = track(10, "small");
    void* big1 = track(100, "big");
    void* big2 = track(200, "big");
    const MemReport report = memReport();
    EXPECT_EQ(report.liveBlocks, 3U);
    EXPECT_EQ(report.liveBytes, 310U);
    EXPECT_EQ(report.totalBlocks, before + 3);
    ASSERT_EQ(report.entries.size(), 2U);
    EXPECT_STREQ(report.entries[0].label, "big");
    EXPECT_EQ(report.entries[0].blocks, 2U);
    EXPECT_EQ(report.entries[0].bytes, 300U);
    EXPECT_STREQ(report.entries[1].file, "tests/Memory");
    for (void* block : {big1, small, big2}) {
        EXPECT_TRUE(memRemoveInfo(block, "tests/Memory", 2, "free"));
        jAllocator::get()->localFree(block);
    }
    EXPECT_EQ(memReport().liveBlocks, 0U);
}

TEST(Memory, BooksStayRightWhateverTheCallerForgets) {
    void* block = track(10);
    memAddInfo(block, true, "tests/Memory", 9, "again", 20);
    EXPECT_EQ(memReport().liveBlocks, 1U);
    EXPECT_EQ(memReport().liveBytes, 20U);
    EXPECT_TRUE(memRemoveInfo(block, "", 0, ""));
    EXPECT_FALSE(memRemoveInfo(block, "", 0, ""));
    memAddInfo(block, false, nullptr, 0, nullptr, 1);
    EXPECT_STREQ(memReport().entries.at(0).file, "");
    jAllocator::get()->localFree(block);
    EXPECT_EQ(memReport().liveBlocks, 0U);
    memAddInfo(nullptr, false, "", 0, "", 0);
    EXPECT_FALSE(memRemoveInfo(nullptr, "", 0, ""));
}

TEST(Memory, TrackingMayBeSwitchedWhileBlocksLive) {
    void* before = track(1);
    setMemTracking(false);
    void* during = track(1);
    EXPECT_EQ(memReport().liveBlocks, 1U);
    EXPECT_TRUE(memRemoveInfo(before, "", 0, ""));
    setMemTracking(true);
    EXPECT_FALSE(memRemoveInfo(during, "", 0, ""));
    jAllocator::get()->localFree(before);
    jAllocator::get()->localFree(during);
    EXPECT_EQ(memReport().liveBlocks, 0U);
}

TEST(Memory, BlocksChangeHandsBetweenThreads) {
    std::mutex mutex;
    std::vector<void*> pool;
    const auto work = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 5000; ++i) {
            void* mine = random() % 2 == 0 ? track(random() % 64) : nullptr;
            void* taken = nullptr;
            {
                const std::lock_guard guard(mutex);
                if (mine)
                    pool.push_back(mine);
                if (!pool.empty() && random() % 2 == 0) {
                    std::swap(pool[random() % pool.size()], pool.back());
                    taken = std::exchange(pool.back(), nullptr);
                    pool.pop_back();
                }
            }
            if (taken) {
                EXPECT_TRUE(memRemoveInfo(taken, "", 0, ""));
                jAllocator::get()->localFree(taken);
            }
            if (i % 500 == 0)
                EXPECT_LE(memReport().liveBlocks, 3U * 5000U);
        }
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 3; ++seed)
        threads.emplace_back(work, seed);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(memReport().liveBlocks, pool.size());
    for (void* block : pool)
        jAllocator::get()->localFree(block);
    EXPECT_EQ(memReport().liveBlocks, 0U);
}

TEST(MemoryDeathTest, AnImpossibleRequestEndsWithAClearError) {
    EXPECT_DEATH(jAllocator::get()->localAlloc(std::numeric_limits<std::size_t>::max() - 10),
                 "cannot allocate");
}

} // namespace
