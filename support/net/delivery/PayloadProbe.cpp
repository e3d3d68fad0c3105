#include "support/net/delivery/PayloadProbe.h"

#include <algorithm>

namespace kor::detail {

namespace {
constexpr int kTries = 3;
constexpr Nanoseconds kRetry = 20 * kMillisecond;
constexpr Nanoseconds kAgain = 60 * kSecond;
// Least that every IPv4 host takes, common tunnels, Ethernet, jumbo frames of several makers, loopback.
constexpr std::uint32_t kSizes[] = {548, 1200, 1472, 4052, 8972, 16356, 32740, 65507};
} // namespace

PayloadProbe::PayloadProbe(std::uint32_t limit, Nanoseconds now) {
    for (const std::uint32_t size : kSizes)
        if (size < limit)
            sizes_.push_back(size);
    sizes_.push_back(std::clamp<std::uint32_t>(limit, kSizes[0], 65507));
    const auto above = std::upper_bound(sizes_.begin(), sizes_.end(), kStart);
    current_ = proved_ = static_cast<std::size_t>(above - sizes_.begin()) - 1;
    candidate_ = sizes_.size() - 1;
    due_ = candidate_ > current_ ? now : kNever;
}

std::size_t PayloadProbe::largestBelow(std::uint32_t size) const {
    const auto at = std::lower_bound(sizes_.begin() + 1, sizes_.end(), size);
    return static_cast<std::size_t>(at - sizes_.begin()) - 1;
}

void PayloadProbe::acknowledged(Nanoseconds now, std::uint32_t size) {
    if (!pending_ || size != candidate())
        return;
    current_ = candidate_;
    proved_ = std::max(proved_, current_);
    endSearch(now);
}

void PayloadProbe::lost(Nanoseconds now, std::uint32_t size) {
    if (!pending_ || size != candidate())
        return;
    pending_ = false;
    due_ = now + kRetry;
    if (++tries_ >= kTries)
        nextCandidate(now);
}

void PayloadProbe::refused(Nanoseconds now, std::uint32_t size) {
    if (payload() >= size && current_ > 0) {
        current_ = largestBelow(size);
        endSearch(now);
    } else if (pending_ && candidate() >= size) {
        nextCandidate(now);
    }
}

void PayloadProbe::arrived(std::uint32_t size) {
    if (size < leastMissed_)
        return;
    missed_ = 0;
    leastMissed_ = UINT32_MAX;
}

bool PayloadProbe::missed(Nanoseconds now, std::uint32_t size) {
    if (size <= sizes_.front() || size > payload())
        return false;
    leastMissed_ = std::min(leastMissed_, size);
    if (++missed_ < kBlackHole)
        return false;
    current_ = 0;
    candidate_ = largestBelow(leastMissed_) + 1;
    nextCandidate(now);
    arrived(UINT32_MAX);
    return true;
}

void PayloadProbe::nextCandidate(Nanoseconds now) {
    --candidate_;
    tries_ = 0;
    pending_ = false;
    due_ = now;
    if (candidate_ <= current_)
        endSearch(now);
}

void PayloadProbe::endSearch(Nanoseconds now) {
    candidate_ = proved_;
    tries_ = 0;
    pending_ = false;
    due_ = current_ < proved_ ? now + kAgain : kNever;
}

} // namespace kor::detail
