#pragma once

#include "support/platform/Poller.h"
#include "support/platform/ReceiveBatch.h"
#include "support/Time.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kor::detail {

/// Lets datagrams come together before the layer's thread reads or sends them.
///
/// In a crowd what each peer reports, and what an application sends to one peer after the other, and anywhere
/// the pieces of a large packet that the system does not join, would else wake the thread for a few datagrams
/// each time. Belongs to that thread, except count().
class Gathering {
public:
    /// What the layer's thread did between two waits.
    struct Turn {
        bool leftUnread = false;         ///< more lies in a socket than was read
        bool tookOutboxes = false;       ///< packets that other threads have given
        std::size_t longestReceived = 0; ///< datagram, bytes; 0: none has come
        std::size_t longestSent = 0;     ///< run of datagrams to one peer, bytes; 0: none has left

        /// The newest datagram came close behind one of the same length, so more of a packet is on its way.
        bool amidPacket = false;

        void sent(std::size_t bytes) { longestSent = std::max(longestSent, bytes); }
    };

    /// Notes in `turn` what the kernel handed over.
    void received(Turn& turn, const ReceivedRun& run);

    /// Chooses the next wait. Arrival times must come from the kernel: a datagram that waits would else seem
    /// to have come late.
    void plan(const Turn& turn, std::uint32_t connections);
    /// The next wait ends with the first datagram.
    void planNone() { next_ = Wait::forAny; }

    /// Waits as planned, and not beyond the deadline. True when datagrams have gathered meanwhile.
    bool wait(Poller& poller, Nanoseconds deadline);

    /// Waits that let datagrams gather; from any thread.
    std::uint64_t count() const { return count_.load(std::memory_order_relaxed); }

private:
    enum class Wait : std::uint8_t { forAny, forReports, forBurst, forPieces };

    Wait next_ = Wait::forAny;
    Nanoseconds lastArrival_ = kNow;
    std::size_t lastSize_ = 0;
    std::atomic<std::uint64_t> count_{0};
};

} // namespace kor::detail
