// The calls around a slave's buffer swap: prediction, profiler values, waits.

#include "tests/unit/SlaveFixture.h"

#include <gmock/gmock.h>

namespace {

using namespace kor;
using namespace kor::testing_support;
using testing::ElementsAre;
using testing::IsEmpty;

struct SlaveSwap : SlaveFrames {
    TestClock clock{100.0};
    Profile values;

    SlaveSwap() {
        slave.setFrameInterval(1.0 / 60.0);
        slave.scripted = {KorLogicClient::WAIT_NONE};
    }
};

TEST_F(SlaveSwap, PredictsTheNextVsync) {
    slave.swapEnd(true);
    EXPECT_EQ(slave.getExpectedVsyncime(), 100.0 + 1.0 / 60.0 - static_cast<double>(0.009f));
    EXPECT_NEAR(slave.getExpectedVsyncime(), 100.0076666670541, 1e-12);
    EXPECT_EQ(slave.getFrameDeadlineExpected(), slave.getExpectedVsyncime());
    EXPECT_EQ(slave.getSwapEndTime(), 100.0);
    EXPECT_EQ(slave.getSwapEndTimeLast(), -1.0);
    EXPECT_EQ(values.last["frame"], 101'000.0f);
    EXPECT_EQ(values.last["id_dif"], 0.0f) << "-1 minus -1";
    EXPECT_EQ(values.last.size(), 7u);
}

TEST_F(SlaveSwap, TimesTheSwap) {
    clock.set(10.0);
    slave.swapBegin(true);
    EXPECT_EQ(slave.getSwapBeginTime(), 10.0);
    clock.set(10.016);
    slave.swapEnd(true);
    EXPECT_NEAR(values.last["gpu"], 16.0f, 1e-3f);
    EXPECT_EQ(values.last["error"], 0.0f);
    clock.set(10.017);
    slave.scripted = {KorLogicClient::WAIT_NONE};
    slave.swapEnd(true);
    EXPECT_NEAR(values.last["frame"], 1.0f, 1e-3f);
    EXPECT_EQ(values.last["error"], 1.0f);
    EXPECT_THAT(log.lines(), ElementsAre("error: KorLogicClient::swapEnd:big swap, frame_id:-1.000000"));
    slave.setShowLog(false);
    slave.setFrameInterval(0.5);
    slave.setSwapBeginTime(20.0);
    clock.set(20.5);
    slave.scripted = {KorLogicClient::WAIT_NONE};
    slave.swapEnd(true);
    EXPECT_EQ(values.last["error"], 0.0f) << "exactly one interval is not too long";
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(SlaveSwap, WaitsForTheFrameOfThatVsync) {
    slave.setFrameInterval(0.5);
    slave.scripted.clear();
    slave.setUnstableError(0.25f);
    receiveFrames({200, 201, 202});
    slave.swapEnd(true); // 100 s and 0.25 s
    EXPECT_EQ(slave.getFrameID(), 200.0);
    EXPECT_EQ(values.last["cache"], 3.0f);
    clock.set(100.5);
    slave.swapEnd(true);
    EXPECT_EQ(slave.getFrameID(), 201.5);
    EXPECT_EQ(values.last["id_dif"], 1.5f);
    clock.set(100.75);
    slave.swapEnd(false);
    EXPECT_EQ(values.last["id_dif"], 203.0f) << "without the check, from -1";
    slave.setTimeCheckResult(0.002);
    slave.scripted = {KorLogicClient::WAIT_NONE};
    slave.swapEnd(true);
    EXPECT_EQ(values.last["check"], 2.0f);
}

TEST_F(SlaveSwap, WaitsAgainForAnOldFrameWhileConnected) {
    slave.scripted = {KorLogicClient::WAIT_LERP, KorLogicClient::WAIT_OLD_FRAME,
                      KorLogicClient::WAIT_OLD_FRAME};
    slave.swapEnd(true);
    EXPECT_THAT(slave.scripted, IsEmpty());
    EXPECT_EQ(log.count("warning: old frame ignore:-1"), 2);
    detail::KorClientAccess::setUser(*slave.client, nullptr);
    slave.scripted = {KorLogicClient::WAIT_LERP, KorLogicClient::WAIT_OLD_FRAME};
    slave.swapEnd(true);
    EXPECT_EQ(slave.scripted.size(), 1u);
}

TEST_F(SlaveSwap, FindsAVsyncThatWasMovedBehindTheDeadline) {
    slave.setFrameInterval(0.5);
    receiveFrames({200});
    slave.scripted.clear();
    slave.setFrameDeadlineExpected(100.0);
    ASSERT_EQ(slave.wait(0), KorLogicClient::WAIT_LERP);
    slave.setExpectedVsyncime(100.0);
    log.clear();
    slave.swapBegin(true);
    EXPECT_THAT(log.lines(), IsEmpty());
    slave.setExpectedVsyncime(100.001001);
    slave.swapBegin(false);
    EXPECT_THAT(log.lines(), IsEmpty());
    slave.swapBegin(true);
    EXPECT_THAT(log.lines(),
                ElementsAre("error: KorLogicClient::swapBegin:unknown error, line:196,-1.000000"));
    EXPECT_EQ(slave.getSwapBeginTimeLast(), 100.0);
}

TEST_F(SlaveSwap, BeginsOnlyOnceTheClockIsKnown) {
    user.offset = -1e9;
    slave.swapBegin(true);
    EXPECT_EQ(slave.getSwapBeginTime(), -1.0);
    slave.swapEnd(true);
    EXPECT_EQ(values.last["error"], 1.0f);

    Slave closed;
    values.last.clear();
    closed.swapBegin(true);
    closed.swapEnd(true);
    EXPECT_TRUE(values.last.empty());
    EXPECT_EQ(closed.getSwapEndTime(), -1.0);
    EXPECT_EQ(closed.getExpectedVsyncime(), -1.0);
}

} // namespace
