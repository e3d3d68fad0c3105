#include "support/net/delivery/AckSchedule.h"

#include <algorithm>

namespace kor::detail {

namespace {
constexpr std::uint32_t kMaxUnacknowledged = 16u << 10; // bytes; so many are reported at once
}

AckSchedule::Noted AckSchedule::arrived(const DecodedDatagram& datagram, Nanoseconds arrival,
                                        std::size_t wireBytes) {
    const std::uint64_t number = received_.unwrap(datagram.number);
    if (received_.empty() || number > received_.newest())
        newestArrival_ = arrival;
    Noted noted;
    noted.isNew = received_.insert(number) == ReceivedNumbers::Arrival::fresh;
    const std::uint64_t missing = received_.newestMissing();
    noted.newGap = missing > reportedMissing_;
    reportedMissing_ = std::max(reportedMissing_, missing);
    if (datagram.wantsAck())
        unacknowledgedBytes_ += static_cast<std::uint32_t>(wireBytes);
    else if (!noted.newGap)
        return noted;
    const bool atOnce =
        noted.newGap || datagram.ping || datagram.padding || unacknowledgedBytes_ >= kMaxUnacknowledged;
    due_ = std::min(due_, atOnce ? arrival : arrival + kMaxDelay);
    return noted;
}

void AckSchedule::consumed(Nanoseconds now) {
    due_ = std::min(due_, now + kMaxDelay);
}

AckFrame AckSchedule::report(Nanoseconds now, std::uint64_t consumedId) {
    AckFrame ack;
    received_.fillAck(ack);
    ack.delayMicroseconds = static_cast<std::uint32_t>(
        std::clamp<Nanoseconds>((now - newestArrival_) / kMicrosecond, 0, UINT32_MAX));
    ack.consumed = static_cast<std::uint32_t>(consumedId);
    due_ = kNever;
    unacknowledgedBytes_ = 0;
    return ack;
}

void AckSchedule::forgetOld(Nanoseconds now, Nanoseconds smoothedRoundTrip) {
    if (now < nextForget_ || received_.empty())
        return;
    nextForget_ = now + std::max(200 * kMillisecond, 4 * smoothedRoundTrip);
    received_.forgetBelow(forgetMark_);
    forgetMark_ = received_.newest();
}

} // namespace kor::detail
