#include "Describe.h"

#include "support/net/wire/Datagram.h"

#include <array>
#include <memory>

namespace kor::simulation {

namespace {

std::string describeAck(const detail::AckFrame& ack) {
    std::string text = " ack(consumed " + std::to_string(ack.consumed) + ", held " +
                       std::to_string(ack.delayMicroseconds) + "us:";
    for (std::size_t i = 0; i != ack.rangeCount; ++i)
        text.append(" ")
            .append(std::to_string(ack.ranges[i].last - ack.ranges[i].count + 1))
            .append("-")
            .append(std::to_string(ack.ranges[i].last));
    return text.append(")");
}

} // namespace

std::string describe(std::span<const std::uint8_t> datagram) {
    constexpr std::array kKinds = {"?", "request", "challenge", "response", "accept", "reset", "data"};
    const auto decoded = std::make_unique<detail::DecodedDatagram>();
    if (detail::decodeDatagram(datagram, *decoded) != detail::DecodeError::none)
        return std::string("malformed, ").append(std::to_string(datagram.size())).append(" bytes");
    std::string text = kKinds[static_cast<std::size_t>(decoded->header.kind)];
    text += " " + std::to_string(datagram.size()) + " bytes, id " +
            std::to_string(decoded->header.connectionId % 10'000);
    if (decoded->header.kind != detail::DatagramKind::data)
        return text;
    text += " #" + std::to_string(decoded->number);
    if (decoded->ack)
        text += describeAck(*decoded->ack);
    if (decoded->time)
        text += decoded->time->hasEcho ? " echo" : " time";
    text += decoded->ping ? " ping" : "";
    text += decoded->padding ? " padding" : "";
    text += decoded->close ? " close" : "";
    for (std::size_t i = 0; i != decoded->fragmentCount; ++i) {
        const detail::FragmentFrame& piece = decoded->fragments[i];
        text += " piece(" + std::to_string(piece.packetId) + " at " + std::to_string(piece.offset) + "+" +
                std::to_string(piece.bytes.size()) + "/" + std::to_string(piece.packetSize) + ")";
    }
    return text;
}

} // namespace kor::simulation
