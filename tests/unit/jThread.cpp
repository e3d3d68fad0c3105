#include <support/jThread.h>

#include <gtest/gtest.h>
#include <support/jLog.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kor {
namespace {

class Counter : public jThread {
public:
    ~Counter() override { release(); }

    using jThread::onOwnThread;
    using jThread::requestStop;
    using jThread::running;
    using jThread::start;
    using jThread::stopping;

    void awaitSteps(int more) const {
        for (const int target = steps + more; steps < target;)
            std::this_thread::yield();
    }

    std::atomic<int> steps{0};
    std::atomic<int> concurrent{0};

protected:
    void process() override {
        EXPECT_EQ(concurrent.fetch_add(1), 0);
        EXPECT_TRUE(onOwnThread());
        ++steps;
        --concurrent;
    }
};

TEST(jThread, StepsUntilReleasedAndStartsAgain) {
    Counter counter;
    EXPECT_FALSE(counter.running());
    counter.release();
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(counter.start());
        EXPECT_FALSE(counter.start());
        EXPECT_TRUE(counter.running());
        EXPECT_FALSE(counter.stopping());
        EXPECT_FALSE(counter.onOwnThread());
        counter.awaitSteps(3);
        counter.release();
        EXPECT_FALSE(counter.running());
        EXPECT_TRUE(counter.stopping());
        const int steps = counter.steps;
        counter.release();
        EXPECT_EQ(counter.steps, steps);
    }
}

TEST(jThread, SeveralMayReleaseAtOnce) {
    for (int round = 0; round < 50; ++round) {
        Counter counter;
        ASSERT_TRUE(counter.start());
        std::vector<std::thread> releasers;
        for (int i = 0; i < 3; ++i)
            releasers.emplace_back([&] {
                counter.release();
                EXPECT_FALSE(counter.running());
            });
        for (std::thread& releaser : releasers)
            releaser.join();
    }
}

class SelfReleaser : public Counter {
public:
    ~SelfReleaser() override { release(); }
    std::atomic<bool> released{false};

protected:
    void process() override {
        if (!released) {
            release();
            EXPECT_FALSE(start());
            EXPECT_FALSE(stopping());
            released = true;
        }
        Counter::process();
    }
};

TEST(jThread, ReleaseOnItsOwnThreadIsRefusedAndLogged) {
    std::atomic<int> errors{0};
    jLog::setHandler([&](LogLevel level, const char* text) {
        if (level == LogLevel::error && std::string(text).starts_with("jThread::release:"))
            ++errors;
    });
    SelfReleaser thread;
    ASSERT_TRUE(thread.start());
    thread.awaitSteps(3); // it went on after its own call
    EXPECT_TRUE(thread.released);
    thread.release();
    EXPECT_EQ(errors, 1);
    jLog::setHandler({});
}

class SelfDestroyer : public jThread {
public:
    explicit SelfDestroyer(std::atomic<bool>& gone) : gone_(gone) {}
    ~SelfDestroyer() override { gone_ = true; }
    using jThread::start;

    std::atomic<bool> go{false};

protected:
    void process() override {
        if (go)
            delete this;
    }

private:
    std::atomic<bool>& gone_;
};

TEST(jThread, AStepMayDestroyTheObject) {
    std::atomic<bool> gone{false};
    auto* thread = new SelfDestroyer(gone);
    ASSERT_TRUE(thread->start());
    thread->go = true;
    while (!gone)
        std::this_thread::yield();
}

class Idle : public jThread {
public:
    ~Idle() override { release(); }
    using jThread::start;
    using jThread::stopping;
};

TEST(jThread, WithoutAStepItEndsByItself) {
    Idle idle;
    ASSERT_TRUE(idle.start());
    while (!idle.stopping())
        std::this_thread::yield();
}

} // namespace
} // namespace kor
