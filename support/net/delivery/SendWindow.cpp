#include "support/net/delivery/SendWindow.h"

#include <algorithm>

namespace kor::detail {

namespace {
constexpr std::uint64_t kCrowdedPart = 20; // a round is crowded when over 1/20 of it is lost
constexpr Nanoseconds kQueueAllowance = 2 * kMillisecond;
} // namespace

SendWindow::SendWindow(std::uint32_t peerBufferBytes, Nanoseconds now)
    : nextTrain_(now),
      maxSize_(std::clamp<std::uint64_t>(peerBufferBytes / 2, kMinSize, kMaxSize)),
      size_(std::min<std::uint64_t>(4 * kTrainBytes, maxSize_)) {}

Nanoseconds SendWindow::nextTrain(std::uint64_t inFlight) const {
    if (state_ == State::probing)
        return kNow;
    return open(inFlight) ? nextTrain_ : kNever;
}

void SendWindow::paused(bool full) {
    if (state_ != State::probing)
        state_ = full ? State::full : State::open;
}

void SendWindow::trainLeft(Nanoseconds now, std::size_t bytes, Nanoseconds smoothedRoundTrip) {
    nextTrain_ =
        now + static_cast<Nanoseconds>(static_cast<double>(bytes) / (2.0 * static_cast<double>(size_)) *
                                       static_cast<double>(smoothedRoundTrip));
}

void SendWindow::acknowledged(Nanoseconds now, std::uint64_t charge, Nanoseconds latestRoundTrip,
                              Nanoseconds leastRoundTrip) {
    roundAcknowledged_ += charge;
    const bool queueing = latestRoundTrip > 2 * leastRoundTrip + kQueueAllowance;
    if (queueing)
        opening_ = false;
    if (state_ == State::full && !queueing) {
        const std::uint64_t step =
            opening_ ? charge : std::max<std::uint64_t>(1, charge * (kTrainBytes / 4) / size_);
        size_ = std::min(size_ + step, maxSize_);
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
        size_ = std::max<std::uint64_t>(size_ * 7 / 10, kMinSize);
        opening_ = false;
    }
    roundAcknowledged_ = 0;
    roundLost_ = 0;
    roundStart_ = now;
}

} // namespace kor::detail
