#pragma once

#include "support/net/connection/Connection.h"
#include "support/net/connection/NetEvent.h"
#include "support/net/connection/WakeQueue.h"
#include "support/net/delivery/Ring.h"
#include "support/net/handshake/ConnectAttempt.h"
#include "support/net/handshake/HandshakeCookie.h"
#include "support/Tracked.h"

#include <support/NetStatistics.h>
#include <support/RTAddr.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

namespace kor::detail {

struct EndpointConfig {
    ConnectionParameters mine;
    std::uint32_t maxPeers = 1024;
    ConnectionTimes times;
    SipKey cookieSecret{};
    /// For nonces and connection ids; unpredictable outside of simulations.
    std::function<std::uint64_t()> random;
    std::uint64_t firstPacketId = 1;
    std::uint64_t firstNumber = 1;
    std::uint64_t firstSerial = 1; ///< of the first connection; at least 1
};

/// Datagrams to be sent in one go.
struct OutgoingDatagrams {
    std::size_t socket = 0;
    RTAddr to;
    std::span<std::uint8_t> bytes; ///< the sink may put in a newer stamp
    std::size_t segment = 0;       ///< size of each datagram in `bytes`; the last may be shorter
    std::size_t stampAt = 0;       ///< where the first one has the stamp of its sending; 0: none
    std::uint64_t serial = 0;      ///< the connection; 0 for handshakes
};

/// Where an endpoint's datagrams go.
class DatagramSink {
public:
    /// Takes the datagrams, whose bytes are gone after the call. False: no room for more than these.
    virtual bool send(const OutgoingDatagrams& outgoing) = 0;

protected:
    ~DatagramSink() = default;
};

/// All connections of one layer, the handshakes and the strangers, without socket, thread or clock.
///
/// Nothing is kept for a stranger until he has returned a cookie, and no answer to one is larger than what he
/// sent. Not thread-safe.
class Endpoint {
public:
    Endpoint(EndpointConfig config, Nanoseconds now);

    /// Takes in one datagram that arrived at `arrival` on local socket `socket`.
    void onDatagram(std::size_t socket, const RTAddr& from, std::span<const std::uint8_t> bytes,
                    Nanoseconds arrival);

    enum class Connect { started, connected, pending };
    /// Begins to connect from local socket 0. Every call is answered by one `connected` or `failed` event,
    /// except that calls to a peer with an attempt under way share its outcome.
    Connect connect(const RTAddr& to, Nanoseconds tryDuration, int tries, Nanoseconds now);

    /// Reports a failed attempt to an address that cannot be tried.
    void reportFailed(std::uint64_t addressKey);

    /// Null when the connection has ended.
    const Connection* find(std::uint64_t serial) const;
    /// Serial of the connection to that peer; 0 when there is none.
    std::uint64_t serialOf(std::uint64_t addressKey) const;
    /// Serial of the next connection. They count up from `firstSerial`.
    std::uint64_t nextSerial() const { return nextSerial_; }
    std::uint32_t connectionCount() const { return static_cast<std::uint32_t>(peers_.size()); }

    /// Queues a packet; dropped when the connection has ended.
    void send(std::uint64_t serial, Block bytes);

    /// A `packet` event has been passed on or dropped.
    void consumed(std::uint64_t serial, std::uint32_t size, Nanoseconds now);

    void onTooBig(std::uint64_t serial, std::size_t size, Nanoseconds now);

    /// Sends what is due, each peer one train in turn; at most `maxTrains`, so that the caller can read in
    /// between. Returns how many bytes went out to peers.
    std::size_t poll(Nanoseconds now, std::span<std::uint8_t> buffer, DatagramSink& sink, int maxTrains);

    /// When poll() has something to do next; may lie in the past.
    Nanoseconds nextWake() const;

    Ring<NetEvent>& events() { return events_; }
    /// Exchanges events() for an empty queue.
    void takeEvents(Ring<NetEvent>& empty);

    /// Sends one goodbye to every peer.
    void sayGoodbye(std::span<std::uint8_t> buffer, DatagramSink& sink);

