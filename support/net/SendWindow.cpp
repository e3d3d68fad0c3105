#include "support/net/SendWindow.h"

#include <algorithm>

namespace kor::detail {

namespace {
constexpr std::uint64_t kCrowdedPart = 20; // a round is crowded when over 1/20 of it is lost
constexpr Nanoseconds kQueueAllowance = 2 * kMillisecond;
} // namespace

void SendWindow::setPeerBuffer(std::uint32_t bytes) {
    ceiling_ = std::clamp<std::uint64_t>(bytes / 2, kFloor, kCeiling);
    size_ = std::min(size_, ceiling_);
}

void SendWindow::acknowledged(Nanoseconds now, std::uint64_t charge, bool limited,
                              Nanoseconds latestRoundTrip, Nanoseconds leastRoundTrip) {
    roundAcknowledged_ += charge;
    const bool queueing = latestRoundTrip > 2 * leastRoundTrip + kQueueAllowance;
    if (queueing)
        opening_ = false;
    if (limited && !queueing) {
        const std::uint64_t step =
            opening_ ? charge : std::max<std::uint64_t>(1, charge * (kTrainBytes / 4) / size_);
        size_ = std::min(size_ + step, ceiling_);
    }
    if (elapsed(now, roundStart_) >= std::max(latestRoundTrip, kMillisecond))
        endRound(now);
}

void SendWindow::lost(Nanoseconds now, std::uint64_t charge) {
    roundLost_ += charge;
    if (elapsed(now, roundStart_) >= 250 * kMillisecond)
        endRound(now);
}

void SendWindow::endRound(Nanoseconds now) {
    const std::uint64_t total = roundAcknowledged_ + roundLost_;
    if (roundLost_ > kTrainBytes / 8 && roundLost_ * kCrowdedPart > total) {
        size_ = std::max<std::uint64_t>(size_ * 7 / 10, std::min<std::uint64_t>(kFloor, ceiling_));
        opening_ = false;
    }
    roundAcknowledged_ = 0;
    roundLost_ = 0;
    roundStart_ = now;
}

Nanoseconds SendWindow::pace(std::uint32_t bytes, Nanoseconds smoothedRoundTrip) const {
    return static_cast<Nanoseconds>(static_cast<double>(bytes) / (2.0 * static_cast<double>(size_)) *
                                    static_cast<double>(smoothedRoundTrip));
}

} // namespace kor::detail
