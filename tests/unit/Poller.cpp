#include "tests/unit/UdpSocketFixture.h"

#include <atomic>
#include <thread>

namespace kor::detail {
namespace {

TEST(Poller, DeadlineEndsTheWait) {
    Poller poller;
    const Nanoseconds deadline = clockNow() + 3 * kMillisecond;
    while (clockNow() < deadline) {
        poller.wait(deadline);
        EXPECT_FALSE(poller.woken());
    }
    // A past one does not wait: with one that never comes, these would not return.
    poller.wait(deadline);
    poller.wait(INT64_MIN);
    poller.wait(0);
}

TEST(Poller, WakeBeforeTheWaitIsNotLost) {
    Poller poller;
    poller.waker().wake();
    poller.waker().wake();
    poller.wait(kNever);
    EXPECT_TRUE(poller.woken());
    poller.wait(clockNow());
    EXPECT_FALSE(poller.woken()); // both calls were one
}

TEST(Poller, SocketsAreTold) {
    UdpSocket quiet;
    UdpSocket busy;
    ASSERT_TRUE(quiet.open(0, {}));
    ASSERT_TRUE(busy.open(0, {}));
    Poller poller;
    const std::size_t first = poller.add(quiet.fd());
    const std::size_t second = poller.add(busy.fd());
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(second, 1u);

    ASSERT_EQ(quiet.send(addressOf(busy), Bytes(1)), SendResult::sent);
    poller.wait(kNever);
    EXPECT_FALSE(poller.woken());
    EXPECT_FALSE(poller.readable(first));
    EXPECT_TRUE(poller.readable(second));
    EXPECT_FALSE(poller.writable(second));

    poller.setWantWrite(first, true);
    poller.wait(kNever);
    EXPECT_TRUE(poller.writable(first));
    poller.setWantWrite(first, false);
    poller.waker().wake();
    poller.wait(kNever);
    EXPECT_FALSE(poller.writable(first));
    EXPECT_TRUE(poller.readable(second));
    EXPECT_TRUE(poller.woken());

    poller.clear();
    EXPECT_EQ(poller.add(quiet.fd()), 0u);
    poller.wait(clockNow());
    EXPECT_FALSE(poller.readable(0));
}

TEST(Poller, ANapEndsByTimeOrByTheWakerAndSupposesTheSocketsReadable) {
    UdpSocket socket;
    ASSERT_TRUE(socket.open(0, {}));
    Poller poller;
    poller.add(socket.fd());
    Nanoseconds end = clockNow() + kMillisecond;
    poller.nap(end);
    EXPECT_GE(clockNow(), end);
    EXPECT_TRUE(poller.readable(0));
    EXPECT_FALSE(poller.woken() || poller.writable(0));
    poller.nap(end); // a past one does not wait: these would not return
    poller.nap(kNow);
    poller.nap(0);
    poller.waker().wake();
    poller.nap(kNever);
    EXPECT_TRUE(poller.woken());

    poller.wait(clockNow());
    EXPECT_FALSE(poller.readable(0) || poller.woken());
    poller.waker().wake(); // ends no pause, and is not lost for it
    end = clockNow() + kMillisecond;
    poller.pause(kMillisecond);
    EXPECT_GE(clockNow(), end);
    EXPECT_TRUE(poller.readable(0));
    poller.wait(kNever);
    EXPECT_TRUE(poller.woken());
}

TEST(Poller, AClosedDescriptorDoesNotSpin) {
    UdpSocket socket;
    ASSERT_TRUE(socket.open(0, {}));
    Poller poller;
    poller.add(socket.fd());
    socket.close();
    poller.wait(clockNow() + kMillisecond);
    const Nanoseconds deadline = clockNow() + kMillisecond;
    poller.wait(deadline);
    EXPECT_FALSE(poller.readable(0));
    EXPECT_GE(clockNow(), deadline);
}

TEST(Poller, AWakeUpEndsOneWaitOnly) {
    Poller poller;
    for (int round = 0; round < 20; ++round) {
        std::thread other([&] { poller.waker().wake(); });
        do
            poller.wait(kNever);
        while (!poller.woken());
        other.join();
        // Takes what is left of a wake-up that came while the poller was waking anyway.
        poller.wait(clockNow());
        const Nanoseconds deadline = clockNow() + kMillisecond;
        poller.wait(deadline);
        EXPECT_FALSE(poller.woken());
        EXPECT_GE(clockNow(), deadline);
    }
}

/// Two threads hand a number back and forth, one of them napping now and then; one lost wake-up would stop
/// them for good.
TEST(Poller, NoWakeUpIsLostBetweenThreads) {
    constexpr int kRounds = 20'000;
    Poller ping;
    Poller pong;
    std::atomic<int> ball{0};
    const Nanoseconds deadline = clockNow() + 4 * kPatience;
    auto play = [&](Poller& own, Poller& other, int parity) {
        for (int next = parity; next < kRounds; next += 2) {
            while (ball.load(std::memory_order_relaxed) != next && clockNow() < deadline)
                next % 3 == 0 ? own.nap(deadline) : own.wait(deadline);
            ball.store(next + 1, std::memory_order_relaxed);
            other.waker().wake();
        }
    };
    std::thread opponent([&] { play(pong, ping, 1); });
    play(ping, pong, 0);
    opponent.join();
    EXPECT_EQ(ball.load(), kRounds);
    EXPECT_LT(clockNow(), deadline);
}

/// What the caller of wake() wrote before it is there for the thread that wakes, without further locks.
TEST(Poller, WakeCarriesData) {
    Poller poller;
    constexpr int kItems = 20'000;
    std::vector<int> items(kItems, 0);
    std::atomic<int> published{0};
    std::thread producer([&] {
        for (int i = 0; i < kItems; ++i) {
            items[static_cast<std::size_t>(i)] = i + 1;
            published.store(i + 1, std::memory_order_release);
            poller.waker().wake();
        }
    });
    int seen = 0;
    const Nanoseconds deadline = clockNow() + 4 * kPatience;
    while (seen < kItems && clockNow() < deadline) {
        poller.wait(deadline);
        for (const int end = published.load(std::memory_order_acquire); seen < end; ++seen)
            ASSERT_EQ(items[static_cast<std::size_t>(seen)], seen + 1);
    }
    producer.join();
    EXPECT_EQ(seen, kItems);
}

} // namespace
} // namespace kor::detail
