#include "support/net/delivery/ReceivedNumbers.h"

#include <algorithm>
#include <cassert>

namespace kor::detail {

namespace {

// Far from 0, so that a number from before the first one does not wrap below it.
constexpr std::uint64_t kFirstEpoch = 1ull << 32;

} // namespace

ReceivedNumbers::ReceivedNumbers(std::uint32_t first) : newest_(kFirstEpoch + first), floor_(newest_) {}

std::uint64_t ReceivedNumbers::unwrap(std::uint32_t wire) const {
    const auto distance = static_cast<std::int32_t>(wire - static_cast<std::uint32_t>(newest_));
    return newest_ + static_cast<std::uint64_t>(std::int64_t{distance});
}

ReceivedNumbers::Arrival ReceivedNumbers::insert(std::uint64_t number) {
    if (number < floor_)
        return Arrival::tooOld;

    std::size_t above = runCount_; // runs from here on lie wholly above the number
    while (above > 0 && runs_[above - 1].first > number)
        --above;
    Run* const below = above > 0 ? &runs_[above - 1] : nullptr;
    if (below != nullptr && number <= below->last)
        return Arrival::duplicate;

    newest_ = std::max(newest_, number);
    const bool joinsBelow = below != nullptr && below->last + 1 == number;
    const bool joinsAbove = above < runCount_ && number + 1 == runs_[above].first;
    if (joinsBelow && joinsAbove) {
        below->last = runs_[above].last;
        eraseRuns(above, 1);
    } else if (joinsBelow) {
        below->last = number;
    } else if (joinsAbove) {
        runs_[above].first = number;
    } else {
        insertRunAt(above, number);
    }
    return Arrival::fresh;
}

std::uint64_t ReceivedNumbers::newestMissing() const {
    if (empty())
        return 0;
    const std::uint64_t newestRunFirst = runs_[runCount_ - 1].first;
    return newestRunFirst > floor_ ? newestRunFirst - 1 : 0;
}

void ReceivedNumbers::fillAck(AckFrame& ack) const {
    assert(!empty());
    ack.rangeCount = std::min(runCount_, kMaxAckRanges);
    for (std::size_t i = 0; i < ack.rangeCount; ++i) {
        const Run& run = runs_[runCount_ - 1 - i];
        const std::uint64_t count = std::min<std::uint64_t>(run.last - run.first + 1, UINT32_MAX);
        ack.ranges[i] = {static_cast<std::uint32_t>(run.last), static_cast<std::uint32_t>(count)};
    }
}

void ReceivedNumbers::forgetBelow(std::uint64_t number) {
    if (empty())
        return;
    number = std::min(number, newest_);
    if (number <= floor_)
        return;
    floor_ = number;
    std::size_t gone = 0;
    while (runs_[gone].last < number)
        ++gone;
    eraseRuns(0, gone);
    runs_[0].first = std::max(runs_[0].first, number);
}

void ReceivedNumbers::insertRunAt(std::size_t index, std::uint64_t number) {
    if (runCount_ < kMaxRuns) {
        std::copy_backward(runs_.begin() + index, runs_.begin() + runCount_, runs_.begin() + runCount_ + 1);
        runs_[index] = {number, number};
        ++runCount_;
        return;
    }
    if (index == 0) { // it is itself the oldest
        floor_ = number + 1;
        return;
    }
    floor_ = runs_[0].last + 1;
    std::copy(runs_.begin() + 1, runs_.begin() + index, runs_.begin());
    runs_[index - 1] = {number, number};
}

void ReceivedNumbers::eraseRuns(std::size_t index, std::size_t count) {
    std::copy(runs_.begin() + index + count, runs_.begin() + runCount_, runs_.begin() + index);
    runCount_ -= count;
}

} // namespace kor::detail
