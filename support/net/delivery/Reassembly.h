#pragma once

#include "support/net/delivery/Block.h"
#include "support/net/delivery/Ring.h"
#include "support/net/wire/Datagram.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace kor::detail {

/// Puts a peer's packets together from fragments that come in any order, any number of times.
///
/// What a fragment says about sizes is a limit, not an order to allocate: a packet gets memory ahead of its
/// bytes only as far as this peer has proved to send, else as the bytes come. Not thread-safe: belongs to one
/// connection.
class Reassembly {
public:
    enum class Result {
        taken,    ///< new bytes, kept
        known,    ///< nothing new
        refused,  ///< over a limit: as if it had never arrived
        malformed ///< contradicts an earlier fragment
    };

    struct Limits {
        std::uint32_t maxPacketBytes = 64u << 20;
        /// Of packets begun or whole and not consumed; one packet alone is exempt.
        std::uint64_t heldBytes = 72ull << 20;
    };

    /// Bytes beyond those received of a packet that may still be in flight: no sender has more in flight.
    static constexpr std::uint32_t kMaxAhead = 16u << 20;
    static constexpr std::uint64_t kPacketWindow = 4096;
    static constexpr std::size_t kMaxGaps = 1024; ///< per packet; more fragments apart than this are refused
    /// The same for all packets but the oldest together.
    static constexpr std::size_t kMaxSpanRoom = 1u << 16;

    Reassembly(std::uint64_t firstPacketId, const Limits& limits)
        : partial_(firstPacketId), limits_(limits) {}

    Result take(const FragmentFrame& fragment);

    /// The next packet in order, once it is whole.
    std::optional<Block> popWhole();

    /// A popped packet of that size has been consumed, or dropped.
    void consumed(std::uint32_t size) {
        heldBytes_ -= size;
        --waiting_;
    }

    /// Id of the newest packet consumed.
    std::uint64_t consumedId() const { return partial_.begin() - waiting_ - 1; }
    std::uint64_t heldBytes() const { return heldBytes_; }

private:
    struct Span {
        std::uint32_t begin = 0;
        std::uint32_t end = 0;
    };
    struct Partial {
        Block bytes;
        std::uint32_t size = 0; ///< 0: nothing has come yet
        std::uint32_t received = 0;
        std::vector<Span> spans; ///< what has come, ascending, apart from each other
    };

    bool makeRoom(Partial& packet, std::uint32_t end);
    bool makeSpanRoom(std::vector<Span>& spans, bool oldest);
    Result merge(Partial& packet, Span piece, bool oldest);

    Ring<Partial> partial_;
    Limits limits_;
    std::uint64_t heldBytes_ = 0;
    std::size_t spanRoom_ = 0;  ///< spans that all packets have room for
    std::uint64_t waiting_ = 0; ///< popped and not consumed
    std::uint32_t largestWhole_ = 0;
};

} // namespace kor::detail
