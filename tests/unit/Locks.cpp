#include <support/AtomicLock.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

using namespace kor;

namespace {

TEST(Locks, ExcludeOneAnother) {
    int word = 0;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                const AtomicLock lock(&word);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 6000);
    EXPECT_EQ(word, 0);
}

struct Hook {
    int calls = 0;
    std::atomic<bool>* release = nullptr;

    static void run(void* context) {
        auto& hook = *static_cast<Hook*>(context);
        ++hook.calls;
        if (hook.calls == 3)
            hook.release->store(true);
    }
};

TEST(Locks, CallTheHookOfTheWaitingThreadOnly) {
    int word = 0;
    int otherWord = 0;
    std::atomic<bool> held{false};
    std::atomic<bool> release{false};
    Hook hook;
    hook.release = &release;
    std::thread waiter([&] {
        detail::setSpinHook(&Hook::run, &hook);
        { const AtomicLock uncontended(&otherWord); }
        EXPECT_EQ(hook.calls, 0);
        while (!held) {
        }
        { const AtomicLock contended(&word); }
        EXPECT_GE(hook.calls, 3);
        detail::setSpinHook(nullptr, nullptr);
    });
    {
        const AtomicLock lock(&word);
        held = true;
        while (!release) {
        }
    }
    waiter.join();
    EXPECT_EQ(word, 0);
}

TEST(Locks, TheHookIsNotEnteredFromItself) {
    struct Nested {
        int plainWord = 1;
        int depth = 0;
        int deepest = 0;
        int calls = 0;
        std::atomic<bool> freeOuter{false};
        static void run(void* context) {
            auto& nested = *static_cast<Nested*>(context);
            nested.deepest = std::max(nested.deepest, ++nested.depth);
            if (++nested.calls == 1) {
                nested.freeOuter = true;
                const AtomicLock waits(&nested.plainWord);
            }
            --nested.depth;
        }
    };
    Nested nested;
    int outer = 1;
    std::thread freer([&] {
        while (!nested.freeOuter) {
        }
        std::atomic_ref<int>(nested.plainWord).store(0);
        std::atomic_ref<int>(outer).store(0);
    });
    detail::setSpinHook(&Nested::run, &nested);
    { const AtomicLock lock(&outer); }
    detail::setSpinHook(nullptr, nullptr);
    freer.join();
    EXPECT_EQ(nested.deepest, 1);
}

} // namespace
