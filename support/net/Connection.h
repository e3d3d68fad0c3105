#pragma once

#include "support/net/ClockFilter.h"
#include "support/net/Datagram.h"
#include "support/net/NetEvent.h"
#include "support/net/PayloadProbe.h"
#include "support/net/Reassembly.h"
#include "support/net/ReceivedNumbers.h"
#include "support/net/Ring.h"
#include "support/net/RoundTrip.h"
#include "support/net/SendQueue.h"
#include "support/net/SendWindow.h"
#include "support/net/SentLog.h"
#include "support/net/Time.h"

#include <support/NetStatistics.h>

#include <cstdint>
#include <optional>
#include <span>

namespace kor::detail {

/// What a connection is made with.
struct ConnectionConfig {
    std::uint64_t serial = 0;
    std::uint64_t addressKey = 0;
    std::uint64_t connectionId = 0;
    bool initiator = false; ///< this side connected
    ConnectionParameters mine;
    ConnectionParameters theirs;
    Nanoseconds timeout = 2 * kSecond; ///< silence after which the connection is lost
    Nanoseconds longestRepairWait = 250 * kMillisecond;
    Nanoseconds longestClockDelay = kSecond; ///< longer round trips tell nothing about the clock
    Nanoseconds firstRoundTrip = 0;          ///< what the handshake took, at least a round trip; 0: not known
    std::uint64_t firstPacketId = 1;         ///< the same on both sides
    std::uint64_t firstNumber = 1;           ///< of datagrams, the same on both sides; at least 1
};

/// Datagrams that leave for one peer in one go: all of `segment` bytes, the last may be shorter.
struct Train {
    std::size_t bytes = 0;
    std::size_t segment = 0;
    std::size_t stampAt = 0; ///< where the stamp of its sending is, 0: none; to be sent at once, on its own
};

/// One connection, without socket, thread or clock: time and bytes are arguments.
///
/// It keeps what this side sends until the peer has handed it up, repairs what is lost, puts the peer's
/// packets together, measures round trip and clock, and ends by itself when the peer falls silent. After
/// every call the owner asks nextWake() and calls poll() at that time. Not thread-safe.
class Connection {
public:
    Connection(const ConnectionConfig& config, Nanoseconds now);

    /// A well-formed data datagram with our connection id and from the other side has arrived at `arrival`;
    /// `wireBytes` is its size. Packets and delivery notices go to `events`.
    void onDatagram(const DecodedDatagram& datagram, Nanoseconds arrival, std::size_t wireBytes,
                    Ring<NetEvent>& events);

    /// Accepts a packet for sending; ids count up from firstPacketId.
    void send(Block bytes);

    /// The packet of the oldest `packet` event has been handed to the application (or dropped for want of
    /// one).
    void handedUp(Nanoseconds now, std::uint32_t size);

    /// Writes the next train into `buffer` (64 KiB at least) and counts it as sent at `now`; nothing to send:
    /// 0 bytes. Call again until nothing comes.
    Train poll(Nanoseconds now, std::span<std::uint8_t> buffer);

    /// When poll() has something to do next; may lie in the past.
    Nanoseconds nextWake() const;
    /// The same as far as packets are concerned, which is all that send() makes earlier (but for a beat at
    /// rest, that the packet makes needless).
    Nanoseconds nextDataWake() const;

    /// The system refused a datagram of that size as too large for the way.
    void onTooBig(Nanoseconds now, std::size_t size);

    /// True from the moment when the peer has been silent for the timeout.
    bool timedOut(Nanoseconds now) const { return elapsed(now, lastHeard_) >= config_.timeout; }

    /// This process was stopped for a while and has not yet read what came meanwhile: gives the peer time to
    /// be heard.
    void forgiveSilence(Nanoseconds now);

    /// Writes one goodbye datagram.
    Train farewell(std::span<std::uint8_t> buffer);

    /// Has something to send, and its window is full.
    bool waitsForWindow() const { return queue_.ready() && !window_.open(sent_.inFlightCharge()); }

    bool closedByPeer() const { return closedByPeer_; }
    const ConnectionConfig& config() const { return config_; }
    void setTimes(Nanoseconds timeout, Nanoseconds longestRepairWait, Nanoseconds longestClockDelay,
                  Nanoseconds now);
    const ClockEstimate& clock() const { return clock_.estimate(); }
    const RoundTrip& roundTrip() const { return roundTrip_; }
    const SentLog& sentLog() const { return sent_; }
    std::uint64_t heldBytes() const { return reassembly_.heldBytes(); }
    /// What the packet that comes next still lacks; 0 when nothing of it has come.
    std::uint32_t missingBytes() const { return reassembly_.missingBytes(); }
    ConnectionStatistics statistics(Nanoseconds now) const;

