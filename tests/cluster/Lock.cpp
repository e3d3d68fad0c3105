// A master and its slaves as processes of their own: they find each other, lock, and what travels arrives.

#include "support/Cluster.h"

#include <algorithm>

namespace {

class Lock : public Cluster {};

TEST_F(Lock, ThreeSlavesShowTheMastersFramesAndReportBack) {
    startSlaves(3);
    startMaster(3);
    ASSERT_TRUE(awaitAllLockedAnew());
    EXPECT_TRUE(await([&] { return master().last("status").count("introduced") == 3; }));
    for (auto& node : slaves()) {
        EXPECT_NE(master().last("status").text("names").find(node->name()), std::string::npos);
        expectClockWithinBound(*node);
    }
    // Each reports its position once a second; before the first report it stands at -1.
    EXPECT_TRUE(await([&] {
        const std::string reports = master().last("status").text("reports");
        return std::count(reports.begin(), reports.end(), ',') == 3 && reports.find('-') == std::string::npos;
    }));
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Lock, ClocksMayBeHoursApart) {
    startMaster(2, {{"clock_hours", "31"}});
    startSlaves(2, {{"clock_hours", "3"}});
    ASSERT_TRUE(awaitAllLockedAnew());
    EXPECT_GT(slave(0).status().number("position"), 31 * 3600 * 60.0);
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Lock, FrameDataOfNoOneAndSixteenMillionBytes) {
    startMaster(2);
    startSlaves(2);
    ASSERT_TRUE(awaitAllLockedAnew());
    const auto before = marks();

    master().tell("raw 0"); // refused, and logged
    EXPECT_TRUE(await([&] { return master().last("status").count("errors") > 0; }));

    master().tell("raw 1"); // arrives, but names no frame
    EXPECT_TRUE(await([&] { return slave(0).count("strange") == 1 && slave(1).count("strange") == 1; }));

    constexpr int kLarge = 16 << 20;
    master().tell("once " + std::to_string(kLarge));
    EXPECT_TRUE(
        await([&] { return slave(0).count("largest") == kLarge && slave(1).count("largest") == kLarge; }));

    EXPECT_TRUE(awaitAllLockedStill(before));
    EXPECT_TRUE(awaitAllLockedStill(marks()));
    expectCleanTraffic();
    expectCleanEnd();
}

TEST_F(Lock, HoldsWithMoreSpinningProcessesThanCores) {
    startMaster(8, {{"spin", "1"}});
    startSlaves(8, {{"spin", "1"}});
    ASSERT_TRUE(awaitAllLockedAnew());
    ASSERT_TRUE(awaitAllLockedStill(marks()));
    for (auto& node : slaves()) {
        EXPECT_EQ(node->count("sessions"), 1) << node->name();
    }
    expectCleanTraffic();
    expectCleanEnd();
}

} // namespace
