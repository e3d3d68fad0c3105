#include "support/net/SlewedClock.h"

#include <algorithm>
#include <cmath>

namespace kor::detail {
namespace {

constexpr double kRestlessness = 0.5e-6; // a clock's rate may have changed by this in the time nobody looked

/// What the two pieces of an estimate add to its offset until `now`.
double progress(const ClockEstimate& estimate, Nanoseconds now) {
    const double age = static_cast<double>(elapsed(now, estimate.at));
    const double slewing = static_cast<double>(elapsed(estimate.slewEnd, estimate.at));
    return age <= slewing ? estimate.rate * age
                          : estimate.rate * slewing + estimate.rateAfter * (age - slewing);
}

} // namespace

double ClockEstimate::offsetAt(Nanoseconds now) const {
    return offset + progress(*this, now);
}

double ClockEstimate::boundAt(Nanoseconds now) const {
    return bound + boundGrowth * std::fabs(static_cast<double>(elapsed(now, at)));
}

void SlewedClock::reset() {
    *this = SlewedClock();
}

double SlewedClock::restAt(Nanoseconds now) const {
    return rest_ + progress(estimate_, now);
}

double SlewedClock::behind(Nanoseconds now, const Target& target) const {
    return static_cast<double>(elapsed(target.base, base_)) + target.rest - restAt(now);
}

void SlewedClock::publish(Nanoseconds now, const Target& target, double rest) {
    base_ = target.base;
    rest_ = rest;
    estimate_.known = true;
    estimate_.at = now;
    estimate_.offset = static_cast<double>(base_) + rest_;
    estimate_.rateAfter = target.slope * 1e-9;
    estimate_.skewPpm = target.slope * 1e-3;
    estimate_.boundGrowth = target.slopeError * 1e-9 + kRestlessness;
}

void SlewedClock::start(Nanoseconds now, const Target& target) {
    publish(now, target, target.rest);
    estimate_.rate = estimate_.rateAfter;
    estimate_.slewEnd = now;
    estimate_.bound = target.bound;
}

void SlewedClock::step(Nanoseconds now, const Target& target) {
    start(now, target);
    ++estimate_.breaks;
}

void SlewedClock::slew(Nanoseconds now, const Target& target, Nanoseconds time, double maxRate) {
    const double difference = behind(now, target);
    publish(now, target, target.rest - difference);
    const double wanted = std::fabs(difference) / static_cast<double>(time);
    const double rate = std::copysign(std::min(wanted, maxRate), difference);
    const double duration = wanted <= maxRate ? static_cast<double>(time) : std::fabs(difference) / maxRate;
    estimate_.rate = estimate_.rateAfter + rate;
    // Far beyond any difference that is slewed and not set, but a conversion out of range is undefined.
    estimate_.slewEnd = elapsed(now, -static_cast<Nanoseconds>(std::min(duration, 1e17)));
    estimate_.bound = target.bound + std::fabs(difference);
}

} // namespace kor::detail
