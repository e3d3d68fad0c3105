#include "tests/unit/UdpSocketFixture.h"

#include "support/platform/KernelStamps.h"

namespace kor::detail {
namespace {

/// Reading two clocks one after the other can go wrong by this much when the thread loses its core in
/// between.
constexpr Nanoseconds kTolerance = 5 * kMillisecond;

constexpr Nanoseconds kWall = 1'700'000'000 * kSecond;

ClockPair at(Nanoseconds ours, Nanoseconds wallStep = 0) {
    return {ours, kWall + ours + wallStep, 100};
}

TEST(KernelStamps, TurnsStampsIntoOurTime) {
    KernelStamps stamps;
    stamps.update(at(5 * kSecond));
    EXPECT_EQ(stamps.now(), 5 * kSecond);
    EXPECT_EQ(stamps.arrival(kWall + 5 * kSecond), 5 * kSecond);
    EXPECT_EQ(stamps.arrival(kWall + 5 * kSecond - 1234), 5 * kSecond - 1234);
    EXPECT_EQ(stamps.arrival(kWall + 4 * kSecond), 4 * kSecond);
}

TEST(KernelStamps, ImplausibleStampsCountAsNow) {
    KernelStamps stamps;
    stamps.update(at(50 * kSecond));
    const Nanoseconds oldest = kWall + 50 * kSecond - KernelStamps::kMaxAge;
    for (const Nanoseconds stamp : {kWall + 50 * kSecond + 1, oldest - 1, Nanoseconds{0}, -kWall,
                                    Nanoseconds{INT64_MIN}, Nanoseconds{INT64_MAX}})
        EXPECT_EQ(stamps.arrival(stamp), 50 * kSecond) << stamp;
    EXPECT_EQ(stamps.arrival(oldest), 50 * kSecond - KernelStamps::kMaxAge);
}

TEST(KernelStamps, NoStampIsTrustedWhileTheWallClockMayHaveBeenSetBehindIt) {
    for (const Nanoseconds step : {kMillisecond, -kMillisecond, 3600 * kSecond, -3600 * kSecond}) {
        KernelStamps stamps;
        stamps.update(at(5 * kSecond));
        stamps.update(at(6 * kSecond, step));
        EXPECT_EQ(stamps.arrival(kWall + step + 6 * kSecond - kMillisecond), 6 * kSecond);
        stamps.update(at(6 * kSecond + KernelStamps::kMaxAge - 1, step));
        EXPECT_EQ(stamps.arrival(kWall + step + 6 * kSecond), stamps.now());
        stamps.update(at(6 * kSecond + KernelStamps::kMaxAge, step));
        EXPECT_EQ(stamps.arrival(kWall + step + 6 * kSecond + 1), 6 * kSecond + 1);
    }
}

TEST(KernelStamps, InterruptedReadingsAreNotTakenForAStep) {
    KernelStamps stamps;
    stamps.update(at(5 * kSecond));
    ClockPair rough = at(6 * kSecond, 400 * kMicrosecond);
    rough.bracket = 800 * kMicrosecond;
    stamps.update(rough);
    stamps.update(at(7 * kSecond));
    EXPECT_EQ(stamps.arrival(kWall + 7 * kSecond - 99), 7 * kSecond - 99);
}

TEST(KernelStamps, ADriftBetweenTheClocksIsNotTakenForAStep) {
    for (const Nanoseconds drift : {60 * kMicrosecond, -60 * kMicrosecond}) { // per second
        KernelStamps stamps;
        for (int second = 5; second < 9; ++second)
            stamps.update(at(second * kSecond, second * drift));
        EXPECT_EQ(stamps.arrival(kWall + 8 * kSecond + 8 * drift - 99), 8 * kSecond - 99);
    }
}

TEST(KernelStamps, NeverPutAnArrivalBeforeTheTruth) {
    // A stamp taken in between two readings of our clock lies between them, also when the thread is
    // interrupted while it reads the pair.
    KernelStamps stamps;
    for (int i = 0; i < 20'000; ++i) {
        const Nanoseconds before = clockNow();
        const Nanoseconds stamp = wallClockNow();
        stamps.update(readClockPair());
        ASSERT_GE(stamps.arrival(stamp), before);
    }
}

class UdpSocketStamps : public testing::Test {
protected:
    void open(bool kernelTimeStamps) {
        UdpSocketOptions options;
        options.kernelTimeStamps = kernelTimeStamps;
        ASSERT_TRUE(sender.open(0, {}));
        ASSERT_TRUE(receiver.open(0, options));
        ASSERT_EQ(receiver.features().kernelTimeStamps, kernelTimeStamps);
    }

    /// Sends one datagram, lets it wait, and takes it in. Returns whether its stamp is from before the wait.
    bool stampIsFromBeforeTheWait() {
        const Nanoseconds sending = clockNow();
        EXPECT_EQ(sender.send(addressOf(receiver), Bytes(10)), SendResult::sent);
        const Nanoseconds sent = clockNow();
        while (clockNow() < sent + 2 * kTolerance) {
        }
        const Nanoseconds reading = clockNow();
        EXPECT_EQ(receiveSome(receiver, batch), 1u);
        EXPECT_GE(batch[0].arrival, sending - kTolerance);
        EXPECT_LE(batch[0].arrival, clockNow());
        return batch[0].arrival < reading - kTolerance;
    }

    /// The kernel turns its stamps on a little after the socket asks for them.
    bool kernelStampsSeen() {
        const Nanoseconds deadline = clockNow() + kPatience;
        while (clockNow() < deadline)
            if (stampIsFromBeforeTheWait())
                return true;
        return false;
    }

    UdpSocket sender;
    UdpSocket receiver;
    ReceiveBatch batch;
};

TEST_F(UdpSocketStamps, ComeFromTheKernel) {
    open(true);
    EXPECT_TRUE(kernelStampsSeen());
}

TEST_F(UdpSocketStamps, AreTheReadingTimeWhenSwitchedOff) {
    open(false);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(stampIsFromBeforeTheWait());
}

} // namespace
} // namespace kor::detail
