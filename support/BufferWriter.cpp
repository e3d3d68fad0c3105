#include <support/BufferWriter.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace kor {

namespace {

template <class Unsigned>
std::array<unsigned char, sizeof(Unsigned)> littleEndian(Unsigned value) {
    std::array<unsigned char, sizeof(Unsigned)> bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    return bytes;
}

} // namespace

static_assert(sizeof(int) == 4 && std::numeric_limits<float>::is_iec559 &&
              std::numeric_limits<double>::is_iec559);

BufferWriter::BufferWriter(void* block, int capacity)
    : block_(static_cast<unsigned char*>(block)), capacity_(block ? std::max(capacity, 0) : 0) {}

void BufferWriter::seekSet(int position) {
    if (position >= 0 && position <= capacity_)
        position_ = position;
}

bool BufferWriter::writeChar(signed char value) {
    return writeBytes(&value, 1);
}

bool BufferWriter::writeUChar(unsigned char value) {
    return writeBytes(&value, 1);
}

bool BufferWriter::writeInt(int value) {
    return writeBytes(littleEndian(static_cast<std::uint32_t>(value)).data(), 4);
}

bool BufferWriter::writeFloat(float value) {
    return writeBytes(littleEndian(std::bit_cast<std::uint32_t>(value)).data(), 4);
}

bool BufferWriter::writeDouble(double value) {
    return writeBytes(littleEndian(std::bit_cast<std::uint64_t>(value)).data(), 8);
}

bool BufferWriter::writeString(const char* text) {
    const char* source = text ? text : "";
    const std::size_t size = std::strlen(source) + 1;
    return size <= static_cast<std::size_t>(remaining()) && writeBytes(source, static_cast<int>(size));
}

bool BufferWriter::writeBytes(const void* bytes, int size) {
    if (size < 0 || size > remaining() || (size > 0 && !bytes))
        return false;
    if (size > 0) {
        std::memcpy(block_ + position_, bytes, static_cast<std::size_t>(size));
        position_ += size;
    }
    return true;
}

} // namespace kor
