#pragma once

#include "Faults.h"
#include "Random.h"

#include "support/net/wire/Datagram.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kor::simulation {

/// What one direction of a connection has put on the wire.
struct WireCounts {
    std::uint64_t datagrams = 0;
    std::uint64_t bytes = 0;
    std::uint64_t pings = 0;
    std::uint64_t paddings = 0; ///< probes for a larger payload
    std::uint64_t acks = 0;     ///< datagrams with nothing but an acknowledgement (and stamps)
    std::uint64_t fragments = 0;
    std::uint64_t repairs = 0;     ///< fragments of which something had been sent before
    std::uint64_t repairBytes = 0; ///< bytes that had been sent before

    WireCounts& operator+=(const WireCounts& other);
};

/// Reads every datagram as it leaves, and watches over what is promised about them: each is well-formed,
/// nothing is sent again within a round trip or after its delivery, and no stranger gets more than he sent.
class WireTap {
public:
    explicit WireTap(Faults& faults)
        : faults_(faults), decoded_(std::make_unique<detail::DecodedDatagram>()) {}

    /// Of the connecting side when `initiator`, else of the accepting one.
    const WireCounts& counts(std::uint64_t connectionId, bool initiator) const;
    WireCounts total() const;

    // For hosts and their world.
    /// Host `from` sends to `to`; a round trip between them takes `roundTrip` at least.
    void leaves(int from, int to, std::span<const std::uint8_t> bytes, Nanoseconds now,
                Nanoseconds roundTrip);
    /// A datagram from `from` has reached host `to`'s process.
    void read(int from, int to, std::size_t bytes) { received_[pair(to, from)] += bytes; }
    /// The sender has been told of that packet.
    void delivered(std::uint64_t connectionId, bool initiator, std::uint64_t packetId);

private:
    struct Sent {
        std::uint32_t end = 0;
        Nanoseconds at = 0;
    };
    using Pieces = std::map<std::uint32_t, Sent>; ///< by first byte; nothing overlaps
    struct Direction {
        WireCounts counts;
        std::unordered_map<std::uint32_t, Pieces> packets;
        bool anyDelivered = false;
        std::uint32_t lastDelivered = 0;
        bool anyNumber = false;
        std::uint32_t lastNumber = 0;
    };

    static std::uint64_t pair(int a, int b) {
        return static_cast<std::uint64_t>(static_cast<std::uint32_t>(a)) << 32 |
               static_cast<std::uint32_t>(b);
    }
    void data(Nanoseconds now, Nanoseconds roundTrip, std::size_t bytes);
    void fragment(Direction& direction, const detail::FragmentFrame& piece, Nanoseconds now,
                  Nanoseconds roundTrip);
    void fault(const std::string& text);

    Faults& faults_;
    std::unique_ptr<detail::DecodedDatagram> decoded_;
    std::map<std::pair<std::uint64_t, bool>, Direction> directions_;
    std::unordered_map<std::uint64_t, std::uint64_t> received_; ///< bytes, by (here, from)
    std::unordered_map<std::uint64_t, std::uint64_t> replied_;
};

} // namespace kor::simulation
