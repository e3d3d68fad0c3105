#include "support/net/clock/ClockFilter.h"

#include "support/net/clock/ClockWindow.h"
#include "support/Tracked.h"

#include <algorithm>
#include <cmath>

namespace kor::detail {
namespace {

constexpr Nanoseconds kMaxExchange = 10 * kSecond;
constexpr double kMaxSkew = 1000e-6; // of clocks that are being steered; crystals keep within a tenth
constexpr int kSamplesToPublish = 4;
constexpr Nanoseconds kWaitToPublish = 40 * kMillisecond;
constexpr int kSamplesToBreak = 4;
constexpr Nanoseconds kTimeToBreak = 10 * kMillisecond;
constexpr double kStepOver = 1e6; // ns: a break of less is slewed like any other difference

// A difference goes within half a second, at 500 ppm at most; in the first two seconds within a quarter of
// the time passed, at 2000 ppm at most (33 us per frame of 60 Hz), so that the first, coarse estimates are
// soon forgotten.
constexpr Nanoseconds kSlewTime = 500 * kMillisecond;
constexpr Nanoseconds kMinSlewTime = 20 * kMillisecond;
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

struct ClockFilter::State : TrackedNew<"support/net/clock/ClockFilter", "ClockFilter::ClockFilter"> {
    Nanoseconds maxDelay = kSecond;
    ClockWindow window;
    ClockWindow rival; // samples that contradict the window, until they are many enough to replace it
    ClockEstimate line;
    // The line's offset again, but with its whole part apart, so that no rounding adds up.
    Nanoseconds base = 0;
    double remainder = 0;

    void publish(bool broken);
};

void ClockFilter::State::publish(bool broken) {
    const Nanoseconds now = line.known ? std::max(line.at, window.newest()) : window.newest();
    const double target = window.remainderAt(now);
    const double behind = line.known ? static_cast<double>(elapsed(window.base(), base)) + target -
                                           (remainder + progress(line, now))
                                     : 0;
    const double difference = std::fabs(behind);
    // No two honest estimates differ by more than the longest delay: then all before was a lie.
    const bool step = (broken && difference > kStepOver) || difference > static_cast<double>(maxDelay);
    const double left = step ? 0 : behind;
    const Nanoseconds age = window.age();
    const double maxRate = std::max(age < kEarly ? kEarlySlewRate : kSlewRate, difference / kLargeSlewTime);
    const double time = std::max(static_cast<double>(std::clamp(age / 4, kMinSlewTime, kSlewTime)),
                                 std::fabs(left) / maxRate);
    base = window.base();
    remainder = target - left;
    line.known = true;
    line.at = now;
    line.offset = static_cast<double>(base) + remainder;
    line.rateAfter = window.slope() * 1e-9;
    line.rate = line.rateAfter + left / time;
    line.slewEnd = now + static_cast<Nanoseconds>(std::min(time, kMaxSlewEnd));
    line.skewPpm = window.slope() * 1e-3;
    line.halfDelay = std::max(window.halfDelay(), 0.0);
    line.bound = window.boundAt(now) + std::fabs(left);
    line.boundGrowth = window.slopeError() * 1e-9 + kRestlessness;
    line.breaks += step ? 1 : 0;
}

ClockFilter::ClockFilter() : state_(std::make_unique<State>()) {}
ClockFilter::~ClockFilter() = default;

void ClockFilter::setMaxDelay(Nanoseconds delay) {
    state_->maxDelay = delay;
}

void ClockFilter::add(const ClockSample& sample) {
    State& state = *state_;
    if (!isPossible(sample, state.maxDelay))
        return;
    const bool contradicted = state.window.contradicts(sample);
    if (state.rival.contradicts(sample))
        state.rival = {};
    if (contradicted) {
        state.rival.add(sample);
        if (state.rival.samples() < kSamplesToBreak || state.rival.age() < kTimeToBreak)
            return;
        state.window = state.rival;
        state.rival = {};
    } else if (!state.window.add(sample)) {
        return;
    }
    if (state.line.known || state.window.samples() >= kSamplesToPublish ||
        state.window.age() >= kWaitToPublish)
        state.publish(contradicted);
}

bool ClockFilter::doubtful() const {
    return state_->rival.samples() != 0;
}

const ClockEstimate& ClockFilter::estimate() const {
    return state_->line;
}

} // namespace kor::detail
