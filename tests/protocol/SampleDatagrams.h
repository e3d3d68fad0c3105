#pragma once

#include "support/net/wire/Crc32c.h"
#include "support/net/wire/Datagram.h"
#include "support/net/wire/LittleEndian.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

/// Seeded random datagrams and broken ones, for the tests of the format, its second decoder and the fuzzer.
namespace kor::samples {

using namespace kor::detail;
using Bytes = std::vector<std::uint8_t>;

/// The same numbers from the same seed everywhere, which the standard's distributions do not promise.
class Random {
public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}
    std::uint64_t any() { return engine_(); }
    std::uint32_t any32() { return static_cast<std::uint32_t>(engine_()); }
    std::size_t below(std::size_t bound) { return static_cast<std::size_t>(engine_() % bound); }
    bool oneIn(std::size_t n) { return below(n) == 0; }

    /// Any value, with those at the edges of the range often.
    std::uint64_t edgy() {
        switch (below(4)) {
        case 0:
            return below(3);
        case 1:
            return ~std::uint64_t{below(3)};
        default:
            return any();
        }
    }

private:
    std::mt19937_64 engine_;
};

inline bool sameMeaning(const AckFrame& a, const AckFrame& b) {
    const auto sameRange = [](const AckFrame::Range& x, const AckFrame::Range& y) {
        return x.last == y.last && x.count == y.count;
    };
    return a.delayMicroseconds == b.delayMicroseconds && a.consumed == b.consumed &&
           std::equal(a.ranges.begin(), a.ranges.begin() + a.rangeCount, b.ranges.begin(),
                      b.ranges.begin() + b.rangeCount, sameRange);
}

inline bool sameMeaning(const TimeFrame& a, const TimeFrame& b) {
    return a.sent == b.sent && a.hasEcho == b.hasEcho &&
           (!a.hasEcho || (a.echoSent == b.echoSent && a.echoReceived == b.echoReceived));
}

inline bool sameMeaning(const FragmentFrame& a, const FragmentFrame& b) {
    return a.packetId == b.packetId && a.packetSize == b.packetSize && a.offset == b.offset &&
           std::ranges::equal(a.bytes, b.bytes);
}

inline bool sameMeaning(const ConnectionParameters& a, const ConnectionParameters& b) {
    return a.maxPacketBytes == b.maxPacketBytes && a.receiveLimitBytes == b.receiveLimitBytes &&
           a.socketBufferBytes == b.socketBufferBytes && a.maxDatagramPayload == b.maxDatagramPayload;
}

template <typename Frame>
bool sameOptional(const std::optional<Frame>& a, const std::optional<Frame>& b) {
    return a.has_value() == b.has_value() && (!a || sameMeaning(*a, *b));
}

inline bool sameMeaning(const DecodedDatagram& a, const DecodedDatagram& b) {
    if (a.header.kind != b.header.kind || a.header.fromInitiator != b.header.fromInitiator ||
        a.header.connectionId != b.header.connectionId)
        return false;
    switch (a.header.kind) {
    case DatagramKind::challenge:
        return a.cookie == b.cookie && a.cookieTime == b.cookieTime;
    case DatagramKind::response:
        return a.cookie == b.cookie && a.cookieTime == b.cookieTime &&
               sameMeaning(a.parameters, b.parameters);
    case DatagramKind::accept:
        return a.newConnectionId == b.newConnectionId && sameMeaning(a.parameters, b.parameters);
    case DatagramKind::data:
        return a.number == b.number && a.ping == b.ping && a.padding == b.padding && a.close == b.close &&
               sameOptional(a.ack, b.ack) && sameOptional(a.time, b.time) &&
               std::equal(a.fragments.begin(), a.fragments.begin() + a.fragmentCount, b.fragments.begin(),
                          b.fragments.begin() + b.fragmentCount,
                          [](const FragmentFrame& x, const FragmentFrame& y) { return sameMeaning(x, y); });
    default:
        return true;
    }
}

