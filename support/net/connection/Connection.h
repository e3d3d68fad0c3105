#pragma once

#include "support/net/connection/KeepAlive.h"
#include "support/net/connection/NetEvent.h"
#include "support/net/connection/StampExchange.h"
#include "support/net/delivery/AckSchedule.h"
#include "support/net/delivery/LossTiming.h"
#include "support/net/delivery/PayloadProbe.h"
#include "support/net/delivery/Reassembly.h"
#include "support/net/delivery/Ring.h"
#include "support/net/delivery/SendQueue.h"
#include "support/net/delivery/SendWindow.h"
#include "support/net/delivery/SentLog.h"
#include "support/net/wire/Datagram.h"
#include "support/Time.h"

#include <support/NetStatistics.h>

#include <cstdint>
#include <span>

namespace kor::detail {

/// The times of a connection that an application may set.
struct ConnectionTimes {
    Nanoseconds timeout = 2 * kSecond;              ///< silence after which the connection is lost
    Nanoseconds maxRepairWait = 250 * kMillisecond; ///< before the loss of a tail is looked for
    Nanoseconds maxClockDelay = kSecond;            ///< longer round trips tell nothing about the clock
};

/// What a connection is made with.
struct ConnectionConfig {
    std::uint64_t serial = 0;
    std::uint64_t addressKey = 0;
    std::uint64_t connectionId = 0;
    bool initiator = false; ///< this side connected
    ConnectionParameters mine;
    ConnectionParameters theirs;
    ConnectionTimes times;
    Nanoseconds firstRoundTrip = 0;  ///< what the handshake took, at least a round trip; 0: not known
    std::uint64_t firstPacketId = 1; ///< the same on both sides
    std::uint64_t firstNumber = 1;   ///< of datagrams, the same on both sides; at least 1
};

/// Datagrams that leave for one peer in one go: all of `segment` bytes, the last may be shorter.
struct Train {
    std::size_t bytes = 0;
    std::size_t segment = 0;
    std::size_t stampAt = 0; ///< where the stamp of its sending is, 0: none; to be sent at once, on its own
};

/// One connection, without socket, thread or clock: time and bytes are arguments.
///
/// It keeps what this side sends until the peer has consumed it, repairs what is lost, puts the peer's
/// packets together, and measures round trip and clock. After every call the owner asks nextWake(); at that
/// time it drops a connection that has timedOut(), or else calls poll(). Not thread-safe.
class Connection {
public:
    /// All that can be due.
    enum class Timer : std::uint8_t {
        timeout,         ///< the peer has been silent for too long, which is for the owner to see
        loss,            ///< a datagram in flight counts as lost
        tailProbe,       ///< nobody has reported on what is in flight
        payloadProbe,    ///< a larger datagram is tried
        deliveryProbe,   ///< all has arrived, and its delivery was not told
        keepAlive,       ///< nothing has been said for a while
        acknowledgement, ///< the peer waits for a report
        train            ///< packets may leave; the only one that send() makes earlier
    };
    static constexpr int kTimers = static_cast<int>(Timer::train) + 1;

    Connection(const ConnectionConfig& config, Nanoseconds now);

    /// Precondition: a well-formed data datagram of `wireBytes`, with our connection id and from the other
    /// side; it arrived at `arrival`. Packets and delivery notices go to `events`. False: the peer has said
    /// goodbye, and the connection is over.
    bool onDatagram(const DecodedDatagram& datagram, Nanoseconds arrival, std::size_t wireBytes,
                    Ring<NetEvent>& events);

    /// Accepts a packet for sending; ids count up from firstPacketId.
    void send(Block bytes);

    /// The application has consumed the packet of the oldest `packet` event, or there was none to do so.
    void consumed(Nanoseconds now, std::uint32_t size);

    /// Does what is due, writes the next train into `buffer` (64 KiB at least) and counts it as sent at
    /// `now`. Call again until there is nothing to send, which gives 0 bytes; then nextWake() is after `now`.
    /// Precondition: not timedOut().
    Train poll(Nanoseconds now, std::span<std::uint8_t> buffer);

    /// When that is due; may lie in the past. kNever: not at all.
    Nanoseconds deadline(Timer timer) const;
    /// The earliest deadline.
    Nanoseconds nextWake() const;
    /// True from the moment when the peer has been silent for the timeout.
    bool timedOut(Nanoseconds now) const { return now >= keepAlive_.timeoutAt(); }

    /// The system refused a datagram of that size as too large for the path.
    void onTooBig(Nanoseconds now, std::size_t size);

    /// This process was stopped for a while and has not yet read what came meanwhile: gives the peer time to
    /// be heard.
    void forgiveSilence(Nanoseconds now) { keepAlive_.forgiveSilence(now); }

    /// Writes one goodbye datagram.
    Train farewell(std::span<std::uint8_t> buffer);

    /// Has something to send, and its window is full.
    bool waitsForWindow() const { return queue_.ready() && !window_.open(sent_.inFlightCharge()); }

    const ConnectionConfig& config() const { return config_; }
    void setTimes(const ConnectionTimes& times, Nanoseconds now);
    const ClockEstimate& clock() const { return stamps_.clock(); }
    const RoundTrip& roundTrip() const { return timing_.measurements(); }
    const SentLog& sentLog() const { return sent_; }
    std::uint64_t heldBytes() const { return reassembly_.heldBytes(); }
    ConnectionStatistics statistics(Nanoseconds now) const;

    /// Where over-limit and contradictory datagrams are counted.
    const MalformedCounters& malformed() const { return malformed_; }

private:
    bool due(Timer timer, Nanoseconds now) const { return now >= deadline(timer); }

    /// What a datagram carries besides data.
    struct Control {
        KeepAlive::Message message = KeepAlive::Message::none;
        bool stamp = false;
    };
    bool takeAck(const AckFrame& ack, Nanoseconds arrival, Ring<NetEvent>& events);
    bool takeFragments(const DecodedDatagram& datagram, Ring<NetEvent>& events);
    NetEvent event(NetEvent::Kind kind) const;
    void findLosses(Nanoseconds now);
    void probeTail(Nanoseconds now);
    void account(const SentLog::Lost& lost, Nanoseconds now);
    KeepAlive::Message dueMessage(Nanoseconds now) const;
    Train probePayload(Nanoseconds now, std::span<std::uint8_t> buffer);
    Train writeTrain(Nanoseconds now, std::span<std::uint8_t> buffer, const Control& control, bool data);
    DatagramWriter beginDatagram(std::span<std::uint8_t> buffer) const;
    bool addControl(DatagramWriter& writer, Nanoseconds now, const Control& control);
    bool addFragments(DatagramWriter& writer);
    void countSent(std::size_t bytes, bool wantsAck, Nanoseconds now, std::uint32_t payloadProbe = 0);

    // What every datagram needs lies together at the front; the longer tables follow.
    ConnectionConfig config_;
    KeepAlive keepAlive_;
    SendQueue queue_;
    SendWindow window_;
    PayloadProbe payloadProbe_;
    Reassembly reassembly_;
    ConnectionStatistics stats_;
    StampExchange stamps_;
    LossTiming timing_;
    AckSchedule acks_;
    SentLog sent_;
    MalformedCounters malformed_;
};

} // namespace kor::detail
