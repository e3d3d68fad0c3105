#include "support/net/delivery/ReceivedNumbers.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

namespace {

using namespace kor::detail;
using Arrival = ReceivedNumbers::Arrival;

/// The same, the slow way: every number in a set.
class Model {
public:
    explicit Model(std::uint64_t first) : floor_(first) {}

    Arrival insert(std::uint64_t number) {
        if (number < floor_)
            return Arrival::tooOld;
        if (!numbers_.insert(number).second)
            return Arrival::duplicate;
        const std::vector<AckFrame::Range> all = runs();
        if (all.size() > ReceivedNumbers::kMaxRuns)
            forgetBelow(*numbers_.begin() + all.back().count);
        return Arrival::fresh;
    }

    void forgetBelow(std::uint64_t number) {
        floor_ = std::max(floor_, std::min(number, newest()));
        numbers_.erase(numbers_.begin(), numbers_.lower_bound(floor_));
    }

    std::uint64_t newest() const { return *numbers_.rbegin(); }

    std::uint64_t newestMissing() const {
        std::uint64_t number = newest();
        while (numbers_.contains(number))
            --number;
        return number >= floor_ ? number : 0;
    }

    /// Newest first.
    std::vector<AckFrame::Range> runs() const {
        std::vector<AckFrame::Range> found;
        std::uint64_t next = 0;
        for (auto number = numbers_.rbegin(); number != numbers_.rend(); next = *number - 1, ++number) {
            if (found.empty() || *number != next)
                found.push_back({static_cast<std::uint32_t>(*number), 0});
            ++found.back().count;
        }
        return found;
    }

private:
    std::set<std::uint64_t> numbers_;
    std::uint64_t floor_;
};

void expectSameAck(const ReceivedNumbers& received, const Model& model) {
    AckFrame ack;
    received.fillAck(ack);
    const std::vector<AckFrame::Range> runs = model.runs();
    ASSERT_EQ(ack.rangeCount, std::min(runs.size(), kMaxAckRanges));
    for (std::size_t i = 0; i < ack.rangeCount; ++i) {
        ASSERT_EQ(ack.ranges[i].last, runs[i].last);
        ASSERT_EQ(ack.ranges[i].count, runs[i].count);
    }
}

/// `disorder`: how far behind the newest one late arrivals are looked for.
void compareWithModel(std::uint32_t seed, std::uint32_t disorder, std::uint32_t lossPercent) {
    SCOPED_TRACE(testing::Message() << "seed " << seed << " disorder " << disorder << " loss "
                                    << lossPercent);
    std::mt19937 engine(seed);
    const auto random = [&engine] { return static_cast<std::uint32_t>(engine()); };
    const std::uint32_t start = 0xFFFFFFFF - random() % 400;
    ReceivedNumbers received(start);
    const std::uint64_t first = received.unwrap(start);
    Model model(first);
    std::uint64_t sent = first;
    int seen[3] = {};
    for (int step = 0; step < 3000; ++step) {
        std::uint64_t number = sent;
        if (random() % 3 == 0)
            number -= random() % disorder;
        else
            sent += 1 + (random() % 100 < lossPercent ? random() % 4 : 0);
        const auto wire = static_cast<std::uint32_t>(number);
        ASSERT_EQ(received.unwrap(wire), number);
        const Arrival arrival = received.insert(number);
        ASSERT_EQ(arrival, model.insert(number)) << "step " << step << " number " << number;
        ++seen[static_cast<int>(arrival)];
        if (received.empty())
            continue;
        if (random() % 300 == 0) {
            const std::uint64_t bound = received.newest() + 5 - random() % 200;
            received.forgetBelow(bound);
            model.forgetBelow(bound);
        }
        ASSERT_EQ(received.newest(), model.newest());
        ASSERT_EQ(received.newestMissing(), model.newestMissing());
        ASSERT_NO_FATAL_FAILURE(expectSameAck(received, model));
    }
    ASSERT_GT(received.newest() >> 32, first >> 32) << "never came to the wrap";
    EXPECT_GT(std::min({seen[0], seen[1], seen[2]}), 0);
}

TEST(ReceivedNumbers, AgreesWithASet) {
    for (std::uint32_t seed = 1; seed <= 12; ++seed) {
        compareWithModel(seed, 30, 5);
        compareWithModel(seed, 300, 50);
        compareWithModel(seed, 3000, 100);
    }
}

TEST(ReceivedNumbers, KeepsTheNewestRunsOnly) {
    ReceivedNumbers received(0);
    const std::uint64_t first = received.unwrap(0);
    for (std::uint64_t i = 0; i <= ReceivedNumbers::kMaxRuns; ++i)
        EXPECT_EQ(received.insert(first + 1 + 3 * i), Arrival::fresh);
    EXPECT_EQ(received.insert(first), Arrival::tooOld);
    EXPECT_EQ(received.insert(first + 1), Arrival::tooOld);
    EXPECT_EQ(received.insert(first + 4), Arrival::duplicate);
    // Never seen, but there is no room left to remember it below the others.
    EXPECT_EQ(received.insert(first + 2), Arrival::fresh);
    EXPECT_EQ(received.insert(first + 2), Arrival::tooOld);
    // This one lengthens the oldest run.
    EXPECT_EQ(received.insert(first + 3), Arrival::fresh);
    EXPECT_EQ(received.insert(first + 3), Arrival::duplicate);
}

TEST(ReceivedNumbers, UnwrapsToTheNearest) {
    ReceivedNumbers received(0);
    const std::uint64_t newest = received.unwrap(0) + 0x7FFFFFFF;
    received.insert(newest);
    EXPECT_EQ(received.unwrap(0), newest - 0x7FFFFFFF);
    EXPECT_EQ(received.unwrap(0xFFFFFFFE), newest + 0x7FFFFFFF);
    EXPECT_EQ(received.unwrap(0xFFFFFFFF), newest - 0x80000000);
    // A peer that jumps as far as it can gains nothing: one run more.
    EXPECT_EQ(received.insert(newest + 0x7FFFFFFF), Arrival::fresh);
    EXPECT_EQ(received.newestMissing(), newest + 0x7FFFFFFE);
}

} // namespace
