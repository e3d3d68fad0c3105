#include "support/net/Connection.h"

#include <algorithm>

// When a connection has something to say although nobody wants to send.

namespace kor::detail {

namespace {
constexpr Nanoseconds kSilence = 100 * kMillisecond;
constexpr Nanoseconds kRest = 250 * kMillisecond; // the same after the first beat
constexpr Nanoseconds kFirstQuery = 10 * kMillisecond;
constexpr int kLeastBeats = 8;                       // so many within the timeout, however short that is
constexpr Nanoseconds kBeatGrid = 25 * kMillisecond; // beats of many connections leave together
constexpr Nanoseconds kCrossing = 50 * kMillisecond; // beats that are no further apart have crossed
constexpr Nanoseconds kPingInterval = 2 * kSecond;   // at least so often a beat wants an answer
constexpr int kVolley = 8;                           // pings at the start, each with stamps …
constexpr int kLongestVolley = 40;                   // … and as many more as the clock needs
} // namespace

Nanoseconds Connection::queryDue() const {
    // All that was sent has arrived, and nobody repeats a report of its hand-up that was lost.
    if (sent_.inFlight() != 0 || queue_.firstId() == queue_.firstUnsentId())
        return kNever;
    const Nanoseconds wait = std::min(kFirstQuery << std::min(queries_, 8), kSilence);
    return std::max({lastProgress_, sent_.lastSent(), lastBeat_}) + wait;
}

Nanoseconds Connection::silence() const {
    return std::min(resting_ ? kRest : kSilence, config_.timeout / kLeastBeats);
}

bool Connection::ourTurn() const {
    // When both sides have spoken at once, the accepting side goes first the next time.
    return lastHeard_ > lastBeat_ + (config_.initiator ? std::min(kCrossing, silence() / 2) : 0);
}

Nanoseconds Connection::beatDue() const {
    if (inVolley())
        return nextVolley_;
    const bool owesAnswer = lastHeard_ <= lastBeat_ && lastPing_ == lastBeat_;
    const Nanoseconds wait = owesAnswer ? std::min(silence(), kSilence) : silence();
    const Nanoseconds patience = ourTurn() || owesAnswer ? 0 : wait / 2;
    const Nanoseconds due = std::max(lastHeard_, lastBeat_) + wait + patience;
    const Nanoseconds grid = std::clamp<Nanoseconds>(wait / 4, 1, kBeatGrid);
    return config_.initiator ? due : (due / grid + 1) * grid;
}

bool Connection::pingDue(Nanoseconds now) const {
    // Not our turn means that the peer has missed its own.
    return inVolley() || !ourTurn() || !roundTrip_.known() || now - lastPing_ >= kPingInterval;
}

bool Connection::inVolley() const {
    // The accepting side learns from the other's volley, and adds to it only when too much of that was lost.
    const int sure = config_.initiator ? kVolley : 0;
    return volley_ < sure || (volley_ < kLongestVolley && !clockKnown_);
}

} // namespace kor::detail
