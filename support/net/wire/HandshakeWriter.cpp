#include "support/net/wire/Crc32c.h"
#include "support/net/wire/DatagramFormat.h"
#include "support/net/wire/LittleEndian.h"

#include <algorithm>
#include <cassert>

namespace kor::detail {

namespace {

void storeParameters(std::uint8_t* to, const ConnectionParameters& parameters) {
    store32(to, parameters.maxPacketBytes);
    store32(to + 4, parameters.receiveLimitBytes);
    store32(to + 8, parameters.socketBufferBytes);
    store32(to + 12, parameters.maxDatagramPayload);
}

std::span<std::uint8_t> begin(std::span<std::uint8_t> out, std::size_t size, DatagramKind kind,
                              bool fromInitiator, std::uint64_t id) {
    assert(out.size() >= size);
    const std::span<std::uint8_t> datagram = out.first(size);
    writeHeader(datagram, kind, fromInitiator, id);
    return datagram;
}

std::size_t end(std::span<std::uint8_t> datagram) {
    writeChecksum(datagram);
    return datagram.size();
}

} // namespace

void writeHeader(std::span<std::uint8_t> out, DatagramKind kind, bool fromInitiator,
                 std::uint64_t connectionId) {
    assert(out.size() >= kHeaderBytes);
    out[kKindAt] = static_cast<std::uint8_t>(kind);
    out[kVersionAt] = kProtocolVersion;
    out[kFlagsAt] = fromInitiator ? kFlagFromInitiator : 0;
    out[kReservedAt] = 0;
    store64(out.data() + kConnectionIdAt, connectionId);
}

void writeChecksum(std::span<std::uint8_t> datagram) {
    store32(datagram.data(), crc32c(datagram.subspan(kChecksumBytes)));
}

std::size_t writeRequest(std::span<std::uint8_t> out, std::uint64_t nonce) {
    const auto datagram = begin(out, kHandshakeBytes, DatagramKind::request, true, nonce);
    std::ranges::fill(datagram.subspan(kHeaderBytes), std::uint8_t{0});
    return end(datagram);
}

std::size_t writeChallenge(std::span<std::uint8_t> out, std::uint64_t nonce, std::uint64_t cookie,
                           Nanoseconds cookieTime) {
    const auto datagram = begin(out, kChallengeBytes, DatagramKind::challenge, false, nonce);
    store64(datagram.data() + kHeaderBytes, cookie);
    store64(datagram.data() + kHeaderBytes + 8, static_cast<std::uint64_t>(cookieTime));
    return end(datagram);
}

std::size_t writeResponse(std::span<std::uint8_t> out, std::uint64_t nonce, std::uint64_t cookie,
                          Nanoseconds cookieTime, const ConnectionParameters& parameters) {
    const auto datagram = begin(out, kHandshakeBytes, DatagramKind::response, true, nonce);
    store64(datagram.data() + kHeaderBytes, cookie);
    store64(datagram.data() + kHeaderBytes + 8, static_cast<std::uint64_t>(cookieTime));
    storeParameters(datagram.data() + kHeaderBytes + 16, parameters);
    std::ranges::fill(datagram.subspan(kHeaderBytes + 16 + kParametersBytes), std::uint8_t{0});
    return end(datagram);
}

std::size_t writeAccept(std::span<std::uint8_t> out, std::uint64_t nonce, std::uint64_t connectionId,
                        const ConnectionParameters& parameters) {
    const auto datagram = begin(out, kAcceptBytes, DatagramKind::accept, false, nonce);
    store64(datagram.data() + kHeaderBytes, connectionId);
    storeParameters(datagram.data() + kHeaderBytes + 8, parameters);
    return end(datagram);
}

std::size_t writeReset(std::span<std::uint8_t> out, std::uint64_t connectionId, bool fromInitiator) {
    return end(begin(out, kHeaderBytes, DatagramKind::reset, fromInitiator, connectionId));
}

} // namespace kor::detail
