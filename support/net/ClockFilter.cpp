#include "support/net/ClockFilter.h"

#include "support/net/ClockWindow.h"
#include "support/net/SlewedClock.h"

#include <algorithm>
#include <cmath>

namespace kor::detail {
namespace {

constexpr Nanoseconds kLongestExchange = 10 * kSecond;
constexpr double kMaxSkew = 1000e-6; // of clocks that are being steered; crystals keep within a tenth
constexpr int kSamplesToPublish = 4;
constexpr Nanoseconds kWaitToPublish = 40 * kMillisecond;
constexpr int kSamplesToBreak = 4;
constexpr Nanoseconds kTimeToBreak = 10 * kMillisecond;
constexpr double kStepOver = 1e6; // ns: a break of less is slewed like any other difference

constexpr Nanoseconds kSlewTime = 500 * kMillisecond;
constexpr Nanoseconds kShortestSlewTime = 20 * kMillisecond;
constexpr double kSlewRate = 500e-6;
constexpr double kEarlySlewRate = 2000e-6;
constexpr Nanoseconds kEarly = 2 * kSecond;
constexpr double kLargeSlewTime = 2e9; // ns: a first estimate may be off by many frames

} // namespace

struct ClockFilter::State {
    Nanoseconds maxDelay = kSecond;
    ClockWindow window;
    ClockWindow rival; // samples that contradict the window, until they are many enough to replace it
    SlewedClock line;

    enum class Change { none, refined, broken };

    bool possible(const ClockSample& sample) const;
    Change take(const ClockSample& sample);
    void publish(bool broken);
};

bool ClockFilter::State::possible(const ClockSample& sample) const {
    const Nanoseconds whole = elapsed(sample.receivedHere, sample.sentHere);
    const Nanoseconds held = elapsed(sample.sentThere, sample.receivedThere);
    if (whole < 0 || whole > kLongestExchange || held < 0 || held > 2 * kLongestExchange)
        return false;
    const double delay = static_cast<double>(whole - held);
    return delay >= -kMaxSkew * static_cast<double>(held) && delay <= static_cast<double>(maxDelay);
}

ClockFilter::State::Change ClockFilter::State::take(const ClockSample& sample) {
    if (!window.contradicts(sample)) {
        if (rival.contradicts(sample))
            rival.reset();
        return window.add(sample) ? Change::refined : Change::none;
    }
    if (rival.contradicts(sample))
        rival.reset();
    rival.add(sample);
    if (rival.samples() < kSamplesToBreak || rival.age() < kTimeToBreak)
        return Change::none;
    window = rival;
    rival.reset();
    return Change::broken;
}

void ClockFilter::State::publish(bool broken) {
    const Nanoseconds at = line.estimate().at;
    const bool known = line.estimate().known;
    const Nanoseconds now = known && elapsed(at, window.newest()) > 0 ? at : window.newest();
    const SlewedClock::Target target{window.base(), window.restAt(now), window.slope(), window.boundAt(now),
                                     window.slopeError()};
    if (!known) {
        line.start(now, target);
        return;
    }
    const double difference = std::fabs(line.behind(now, target));
    // No two honest estimates differ by more than the longest delay: then all before was a lie.
    if ((broken && difference > kStepOver) || difference > static_cast<double>(maxDelay)) {
        line.step(now, target);
        return;
    }
    const Nanoseconds age = window.age();
    line.slew(now, target, std::clamp(age / 4, kShortestSlewTime, kSlewTime),
              std::max(age < kEarly ? kEarlySlewRate : kSlewRate, difference / kLargeSlewTime));
}

ClockFilter::ClockFilter() : state_(std::make_unique<State>()) {}
ClockFilter::~ClockFilter() = default;

void ClockFilter::setMaxDelay(Nanoseconds delay) {
    state_->maxDelay = delay;
}

void ClockFilter::add(const ClockSample& sample) {
    State& state = *state_;
    if (!state.possible(sample))
        return;
    const State::Change change = state.take(sample);
    if (change == State::Change::none)
        return;
    if (state.line.estimate().known || state.window.samples() >= kSamplesToPublish ||
        state.window.age() >= kWaitToPublish)
        state.publish(change == State::Change::broken);
}

void ClockFilter::reset() {
    state_->window.reset();
    state_->rival.reset();
    state_->line.reset();
}

bool ClockFilter::doubtful() const {
    return state_->rival.samples() != 0;
}

const ClockEstimate& ClockFilter::estimate() const {
    return state_->line.estimate();
}

} // namespace kor::detail
