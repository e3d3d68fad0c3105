#include "support/net/wire/Crc32c.h"
#include "support/net/wire/DatagramFormat.h"
#include "support/net/wire/LittleEndian.h"

#include <cstring>

namespace kor::detail {

namespace {

/// What is left of a datagram. Each take says first whether there is enough.
class Reader {
public:
    explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    std::size_t left() const { return bytes_.size(); }

    std::span<const std::uint8_t> take(std::size_t count) {
        const auto taken = bytes_.first(count);
        bytes_ = bytes_.subspan(count);
        return taken;
    }

    // Preconditions: as many bytes are left.
    std::uint8_t take8() { return take(1)[0]; }
    std::uint16_t take16() { return load16(take(2).data()); }
    std::uint32_t take32() { return load32(take(4).data()); }
    std::uint64_t take64() { return load64(take(8).data()); }
    Nanoseconds takeTime() { return static_cast<Nanoseconds>(take64()); }

    /// Takes all that is left; true when it is zero.
    bool takeZeros() {
        const auto padding = take(left());
        // Zero at the front, and every byte the same as the one before it.
        return padding.empty() ||
               (padding[0] == 0 && std::memcmp(padding.data(), padding.data() + 1, padding.size() - 1) == 0);
    }

private:
    std::span<const std::uint8_t> bytes_;
};

ConnectionParameters takeParameters(Reader& reader) {
    ConnectionParameters parameters;
    parameters.maxPacketBytes = reader.take32();
    parameters.receiveLimitBytes = reader.take32();
    parameters.socketBufferBytes = reader.take32();
    parameters.maxDatagramPayload = reader.take32();
    return parameters;
}

bool decodeAck(Reader& reader, std::optional<AckFrame>& out) {
    if (out || reader.left() < kAckFrameBytes - 1)
        return false;
    AckFrame& ack = out.emplace();
    AckFrame::Range range;
    range.last = reader.take32();
    ack.delayMicroseconds = reader.take32();
    ack.consumed = reader.take32();
    ack.rangeCount = reader.take8();
    range.count = reader.take16();
    if (ack.rangeCount < 1 || ack.rangeCount > kMaxAckRanges || range.count == 0 ||
        reader.left() < (ack.rangeCount - 1) * kAckRangeBytes)
        return false;
    ack.ranges[0] = range;
    for (std::size_t i = 1; i < ack.rangeCount; ++i) {
        const std::uint32_t missing = reader.take16();
        range.last -= range.count + missing;
        range.count = reader.take16();
        if (missing == 0 || range.count == 0)
            return false;
        ack.ranges[i] = range;
    }
    return true;
}

bool decodeFragment(Reader& reader, DecodedDatagram& out) {
    if (out.fragmentCount == kMaxFragmentsPerDatagram || reader.left() < kFragmentHeaderBytes - 1)
        return false;
    FragmentFrame& fragment = out.fragments[out.fragmentCount];
    fragment.packetId = reader.take32();
    fragment.packetSize = reader.take32();
    fragment.offset = reader.take32();
    const std::size_t length = reader.take16();
    if (length == 0 || length > reader.left() ||
        std::uint64_t{fragment.offset} + length > fragment.packetSize)
        return false;
    fragment.bytes = reader.take(length);
    ++out.fragmentCount;
    return true;
}

bool decodeTime(Reader& reader, bool hasEcho, std::optional<TimeFrame>& out) {
    if (out || reader.left() < (hasEcho ? kTimeEchoFrameBytes : kTimeFrameBytes) - 1)
        return false;
    TimeFrame& time = out.emplace();
    time.sent = reader.takeTime();
    time.hasEcho = hasEcho;
    if (hasEcho) {
        time.echoSent = reader.takeTime();
        time.echoReceived = reader.takeTime();
    }
    return true;
}

/// For frames that are a type only: false when there has been one before.
bool setOnce(bool& flag) {
    const bool first = !flag;
    flag = true;
    return first;
}

bool decodeFrame(Reader& reader, DecodedDatagram& out) {
    switch (static_cast<FrameType>(reader.take8())) {
    case FrameType::ack:
        return decodeAck(reader, out.ack);
    case FrameType::fragment:
        return decodeFragment(reader, out);
    case FrameType::time:
        return decodeTime(reader, false, out.time);
    case FrameType::timeEcho:
        return decodeTime(reader, true, out.time);
    case FrameType::ping:
        return setOnce(out.ping);
    case FrameType::padding:
        out.padding = true;
        return reader.takeZeros();
    case FrameType::close:
        return setOnce(out.close);
    }
    return false;
}

bool decodeData(Reader& reader, DecodedDatagram& out) {
    out.ack.reset();
    out.time.reset();
    out.ping = out.padding = out.close = false;
    out.fragmentCount = 0;
    if (reader.left() <= kDataHeaderBytes - kHeaderBytes)
        return false;
    out.number = reader.take32();
    while (reader.left() > 0)
        if (!decodeFrame(reader, out))
            return false;
    return true;
}

bool decodeBody(Reader& reader, DecodedDatagram& out) {
    const std::size_t size = kHeaderBytes + reader.left();
    const bool fromInitiator = out.header.fromInitiator;
    switch (out.header.kind) {
    case DatagramKind::request:
        return fromInitiator && size == kHandshakeBytes && reader.takeZeros();
    case DatagramKind::challenge:
        if (fromInitiator || size != kChallengeBytes)
            return false;
        out.cookie = reader.take64();
        out.cookieTime = reader.takeTime();
        return true;
    case DatagramKind::response:
        if (!fromInitiator || size != kHandshakeBytes)
            return false;
        out.cookie = reader.take64();
        out.cookieTime = reader.takeTime();
        out.parameters = takeParameters(reader);
        return reader.takeZeros();
    case DatagramKind::accept:
        if (fromInitiator || size != kAcceptBytes)
            return false;
        out.newConnectionId = reader.take64();
        out.parameters = takeParameters(reader);
        return true;
    case DatagramKind::reset:
        return size == kHeaderBytes;
    case DatagramKind::data:
        return decodeData(reader, out);
    }
    return false;
}

bool isKnownKind(std::uint8_t kind) {
    return kind >= static_cast<std::uint8_t>(DatagramKind::request) &&
           kind <= static_cast<std::uint8_t>(DatagramKind::data);
}

} // namespace

DecodeError decodeDatagram(std::span<const std::uint8_t> bytes, DecodedDatagram& out) {
    if (bytes.size() < kHeaderBytes)
        return DecodeError::tooShort;
    if (load32(bytes.data()) != crc32c(bytes.subspan(kChecksumBytes)))
        return DecodeError::checksum;
    if (!isKnownKind(bytes[kKindAt]) || bytes[kVersionAt] != kProtocolVersion)
        return DecodeError::unknownKind;
    const std::uint8_t flags = bytes[kFlagsAt];
    if ((flags & ~kFlagFromInitiator) != 0 || bytes[kReservedAt] != 0)
        return DecodeError::badFrame;
    out.header.kind = static_cast<DatagramKind>(bytes[kKindAt]);
    out.header.fromInitiator = flags != 0;
    out.header.connectionId = load64(bytes.data() + kConnectionIdAt);
    Reader reader(bytes.subspan(kHeaderBytes));
    return decodeBody(reader, out) ? DecodeError::none : DecodeError::badFrame;
}

} // namespace kor::detail