/// Writes a datagram with that meaning. Data frames come in random order when `shuffle` is given. Padding
/// goes up to `size`, which is also the size of the buffer.
inline Bytes encode(const DecodedDatagram& meaning, std::size_t size, Random* shuffle = nullptr) {
    const std::uint64_t id = meaning.header.connectionId;
    Bytes out(std::max(size, kHandshakeBytes), 0xEE); // a buffer that has been used before
    const auto cut = [&out](std::size_t written) {
        out.resize(written);
        return out;
    };
    switch (meaning.header.kind) {
    case DatagramKind::request:
        return cut(writeRequest(out, id));
    case DatagramKind::challenge:
        return cut(writeChallenge(out, id, meaning.cookie, meaning.cookieTime));
    case DatagramKind::response:
        return cut(writeResponse(out, id, meaning.cookie, meaning.cookieTime, meaning.parameters));
    case DatagramKind::accept:
        return cut(writeAccept(out, id, meaning.newConnectionId, meaning.parameters));
    case DatagramKind::reset:
        return cut(writeReset(out, id, meaning.header.fromInitiator));
    case DatagramKind::data:
        break;
    }

    std::vector<char> order(meaning.fragmentCount, 'f');
    if (meaning.ack)
        order.push_back('a');
    if (meaning.time)
        order.push_back('t');
    if (meaning.ping)
        order.push_back('p');
    if (meaning.close)
        order.push_back('c');
    for (std::size_t i = order.size(); shuffle != nullptr && i > 1; --i)
        std::swap(order[i - 1], order[shuffle->below(i)]);

    DatagramWriter writer{std::span(out).first(size), id, meaning.header.fromInitiator, meaning.number};
    std::size_t fragment = 0;
    bool written = true;
    for (const char frame : order)
        if (frame == 'f')
            written = written && writer.addFragment(meaning.fragments[fragment++]);
        else if (frame == 'a')
            written = written && writer.addAck(*meaning.ack);
        else if (frame == 't')
            written = written && writer.addTime(*meaning.time);
        else
            written = written && (frame == 'p' ? writer.addPing() : writer.addClose());
    if (meaning.padding)
        written = written && writer.addPaddingTo(size);
    return written ? cut(writer.finish()) : Bytes{};
}

/// A valid datagram, and what it says.
struct Sample {
    Bytes content; ///< of the fragments, which point into it
    DecodedDatagram meaning;
    Bytes bytes;
};

inline AckFrame randomAck(Random& random) {
    AckFrame ack;
    ack.delayMicroseconds = static_cast<std::uint32_t>(random.edgy());
    ack.consumed = static_cast<std::uint32_t>(random.edgy());
    ack.rangeCount = 1 + random.below(random.oneIn(3) ? kMaxAckRanges : 3);
    const std::size_t longest = random.oneIn(3) ? 0xFFFF : 20;
    auto last = static_cast<std::uint32_t>(random.oneIn(2) ? random.edgy() : random.below(300));
    for (std::size_t i = 0; i < ack.rangeCount; ++i) {
        const auto count = static_cast<std::uint32_t>(1 + random.below(longest));
        ack.ranges[i] = {last, count};
        last -= count + 1 + static_cast<std::uint32_t>(random.below(longest));
    }
    return ack;
}

inline void addFragments(Sample& sample, Random& random, std::size_t count, std::size_t longest) {
    sample.content.resize(longest + 1000);
    for (std::uint8_t& byte : sample.content)
        byte = static_cast<std::uint8_t>(random.any());
    sample.meaning.fragmentCount = count;
    for (std::size_t i = 0; i < count; ++i) {
        FragmentFrame& fragment = sample.meaning.fragments[i];
        const std::size_t length = 1 + random.below(longest);
        fragment.bytes = std::span(sample.content).subspan(random.below(1000), length);
        fragment.packetId = static_cast<std::uint32_t>(random.edgy());
        const auto limit = UINT32_MAX - static_cast<std::uint32_t>(length);
        fragment.offset = std::min(static_cast<std::uint32_t>(random.edgy()), limit);
        const std::uint32_t end = fragment.offset + static_cast<std::uint32_t>(length);
        fragment.packetSize = std::max(end, static_cast<std::uint32_t>(random.edgy()));
    }
}

