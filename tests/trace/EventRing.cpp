#include "trace/EventRing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace kor::detail;

Event numbered(int number) {
    Event event;
    event.begin = number;
    event.end = 2 * number;
    event.first = 3 * number;
    return event;
}

std::vector<int> numbers(EventRing& ring) {
    std::vector<int> result;
    for (const EventRing::Entry& entry : ring.entries())
        result.push_back(static_cast<int>(entry.event.begin));
    return result;
}

TEST(EventRing, KeepsTheNewestAndCountsTheOthers) {
    const auto ring = EventRing::make(16);
    for (int i = 0; i < 100; ++i)
        ring->add(numbered(i), "event");
    std::vector<int> newest;
    for (int i = 84; i < 100; ++i)
        newest.push_back(i);
    EXPECT_EQ(numbers(*ring), newest);
    EXPECT_EQ(ring->counts().recorded, 100U);
    EXPECT_EQ(ring->counts().overwritten, 84U);
    EXPECT_EQ(ring->counts().dropped, 0U);

    ring->clear();
    EXPECT_TRUE(ring->entries().empty());
    ring->add(numbered(7), "event");
    EXPECT_EQ(numbers(*ring), std::vector<int>{7});
    EXPECT_EQ(ring->counts().recorded, 1U);
    EXPECT_EQ(ring->counts().overwritten, 0U);
}

TEST(EventRing, LongTextsTakeSeveralPlaces) {
    const auto ring = EventRing::make(64);
    for (const std::size_t length : {0U, 1U, 71U, 72U, 73U, 144U, 145U, 999U, 1000U}) {
        std::string text(length, 'x');
        for (std::size_t i = 0; i < length; ++i)
            text[i] = static_cast<char>('a' + i % 26);
        ring->add(numbered(1), text);
        EXPECT_EQ(ring->entries().back().text, text) << length;
    }
    EXPECT_EQ(ring->counts().recorded, 9U);
    ring->add(numbered(1), std::string(5000, 'y'));
    EXPECT_EQ(ring->entries().back().text, std::string(1000, 'y'));
    // Nothing is left of a text whose head has been overwritten.
    for (int i = 0; i < 63; ++i)
        ring->add(numbered(i), "short");
    for (const EventRing::Entry& entry : ring->entries())
        EXPECT_EQ(entry.text, "short");
}

TEST(EventRing, NothingIsTornWhenThreadsWriteAndReadAtOnce) {
    const auto ring = EventRing::make(32);
    constexpr int kThreads = 3;
    constexpr int kEach = 20000;
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < kEach; ++i) {
                const int number = thread * kEach + i;
                ring->add(numbered(number), std::string(static_cast<std::size_t>(i % 150),
                                                        static_cast<char>('a' + number % 26)));
            }
            --running;
        });
    }
    const auto check = [&] {
        for (const EventRing::Entry& entry : ring->entries()) {
            const std::int64_t number = entry.event.begin;
            ASSERT_EQ(entry.event.end, 2 * number);
            ASSERT_EQ(entry.event.first, static_cast<double>(3 * number));
            ASSERT_EQ(entry.text, std::string(entry.text.size(), static_cast<char>('a' + number % 26)));
        }
    };
    while (running > 0)
        check();
    for (std::thread& thread : threads)
        thread.join();
    check();
    const EventRing::Counts counts = ring->counts();
    EXPECT_EQ(counts.recorded, static_cast<std::uint64_t>(kThreads) * kEach);
    EXPECT_LE(ring->entries().size() + counts.overwritten + counts.dropped, counts.recorded);
    EXPECT_GE(ring->entries().size() + counts.overwritten + 2 * counts.dropped, counts.recorded);
}

} // namespace
