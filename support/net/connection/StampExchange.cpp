#include "support/net/connection/StampExchange.h"

namespace kor::detail {

namespace {
constexpr Nanoseconds kInterval = 20 * kMillisecond;
constexpr Nanoseconds kSettledInterval = 100 * kMillisecond;
constexpr Nanoseconds kLooseInterval = 4 * kMillisecond;
constexpr Nanoseconds kSettling = 2 * kSecond; // while the estimate is coarse
// More stamps tell more of a path whose delays vary. Nanoseconds of the bound beyond half the least delay.
constexpr double kLoose = 5'000;
} // namespace

StampExchange::StampExchange(Nanoseconds maxDelay, Nanoseconds now)
    : lastSent_(now - kInterval), settledAt_(now + kSettling) {
    filter_.setMaxDelay(maxDelay);
}

bool StampExchange::take(const TimeFrame& time, Nanoseconds arrival) {
    // A stamp that an older datagram brings late must not become the newest one.
    if (!newest_ || elapsed(time.sent, newest_->sent) > 0)
        newest_ = {time.sent, arrival};
    if (!time.hasEcho)
        return clockKnown_;
    filter_.add({time.echoSent, time.echoReceived, time.sent, arrival});
    clockKnown_ = filter_.estimate().known;
    if (filter_.doubtful())
        settledAt_ = arrival + kSettling;
    return clockKnown_;
}

bool StampExchange::due(Nanoseconds now) const {
    return answerWanted_ || now - lastSent_ >= interval(now);
}

Nanoseconds StampExchange::interval(Nanoseconds now) const {
    if (!clockKnown_ || now < settledAt_)
        return kInterval;
    const ClockEstimate& clock = filter_.estimate();
    return clock.boundAt(now) - clock.halfDelay > kLoose ? kLooseInterval : kSettledInterval;
}

TimeFrame StampExchange::stamp(Nanoseconds now) {
    lastSent_ = now;
    answerWanted_ = false;
    TimeFrame time;
    time.sent = now;
    if (newest_) {
        time.hasEcho = true;
        time.echoSent = newest_->sent;
        time.echoReceived = newest_->arrival;
    }
    return time;
}

} // namespace kor::detail