/// A random datagram of at most `limit` bytes (300 at least).
inline Sample randomSample(Random& random, std::size_t limit) {
    Sample sample;
    DecodedDatagram& meaning = sample.meaning;
    DatagramHeader& header = meaning.header;
    header.kind = random.oneIn(3) ? static_cast<DatagramKind>(1 + random.below(5)) : DatagramKind::data;
    header.fromInitiator = random.oneIn(2);
    if (header.kind == DatagramKind::request || header.kind == DatagramKind::response)
        header.fromInitiator = true;
    if (header.kind == DatagramKind::challenge || header.kind == DatagramKind::accept)
        header.fromInitiator = false;
    header.connectionId = random.edgy();
    meaning.cookie = random.any();
    meaning.cookieTime = static_cast<Nanoseconds>(random.edgy());
    meaning.newConnectionId = random.any();
    for (std::uint32_t* field :
         {&meaning.parameters.maxPacketBytes, &meaning.parameters.receiveLimitBytes,
          &meaning.parameters.socketBufferBytes, &meaning.parameters.maxDatagramPayload})
        *field = static_cast<std::uint32_t>(random.edgy());
    meaning.number = static_cast<std::uint32_t>(random.edgy());
    if (random.oneIn(2))
        meaning.ack = randomAck(random);
    if (random.oneIn(3)) {
        const auto stamp = [&random] { return static_cast<Nanoseconds>(random.edgy()); };
        meaning.time = TimeFrame{stamp(), random.oneIn(2), stamp(), stamp()};
    }
    meaning.ping = random.oneIn(3);
    meaning.padding = random.oneIn(6);
    meaning.close = random.oneIn(8);
    const std::size_t room = limit - kDataHeaderBytes - kTimeEchoFrameBytes - 140 - 3;
    const std::size_t most = std::min(room / (kFragmentHeaderBytes + 1), kMaxFragmentsPerDatagram);
    const std::size_t count = random.oneIn(8) ? most : random.below(4);
    if (count > 0)
        addFragments(sample, random, count,
                     std::min<std::size_t>(room / count - kFragmentHeaderBytes, UINT16_MAX));
    if (!meaning.ack && !meaning.time && !meaning.close && !meaning.padding && count == 0)
        meaning.ping = true;
    sample.bytes = encode(meaning, limit - random.below(3), &random);
    return sample;
}

/// Makes the checksum fit again, so that what was changed reaches the checks behind it.
inline void fixChecksum(Bytes& bytes) {
    if (bytes.size() >= kHeaderBytes)
        store32(bytes.data(), crc32c(std::span(bytes).subspan(4)));
}

/// Breaks a datagram at one to three places, most often where the frames begin.
inline Bytes mutate(Bytes bytes, Random& random, const Bytes& other) {
    for (std::size_t left = 1 + random.below(3); left > 0; --left) {
        const std::size_t reach = random.oneIn(3) ? kDataHeaderBytes : std::size_t{120};
        const std::size_t at = random.below(std::min(bytes.size(), reach) + 1);
        const std::size_t room = bytes.size() - at;
        switch (random.below(6)) {
        case 0:
            if (room >= 1)
                bytes[at] = static_cast<std::uint8_t>(bytes[at] ^ 1u << random.below(8));
            break;
        case 1:
            if (room >= 1)
                bytes[at] = static_cast<std::uint8_t>(random.below(10));
            break;
        case 2:
            if (room >= 4)
                store32(&bytes[at], static_cast<std::uint32_t>(random.edgy()));
            break;
        case 3:
            if (room >= 2)
                store16(&bytes[at], static_cast<std::uint16_t>(random.edgy()));
            break;
        case 4: // cut off, anywhere
            bytes.resize(random.oneIn(2) ? random.below(bytes.size() + 1) : at);
            break;
        default: // the frames of another one behind, which makes some of them double or too many
            if (other.size() > kDataHeaderBytes)
                bytes.insert(bytes.end(), other.begin() + kDataHeaderBytes, other.end());
            break;
        }
    }
    return bytes;
}

} // namespace kor::samples
