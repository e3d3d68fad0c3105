#include "tests/protocol/SampleDatagrams.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <iostream>
#include <string>

// Prints datagrams, one a line as a JSON object: "bytes" in hexadecimal, "verdict" and, when it is "none",
// "fields".
//   generate_datagrams [SEED [COUNT]]

namespace {

using namespace kor::samples;
using nlohmann::json;

std::string hex(std::span<const std::uint8_t> bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

const char* name(DecodeError error) {
    switch (error) {
    case DecodeError::none:
        return "none";
    case DecodeError::tooShort:
        return "tooShort";
    case DecodeError::checksum:
        return "checksum";
    case DecodeError::unknownKind:
        return "unknownKind";
    case DecodeError::badFrame:
        return "badFrame";
    }
    return "?";
}

json parameterFields(const ConnectionParameters& parameters) {
    return {{"maxPacketBytes", parameters.maxPacketBytes},
            {"receiveLimitBytes", parameters.receiveLimitBytes},
            {"socketBufferBytes", parameters.socketBufferBytes},
            {"maxDatagramPayload", parameters.maxDatagramPayload}};
}

json ackFields(const AckFrame& ack) {
    json ranges = json::array();
    for (std::size_t i = 0; i < ack.rangeCount; ++i)
        ranges.push_back(json::array({ack.ranges[i].last, ack.ranges[i].count}));
    return {{"delayMicroseconds", ack.delayMicroseconds}, {"consumed", ack.consumed}, {"ranges", ranges}};
}

json timeFields(const TimeFrame& time) {
    if (!time.hasEcho)
        return {{"sent", time.sent}};
    return {{"sent", time.sent}, {"echoSent", time.echoSent}, {"echoReceived", time.echoReceived}};
}

json dataFields(const DecodedDatagram& datagram) {
    json fields = {{"number", datagram.number}, {"fragments", json::array()}};
    for (std::size_t i = 0; i < datagram.fragmentCount; ++i) {
        const FragmentFrame& fragment = datagram.fragments[i];
        fields["fragments"].push_back({{"packetId", fragment.packetId},
                                       {"packetSize", fragment.packetSize},
                                       {"offset", fragment.offset},
                                       {"bytes", hex(fragment.bytes)}});
    }
    if (datagram.ack)
        fields["ack"] = ackFields(*datagram.ack);
    if (datagram.time)
        fields["time"] = timeFields(*datagram.time);
    if (datagram.ping)
        fields["ping"] = true;
    if (datagram.padding)
        fields["padding"] = true;
    if (datagram.close)
        fields["close"] = true;
    return fields;
}

json allFields(const DecodedDatagram& datagram) {
    const DatagramKind kind = datagram.header.kind;
    json fields = kind == DatagramKind::data ? dataFields(datagram) : json::object();
    fields["kind"] = static_cast<int>(kind);
    fields["fromInitiator"] = datagram.header.fromInitiator;
    fields["connectionId"] = datagram.header.connectionId;
    if (kind == DatagramKind::challenge || kind == DatagramKind::response) {
        fields["cookie"] = datagram.cookie;
        fields["cookieTime"] = datagram.cookieTime;
    }
    if (kind == DatagramKind::accept)
        fields["newConnectionId"] = datagram.newConnectionId;
    if (kind == DatagramKind::response || kind == DatagramKind::accept)
        fields["parameters"] = parameterFields(datagram.parameters);
    return fields;
}

void print(const Bytes& bytes, DecodeError verdict, const DecodedDatagram& meaning) {
    json line = {{"bytes", hex(bytes)}, {"verdict", name(verdict)}};
    if (verdict == DecodeError::none)
        line["fields"] = allFields(meaning);
    std::cout << line << '\n';
}

std::size_t randomLimit(Random& random) {
    if (random.oneIn(100))
        return kMaxDatagramBytes;
    return random.oneIn(5) ? 1472 + random.below(8000) : 300;
}

/// Valid ones with what was put in, broken ones with what the library makes of them.
bool printDatagrams(std::uint64_t seed, std::size_t count) {
    Random random(seed);
    DecodedDatagram decoded;
    Bytes other;
    for (std::size_t i = 0; i < count; ++i) {
        const Sample sample = randomSample(random, randomLimit(random));
        if (decodeDatagram(sample.bytes, decoded) != DecodeError::none ||
            !sameMeaning(decoded, sample.meaning)) {
            std::cerr << "the library does not decode its own datagram: " << hex(sample.bytes) << '\n';
            return false;
        }
        print(sample.bytes, DecodeError::none, sample.meaning);
        Bytes broken = mutate(sample.bytes, random, other);
        if (!random.oneIn(10))
            fixChecksum(broken);
        broken.shrink_to_fit(); // so that AddressSanitizer sees the end
        print(broken, decodeDatagram(broken, decoded), decoded);
        other = sample.bytes;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    const std::uint64_t seed = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
    const std::size_t count = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 3000;
    return printDatagrams(seed, count) && std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