    void setTimes(const ConnectionTimes& times, Nanoseconds now);

    /// Adds what this endpoint and its connections have counted.
    void addStatistics(NetStatistics& statistics) const;

private:
    struct Peer : TrackedNew<"support/net/connection/Endpoint", "Endpoint::establish"> {
        Peer(const ConnectionConfig& config, Nanoseconds now) : established(now), connection(config, now) {}

        RTAddr addr;
        std::size_t socket = 0;
        std::size_t wakeIndex = 0;
        std::uint64_t measuredAt = 0;          ///< newest `measured` event of this connection
        std::uint64_t measuredIn = UINT64_MAX; ///< the queue that it went into
        std::uint64_t nonce = 0;
        Nanoseconds established;
        Nanoseconds tryDuration = 0; ///< connecting side: how to connect again
        int tries = 0;
        Connection connection;
    };
    /// What tells a late copy of the handshake that made a connection from a new one.
    struct Ended {
        std::uint64_t nonce = 0;
        Nanoseconds established = 0;
    };
    struct Reply {
        std::size_t socket = 0;
        RTAddr to;
        std::size_t size = 0;
        std::array<std::uint8_t, kHandshakeBytes> bytes;
    };

    void onData(std::size_t socket, const RTAddr& from, std::span<const std::uint8_t> bytes,
                Nanoseconds arrival);
    void onRequest(std::size_t socket, const RTAddr& from, Nanoseconds now);
    void onChallenge(const RTAddr& from, Nanoseconds now);
    void onResponse(std::size_t socket, const RTAddr& from, Nanoseconds now);
    void onAccept(std::size_t socket, const RTAddr& from, Nanoseconds now);
    void onReset(const RTAddr& from, Nanoseconds now);
    void countMalformed(DecodeError error);
    Reply* reply(std::size_t socket, const RTAddr& to);
    void replyReset(std::size_t socket, const RTAddr& to, Nanoseconds now);
    Peer& establish(std::size_t socket, const RTAddr& addr, std::uint64_t connectionId, bool initiator,
                    Nanoseconds roundTrip, Nanoseconds now);
    bool isOutdated(std::uint64_t addressKey, std::uint64_t nonce, Nanoseconds cookieTime) const;
    void remember(const Peer& peer);
    void beginAttempt(const RTAddr& to, Nanoseconds tryDuration, int tries, Nanoseconds now);
    void end(Peer& peer, NetEvent::Kind kind);
    void noteMeasured(Peer& peer);
    bool roomForEvents();
    bool mayConnect(const Peer* known);
    void pushEvent(NetEvent::Kind kind, std::uint64_t serial, std::uint64_t addressKey);
    void reschedule(Peer& peer);
    bool pollAttempts(Nanoseconds now, DatagramSink& sink);
    bool sendReplies(DatagramSink& sink);
    Peer* peerAt(const RTAddr& addr);
    Peer* peerOf(std::uint64_t serial) const;
    /// The peer on whose connection the decoded datagram has come; counted when there is none.
    Peer* sender(const RTAddr& from);

    EndpointConfig config_;
    CookieJar cookies_;
    std::unordered_map<std::uint64_t, std::unique_ptr<Peer>> peers_; ///< by address key
    std::unordered_map<std::uint64_t, Peer*> bySerial_;
    std::unordered_map<std::uint64_t, ConnectAttempt> attempts_; ///< by address key
    std::unordered_map<std::uint64_t, Ended> ended_;             ///< by address key
    Nanoseconds endedFloor_ = kNow; ///< cookies up to that time make no connection
    WakeQueue<Peer> wakes_;
    std::vector<Reply> replies_;
    Ring<NetEvent> events_;
    std::uint64_t eventQueue_ = 0; ///< which one since the beginning
    std::uint64_t nextSerial_;
    Nanoseconds lastPoll_ = 0;
    Nanoseconds resetWindow_ = 0;
    int resetsLeft_ = 0;
    NetStatistics stats_;
    MalformedCounters endedMalformed_; ///< of connections that have ended
    std::unique_ptr<DecodedDatagram> decoded_;
};

} // namespace kor::detail
