#include "tests/protocol/SampleDatagrams.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using namespace kor::samples;

DecodeError decode(const Bytes& bytes) {
    static DecodedDatagram datagram; // dirty from one to the next, as in the connection layer
    return decodeDatagram(bytes, datagram);
}

/// Decodes once the checksum fits again.
DecodeError decodeFixed(Bytes bytes) {
    fixChecksum(bytes);
    return decode(bytes);
}

AckFrame ackOf(std::initializer_list<AckFrame::Range> ranges) {
    AckFrame ack;
    ack.delayMicroseconds = 3;
    ack.consumed = 4;
    std::ranges::copy(ranges, ack.ranges.begin());
    ack.rangeCount = ranges.size();
    return ack;
}

const Bytes kContent = {1, 2, 3, 4, 5, 6, 7, 8};

struct DataSample {
    Bytes bytes;
    std::set<std::size_t> wholeAt; ///< sizes at which the last frame is complete
};

/// A data datagram with a frame of every type.
DataSample everyFrame(bool echo) {
    DataSample sample;
    sample.bytes.assign(300, 0xEE);
    DatagramWriter writer(sample.bytes, 0xFEDCBA9876543210, echo, 0xFFFFFFFF);
    const auto add = [&](bool written) {
        EXPECT_TRUE(written);
        sample.wholeAt.insert(writer.size());
    };
    add(writer.addFragment({9, 100, 10, kContent}));
    add(writer.addAck(ackOf({{1, 3}, {0xFFFFFFFC, 2}, {10, 1}})));
    add(writer.addTime({1, echo, 2, 3}));
    add(writer.addPing());
    add(writer.addFragment({10, 8, 0, kContent}));
    add(writer.addClose());
    for (std::size_t size = writer.size() + 1; size <= writer.size() + 5; ++size)
        sample.wholeAt.insert(size); // padding may end anywhere
    EXPECT_TRUE(writer.addPaddingTo(writer.size() + 5));
    sample.bytes.resize(writer.finish());
    return sample;
}

std::vector<Bytes> handshakes() {
    std::vector<Bytes> all(5, Bytes(kHandshakeBytes, 0xEE));
    const ConnectionParameters parameters{1, 2, 3, 4};
    all[0].resize(writeRequest(all[0], 5));
    all[1].resize(writeChallenge(all[1], 5, 6, -7));
    all[2].resize(writeResponse(all[2], 5, 6, -7, parameters));
    all[3].resize(writeAccept(all[3], 5, 8, parameters));
    all[4].resize(writeReset(all[4], 8, true));
    return all;
}

TEST(Datagram, HandshakesDecodeWithTheirSizes) {
    const std::vector<Bytes> all = handshakes();
    const std::size_t sizes[] = {128, 32, 128, 40, 16};
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i].size(), sizes[i]);
        EXPECT_EQ(decode(all[i]), DecodeError::none) << i;
        Bytes longer = all[i];
        longer.push_back(0);
        EXPECT_EQ(decodeFixed(longer), DecodeError::badFrame) << i;
    }
}

TEST(Datagram, EveryTruncationIsCaught) {
    std::vector<DataSample> samples = {everyFrame(false), everyFrame(true)};
    for (const Bytes& handshake : handshakes())
        samples.push_back({handshake, {handshake.size()}});
    for (const DataSample& sample : samples) {
        EXPECT_EQ(decode(sample.bytes), DecodeError::none);
        for (std::size_t size = 0; size < sample.bytes.size(); ++size) {
            const Bytes cut(sample.bytes.begin(), sample.bytes.begin() + static_cast<std::ptrdiff_t>(size));
            const bool tooShort = size < kHeaderBytes;
            EXPECT_EQ(decode(cut), tooShort ? DecodeError::tooShort : DecodeError::checksum) << size;
            const DecodeError whole =
                sample.wholeAt.contains(size) ? DecodeError::none : DecodeError::badFrame;
            EXPECT_EQ(decodeFixed(cut), tooShort ? DecodeError::tooShort : whole) << size;
        }
    }
}

// Headers with a value that is not allowed, and a checksum that fits.
TEST(Datagram, HeaderFieldsAreChecked) {
    std::vector<Bytes> all = handshakes();
    all.push_back(everyFrame(false).bytes);
    for (const Bytes& bytes : all) {
        const auto with = [&bytes](std::size_t at, int value) {
            Bytes changed = bytes;
            changed[at] = static_cast<std::uint8_t>(value);
            return decodeFixed(changed);
        };
        for (const int kind : {0, 7, 255})
            EXPECT_EQ(with(4, kind), DecodeError::unknownKind);
        for (const int version : {0, 2, 255})
            EXPECT_EQ(with(5, version), DecodeError::unknownKind);
        for (const int flags : {2, 3, 128})
            EXPECT_EQ(with(6, flags), DecodeError::badFrame);
        EXPECT_EQ(with(7, 1), DecodeError::badFrame);
        const bool oneSided = bytes[4] <= static_cast<std::uint8_t>(DatagramKind::accept);
        EXPECT_EQ(with(6, bytes[6] ^ 1), oneSided ? DecodeError::badFrame : DecodeError::none);
    }
}

} // namespace
