#include "support/net/delivery/LossTiming.h"

#include "support/net/delivery/AckSchedule.h"

#include <algorithm>

namespace kor::detail {

namespace {
constexpr Nanoseconds kMaxLateness = 2 * kMillisecond;
constexpr Nanoseconds kFirstReorderWindow = 500 * kMicrosecond;
constexpr Nanoseconds kMaxReorderWindow = 20 * kMillisecond;
constexpr Nanoseconds kReorderCalm = kSecond; // without a needless repair the window narrows again
constexpr Nanoseconds kFirstRoundTrip = 5 * kMillisecond; // when nobody has measured one
constexpr Nanoseconds kMinVariation = 250 * kMicrosecond;
} // namespace

LossTiming::LossTiming(Nanoseconds firstRoundTrip, Nanoseconds maxWait, Nanoseconds now)
    : firstRoundTrip_(std::min(firstRoundTrip > 0 ? firstRoundTrip : kFirstRoundTrip, maxWait)),
      maxWait_(maxWait),
      lastProgress_(now),
      reorderWindow_(kFirstReorderWindow),
      lastOvertaken_(now) {}

void LossTiming::measured(Nanoseconds raw, Nanoseconds held, Nanoseconds now) {
    const Nanoseconds late = std::min(held - AckSchedule::kMaxDelay, kMaxLateness);
    lateness_ = std::max(late, lateness_ - lateness_ / 64);
    // The peer's clock may run fast, and it may have held a report of which the first copy was lost.
    if (held < raw)
        measurements_.add(raw - held, now);
    else if (!measurements_.known())
        measurements_.add(raw, now);
}

void LossTiming::overtaken(Nanoseconds now) {
    lastOvertaken_ = now;
    reorderWindow_ = std::min(
        {reorderWindow_ * 2, kMaxReorderWindow, std::max(measurements_.smoothed(), 4 * kFirstReorderWindow)});
}

void LossTiming::progressed(Nanoseconds now) {
    lastProgress_ = std::max(lastProgress_, now);
    tailProbes_ = 0;
}

void LossTiming::tailProbed(Nanoseconds now) {
    lastProgress_ = now;
    ++tailProbes_;
}

void LossTiming::settle(Nanoseconds now) {
    if (now - lastOvertaken_ < kReorderCalm)
        return;
    reorderWindow_ = std::max(kFirstReorderWindow, reorderWindow_ / 2);
    lastOvertaken_ = now;
}

Nanoseconds LossTiming::roundTrip() const {
    return measurements_.known() ? std::max(measurements_.smoothed(), measurements_.latest())
                                 : firstRoundTrip_;
}

Nanoseconds LossTiming::tailProbe(Nanoseconds lastSent) const {
    const bool known = measurements_.known();
    const Nanoseconds smoothed = known ? measurements_.smoothed() : firstRoundTrip_;
    const Nanoseconds variation = known ? measurements_.variation() : firstRoundTrip_ / 2;
    const Nanoseconds once =
        smoothed + std::max(4 * variation, kMinVariation) + AckSchedule::kMaxDelay + lateness_;
    const Nanoseconds wait = std::min(once << std::min(tailProbes_, 16), std::max(once, maxWait_));
    return std::max(lastSent, lastProgress_) + wait;
}

} // namespace kor::detail
