#include <support/BufferReader.h>
#include <support/BufferWriter.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

using namespace kor;

namespace {

/// A copy of the bytes on the heap, so that a sanitizer sees a read just outside.
struct ExactBytes {
    explicit ExactBytes(std::string_view text)
        : size(static_cast<std::uint32_t>(text.size())), bytes(new char[size]) {
        std::memcpy(bytes.get(), text.data(), size);
    }
    std::uint32_t size;
    std::unique_ptr<char[]> bytes;
};

TEST(Buffers, StoreLittleEndianWithoutPadding) {
    std::array<unsigned char, 64> block{};
    BufferWriter writer(block.data(), static_cast<int>(block.size()));
    EXPECT_TRUE(writer.writeChar(-2));
    EXPECT_TRUE(writer.writeInt(0x01020304));
    EXPECT_TRUE(writer.writeUChar(0xFE));
    EXPECT_TRUE(writer.writeFloat(1.0F));
    EXPECT_TRUE(writer.writeDouble(-2.0));
    EXPECT_TRUE(writer.writeString("a\xC3\xA9"));
    const std::array<unsigned char, 22> expected{0xFE, 4, 3, 2, 1, 0xFE, 0,    0,   0x80, 0x3F, 0,
                                                 0,    0, 0, 0, 0, 0,    0xC0, 'a', 0xC3, 0xA9, 0};
    ASSERT_EQ(writer.tell(), static_cast<int>(expected.size()));
    EXPECT_EQ(std::memcmp(writer.getData(), expected.data(), expected.size()), 0);

    BufferReader reader(block.data(), static_cast<std::uint32_t>(expected.size()));
    EXPECT_EQ(reader.readChar(), -2);
    EXPECT_EQ(reader.readInt(), 0x01020304);
    EXPECT_EQ(reader.readUChar(), 0xFE);
    EXPECT_EQ(reader.readFloat(), 1.0F);
    EXPECT_EQ(reader.readDouble(), -2.0);
    EXPECT_STREQ(reader.readString(), "a\xC3\xA9");
    EXPECT_EQ(reader.remaining(), 0);
}

TEST(Buffers, WriterFillsAGapThatItHasLeft) {
    std::array<unsigned char, 16> block;
    block.fill(0xAA);
    BufferWriter writer(block.data(), 10);
    writer.writeChar(1);
    writer.seekSet(writer.tell() + 4);
    EXPECT_EQ(block[1], 0xAA);
    writer.writeUChar(2);
    writer.writeInt(3);
    writer.seekSet(1);
    writer.writeInt(4);
    writer.seekSet(10);
    EXPECT_EQ(writer.tell(), 10);

    BufferReader reader(block.data(), 10);
    EXPECT_EQ(reader.readChar(), 1);
    EXPECT_EQ(reader.readInt(), 4);
    EXPECT_EQ(reader.readUChar(), 2);
    EXPECT_EQ(reader.readInt(), 3);
    EXPECT_TRUE(reader.seekSet(0));
    EXPECT_EQ(reader.readChar(), 1);
}

TEST(Buffers, WriterRefusesWhatDoesNotFit) {
    std::array<unsigned char, 16> block;
    block.fill(0xAA);
    BufferWriter writer(block.data(), 7);
    writer.seekSet(4);
    EXPECT_FALSE(writer.writeInt(1));
    EXPECT_FALSE(writer.writeDouble(1));
    EXPECT_FALSE(writer.writeString("abc"));
    EXPECT_FALSE(writer.writeBytes(block.data(), 4));
    EXPECT_FALSE(writer.writeBytes(block.data(), -1));
    writer.seekSet(8);
    writer.seekSet(-1);
    EXPECT_EQ(writer.tell(), 4);
    for (const unsigned char byte : block)
        EXPECT_EQ(byte, 0xAA);
    EXPECT_TRUE(writer.writeString("ab"));
    EXPECT_FALSE(writer.writeUChar(1));
    EXPECT_FALSE(BufferWriter(nullptr, 8).writeChar(1));
    EXPECT_FALSE(BufferWriter(block.data(), -8).writeString(""));
}

TEST(Buffers, ReadsPastTheEndGiveZeroAndStayAtTheEnd) {
    const ExactBytes data("\1\2\3");
    BufferReader reader(data.bytes.get(), data.size);
    EXPECT_EQ(reader.readInt(), 0);
    EXPECT_EQ(reader.position, 3);
    EXPECT_EQ(reader.readUChar(), 0);
    EXPECT_EQ(reader.readDouble(), 0.0);
    EXPECT_STREQ(reader.readString(), "");
    EXPECT_EQ(reader.position, 3);

    EXPECT_TRUE(reader.seekSet(3));
    EXPECT_FALSE(reader.seekSet(4));
    EXPECT_FALSE(reader.seekSet(-1));
    EXPECT_TRUE(reader.seekSet(1));
    std::array<char, 3> bytes{};
    EXPECT_FALSE(reader.readBytes(bytes.data(), 3));
    EXPECT_TRUE(reader.seekSet(1));
    EXPECT_TRUE(reader.readBytes(bytes.data(), 2));
    EXPECT_EQ(bytes[1], 3);

    for (const int outside : {-1, 4, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        reader.position = outside;
        EXPECT_EQ(reader.remaining(), 0);
        EXPECT_EQ(reader.readUChar(), 0);
        EXPECT_EQ(reader.position, 3);
    }
    BufferReader nothing(nullptr, 100);
    EXPECT_EQ(nothing.readInt(), 0);
    EXPECT_STREQ(nothing.readString(), "");
}

TEST(Buffers, TextWithoutItsEndIsTerminatedOutsideTheData) {
    const ExactBytes data(std::string_view("one\0two", 7));
    BufferReader reader(data.bytes.get(), data.size);
    EXPECT_STREQ(reader.readString(), "one");
    EXPECT_EQ(reader.position, 4);
    EXPECT_STREQ(reader.readString(), "two");
    EXPECT_EQ(reader.position, 7);
    EXPECT_STREQ(reader.readString(), "");
    reader.seekSet(5);
    EXPECT_STREQ(reader.readString(), "wo");
}

TEST(Buffers, EmptyTextTakesItsPlace) {
    std::array<unsigned char, 16> block{};
    BufferWriter writer(block.data(), 16);
    writer.writeString("");
    writer.writeString(nullptr);
    writer.writeInt(5);
    BufferReader reader(block.data(), static_cast<std::uint32_t>(writer.tell()));
    EXPECT_STREQ(reader.readString(), "");
    EXPECT_STREQ(reader.readString(), "");
    EXPECT_EQ(reader.readInt(), 5);
}

} // namespace
