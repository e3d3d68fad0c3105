#include "support/net/connection/KeepAlive.h"

#include <algorithm>

namespace kor::detail {

namespace {
constexpr Nanoseconds kSilence = 100 * kMillisecond;
constexpr Nanoseconds kIdleSilence = 250 * kMillisecond; // after the first keep-alive
constexpr int kMinKeepAlives = 8;                        // within the timeout, however short that is
constexpr Nanoseconds kGrid = 25 * kMillisecond;         // keep-alives of many connections leave together
constexpr Nanoseconds kCrossing = 50 * kMillisecond;     // those no further apart than this have crossed
constexpr Nanoseconds kPingInterval = 2 * kSecond;       // at least so often the peer is to answer
constexpr Nanoseconds kFirstDeliveryProbe = 10 * kMillisecond;
constexpr Nanoseconds kOpeningInterval = 5 * kMillisecond;
constexpr int kOpeningPings = 8;     // of the connecting side, at least
constexpr int kMaxOpeningPings = 40; // of each side, while it does not know the other's clock
// The accepting side learns the clock from the other's burst; after that long it sends pings of its own.
constexpr Nanoseconds kAcceptorPatience = 25 * kMillisecond;
} // namespace

KeepAlive::KeepAlive(bool initiator, Nanoseconds timeout, Nanoseconds now)
    : timeout_(timeout),
      lastHeard_(now),
      lastSent_(now),
      lastPing_(now),
      nextOpeningPing_(initiator ? now : now + kAcceptorPatience),
      initiator_(initiator) {}

void KeepAlive::setTimeout(Nanoseconds timeout, Nanoseconds now) {
    if (timeout < timeout_)
        heard(now); // the peer knew nothing of the shorter one
    timeout_ = timeout;
}

void KeepAlive::forgiveSilence(Nanoseconds now) {
    heard(now - timeout_ + std::min(timeout_, kSecond / 2));
}

bool KeepAlive::opening() const {
    const int wanted = initiator_ ? kOpeningPings : 0;
    return openingPings_ < wanted || (openingPings_ < kMaxOpeningPings && !clockMeasured_);
}

void KeepAlive::sent(Message message, bool withData, Nanoseconds now) {
    lastSent_ = now;
    if (message == Message::deliveryProbe)
        ++deliveryProbes_;
    else
        idle_ = idle_ || !withData;
    if (message != Message::keepAlive)
        lastPing_ = now;
    if (opening()) {
        ++openingPings_;
        nextOpeningPing_ = now + kOpeningInterval;
    }
}

Nanoseconds KeepAlive::deliveryProbeDue(Nanoseconds since) const {
    return std::max(since, lastSent_) +
           std::min(kFirstDeliveryProbe << std::min(deliveryProbes_, 8), kSilence);
}

Nanoseconds KeepAlive::silence() const {
    return std::min(idle_ ? kIdleSilence : kSilence, timeout_ / kMinKeepAlives);
}

bool KeepAlive::ourTurn() const {
    // When both sides have spoken at once, the accepting side goes first the next time.
    return lastHeard_ > lastSent_ + (initiator_ ? std::min(kCrossing, silence() / 2) : 0);
}

Nanoseconds KeepAlive::due() const {
    if (opening())
        return nextOpeningPing_;
    const bool peerOwesAnswer = lastHeard_ <= lastSent_ && lastPing_ == lastSent_;
    const Nanoseconds wait = peerOwesAnswer ? std::min(silence(), kSilence) : silence();
    const Nanoseconds patience = ourTurn() || peerOwesAnswer ? 0 : wait / 2;
    const Nanoseconds due = std::max(lastHeard_, lastSent_) + wait + patience;
    const Nanoseconds grid = std::clamp<Nanoseconds>(wait / 4, 1, kGrid);
    return initiator_ ? due : (due / grid + 1) * grid;
}

KeepAlive::Message KeepAlive::dueMessage(bool roundTripKnown, Nanoseconds now) const {
    // Not our turn means that the peer has missed its own.
    const bool ping = opening() || !ourTurn() || !roundTripKnown || now - lastPing_ >= kPingInterval;
    return ping ? Message::ping : Message::keepAlive;
}

} // namespace kor::detail
