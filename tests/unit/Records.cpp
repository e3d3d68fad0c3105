#include <kor/KorCoders.h>
#include <kor/Record.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

using namespace kor;

namespace {

struct Buffer {
    std::array<unsigned char, 256> bytes{};
    BufferWriter writer{bytes.data(), static_cast<int>(bytes.size())};

    BufferReader reader() const {
        return BufferReader(bytes.data(), static_cast<std::uint32_t>(writer.tell()));
    }
};

TEST(Records, BeginIsTheseBytes) {
    Buffer buffer;
    KorCoderBase::codeBegin(buffer.writer, 7);
    const std::array<unsigned char, 10> expected{4, 10, 0, 0, 0, 1, 7, 0, 0, 0};
    ASSERT_EQ(buffer.writer.tell(), 10);
    EXPECT_EQ(std::memcmp(buffer.bytes.data(), expected.data(), 10), 0);
}

TEST(Records, AllComeBackFromOneBuffer) {
    Buffer buffer;
    BufferWriter& writer = buffer.writer;
    KorCoderBase::codeBegin(writer, -3);
    KorCoderBase::codeSlaveTimeInServer(writer, 1.5, 90.25);
    EXPECT_EQ(writer.tell(), 32);
    EXPECT_TRUE(KorCoderBase::codeTimeCheckResult(writer, -0.5));
    EXPECT_TRUE(KorCoderBase::codeFrameAck(writer, 11));
    EXPECT_TRUE(KorCoderBase::codeSwap(writer, 12));
    EXPECT_EQ(writer.tell(), 66);
    EXPECT_TRUE(KorMsg::codeBroadcast(writer, 7000, 8));
    EXPECT_EQ(buffer.bytes[66], 0xFF);
    KorCoderBase::codeEnd(writer);
    EXPECT_EQ(writer.tell(), 86);

    BufferReader reader = buffer.reader();
    int a = 0;
    int b = 0;
    double x = 0;
    double y = 0;
    EXPECT_TRUE(KorCoderBase::decodeBegin(reader, a) && a == -3);
    EXPECT_TRUE(KorCoderBase::decodeSlaveTimeInServer(reader, x, y) && x == 1.5 && y == 90.25);
    EXPECT_TRUE(KorCoderBase::decodeTimeCheckResult(reader, x) && x == -0.5);
    EXPECT_TRUE(KorCoderBase::decodeFrameAck(reader, a) && a == 11);
    EXPECT_TRUE(KorCoderBase::decodeSwap(reader, a) && a == 12);
    EXPECT_TRUE(KorMsg::decodeBroadcast(reader, a, b) && a == 7000 && b == 8);
    EXPECT_TRUE(KorCoderBase::decodeEnd(reader));
    EXPECT_EQ(reader.remaining(), 0);
}

TEST(Records, ARejectedDecodeChangesNothing) {
    Buffer buffer;
    KorCoderBase::codeEnd(buffer.writer);
    KorCoderBase::codeBegin(buffer.writer, 5);
    BufferReader reader = buffer.reader();
    int frame = 99;
    EXPECT_FALSE(KorCoderBase::decodeBegin(reader, frame));
    EXPECT_EQ(reader.position, 0);
    EXPECT_TRUE(KorCoderBase::decodeEnd(reader));

    buffer.bytes[11] = 2; // version
    EXPECT_FALSE(KorCoderBase::decodeBegin(reader, frame));
    EXPECT_EQ(reader.position, 6);
    buffer.bytes[11] = 1;
    EXPECT_EQ(frame, 99);
    buffer.bytes[7] = 200; // a wrong length is nothing to a decoder
    EXPECT_TRUE(KorCoderBase::decodeBegin(reader, frame));
    EXPECT_EQ(frame, 5);
}

/// Decodes every truncation of the record in the buffer; `decode` must refuse all but the whole one.
template <class Decode>
void expectOnlyTheWhole(const Buffer& buffer, Decode decode) {
    const auto whole = static_cast<std::uint32_t>(buffer.writer.tell());
    for (std::uint32_t size = 0; size <= whole; ++size) {
        const std::vector<unsigned char> cut(buffer.bytes.begin(), buffer.bytes.begin() + size);
        BufferReader reader(cut.data(), size);
        EXPECT_EQ(decode(reader), size == whole) << size << " of " << whole;
        EXPECT_EQ(reader.position, size == whole ? static_cast<int>(whole) : 0);
    }
}

TEST(Records, EveryTruncationIsRejectedAndChangesNothing) {
    int a = 99;
    int b = 98;
    double x = 97;
    double y = 96;
    const auto untouched = [&] { return a == 99 && b == 98 && x == 97 && y == 96; };
    const auto check = [&](auto encode, auto decode) {
        Buffer buffer;
        encode(buffer.writer);
        expectOnlyTheWhole(buffer, [&](BufferReader& reader) {
            const bool decoded = decode(reader);
            EXPECT_TRUE(decoded || untouched());
            return decoded;
        });
        a = 99;
        b = 98;
        x = 97;
        y = 96;
    };
    check([](BufferWriter& w) { KorCoderBase::codeBegin(w, 5); },
          [&](BufferReader& r) { return KorCoderBase::decodeBegin(r, a); });
    check([](BufferWriter& w) { KorCoderBase::codeEnd(w); },
          [](BufferReader& r) { return KorCoderBase::decodeEnd(r); });
    check([](BufferWriter& w) { KorCoderBase::codeSlaveTimeInServer(w, 1, 2); },
          [&](BufferReader& r) { return KorCoderBase::decodeSlaveTimeInServer(r, x, y); });
    check([](BufferWriter& w) { KorCoderBase::codeTimeCheckResult(w, 1); },
          [&](BufferReader& r) { return KorCoderBase::decodeTimeCheckResult(r, x); });
    check([](BufferWriter& w) { KorCoderBase::codeFrameAck(w, 1); },
          [&](BufferReader& r) { return KorCoderBase::decodeFrameAck(r, a); });
    check([](BufferWriter& w) { KorCoderBase::codeSwap(w, 1); },
          [&](BufferReader& r) { return KorCoderBase::decodeSwap(r, a); });
    check([](BufferWriter& w) { KorMsg::codeBroadcast(w, 1, 2); },
          [&](BufferReader& r) { return KorMsg::decodeBroadcast(r, a, b); });
}

TEST(Records, AnEncoderWritesAWholeRecordOrNothing) {
    for (int room = 0; room < 10; ++room) {
        std::array<unsigned char, 16> bytes;
        bytes.fill(0xAA);
        BufferWriter writer(bytes.data(), room);
        KorCoderBase::codeBegin(writer, 1);
        const int start = beginRecord(writer, 9);
        endRecord(writer, start);
        const int written = room < 6 ? 0 : 6;
        EXPECT_EQ(writer.tell(), written);
        for (std::size_t i = static_cast<std::size_t>(written); i < bytes.size(); ++i)
            EXPECT_EQ(bytes[i], 0xAA);
    }
}

TEST(Records, AScanSkipsWhatItDoesNotKnow) {
    Buffer buffer;
    KorCoderBase::codeBegin(buffer.writer, 3);
    const int start = beginRecord(buffer.writer, 9);
    buffer.writer.writeDouble(1);
    buffer.writer.writeInt(2);
    endRecord(buffer.writer, start);
    KorCoderBase::codeEnd(buffer.writer);

    BufferReader reader = buffer.reader();
    int frame = 0;
    EXPECT_FALSE(KorCoderBase::decodeEnd(reader));
    EXPECT_TRUE(KorCoderBase::decodeBegin(reader, frame));
    EXPECT_EQ(frame, 3);
    EXPECT_FALSE(KorCoderBase::decodeEnd(reader));
    EXPECT_TRUE(skipRecord(reader));
    EXPECT_EQ(reader.position, 10 + 18);
    EXPECT_TRUE(KorCoderBase::decodeEnd(reader));
    EXPECT_FALSE(skipRecord(reader));
}

TEST(Records, AScanStopsAtAnUnsoundLength) {
    std::array<unsigned char, 12> bytes{};
    BufferWriter writer(bytes.data(), 12);
    for (const int length : {-2147483647 - 1, -1, 0, 5, 13, 2147483647}) {
        writer.seekSet(1);
        writer.writeInt(length);
        BufferReader reader(bytes.data(), 12);
        EXPECT_FALSE(skipRecord(reader)) << length;
        EXPECT_EQ(reader.position, 0);
    }
    writer.seekSet(1);
    writer.writeInt(12);
    for (std::uint32_t size = 0; size < 12; ++size) {
        BufferReader cut(bytes.data(), size);
        EXPECT_FALSE(skipRecord(cut)) << size;
    }
}

TEST(Records, ValuesComeBackElementByElement) {
    Buffer buffer;
    BufferWriter& writer = buffer.writer;
    dmat4 wide;
    mat4 narrow;
    for (int i = 0; i < 16; ++i) {
        wide.m[i] = i + 1;
        narrow.m[i] = static_cast<float>(-i);
    }
    EXPECT_TRUE(KorKit::writeDMat4(writer, wide));
    EXPECT_EQ(writer.tell(), 128);
    EXPECT_TRUE(KorKit::writeMat4(writer, narrow));
    EXPECT_TRUE(KorKit::writeVec3(writer, {1, 2, 3}));
    EXPECT_TRUE(KorKit::writeDVec3(writer, {4, 5, 6}));
    EXPECT_EQ(writer.tell(), 128 + 64 + 12 + 24);
    BufferReader reader = buffer.reader();
    EXPECT_EQ(reader.readDouble(), 1.0);
    reader.seekSet(0);
    EXPECT_EQ(KorMsg::readDMat4(reader), wide);
    EXPECT_EQ(KorMsg::readMat4(reader), narrow);
    EXPECT_EQ(KorMsg::readVec3(reader), (vec3{1, 2, 3}));
    EXPECT_EQ(KorMsg::readDVec3(reader), (dvec3{4, 5, 6}));
    EXPECT_EQ(KorKit::readDQuat(reader), dquat{});

    writer.seekSet(0);
    KorKit::writeVec4(writer, {1, 2, 3, 4});
    KorMsg::writeQuat(writer, {1, 2, 3, 4});
    KorKit::writeDQuat(writer, {5, 6, 7, 8});
    EXPECT_EQ(writer.tell(), 64);
    EXPECT_EQ(std::memcmp(buffer.bytes.data(), buffer.bytes.data() + 16, 16), 0);
    reader.seekSet(0);
    EXPECT_EQ(KorKit::readQuat(reader), (quat{1, 2, 3, 4}));
    EXPECT_EQ(KorKit::readVec4(reader), (vec4{1, 2, 3, 4}));
    EXPECT_EQ(KorKit::readDQuat(reader), (dquat{5, 6, 7, 8}));
}

TEST(Records, AValueThatDoesNotFitLeavesNoPartBehind) {
    std::array<unsigned char, 16> bytes{};
    BufferWriter writer(bytes.data(), 15);
    EXPECT_TRUE(KorKit::writeVec4(writer, {1, 1, 1, 1}));
    EXPECT_TRUE(KorKit::writeMat4(writer, {}));
    EXPECT_EQ(writer.tell(), 0);
    EXPECT_EQ(bytes, (std::array<unsigned char, 16>{}));
}

} // namespace
