#pragma once

#include "support/platform/Poller.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kor::detail {

/// Lets the datagrams of a crowd come together before the layer's thread reads or sends them.
///
/// What each peer reports, and what an application sends to one peer after the other, would else wake the
/// thread for a few datagrams each time. Belongs to that thread, except count().
class Gathering {
public:
    /// What the layer's thread did between two waits.
    struct Turn {
        bool leftUnread = false;         ///< more lies in a socket than was read
        bool tookOutboxes = false;       ///< packets that other threads have given
        std::size_t longestReceived = 0; ///< datagram, bytes; 0: none has come
        std::size_t longestSent = 0;     ///< run of datagrams to one peer, bytes; 0: none has left

        void received(std::size_t bytes) { longestReceived = std::max(longestReceived, bytes); }
        void sent(std::size_t bytes) { longestSent = std::max(longestSent, bytes); }
    };

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
    enum class Wait : std::uint8_t { forAny, forReports, forBurst };

    Wait next_ = Wait::forAny;
    std::atomic<std::uint64_t> count_{0};
};

} // namespace kor::detail
