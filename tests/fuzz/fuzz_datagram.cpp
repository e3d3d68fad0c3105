#include "tests/protocol/SampleDatagrams.h"

#include <cstdio>
#include <cstdlib>

// The datagram decoder: what it accepts lies within the datagram, and says the same when it is written again.

namespace {

using namespace kor::samples;

void require(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
}

bool within(std::span<const std::uint8_t> outer, std::span<const std::uint8_t> inner) {
    return inner.data() >= outer.data() && inner.data() + inner.size() <= outer.data() + outer.size();
}

void checkFrames(const DecodedDatagram& datagram, const Bytes& bytes) {
    require(datagram.fragmentCount <= kMaxFragmentsPerDatagram, "number of fragments");
    for (std::size_t i = 0; i < datagram.fragmentCount; ++i) {
        const FragmentFrame& fragment = datagram.fragments[i];
        require(!fragment.bytes.empty() && within(bytes, fragment.bytes), "fragment within the datagram");
        require(fragment.bytes.size() <= fragment.packetSize, "fragment smaller than its packet");
        require(fragment.offset <= fragment.packetSize - fragment.bytes.size(), "fragment within its packet");
    }
    if (!datagram.ack)
        return;
    require(datagram.ack->rangeCount >= 1 && datagram.ack->rangeCount <= kMaxAckRanges, "number of ranges");
    for (std::size_t i = 0; i < datagram.ack->rangeCount; ++i)
        require(datagram.ack->ranges[i].count >= 1, "empty range");
}

void decodeAndCompare(const Bytes& bytes) {
    static DecodedDatagram datagram; // kept from one input to the next, as the connection layer does
    static DecodedDatagram again;
    if (decodeDatagram(bytes, datagram) != DecodeError::none)
        return;
    const bool data = datagram.header.kind == DatagramKind::data;
    if (data)
        checkFrames(datagram, bytes);

    const Bytes rewritten = encode(datagram, bytes.size());
    require(rewritten.size() == bytes.size(), "size when written again");
    require(data || rewritten == bytes, "bytes when written again");
    require(decodeDatagram(rewritten, again) == DecodeError::none, "decodes when written again");
    require(sameMeaning(datagram, again), "meaning when written again");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Bytes bytes(data, data + size);
    decodeAndCompare(bytes);
    // A fuzzer does not guess checksums.
    fixChecksum(bytes);
    decodeAndCompare(bytes);
    return 0;
}
