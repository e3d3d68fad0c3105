#include "WireTap.h"

#include <algorithm>
#include <iterator>

namespace kor::simulation {

using detail::DatagramKind;

void WireTap::fault(const std::string& text) {
    faults_.add("connection " + std::to_string(decoded_->header.connectionId) +
                (decoded_->header.fromInitiator ? ", connecting side: " : ", accepting side: ") + text);
}

void WireTap::leaves(int from, int to, std::span<const std::uint8_t> bytes, Nanoseconds now,
                     Nanoseconds roundTrip) {
    const detail::DecodeError error = detail::decodeDatagram(bytes, *decoded_);
    if (error != detail::DecodeError::none)
        return faults_.add("host " + std::to_string(from) + " sends a datagram that breaks the format");
    switch (decoded_->header.kind) {
    case DatagramKind::data:
        return data(now, roundTrip, bytes.size());
    case DatagramKind::request:
    case DatagramKind::response:
        return;
    case DatagramKind::challenge:
    case DatagramKind::accept:
    case DatagramKind::reset:
        break;
    }
    std::uint64_t& replied = replied_[pair(from, to)];
    replied += bytes.size();
    if (replied > received_[pair(from, to)])
        faults_.add("host " + std::to_string(from) + " answers a stranger with more bytes than he sent");
}

void WireTap::data(Nanoseconds now, Nanoseconds roundTrip, std::size_t bytes) {
    const detail::DecodedDatagram& datagram = *decoded_;
    Direction& direction = directions_[{datagram.header.connectionId, datagram.header.fromInitiator}];
    WireCounts& counts = direction.counts;
    ++counts.datagrams;
    counts.bytes += bytes;
    counts.pings += datagram.ping ? 1 : 0;
    counts.paddings += datagram.padding ? 1 : 0;
    counts.acks += datagram.ack && !datagram.wantsAck() ? 1 : 0;
    if (direction.anyNumber && static_cast<std::int32_t>(datagram.number - direction.lastNumber) <= 0)
        fault("datagram numbers do not count up");
    direction.anyNumber = true;
    direction.lastNumber = datagram.number;
    for (std::size_t i = 0; i != datagram.fragmentCount; ++i)
        fragment(direction, datagram.fragments[i], now, roundTrip);
}

void WireTap::fragment(Direction& direction, const detail::FragmentFrame& piece, Nanoseconds now,
                       Nanoseconds roundTrip) {
    WireCounts& counts = direction.counts;
    ++counts.fragments;
    if (direction.anyDelivered && static_cast<std::int32_t>(piece.packetId - direction.lastDelivered) <= 0)
        fault("sends a piece of a packet that has been delivered");

    const std::uint32_t begin = piece.offset;
    const auto end = begin + static_cast<std::uint32_t>(piece.bytes.size());
    Pieces& pieces = direction.packets[piece.packetId];
    auto it = pieces.upper_bound(begin);
    if (it != pieces.begin() && std::prev(it)->second.end > begin)
        --it;
    bool again = false;
    while (it != pieces.end() && it->first < end) {
        const std::uint32_t oldBegin = it->first;
        const Sent old = it->second;
        again = true;
        counts.repairBytes += std::min(end, old.end) - std::max(begin, oldBegin);
        if (now - old.at < roundTrip)
            fault("sends a piece of packet id " + std::to_string(piece.packetId) + " again after " +
                  std::to_string((now - old.at) / kMicrosecond) + " us; a round trip takes " +
                  std::to_string(roundTrip / kMicrosecond) + " us");
        it = pieces.erase(it);
        if (oldBegin < begin)
            pieces.emplace(oldBegin, Sent{begin, old.at});
        if (old.end > end)
            it = pieces.emplace(end, Sent{old.end, old.at}).first;
    }
    pieces.emplace(begin, Sent{end, now});
    counts.repairs += again ? 1 : 0;
}

void WireTap::delivered(std::uint64_t connectionId, bool initiator, std::uint64_t packetId) {
    Direction& direction = directions_[{connectionId, initiator}];
    direction.anyDelivered = true;
    direction.lastDelivered = static_cast<std::uint32_t>(packetId);
    direction.packets.erase(direction.lastDelivered);
}

const WireCounts& WireTap::counts(std::uint64_t connectionId, bool initiator) const {
    static const WireCounts kNone;
    const auto found = directions_.find({connectionId, initiator});
    return found == directions_.end() ? kNone : found->second.counts;
}

WireCounts WireTap::total() const {
    WireCounts sum;
    for (const auto& [key, direction] : directions_)
        sum += direction.counts;
    return sum;
}

WireCounts& WireCounts::operator+=(const WireCounts& other) {
    datagrams += other.datagrams;
    bytes += other.bytes;
    pings += other.pings;
    paddings += other.paddings;
    acks += other.acks;
    fragments += other.fragments;
    repairs += other.repairs;
    repairBytes += other.repairBytes;
    return *this;
}

} // namespace kor::simulation
