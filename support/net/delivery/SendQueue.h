#pragma once

#include "support/net/delivery/Block.h"
#include "support/net/delivery/Ring.h"

#include <cstdint>
#include <optional>

namespace kor::detail {

/// A piece of one of our packets.
struct FragmentRef {
    std::uint64_t packetId = 0;
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
};

/// Packets accepted for one peer and not yet consumed there, cut into fragments as they leave; repairs go
/// first.
///
/// A packet is begun only while the peer has room for it: at most kPacketWindow packets and `peerLimitBytes`
/// bytes of packets begun and not consumed, or one packet of any size. Not thread-safe: belongs to one
/// connection.
class SendQueue {
public:
    static constexpr std::uint64_t kPacketWindow = 4096;

    SendQueue(std::uint64_t firstPacketId, std::uint64_t peerLimitBytes)
        : packets_(firstPacketId), begun_(firstPacketId), peerLimitBytes_(peerLimitBytes) {}

    /// Appends a packet; its id is the one before plus one.
    void push(Block bytes);

    /// Next piece to send, at most `room` bytes: a repair, else fresh bytes, else nothing.
    std::optional<FragmentRef> take(std::uint32_t room);

    /// True when take() with room would give something.
    bool ready() const { return !repairs_.empty() || freshReady(); }
    /// True when what is ready does not fit one datagram with `room` for pieces.
    bool readyExceeds(std::uint32_t room) const;

    const unsigned char* bytes(const FragmentRef& piece) const {
        return packets_[piece.packetId].bytes.data() + piece.offset;
    }
    std::uint32_t packetSize(const FragmentRef& piece) const { return packets_[piece.packetId].bytes.size(); }

    /// The datagram `number` that carried the piece is taken for lost. False when the packet is done.
    bool repair(const FragmentRef& piece, std::uint64_t number);

    /// That datagram arrived after all: repairs of it that have not left yet are dropped.
    void cancelRepairs(std::uint64_t number);

    /// The peer has consumed all packets up to `id` (which must have been sent in full): frees them.
    void consumed(std::uint64_t id);

    /// Newest packet that the peer has consumed.
    std::uint64_t consumedId() const { return packets_.begin() - 1; }
    /// Oldest packet of which some bytes have never been sent.
    std::uint64_t firstUnsentId() const;
    /// True while packets that were sent in full are not consumed.
    bool awaitsDelivery() const { return packets_.begin() != firstUnsentId(); }
    std::uint64_t queuedBytes() const { return queuedBytes_; }

private:
    struct Packet {
        Block bytes;
        std::uint32_t sent = 0; ///< bytes that have left at least once
    };
    struct Repair {
        FragmentRef piece;
        std::uint64_t number = 0;
    };

    bool freshReady() const;

    Ring<Packet> packets_;
    Ring<Repair> repairs_;
    std::uint64_t begun_;          ///< packets before this one have been begun
    std::uint64_t begunBytes_ = 0; ///< of packets begun and not consumed
    std::uint64_t peerLimitBytes_;
    std::uint64_t queuedBytes_ = 0;
};

} // namespace kor::detail
