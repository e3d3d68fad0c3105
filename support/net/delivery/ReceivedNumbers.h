#pragma once

#include "support/net/wire/Datagram.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kor::detail {

/// Which of the peer's datagram numbers have arrived: tells duplicates from news and feeds the
/// acknowledgements.
///
/// On the wire a number has 32 bits and wraps; here it is held unwrapped, in 64. What has arrived is kept as
/// runs of consecutive numbers, the newest kMaxRuns of them. Whatever lies at or below a run that had to be
/// forgotten is `tooOld` from then on, so a number is never called fresh twice. Constant time when datagrams
/// come in order, linear in the number of runs otherwise; never allocates. Not thread-safe: belongs to one
/// connection.
class ReceivedNumbers {
public:
    static constexpr std::size_t kMaxRuns = 64;

    enum class Arrival { fresh, duplicate, tooOld };

    /// `first` is the number of the first datagram that the peer sends: older ones are `tooOld`, and when
    /// `first` itself is late or lost this is a gap like any other.
    explicit ReceivedNumbers(std::uint32_t first);

    /// The number nearest to the newest one that ends in these 32 bits. Never 0.
    std::uint64_t unwrap(std::uint32_t wire) const;

    /// True while nothing has arrived and the number is from before the first one, which no peer sends.
    bool precedesFirst(std::uint32_t wire) const { return empty() && unwrap(wire) < floor_; }

    /// Notes the arrival of a number that unwrap() gave.
    Arrival insert(std::uint64_t number);

    bool empty() const { return runCount_ == 0; }

    /// The largest number that has arrived; meaningless while empty().
    std::uint64_t newest() const { return newest_; }

    /// The largest number below the newest, and not forgotten, that has not arrived; 0 when there is none. A
    /// gap that is larger than at the last report has not been reported.
    std::uint64_t newestMissing() const;

    /// Fills in `rangeCount` and `ranges` with the newest runs and touches nothing else.
    /// Precondition: not empty().
    void fillAck(AckFrame& ack) const;

    /// Stops remembering the numbers below `number`, which the peer is known to have settled: they are
    /// `tooOld` from now on and no gap any more. Keeps the newest number in any case.
    void forgetBelow(std::uint64_t number);

private:
    struct Run {
        std::uint64_t first;
        std::uint64_t last;
    };

    void insertRunAt(std::size_t index, std::uint64_t number);
    void eraseRuns(std::size_t index, std::size_t count);

    std::uint64_t newest_;
    std::uint64_t floor_; ///< everything below is too old
    std::size_t runCount_ = 0;
    std::array<Run, kMaxRuns> runs_; ///< oldest first, at least one number missing between two
};

} // namespace kor::detail
