// A master and its slave in one process, each released and opened anew at every stage of their acquaintance,
// while frames are on their way. Processes that leave are looked at in the cluster tests.

#include "tests/unit/EndpointFixture.h"

#include <kor/kor.h>

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace kor;
using namespace kor::testing_support;

struct Master : KorLogicServer {
    Master() { setFrameID(static_cast<int>(jTimer::getTimeSecond() / getFrameInterval())); }
    ~Master() override { release(); }

    void update() override {
        const std::string frame = frameOf(getFrameID() + 3);
        server->send(frame.data(), static_cast<int>(frame.size()));
    }
};

struct Slave : KorLogicClient {
    int lerps = 0;

    ~Slave() override { getClient()->release(); }
    void applyData(KorData*, double) override {}

    /// One frame for the vsync that comes next.
    void frame() {
        setFrameDeadlineExpected(jTimer::getTimeSecond() + 0.01);
        lerps += wait(0) == WAIT_LERP;
    }
    bool hasBlocks() {
        AtomicLock guard(getClient()->getLock());
        return !getClient()->getData().empty() || getNumCache() > 0;
    }
};

struct Reopening : testing::Test {
    unsigned short port = 0;
    Slave slave;
    Master master;

    void open() {
        slave.setShowLog(false);
        do
            port = freePort();
        while (!slave.init(port, 0, "left", {"left"}));
        ASSERT_TRUE(master.init("127.255.255.255", port, 0, 0));
    }
    template <class Condition>
    bool run(Condition condition) {
        return driveUntil(
            [&] {
                master.swap();
                slave.frame();
            },
            condition);
    }
    bool lock() {
        slave.lerps = 0;
        return run([&] { return slave.lerps > 20 && master.getSlave("left"); });
    }
};

TEST_F(Reopening, AtEveryStage) {
    open();
    const auto nothing = [] {};
    const auto search = [&] { slave.frame(); };
    const auto hearOfNobody = [&] {
        SocketUDP socket;
        ASSERT_TRUE(socket.create());
        socket.setSendIP("127.0.0.1");
        socket.setSendPort(port);
        const std::string announcement = broadcastOf(freePort());
        socket.write(announcement.data(), 1, static_cast<int>(announcement.size()));
        slave.frame();
    };
    const auto beConnected = [&] { ASSERT_TRUE(run([&] { return slave.getClient()->isConnected(); })); };
    const auto haveBlocks = [&] { ASSERT_TRUE(run([&] { return slave.hasBlocks(); })); };
    const auto beLocked = [&] { ASSERT_TRUE(lock()); };
    for (const std::function<void()>& stage : std::initializer_list<std::function<void()>>{
             nothing, search, hearOfNobody, beConnected, haveBlocks, beLocked}) {
        stage();
        slave.getClient()->release();
        slave.getClient()->release();
        slave.frame();
        master.release();
        master.release();
        open();
    }
    EXPECT_TRUE(lock());
}

/// The clock of a process that has run for long.
struct OldClock {
    OldClock() { detail::setClockSource(read); }
    ~OldClock() { detail::setClockSource(nullptr); }

    static std::int64_t read() {
        constexpr std::chrono::nanoseconds kAge = std::chrono::hours(31);
        const auto zero = static_cast<std::int64_t>(jTimer::getZeroOnSystemClock() * 1e9);
        return (std::chrono::steady_clock::now().time_since_epoch() + kAge).count() - zero;
    }
};

struct AfterHours : OldClock, Reopening {};

TEST_F(AfterHours, FramesAreFoundAllTheSame) {
    open();
    ASSERT_TRUE(lock());
    EXPECT_GT(slave.getFrameID(), 31 * 3600 * 60.0);
}

} // namespace
