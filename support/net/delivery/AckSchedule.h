#pragma once

#include "support/net/delivery/ReceivedNumbers.h"
#include "support/net/wire/Datagram.h"
#include "support/Time.h"

#include <cstddef>
#include <cstdint>

namespace kor::detail {

/// What has arrived from the peer, and when it is to be told so. Not thread-safe: belongs to one connection.
class AckSchedule {
public:
    /// Longest wait before an acknowledgement leaves.
    static constexpr Nanoseconds kMaxDelay = 500 * kMicrosecond;

    /// `firstNumber`: of the peer's datagrams.
    AckSchedule(std::uint32_t firstNumber, Nanoseconds now) : nextForget_(now), received_(firstNumber) {}

    /// True while nothing has arrived and the number is from before the first one, which no peer sends:
    /// nothing could be acknowledged after it.
    bool precedesFirst(std::uint32_t number) const { return received_.precedesFirst(number); }

    struct Noted {
        bool isNew = false;  ///< false: it came before, or too late to be told from one that did
        bool newGap = false; ///< older ones are missing, which the next acknowledgement says first
    };
    /// Notes a datagram of `wireBytes` that was taken in whole.
    Noted arrived(const DecodedDatagram& datagram, Nanoseconds arrival, std::size_t wireBytes);

    /// A packet has been consumed, which the peer is to know.
    void consumed(Nanoseconds now);

    /// When an acknowledgement is due; kNever when there is nothing to tell.
    Nanoseconds due() const { return received_.empty() ? kNever : due_; }
    bool pending() const { return due() != kNever; }

    /// False until something has arrived; before that there is no report.
    bool canReport() const { return !received_.empty(); }
    /// The acknowledgement, which leaves now. `consumedId`: newest packet consumed.
    AckFrame report(Nanoseconds now, std::uint64_t consumedId);

    /// Stops reporting on numbers that are so old that they have been repaired under others.
    void forgetOld(Nanoseconds now, Nanoseconds smoothedRoundTrip);

private:
    Nanoseconds due_ = kNever;
    Nanoseconds newestArrival_ = 0;
    std::uint64_t reportedMissing_ = 0;
    std::uint64_t forgetMark_ = 0;
    Nanoseconds nextForget_;
    std::uint32_t unacknowledgedBytes_ = 0;
    ReceivedNumbers received_;
};

} // namespace kor::detail
