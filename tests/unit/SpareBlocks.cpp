#include "support/net/delivery/SpareBlocks.h"

#include "support/net/delivery/Block.h"

#include <support/jAllocator.h>
#include <support/memInfo.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace kor::detail {
namespace {

constexpr std::uint32_t kMebibyte = 1u << 20;

TEST(SpareBlocks, AFreedPacketServesTheNextOfItsSize) {
    unsigned char* first = nullptr;
    {
        const Block block = Block::allocate(kMebibyte + 1000);
        first = block.data();
    }
    const Block same = Block::allocate(kMebibyte + 2000);
    EXPECT_EQ(same.data(), first);
    const Block other = Block::allocate(kMebibyte + 2000);
    EXPECT_NE(other.data(), first);
    EXPECT_EQ(takeSpareBlock(kMebibyte + 1000), nullptr);
}

TEST(SpareBlocks, KeptOnesAreNotReportedAsLive) {
    const auto live = memReport().liveBlocks;
    { const Block block = Block::allocate(3 * kMebibyte); }
    EXPECT_EQ(memReport().liveBlocks, live);
    const Block again = Block::allocate(3 * kMebibyte);
    EXPECT_EQ(memReport().liveBlocks, live + 1);
}

TEST(SpareBlocks, KeepsNoMoreThanSixteenMebibytes) {
    for (int sizes = 0; sizes != 2; ++sizes) {
        std::vector<Block> blocks;
        for (int i = 0; i != 40; ++i)
            blocks.push_back(Block::allocate(kMebibyte << sizes));
    }
    // The newest have taken the place of the oldest.
    EXPECT_EQ(takeSpareBlock(kMebibyte), nullptr);
    std::size_t kept = 0;
    while (void* const block = takeSpareBlock(2 * kMebibyte)) {
        ++kept;
        jAllocator::get()->localFree(block);
    }
    EXPECT_EQ(kept, 8u);
    keepSpareBlock(jAllocator::get()->localAlloc(100), 100);
    EXPECT_EQ(takeSpareBlock(100), nullptr);
}

TEST(SpareBlocks, CapacityHoldsTheSizeAndAtMostAnEighthMore) {
    for (std::uint32_t size = 1; size < 64 * kMebibyte; size += size / 7 + 1) {
        ASSERT_GE(blockCapacity(size), size);
        ASSERT_LE(blockCapacity(size), size + size / 8);
    }
    EXPECT_EQ(blockCapacity(UINT32_MAX), UINT32_MAX);
}

} // namespace
} // namespace kor::detail
