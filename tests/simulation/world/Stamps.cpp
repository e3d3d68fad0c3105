#include "Stamps.h"

#include "support/net/DatagramFormat.h"
#include "support/net/LittleEndian.h"

namespace kor::simulation {

void changeStamps(std::span<std::uint8_t> datagram, const std::function<void(detail::TimeFrame&)>& change) {
    detail::DecodedDatagram decoded;
    if (decodeDatagram(datagram, decoded) != detail::DecodeError::none ||
        decoded.header.kind != detail::DatagramKind::data || !decoded.time)
        return;
    detail::TimeFrame& time = *decoded.time;
    change(time);
    // The library writes nothing but an acknowledgement before it.
    std::size_t at = detail::kDataHeaderBytes + 1;
    if (decoded.ack)
        at += detail::kAckFrameBytes + (decoded.ack->rangeCount - 1) * detail::kAckRangeBytes;
    for (const detail::Nanoseconds stamp : {time.sent, time.echoSent, time.echoReceived}) {
        detail::store64(datagram.data() + at, static_cast<std::uint64_t>(stamp));
        at += sizeof stamp;
        if (!time.hasEcho)
            break;
    }
    detail::writeChecksum(datagram);
}

} // namespace kor::simulation