    /// Where over-limit and contradictory datagrams are counted.
    const MalformedCounters& malformed() const { return malformed_; }

private:
    bool takeAck(const AckFrame& ack, Nanoseconds arrival, Ring<NetEvent>& events);
    bool takeFragments(const DecodedDatagram& datagram, Ring<NetEvent>& events);
    void takeTime(const TimeFrame& time, Nanoseconds arrival);
    void noteForAck(const DecodedDatagram& datagram, Nanoseconds arrival);
    void forgetOldNumbers(Nanoseconds now);
    void account(const SentLog::Lost& lost, Nanoseconds now);
    void handleTimers(Nanoseconds now);
    bool mayProbePayload(Nanoseconds now) const { return now >= probe_.nextProbe() && roundTrip_.known(); }
    bool mayBeginTrain(Nanoseconds now) const;
    Train probePayload(Nanoseconds now, std::span<std::uint8_t> buffer);
    /// Why a datagram leaves, besides data and acknowledgements that are due.
    struct Occasion {
        bool beat = false;  ///< it has been silent
        bool ping = false;  ///< … and the peer is to answer at once
        bool stamp = false; ///< carries clock stamps
    };
    bool addControl(DatagramWriter& writer, Nanoseconds now, const Occasion& occasion);
    std::size_t addFragments(DatagramWriter& writer);
    void countSent(std::size_t bytes, bool wantsAck, Nanoseconds now, std::uint32_t payloadProbe,
                   std::size_t pieces);
    DatagramWriter beginDatagram(std::span<std::uint8_t> buffer) const;
    Nanoseconds repairWait() const;
    Nanoseconds lossRoundTrip() const;
    Nanoseconds repairDeadline() const;
    Nanoseconds silence() const;
    bool ourTurn() const;
    Nanoseconds beatDue() const;
    bool pingDue(Nanoseconds now) const;
    Nanoseconds queryDue() const;
    bool inVolley() const;
    bool stampDue(Nanoseconds now) const;

    // What every datagram needs lies together at the front; the longer tables follow.
    ConnectionConfig config_;

    // sending
    Nanoseconds nextTrain_ = 0;
    Nanoseconds lastProgress_ = 0;
    Nanoseconds reorderWindow_;
    Nanoseconds lastSpurious_ = 0;
    Nanoseconds lateness_ = 0; ///< by which the peer's reports lately waited longer than they should
    int silentProbes_ = 0;     ///< probes since the last acknowledgement
    bool probeDue_ = false;    ///< the next train may exceed the window
    bool stalled_ = false;
    std::uint64_t deliveredId_ = 0; ///< last packet of ours that the peer has handed up

    // receiving
    Nanoseconds lastHeard_ = 0;
    std::uint64_t handedUpId_ = 0;
    bool ackPending_ = false;
    Nanoseconds ackDue_ = 0;
    Nanoseconds newestArrival_ = 0;
    std::uint32_t unacknowledgedBytes_ = 0;
    std::uint64_t reportedMissing_ = 0;
    std::uint64_t forgetMark_ = 0;
    Nanoseconds nextForget_ = 0;
    bool closedByPeer_ = false;

    // clock and keep-alive
    int volley_ = 0; ///< pings of the opening volley that have left
    Nanoseconds nextVolley_ = 0;
    Nanoseconds lastBeat_ = 0; ///< what we last sent because it had been silent
    Nanoseconds lastPing_ = 0;
    bool resting_ = false; ///< since our last beat nothing but beats has passed
    int queries_ = 0;      ///< pings since the last hand-up was reported
    Nanoseconds lastStamp_ = 0;
    Nanoseconds settledAt_; ///< from then on stamps may be rarer
    bool clockKnown_ = false;
    bool stampWanted_ = false; ///< answer a stamped ping at once
    bool havePeerStamp_ = false;
    Nanoseconds peerStamp_ = 0;
    Nanoseconds peerStampArrival_ = 0;

    SendQueue queue_;
    SendWindow window_;
    PayloadProbe probe_;
    Reassembly reassembly_;
    ConnectionStatistics stats_;
    ClockFilter clock_;
    SentLog sent_;
    ReceivedNumbers received_;
    RoundTrip roundTrip_;
    MalformedCounters malformed_;
    std::array<FragmentRef, kMaxFragmentsPerDatagram> pieces_; ///< of the datagram that is being written
};

} // namespace kor::detail
