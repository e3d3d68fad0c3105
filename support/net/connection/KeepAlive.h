#pragma once

#include "support/Time.h"

#include <algorithm>
#include <cstdint>

namespace kor::detail {

/// When a connection has something to say although nobody wants to send, and when the peer's silence ends it.
///
/// It begins with a burst of pings, from which both sides learn round trip and clock. Afterwards a silence
/// draws a keep-alive, in turns with the peer, and a peer that misses its turn is pinged. Not thread-safe:
/// belongs to one connection.
class KeepAlive {
public:
    /// `timeout`: silence that ends the connection.
    KeepAlive(bool initiator, Nanoseconds timeout, Nanoseconds now);

    void setTimeout(Nanoseconds timeout, Nanoseconds now);

    /// What leaves because a timer is due.
    enum class Message : std::uint8_t {
        none,
        keepAlive,    ///< wants no answer
        ping,         ///< wants an acknowledgement at once
        deliveryProbe ///< a ping for a delivery notice that may have been lost
    };

    /// A datagram of the peer arrived.
    void heard(Nanoseconds arrival) { lastHeard_ = std::max(lastHeard_, arrival); }
    /// The peer had no chance to be heard until `now`: it gets some time.
    void forgiveSilence(Nanoseconds now);
    /// A packet passes, in either direction.
    void packetPassed() { idle_ = false; }
    /// The peer has told of packets that it has consumed.
    void deliveryTold() { deliveryProbes_ = 0; }
    /// The peer's clock is known.
    void clockMeasured() { clockMeasured_ = true; }
    /// A message leaves; `withData` when packets go along.
    void sent(Message message, bool withData, Nanoseconds now);

    Nanoseconds lastHeard() const { return lastHeard_; }
    /// When the peer has been silent for the timeout.
    Nanoseconds timeoutAt() const { return lastHeard_ + timeout_; }
    /// When the next keep-alive or ping is due.
    Nanoseconds due() const;
    /// Which of the two: pings while the round trip is not known.
    Message dueMessage(bool roundTripKnown, Nanoseconds now) const;
    /// When the peer's consumption is to be asked for, of which nothing has been heard since `since`.
    Nanoseconds deliveryProbeDue(Nanoseconds since) const;

    /// Pings of the opening burst carry a stamp each.
    bool opening() const;

private:
    Nanoseconds silence() const;
    bool ourTurn() const;

    Nanoseconds timeout_;
    Nanoseconds lastHeard_;
    Nanoseconds lastSent_; ///< of these messages
    Nanoseconds lastPing_;
    Nanoseconds nextOpeningPing_;
    int openingPings_ = 0;   ///< that have left
    int deliveryProbes_ = 0; ///< since the last delivery was told
    bool initiator_;
    bool clockMeasured_ = false;
    bool idle_ = false; ///< no packet has passed since our last message
};

} // namespace kor::detail
