#pragma once

#include "Faults.h"
#include "Random.h"

#include "support/net/connection/NetEvent.h"
#include "support/net/delivery/Block.h"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kor::simulation {

/// One direction of one connection, as its two applications see it.
struct Stream {
    struct Packet {
        std::uint32_t size = 0;
        Nanoseconds sent = 0;
        Nanoseconds received = kNever;  ///< the application has it
        Nanoseconds delivered = kNever; ///< its sender was told
    };
    std::uint64_t contentSeed = 0;
    std::vector<Packet> packets; ///< in the order sent
    // How many of them, from the first on:
    std::uint64_t received = 0;
    std::uint64_t consumed = 0; ///< the application is done with them
    std::uint64_t delivered = 0;

    bool settled() const { return delivered == packets.size(); }
};

/// Books on what applications send, receive and are told, and what is promised about that: every packet once,
/// whole and in order, one notice for each and not before it was consumed, one beginning and one end of each
/// connection.
class Ledger {
public:
    Ledger(Faults& faults, std::uint64_t firstPacketId) : faults_(faults), firstPacketId_(firstPacketId) {}

    struct Connection {
        std::uint64_t id = 0;
        struct Side {
            bool begun = false;
            bool ended = false;
            int host = -1;
            Nanoseconds begunAt = kNever;
            Nanoseconds endedAt = kNever;
            detail::NetEvent::Kind end = detail::NetEvent::Kind::lost;
        };
        std::array<Side, 2> sides;     ///< accepting, connecting
        std::array<Stream, 2> streams; ///< sent by that side

        bool open(std::size_t side) const { return sides[side].begun && !sides[side].ended; }
        const Stream& sentBy(int host) const { return streams[sides[1].host == host ? 1 : 0]; }
    };

    /// All that there ever were, by their id on the wire.
    const std::map<std::uint64_t, Connection>& connections() const { return connections_; }

    /// Every connection is open on both sides or on none, and what was sent on open ones is delivered.
    bool settled() const { return unsettled().empty(); }
    /// What is not settled, in words; empty when everything is.
    std::string unsettled() const;

    std::uint64_t packetsDelivered() const { return packetsDelivered_; }
    /// Sides that were told of an end of that kind; a process that is killed has lost its connections.
    std::size_t ended(detail::NetEvent::Kind kind) const;

    // For hosts. `initiator`: it is the connecting side that does so.
    void begin(std::uint64_t id, bool initiator, int host, Nanoseconds now);
    void end(std::uint64_t id, bool initiator, detail::NetEvent::Kind kind, Nanoseconds now);
    /// The content of the next packet that this side sends.
    detail::Block send(std::uint64_t id, bool initiator, std::uint32_t size, Nanoseconds now);
    void receive(std::uint64_t id, bool initiator, const detail::Block& bytes, Nanoseconds now);
    void consume(std::uint64_t id, bool initiator) { ++streamTo(id, initiator).consumed; }
    /// This side was told that a packet has been delivered.
    void deliver(std::uint64_t id, bool initiator, std::uint64_t packetId, Nanoseconds now);

private:
    Stream& streamFrom(std::uint64_t id, bool initiator) { return connections_[id].streams[initiator]; }
    Stream& streamTo(std::uint64_t id, bool initiator) { return connections_[id].streams[!initiator]; }
    void fault(std::uint64_t id, bool initiator, const std::string& text);

    Faults& faults_;
    std::uint64_t firstPacketId_;
    std::map<std::uint64_t, Connection> connections_;
    std::uint64_t packetsDelivered_ = 0;
};

} // namespace kor::simulation
