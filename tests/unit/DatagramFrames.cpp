#include "tests/protocol/SampleDatagrams.h"

#include <gtest/gtest.h>

// The limits of single frames: what the writer cuts or refuses, what the decoder rejects.

namespace {

using namespace kor::samples;

/// A data datagram with these bytes for frames, and a checksum that fits.
Bytes dataWith(const Bytes& frames) {
    Bytes bytes(kDataHeaderBytes);
    DatagramWriter(bytes, 1, true, 2);
    bytes.insert(bytes.end(), frames.begin(), frames.end());
    fixChecksum(bytes);
    return bytes;
}

DecodeError decodeFrames(const Bytes& frames) {
    DecodedDatagram datagram;
    return decodeDatagram(dataWith(frames), datagram);
}

Bytes ackBytes(std::uint8_t rangeCount, std::uint16_t length, const std::vector<std::uint16_t>& ranges = {}) {
    Bytes bytes(16 + ranges.size() * 2);
    bytes[0] = 1;
    bytes[13] = rangeCount;
    store16(&bytes[14], length);
    for (std::size_t i = 0; i < ranges.size(); ++i)
        store16(&bytes[16 + 2 * i], ranges[i]);
    return bytes;
}

Bytes fragmentBytes(std::uint32_t packetSize, std::uint32_t offset, std::uint16_t length,
                    std::size_t present) {
    Bytes bytes(15 + present);
    bytes[0] = 2;
    store32(&bytes[5], packetSize);
    store32(&bytes[9], offset);
    store16(&bytes[13], length);
    return bytes;
}

Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

const Bytes kPing = {5};

TEST(DatagramFrames, AckLimits) {
    const auto manyRanges = [](std::uint8_t count) {
        return ackBytes(count, 1, std::vector<std::uint16_t>((count - 1u) * 2, 0xFFFF));
    };
    EXPECT_EQ(decodeFrames(ackBytes(1, 1)), DecodeError::none);
    EXPECT_EQ(decodeFrames(ackBytes(1, 0xFFFF)), DecodeError::none);
    EXPECT_EQ(decodeFrames(manyRanges(32)), DecodeError::none);
    EXPECT_EQ(decodeFrames(manyRanges(33)), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(ackBytes(0, 1)), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(ackBytes(255, 1)), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(ackBytes(1, 0)), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(ackBytes(2, 1, {1, 1})), DecodeError::none);
    EXPECT_EQ(decodeFrames(ackBytes(2, 1, {0, 1})), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(ackBytes(2, 1, {1, 0})), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(ackBytes(2, 1, {1})), DecodeError::badFrame);
}

TEST(DatagramFrames, FragmentLimits) {
    EXPECT_EQ(decodeFrames(fragmentBytes(1, 0, 1, 1)), DecodeError::none);
    EXPECT_EQ(decodeFrames(fragmentBytes(UINT32_MAX, UINT32_MAX - 1, 1, 1)), DecodeError::none);
    EXPECT_EQ(decodeFrames(fragmentBytes(0, 0, 1, 1)), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(fragmentBytes(1, 0, 0, 0)), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(fragmentBytes(8, 0, 8, 7)), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(fragmentBytes(8, 1, 8, 8)), DecodeError::badFrame);
    EXPECT_EQ(decodeFrames(fragmentBytes(8, UINT32_MAX, 2, 2)), DecodeError::badFrame) << "wraps at 32 bits";
    EXPECT_EQ(decodeFrames(fragmentBytes(UINT32_MAX, UINT32_MAX, 1, 1)), DecodeError::badFrame);
    Bytes many;
    for (std::size_t i = 0; i < kMaxFragmentsPerDatagram; ++i)
        many = joined({many, fragmentBytes(1, 0, 1, 1)});
    EXPECT_EQ(decodeFrames(many), DecodeError::none);
    EXPECT_EQ(decodeFrames(joined({many, fragmentBytes(1, 0, 1, 1)})), DecodeError::badFrame);
}

TEST(DatagramFrames, PaddingIsZeroToTheEnd) {
    EXPECT_EQ(decodeFrames(joined({kPing, {6}, Bytes(1400, 0)})), DecodeError::none);
    EXPECT_EQ(decodeFrames(joined({{6}, kPing})), DecodeError::badFrame);
    for (const std::size_t at : {0u, 1u, 700u, 1399u}) {
        Bytes zeros(1400, 0);
        zeros[at] = 6;
        EXPECT_EQ(decodeFrames(joined({{6}, zeros})), DecodeError::badFrame) << at;
    }
}

/// Writes one acknowledgement into a datagram of `size` bytes and gives what is decoded.
std::optional<AckFrame> written(const AckFrame& ack, std::size_t size = 200) {
    Bytes bytes(size);
    DatagramWriter writer(bytes, 1, true, 2);
    if (!writer.addAck(ack)) {
        EXPECT_TRUE(writer.empty());
        return std::nullopt;
    }
    bytes.resize(writer.finish());
    DecodedDatagram datagram;
    EXPECT_EQ(decodeDatagram(bytes, datagram), DecodeError::none);
    return datagram.ack;
}

TEST(DatagramFrames, AckIsCutWhereItsFieldsEnd) {
    AckFrame ack;
    ack.rangeCount = 3;
    ack.ranges[0] = {70'000u, 0xFFFF};
    ack.ranges[1] = {70'000u - 0xFFFF - 0xFFFF, 0xFFFF};
    ack.ranges[2] = {70'000u - 3 * 0xFFFF - 1, 1};
    EXPECT_TRUE(sameMeaning(*written(ack), ack)) << "over the wrap";

    AckFrame longRun = ack;
    longRun.ranges[1].count = 0x10000;
    longRun.ranges[2].last -= 1;
    AckFrame expected = ack;
    expected.rangeCount = 2;
    EXPECT_TRUE(sameMeaning(*written(longRun), expected)) << "a run that is cut ends the report";

    AckFrame wideGap = ack;
    wideGap.ranges[1].last -= 1;
    expected.rangeCount = 1;
    EXPECT_TRUE(sameMeaning(*written(wideGap), expected)) << "so does a gap that cannot be written";
}

TEST(DatagramFrames, AckDropsItsOldestRangesForWantOfRoom) {
    AckFrame ack;
    ack.rangeCount = kMaxAckRanges;
    for (std::uint32_t i = 0; i < kMaxAckRanges; ++i)
        ack.ranges[i] = {100 - 4 * i, 2};
    for (std::size_t room = 0; room < 200; ++room) {
        const std::optional<AckFrame> result = written(ack, kDataHeaderBytes + room);
        AckFrame expected = ack;
        expected.rangeCount = room < 16 ? 0 : std::min<std::size_t>(1 + (room - 16) / 4, kMaxAckRanges);
        ASSERT_EQ(result.has_value(), expected.rangeCount > 0) << room;
        if (result)
            ASSERT_TRUE(sameMeaning(*result, expected)) << room;
    }
}

TEST(DatagramFrames, WriterRefusesWhatDoesNotFit) {
    const Bytes content(0x10000, 0xAB);
    for (std::size_t room = 0; room < 40; ++room) {
        Bytes bytes(kDataHeaderBytes + room);
        const auto make = [&bytes] { return DatagramWriter(bytes, 1, true, 2); };
        EXPECT_EQ(make().addTime({1, false, 0, 0}), room >= 9);
        EXPECT_EQ(make().addTime({1, true, 2, 3}), room >= 25);
        EXPECT_EQ(make().addPing(), room >= 1);
        EXPECT_EQ(make().addClose(), room >= 1);
        EXPECT_EQ(make().addPaddingTo(bytes.size()), room >= 1);
        EXPECT_FALSE(make().addPaddingTo(bytes.size() + 1));
        EXPECT_EQ(make().fragmentRoom(), room > 15 ? room - 15 : 0);
        DatagramWriter writer = make();
        const std::size_t fits = writer.fragmentRoom();
        EXPECT_FALSE(writer.addFragment({1, 100, 0, std::span(content).first(fits + 1)}));
        EXPECT_TRUE(writer.empty());
        if (fits > 0)
            EXPECT_TRUE(writer.addFragment({1, 100, 0, std::span(content).first(fits)}));
        EXPECT_EQ(writer.fragmentRoom(), 0u);
    }
    Bytes huge(0x20000);
    EXPECT_EQ(DatagramWriter(huge, 1, true, 2).fragmentRoom(), 0xFFFFu) << "the length has 16 bits";
}

TEST(DatagramFrames, WriterRefusesASecondOne) {
    Bytes bytes(2000);
    DatagramWriter writer(bytes, 1, true, 2);
    AckFrame ack;
    ack.rangeCount = 1;
    ack.ranges[0] = {1, 1};
    const auto addAll = [&] {
        return std::array{writer.addAck(ack), writer.addTime({1, true, 2, 3}), writer.addPing(),
                          writer.addClose()};
    };
    EXPECT_EQ(addAll(), (std::array{true, true, true, true}));
    const std::size_t size = writer.size();
    EXPECT_EQ(addAll(), (std::array{false, false, false, false}));
    EXPECT_FALSE(writer.addTime({1, false, 0, 0}));
    EXPECT_EQ(writer.size(), size);
    const Bytes content(1, 7);
    for (std::size_t i = 0; i < kMaxFragmentsPerDatagram; ++i)
        EXPECT_TRUE(writer.addFragment({1, 1, 0, content}));
    EXPECT_EQ(writer.fragmentRoom(), 0u);
    EXPECT_FALSE(writer.addFragment({1, 1, 0, content}));
    EXPECT_TRUE(writer.addPaddingTo(1900));
    EXPECT_FALSE(writer.addPaddingTo(1950)) << "nothing comes after padding";
    EXPECT_EQ(writer.finish(), 1900u);
    bytes.resize(1900);
    DecodedDatagram datagram;
    EXPECT_EQ(decodeDatagram(bytes, datagram), DecodeError::none);
}

} // namespace
