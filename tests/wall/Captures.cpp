#include "examples/wall/Captures.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

WallFrame frameOf(int id, CaptureOrder order = {}) {
    WallFrame frame;
    frame.id = id;
    frame.order = order;
    frame.scene.boxes.push_back(Box{7});
    frame.scene.boxes[0].position.x = static_cast<float>(id);
    return frame;
}

TEST(Captures, BlendTheFramesAroundThePosition) {
    Captures captures;
    const CaptureOrder order{1, 12.25};
    for (int id = 10; id < 13; ++id) {
        captures.keep(frameOf(id, order));
        EXPECT_TRUE(captures.takeExact().empty());
    }
    captures.keep(frameOf(13, order));
    const auto exact = captures.takeExact();
    ASSERT_EQ(exact.size(), 1U);
    EXPECT_EQ(exact[0].earlier, 12);
    EXPECT_EQ(exact[0].later, 13);
    EXPECT_EQ(exact[0].weight, 0.25);
    EXPECT_FLOAT_EQ(exact[0].scene.boxes[0].position.x, 12.25F);
}

TEST(Captures, AreCarriedOutOnce) {
    Captures captures;
    for (int id = 1; id < 200; ++id)
        captures.keep(frameOf(id, {1, 20}));
    ASSERT_EQ(captures.takeExact().size(), 1U);
    EXPECT_FALSE(captures.nextShown(19.9));
    EXPECT_EQ(captures.nextShown(20.3)->number, 1);
    EXPECT_FALSE(captures.nextShown(21));
    captures.keep(frameOf(200, {1, 20}));
    EXPECT_FALSE(captures.nextShown(22));
    EXPECT_TRUE(captures.takeComplaints().empty());
}

TEST(Captures, ShowOnlyWhatTheWallShowsWithoutInterpolation) {
    Captures captures;
    WallFrame frame = frameOf(1, {1, 2});
    frame.mode.interpolation = false;
    captures.keep(frame);
    captures.keep(frameOf(2));
    captures.keep(frameOf(3));
    EXPECT_TRUE(captures.takeExact().empty());
    EXPECT_TRUE(captures.nextShown(2));
}

TEST(Captures, SayWhichFrameIsLongPast) {
    Captures captures;
    for (int id = 100; id < 150; ++id)
        captures.keep(frameOf(id));
    captures.keep(frameOf(150, {3, 5.5}));
    const auto complaints = captures.takeComplaints();
    ASSERT_EQ(complaints.size(), 1U);
    EXPECT_NE(complaints[0].find("capture 3: frame 5 is long past"), std::string::npos) << complaints[0];
    EXPECT_FALSE(captures.nextShown(200));
    captures.keep(frameOf(151, {3, 5.5}));
    EXPECT_TRUE(captures.takeComplaints().empty()) << "says it again";
}

TEST(Captures, SayWhichFramesNeverCame) {
    Captures captures;
    captures.keep(frameOf(1, {1, 10.5}));
    captures.keep(frameOf(10));
    captures.keep(frameOf(12)); // without 11
    EXPECT_TRUE(captures.takeExact().empty());
    EXPECT_EQ(captures.takeComplaints().size(), 1U);
}

TEST(Captures, SurviveOrdersThatMakeNoSense) {
    Captures captures;
    for (const double position : {-1.0, 1e300, std::numeric_limits<double>::quiet_NaN()})
        captures.keep(frameOf(1, {1, position}));
    for (int number = 1; number < 100; ++number)
        captures.keep(frameOf(1, {number, 1e6}));
    EXPECT_GT(captures.takeComplaints().size(), 50U);
    EXPECT_FALSE(captures.nextShown(1e5));
}

TEST(Captures, StartAnewWithAnotherMaster) {
    Captures captures;
    captures.keep(frameOf(1000, {5, 1001.5}));
    captures.clear();
    EXPECT_EQ(captures.takeComplaints().size(), 1U);
    captures.keep(frameOf(3, {1, 3.5}));
    captures.keep(frameOf(4));
    EXPECT_EQ(captures.takeExact().size(), 1U);
}

} // namespace
