#include "support/platform/ThreadTuning.h"
#include "support/platform/SystemRandom.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <string>
#include <thread>
#include <vector>

namespace kor::detail {
namespace {

std::string threadName() {
    std::array<char, 32> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

TEST(ThreadTuning, ChangesTheCallingThreadOnly) {
    const std::string nameBefore = threadName();
    const int slackBefore = prctl(PR_GET_TIMERSLACK);
    const int niceBefore = getpriority(PRIO_PROCESS, 0);
    std::thread([&] {
        prepareNetworkThread("kor-net");
        EXPECT_EQ(threadName(), "kor-net");
        EXPECT_EQ(prctl(PR_GET_TIMERSLACK), 1);
        EXPECT_LE(getpriority(PRIO_PROCESS, 0), niceBefore);
        prepareNetworkThread("a name of more than fifteen");
        EXPECT_EQ(threadName(), "a name of more ");
    }).join();
    EXPECT_EQ(threadName(), nameBefore);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK), slackBefore);
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), niceBefore);
}

TEST(SystemRandom, FillsAllOfIt) {
    EXPECT_TRUE(systemRandom({}));
    // More than the system gives at once, and long enough that every byte value must turn up in each part.
    std::vector<std::uint8_t> bytes(1 << 20);
    ASSERT_TRUE(systemRandom(bytes));
    for (std::size_t begin = 0; begin < bytes.size(); begin += 16384) {
        std::array<bool, 256> seen{};
        for (std::size_t i = begin; i < begin + 16384; ++i)
            seen[bytes[i]] = true;
        EXPECT_EQ(std::ranges::count(seen, true), 256) << begin;
    }
    std::array<std::uint8_t, 16> first{};
    std::array<std::uint8_t, 16> second{};
    ASSERT_TRUE(systemRandom(first) && systemRandom(second));
    EXPECT_NE(first, second);
}

} // namespace
} // namespace kor::detail
