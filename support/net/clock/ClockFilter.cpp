#include "support/net/clock/ClockFilter.h"

#include <algorithm>
#include <cmath>

namespace kor::detail {
namespace {

constexpr Nanoseconds kMaxExchange = 10 * kSecond;
constexpr double kMaxSkew = 1000e-6; // of clocks that are being steered; crystals keep within a tenth
constexpr int kSamples = 4;          // to publish an estimate, and to believe that a clock has jumped
constexpr Nanoseconds kWaitToPublish = 40 * kMillisecond;
constexpr Nanoseconds kTimeToBreak = 10 * kMillisecond;
constexpr double kStepOver = 1e6; // ns: a break of less is slewed like any other difference

// A difference goes within a tenth of a second, at 500 ppm at most; in the first two seconds at 2000 ppm at
// most (33 us per frame of 60 Hz), so that the first, coarse estimates are soon forgotten.
constexpr double kSlewTime = 100e6; // ns
constexpr double kSlewRate = 500e-6;
constexpr double kEarlySlewRate = 2000e-6;
constexpr Nanoseconds kEarly = 2 * kSecond;
// A difference of over a millisecond comes from first exchanges that all were late. It goes faster, with this
// time constant: to show wrong frames for minutes would be worse.
constexpr double kLargeSlewTime = 2e9; // ns
constexpr double kMaxSlewEnd = 1e17;   // ns: far beyond any, but a conversion out of range is undefined

constexpr double kRestlessness = 0.5e-6; // a clock's rate may have changed by this in the time nobody looked

/// What the two pieces of an estimate add to its offset until `now`.
double progress(const ClockEstimate& estimate, Nanoseconds now) {
    const double age = static_cast<double>(elapsed(now, estimate.at));
    const double slewing = static_cast<double>(estimate.slewEnd - estimate.at);
    return age <= slewing ? estimate.rate * age
                          : estimate.rate * slewing + estimate.rateAfter * (age - slewing);
}

/// False for what cannot be, or tells nothing.
bool isPossible(const ClockSample& sample, Nanoseconds maxDelay) {
    const Nanoseconds whole = elapsed(sample.receivedHere, sample.sentHere);
    const Nanoseconds held = elapsed(sample.sentThere, sample.receivedThere);
    if (whole < 0 || whole > kMaxExchange || held < 0 || held > 2 * kMaxExchange)
        return false;
    const double delay = static_cast<double>(whole - held);
    return delay >= -kMaxSkew * static_cast<double>(held) && delay <= static_cast<double>(maxDelay);
}

} // namespace

double ClockEstimate::offsetAt(Nanoseconds now) const {
    return offset + progress(*this, now);
}

double ClockEstimate::boundAt(Nanoseconds now) const {
    return bound + boundGrowth * std::fabs(static_cast<double>(elapsed(now, at)));
}

void ClockFilter::publish(bool broken) {
    const Nanoseconds now = line_.known ? std::max(line_.at, window_.newest()) : window_.newest();
    const double target = window_.remainderAt(now);
    const double behind = line_.known ? static_cast<double>(elapsed(window_.base(), base_)) + target -
                                            (remainder_ + progress(line_, now))
                                      : 0;
    const double difference = std::fabs(behind);
    // No two honest estimates differ by more than the longest delay: then all before was a lie.
    const bool step = (broken && difference > kStepOver) || difference > static_cast<double>(maxDelay_);
    const double left = step ? 0 : behind;
    const double usualRate = window_.age() < kEarly ? kEarlySlewRate : kSlewRate;
    const double time =
        std::max(kSlewTime, std::fabs(left) / std::max(usualRate, difference / kLargeSlewTime));
    base_ = window_.base();
    remainder_ = target - left;
    line_.known = true;
    line_.at = now;
    line_.offset = static_cast<double>(base_) + remainder_;
    line_.rateAfter = window_.slope() * 1e-9;
    line_.rate = line_.rateAfter + left / time;
    line_.slewEnd = now + static_cast<Nanoseconds>(std::min(time, kMaxSlewEnd));
    line_.skewPpm = window_.slope() * 1e-3;
    line_.halfDelay = std::max(window_.halfDelay(), 0.0);
    line_.bound = window_.boundAt(now) + std::fabs(left);
    line_.boundGrowth = window_.slopeError() * 1e-9 + kRestlessness;
    line_.breaks += step ? 1 : 0;
}

void ClockFilter::add(const ClockSample& sample) {
    if (!isPossible(sample, maxDelay_))
        return;
    const bool contradicted = window_.contradicts(sample);
    if (rival_.contradicts(sample))
        rival_ = {};
    if (contradicted) {
        rival_.add(sample);
        if (rival_.samples() < kSamples || rival_.age() < kTimeToBreak)
            return;
        window_ = rival_;
        rival_ = {};
    } else if (!window_.add(sample)) {
        return;
    }
    if (line_.known || window_.samples() >= kSamples || window_.age() >= kWaitToPublish)
        publish(contradicted);
}

} // namespace kor::detail
