#pragma once

#include "support/net/delivery/Ring.h"
#include "support/net/delivery/SendQueue.h"
#include "support/net/wire/Datagram.h"
#include "support/Time.h"

#include <array>
#include <cstdint>
#include <optional>

namespace kor::detail {

/// The datagrams in flight: what each carried, and which of them are acknowledged, lost or still open.
///
/// Loss is told by time, as in RFC 8985 (RACK): a datagram is lost when one sent later has been acknowledged
/// and a round trip plus a window for reordering has passed since it left. Every datagram has a number of its
/// own, never used again, so an acknowledgement is never ambiguous. Not thread-safe: belongs to one
/// connection.
class SentLog {
public:
    /// `firstNumber` of the first datagram, at least 1.
    explicit SentLog(std::uint64_t firstNumber)
        : entries_(firstNumber), firstNumber_(firstNumber), newestAcknowledged_(firstNumber - 1) {}

    /// Number of the next datagram.
    std::uint64_t nextNumber() const { return entries_.end(); }

    /// Notes that datagram nextNumber() carries that piece.
    void addPiece(const FragmentRef& piece) {
        fragments_.push(piece);
        ++newPieces_;
    }

    /// Notes that datagram nextNumber() has left, with the pieces that were added. `charge` counts against
    /// the window; 0 when nobody will acknowledge it.
    void add(Nanoseconds now, std::uint32_t charge, std::uint32_t payloadProbe = 0);

    struct Acknowledged {
        bool valid = true;               ///< false: acknowledges what was never sent; nothing has changed
        std::uint32_t datagrams = 0;     ///< newly acknowledged
        std::uint64_t charge = 0;        ///< what they had charged
        std::uint32_t largestCharge = 0; ///< of a single one
        /// When the newest number of the report left; empty when it was reported before or nobody knows.
        std::optional<Nanoseconds> newestSent;
        std::uint32_t payloadProbe = 0; ///< size of a payload probe among them
        std::uint32_t spurious = 0;     ///< datagrams taken for lost that have arrived after all
        std::uint32_t overtaken = 0;    ///< of those, taken for lost because a later one came first
    };

    /// Takes in a report. Repairs that turn out to be unneeded are withdrawn from `queue`.
    Acknowledged acknowledge(const AckFrame& ack, SendQueue& queue);

    struct Lost {
        std::uint64_t charge = 0;
        std::uint32_t largestCharge = 0; ///< of a single one
        Nanoseconds newestSent = 0;      ///< when the last of them left
        std::uint32_t pieces = 0;        ///< queued for repair
        std::uint32_t payloadProbe = 0;  ///< size of a payload probe among them
    };

    /// Declares lost what is due at `now` and queues its pieces for repair.
    Lost detectLost(Nanoseconds now, Nanoseconds roundTrip, Nanoseconds reorderWindow, SendQueue& queue);

    /// When detectLost() has something to do next; kNever when nothing waits.
    Nanoseconds nextLoss(Nanoseconds roundTrip, Nanoseconds reorderWindow) const;

    /// Declares the oldest datagram in flight lost, because nothing has been heard about it.
    Lost giveUpOldest(SendQueue& queue);

    /// Declares lost what left before `before` and charged more than `charge`.
    Lost giveUpLarger(std::uint32_t charge, Nanoseconds before, SendQueue& queue);

    std::uint64_t inFlightCharge() const { return inFlightCharge_; }
    std::uint32_t inFlight() const { return inFlight_; }
    std::uint32_t recorded() const { return static_cast<std::uint32_t>(entries_.size()); }
    std::uint32_t recordedPieces() const { return static_cast<std::uint32_t>(fragments_.size()); }
    Nanoseconds lastSent() const { return lastSent_; } ///< newest datagram that wants an acknowledgement

private:
    struct Entry {
        Nanoseconds sent = 0;
        std::uint32_t charge = 0;
        std::uint32_t payloadProbe = 0;
        std::uint32_t pieces = 0;
        bool open = false;
    };
    /// A datagram declared lost, in case it arrives after all.
    struct Remembered {
        std::uint64_t number = 0; ///< 0: none
        Nanoseconds sent = 0;
        bool overtaken = false; ///< a later one had arrived
    };
    static constexpr std::size_t kRemembered = 256;

    void close(Entry& entry);
    void declareLost(std::uint64_t number, std::uint64_t firstPiece, SendQueue& queue, Lost& lost);
    void popClosed();
    void findSpurious(const AckFrame& ack, std::uint64_t newest, bool isNews, Acknowledged& result,
                      SendQueue& queue);

    Ring<Entry> entries_;
    Ring<FragmentRef> fragments_; ///< pieces of the recorded entries, in the same order
    std::uint32_t newPieces_ = 0; ///< of the datagram that comes next
    std::size_t rememberedNext_ = 0;
    std::uint32_t rememberedCount_ = 0;
    std::uint64_t inFlightCharge_ = 0;
    std::uint32_t inFlight_ = 0;
    Nanoseconds lastSent_ = 0;
    std::uint64_t firstNumber_;
    std::uint64_t newestAcknowledged_;
    std::array<Remembered, kRemembered> remembered_{}; ///< the newest of them
};

} // namespace kor::detail
