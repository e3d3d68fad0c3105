// The slave's cache of frame data: what is kept, applied at once, flushed or left alone.

#include "tests/unit/SlaveFixture.h"

#include <gmock/gmock.h>

#include <limits>

namespace {

using namespace kor;
using namespace kor::testing_support;
using testing::ElementsAre;
using testing::IsEmpty;

using SlaveCache = SlaveFrames;

TEST_F(SlaveCache, FlushesWhatHasPassed) {
    for (const int frame : {98, 99, 100, 102}) {
        KorData block;
        block.frameID = frame;
        block.applied = frame == 99;
        slave.cache.push_back(block);
    }
    slave.process_cache(100);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("98*1"));
    EXPECT_EQ(slave.getNumCache(), 2);
    EXPECT_NE(slave.find_cache(100), nullptr);
    EXPECT_EQ(slave.find_cache(99), nullptr);
}

TEST_F(SlaveCache, TakesEarlyBlocksAndAppliesLateOnes) {
    receiveFrames({97, 101, 100, 105, 105});
    slave.process_data(100, 101);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("97*1"));
    EXPECT_EQ(received(), 0);
    ASSERT_EQ(slave.getNumCache(), 4);
    EXPECT_EQ(slave.cache.head->value.frameID, 101);
    EXPECT_EQ(slave.find_cache(105), &slave.cache.tail->prev->value) << "the first to arrive";
    slave.process_data(106, 107);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("101*1", "100*1", "105*1", "105*1"));
    EXPECT_EQ(slave.getNumCache(), 0);
}

TEST_F(SlaveCache, HandsOutInOneOrder) {
    run();
    receiveFrames({598, 599, 600, 601});
    waitAt(598.5);
    slave.takeCalls();
    receiveFrames({597, 602});
    waitAt(600.5);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("598*1", "599*1", "597*1", "600*1", "601*0.5"))
        << "cached and passed, received late, neighbours";
}

TEST_F(SlaveCache, DropsAnEntryMarkedAsApplied) {
    run();
    receiveFrames({600, 601});
    slave.atApply = [](KorData* block) { block->applied = true; };
    waitAt(600.5);
    slave.takeCalls();
    waitAt(602.5);
    EXPECT_THAT(slave.takeCalls(), IsEmpty());
    EXPECT_EQ(slave.getNumCache(), 0);
}

TEST_F(SlaveCache, LeavesABlockWithoutAFrameWhereItIs) {
    receive(endRecordOf() + beginRecordOf(100));
    receiveFrames({100});
    for (int i = 1; i <= 2; ++i) {
        slave.process_data(100, 101);
        EXPECT_EQ(received(), 1);
        EXPECT_EQ(slave.getNumCache(), 1);
        EXPECT_EQ(log.count("error: KorLogicClient::process_data:unknown error, line:395"), i);
    }
}

TEST_F(SlaveCache, PassesOverRecordsOfOthers) {
    std::string otherVersion = beginRecordOf(99);
    otherVersion[5] = 2;
    std::string otherEnd = endRecordOf();
    otherEnd[5] = 2;
    receive(applicationRecordOf(9, 100) + otherVersion + otherEnd + frameOf(100));
    slave.process_data(100, 101);
    EXPECT_NE(slave.find_cache(100), nullptr);
}

TEST_F(SlaveCache, SurvivesEveryBadBlock) {
    const std::string whole = applicationRecordOf(9, 12) + frameOf(100);
    for (std::size_t size = 1; size < whole.size(); ++size)
        receive(whole.substr(0, size));
    for (const int length : {0, 5, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), 7})
        receive(headOf(length) + whole);
    for (unsigned seed = 1; seed <= 200; ++seed)
        receive(rubbish(seed, seed));
    waitAt(100);
    EXPECT_NE(slave.find_cache(100), nullptr) << "the pieces that hold a whole Begin";
    EXPECT_GT(received(), 200) << "the others";
}

TEST_F(SlaveCache, DropsWhatIsFurthestAhead) {
    const auto receiveLarge = [&](int frame) { receive(beginRecordOf(frame) + std::string(200'000, ' ')); };
    const auto cached = [&] {
        std::vector<int> frames;
        for (const KorData& block : slave.cache)
            frames.push_back(block.frameID);
        return frames;
    };
    KorClient& client = *slave.client;
    client.setMaxBlockBytes(2'000'000);
    for (const int frame : {110, 104, 101, 108, 103, 105, 107, 106, 102})
        receiveLarge(frame);
    slave.process_data(100, 101);
    EXPECT_THAT(cached(), ElementsAre(104, 101, 103, 102)) << "half of it";
    EXPECT_EQ(slave.getDroppedBlocks(), 5u);

    for (const int frame : {105, 100, 106, 107, 108, 109})
        receiveLarge(frame);
    EXPECT_EQ(client.getDroppedBlocks(), 1u) << "list and cache together";
    slave.process_data(100, 101);
    EXPECT_THAT(cached(), ElementsAre(101, 103, 102, 100)) << "the present one has got in";
    EXPECT_EQ(log.countWith("frames beyond"), 1);

    client.setMaxBlockBytes(0);
    slave.process_data(100, 101);
    EXPECT_THAT(cached(), ElementsAre(101, 100)) << "what is needed now stays";
    slave.on_reconnect(user.getAddr());
    client.setMaxBlockBytes(2'000'000);
    for (int frame = 100; frame < 110; ++frame)
        receiveLarge(frame);
    EXPECT_EQ(received(), 9) << "a reset gives the memory back";
}

TEST_F(SlaveCache, HasNoLimitForTheNumberOfBlocks) {
    const std::string block = beginRecordOf(1000);
    for (int i = 0; i < 100'000; ++i)
        receive(block);
    slave.process_data(1, 2);
    EXPECT_EQ(slave.getNumCache(), 100'000);
    slave.clear_cache();
    slave.clear_cache();
    EXPECT_EQ(slave.getNumCache(), 0);
}

} // namespace
