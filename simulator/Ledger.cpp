#include "Ledger.h"

#include <algorithm>
#include <cstring>

namespace kor::simulation {

namespace {

/// Calls `use(position, bytes, count)` for the content of a packet, eight bytes at a time.
template <typename Use>
void eachWord(std::uint64_t seed, std::uint64_t index, std::uint32_t size, Use use) {
    Random random(seed + index * 0x632BE59BD9B4E019u);
    for (std::uint32_t at = 0; at < size; at += 8) {
        const std::uint64_t word = random.next();
        use(at, &word, std::min<std::size_t>(8, size - at));
    }
}

} // namespace

void Ledger::fault(std::uint64_t id, bool initiator, const std::string& text) {
    faults_.add("connection " + std::to_string(id) +
                (initiator ? ", connecting side: " : ", accepting side: ") + text);
}

void Ledger::begin(std::uint64_t id, bool initiator, int host, Nanoseconds now) {
    Connection& connection = connections_[id];
    Connection::Side& side = connection.sides[initiator];
    if (side.begun)
        fault(id, initiator, "has begun twice");
    connection.id = id;
    side.begun = true;
    side.host = host;
    side.begunAt = now;
    connection.streams[initiator].contentSeed = id + (initiator ? 1 : 0);
}

void Ledger::end(std::uint64_t id, bool initiator, detail::NetEvent::Kind kind, Nanoseconds now) {
    Connection::Side& side = connections_[id].sides[initiator];
    if (!side.begun || side.ended)
        fault(id, initiator, "has ended without having begun, or twice");
    side.ended = true;
    side.endedAt = now;
    side.end = kind;
}

detail::Block Ledger::send(std::uint64_t id, bool initiator, std::uint32_t size, Nanoseconds now) {
    Stream& stream = streamFrom(id, initiator);
    detail::Block block = detail::Block::allocate(size);
    eachWord(stream.contentSeed, stream.packets.size(), size,
             [&](std::uint32_t at, const void* word, std::size_t count) {
                 std::memcpy(block.data() + at, word, count);
             });
    stream.packets.push_back({size, now, kNever, kNever});
    return block;
}

void Ledger::receive(std::uint64_t id, bool initiator, const detail::Block& bytes, Nanoseconds now) {
    Stream& stream = streamTo(id, initiator);
    const std::uint64_t index = stream.received++;
    if (index >= stream.packets.size())
        return fault(id, initiator, "received packet " + std::to_string(index) + ", which nobody has sent");
    Stream::Packet& packet = stream.packets[index];
    packet.received = now;
    if (packet.size != bytes.size())
        return fault(id, initiator,
                     "packet " + std::to_string(index) + " has " + std::to_string(bytes.size()) +
                         " bytes instead of " + std::to_string(packet.size));
    bool same = true;
    eachWord(stream.contentSeed, index, packet.size,
             [&](std::uint32_t at, const void* word, std::size_t count) {
                 same = same && std::memcmp(bytes.data() + at, word, count) == 0;
             });
    if (!same)
        fault(id, initiator, "packet " + std::to_string(index) + " has other bytes than were sent");
}

void Ledger::deliver(std::uint64_t id, bool initiator, std::uint64_t packetId, Nanoseconds now) {
    Stream& stream = streamFrom(id, initiator);
    if (packetId != firstPacketId_ + stream.delivered)
        fault(id, initiator, "was told of packet id " + std::to_string(packetId) + " out of turn");
    if (stream.delivered >= std::min<std::uint64_t>(stream.consumed, stream.packets.size()))
        return fault(id, initiator,
                     "was told of packet " + std::to_string(stream.delivered) + " before it was consumed");
    Stream::Packet& packet = stream.packets[stream.delivered++];
    packet.delivered = now;
    ++packetsDelivered_;
}

std::string Ledger::unsettled() const {
    std::string text;
    for (const auto& [id, connection] : connections_) {
        if (connection.open(0) != connection.open(1)) {
            text += "connection " + std::to_string(id) + " is open on one side only\n";
            continue;
        }
        for (std::size_t side = 0; side != 2 && connection.open(0); ++side) {
            const Stream& stream = connection.streams[side];
            if (!stream.settled())
                text += "connection " + std::to_string(id) + (side != 0 ? ", connecting" : ", accepting") +
                        " side: " + std::to_string(stream.packets.size()) + " packets sent, " +
                        std::to_string(stream.received) + " received, " + std::to_string(stream.consumed) +
                        " consumed, " + std::to_string(stream.delivered) + " delivered\n";
        }
    }
    return text;
}

std::size_t Ledger::ended(detail::NetEvent::Kind kind) const {
    std::size_t count = 0;
    for (const auto& [id, connection] : connections_)
        for (const Connection::Side& side : connection.sides)
            count += side.ended && side.end == kind ? 1 : 0;
    return count;
}

} // namespace kor::simulation
