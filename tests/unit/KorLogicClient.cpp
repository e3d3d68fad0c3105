// The slave's logic: which frames are applied with which weight, and what is reported.

#include "tests/unit/SlaveFixture.h"

#include <support/memInfo.h>

#include <gmock/gmock.h>

#include <limits>

namespace {

using namespace kor;
using namespace kor::testing_support;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

TEST_F(SlaveFrames, InterpolateBetweenNeighbours) {
    run();
    receiveFrames({600, 601});
    EXPECT_EQ(waitAt(600.25), KorLogicClient::WAIT_LERP);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("600*1", "601*0.25"));
    EXPECT_EQ(slave.getFrameID(), 600.25);
    EXPECT_EQ(slave.getFrameDeadline(), 300.125 + static_cast<double>(0.000001f));
    EXPECT_EQ(slave.getNumCache(), 2);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SlaveFrames, StartWithoutInterpolation) {
    receiveFrames({600, 601});
    EXPECT_EQ(waitAt(600.25), KorLogicClient::WAIT_LERP);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("600*1"));
    EXPECT_EQ(slave.getFrameID(), 600.0);
    EXPECT_EQ(waitAt(600.5), KorLogicClient::WAIT_LERP);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("600*1", "601*0.5"));
}

TEST_F(SlaveFrames, ApplyOnceAtAWholePosition) {
    run();
    receiveFrames({600, 601});
    EXPECT_EQ(waitAt(600), KorLogicClient::WAIT_LERP);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("600*1"));
    EXPECT_EQ(slave.getFrameID(), 600.0);
    EXPECT_THAT(user.takeSent(), ElementsAre(reportOf(600, 300.0, 600.0)));
}

TEST_F(SlaveFrames, MakeDoWithOneNeighbour) {
    run();
    receiveFrames({600});
    EXPECT_EQ(waitAt(600.25), KorLogicClient::WAIT_HIT);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("600*1"));
    EXPECT_EQ(slave.getFrameID(), 600.0);
    EXPECT_THAT(log.lines(), ElementsAre("message: hit but no lerp, frame_id[601] not ready, should tweak"));
    log.clear();

    receiveFrames({701});
    EXPECT_EQ(waitAt(700.25), KorLogicClient::WAIT_OVER_HIT);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("600*1", "701*1")) << "600 leaves the cache";
    EXPECT_EQ(slave.getFrameID(), 701.0);
    EXPECT_EQ(slave.getFrameDeadline(), 350.125 + static_cast<double>(0.000001f));
    EXPECT_THAT(log.lines(),
                ElementsAre("message: over hit no lerp, frame_id[700] not found, apply frame[701], "
                            "should tweak"));
    log.clear();

    EXPECT_EQ(waitAt(750.25), KorLogicClient::WAIT_NONE);
    EXPECT_EQ(slave.getFrameID(), -1.0);
    EXPECT_EQ(slave.getFrameDeadline(), -1.0);
    slave.setShowLog(false);
    receiveFrames({800});
    EXPECT_EQ(waitAt(800.25), KorLogicClient::WAIT_HIT);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SlaveFrames, AreMeasuredAfterApplyData) {
    run();
    receiveFrames({600, 601, 602, 702, 801});
    slave.atApply = [&](KorData* block) {
        block->frameID += 1000;
        slave.setFrameDeadlineExpected(17);
    };
    const double deadline = 17 + static_cast<double>(0.000001f);
    EXPECT_EQ(waitAt(600.25), KorLogicClient::WAIT_LERP);
    EXPECT_EQ(slave.getFrameID(), 1600.25);
    EXPECT_EQ(slave.getFrameDeadline(), deadline);
    for (const auto& [position, result] :
         {std::pair{702.25, KorLogicClient::WAIT_HIT}, std::pair{800.25, KorLogicClient::WAIT_OVER_HIT}}) {
        EXPECT_EQ(waitAt(position), result);
        EXPECT_EQ(slave.getFrameDeadline(), deadline);
    }
}

TEST_F(SlaveFrames, TakeTheMastersClockInMilliseconds) {
    run();
    user.offset = 100'000;
    receiveFrames({600, 601});
    slave.setFrameDeadlineExpected(200.125);
    EXPECT_EQ(slave.wait(0), KorLogicClient::WAIT_LERP);
    EXPECT_EQ(slave.getFrameID(), 600.25);
}

TEST_F(SlaveFrames, AreAppliedAtOnceWhileTheClockIsUnknown) {
    user.offset = -1e9;
    receiveFrames({7, 5});
    receive("no record at all");
    EXPECT_EQ(waitAt(100), KorLogicClient::WAIT_NONE);
    EXPECT_EQ(slave.takeCalls().size(), 3u);
    EXPECT_EQ(received(), 0);
    EXPECT_EQ(slave.getNumCache(), 0);
    EXPECT_THAT(user.takeSent(), IsEmpty());
    EXPECT_EQ(slave.getFrameDeadline(), 0.0) << "untouched";
}

TEST_F(SlaveFrames, AreAppliedAtOnceWhileThereIsNoPosition) {
    for (const double interval : {0.0, kNan, 1e-300, -1e-300}) {
        slave.setFrameInterval(interval);
        receiveFrames({7});
        EXPECT_EQ(waitAt(100), KorLogicClient::WAIT_NONE) << interval;
        EXPECT_EQ(slave.takeCalls().size(), 1u) << interval;
    }
    slave.setFrameInterval(0.5);
    for (const double position : {kNan, 1e18, -1e18, 2147483648.0, -2147483649.0}) {
        receiveFrames({7});
        EXPECT_EQ(waitAt(position), KorLogicClient::WAIT_NONE) << position;
        EXPECT_EQ(slave.takeCalls().size(), 1u) << position;
    }
    EXPECT_THAT(user.takeSent(), IsEmpty());
    receiveFrames({2147483647});
    EXPECT_EQ(waitAt(2147483646.5), KorLogicClient::WAIT_OVER_HIT);
}

TEST_F(SlaveFrames, AreReportedOnceIn60) {
    for (const double position : {59.0, 61.0, 59.4, 60.6, 1.0})
        waitAt(position);
    EXPECT_THAT(user.takeSent(), IsEmpty());
    for (const double position : {60.0, 59.5, 60.5, 119.75, 0.25, -60.25})
        waitAt(position);
    EXPECT_THAT(user.takeSent(), ElementsAre(reportOf(60, 30.0, 60.0), reportOf(60, 29.75, 59.5),
                                             reportOf(61, 30.25, 60.5), reportOf(120, 59.875, 119.75),
                                             reportOf(1, 0.125, 0.25), reportOf(-60, -30.125, -60.25)));
}

TEST_F(SlaveFrames, StartAfreshAfterAConnectionEvent) {
    run();
    EXPECT_EQ(slave.clears, 1) << "the first wait after construction";
    receiveFrames({600, 601});
    waitAt(600.25);
    receiveFrames({602});
    slave.on_reconnect(user.getAddr());
    slave.on_connect_lost(user.getAddr());
    EXPECT_EQ(received() + slave.getNumCache(), 0);
    EXPECT_EQ(slave.getFrameID(), -1.0);
    EXPECT_EQ(slave.getFrameDeadline(), 0.0);
    EXPECT_EQ(slave.getFrameDeadlineExpected(), 0.0);
    slave.takeCalls();
    receiveFrames({700, 701});
    EXPECT_EQ(waitAt(700.25), KorLogicClient::WAIT_LERP);
    EXPECT_THAT(slave.takeCalls(), ElementsAre("700*1"));
    EXPECT_EQ(slave.clears, 2);
}

TEST_F(SlaveFrames, CostOneListNodePerHop) {
    run();
    const std::uint64_t before = memReport().totalBlocks;
    for (int frame = 602; frame <= 651; ++frame) {
        receiveFrames({frame});
        waitAt(frame - 0.5);
    }
    EXPECT_EQ(memReport().totalBlocks - before, 150u)
        << "the packet, a node when received, a node when cached";
}

TEST_F(SlaveFrames, LetApplyDataSend) {
    receiveFrames({600});
    slave.atApply = [&](KorData*) { EXPECT_GE(slave.getClient()->sendAsyn("answer", 6), 0); };
    waitAt(600.25);
    EXPECT_THAT(user.takeSent(), testing::Contains("answer"));
}

TEST_F(SlaveFrames, NeedAConnection) {
    receiveFrames({600});
    detail::KorClientAccess::setUser(*slave.client, nullptr);
    EXPECT_EQ(waitAt(600), KorLogicClient::WAIT_NONE);
    EXPECT_EQ(received(), 1);
    Slave fresh;
    EXPECT_EQ(fresh.wait(1), KorLogicClient::WAIT_NONE);
}

TEST(SlaveLogic, OpensAnewAfterAFailure) {
    LogRecorder log;
    Slave slave;
    EXPECT_FALSE(slave.init(-1, 0, "a", {}));
    EXPECT_FALSE(slave.isInit());
    EXPECT_EQ(slave.getClient(), nullptr);
    EXPECT_EQ(log.count("error: KorLogicClient::init:init KorClient failed"), 1);
    ASSERT_TRUE(slave.init(0, 0, "a", {}));
    EXPECT_TRUE(slave.isInit());
    slave.release();
    EXPECT_NE(slave.getClient(), nullptr);
    ASSERT_TRUE(slave.init(0, 0, "b", {}));
    EXPECT_STREQ(slave.getClient()->getName().c_str(), "b");
    EXPECT_FALSE(slave.init(70000, 0, "b", {}));
    EXPECT_EQ(slave.getClient(), nullptr);
    ASSERT_TRUE(slave.init(0, 0, "c", {"left"}));
    KorClient& before = *slave.getClient();
    ASSERT_TRUE(slave.init(0, 0, before.getName(), before.getCamNames()))
        << "names of the endpoint that goes";
    EXPECT_STREQ(slave.getClient()->getName().c_str(), "c");
    ASSERT_EQ(slave.getClient()->getCamNames().count, 1);
    EXPECT_STREQ(slave.getClient()->getCamNames()[0].c_str(), "left");
    slave.getClient()->release();
    EXPECT_EQ(slave.wait(1), KorLogicClient::WAIT_NONE);
}

} // namespace
