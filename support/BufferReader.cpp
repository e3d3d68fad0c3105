#include <support/BufferReader.h>

#include <support/jAllocator.h>
#include <support/memInfo.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <limits>

namespace kor {

namespace {

constexpr const char* kFile = "support/BufferReader";

template <class Unsigned>
Unsigned fromLittleEndian(const unsigned char* bytes) {
    Unsigned value = 0;
    for (std::size_t i = 0; bytes && i < sizeof(Unsigned); ++i)
        value |= static_cast<Unsigned>(bytes[i]) << (8 * i);
    return value;
}

} // namespace

BufferReader::BufferReader(const void* data, std::uint32_t size)
    : size_(data ? static_cast<std::int32_t>(
                       std::min<std::uint32_t>(size, std::numeric_limits<std::int32_t>::max()))
                 : 0),
      data_(static_cast<const unsigned char*>(data)) {}

BufferReader::~BufferReader() {
    freeText();
}

bool BufferReader::seekSet(int newPosition) {
    if (newPosition < 0 || newPosition > size_)
        return false;
    position = newPosition;
    return true;
}

int BufferReader::remaining() const {
    return position >= 0 && position <= size_ ? size_ - position : 0;
}

signed char BufferReader::readChar() {
    return static_cast<signed char>(readUChar());
}

unsigned char BufferReader::readUChar() {
    const unsigned char* bytes = take(1);
    return bytes ? *bytes : static_cast<unsigned char>(0);
}

int BufferReader::readInt() {
    return static_cast<int>(fromLittleEndian<std::uint32_t>(take(4)));
}

float BufferReader::readFloat() {
    return std::bit_cast<float>(fromLittleEndian<std::uint32_t>(take(4)));
}

double BufferReader::readDouble() {
    return std::bit_cast<double>(fromLittleEndian<std::uint64_t>(take(8)));
}

const char* BufferReader::readString() {
    freeText();
    const int length = remaining();
    const unsigned char* text = take(length);
    if (length == 0)
        return "";
    const auto size = static_cast<std::size_t>(length);
    if (const void* end = std::memchr(text, 0, size)) {
        position -= length - static_cast<int>(static_cast<const unsigned char*>(end) - text) - 1;
        return reinterpret_cast<const char*>(text);
    }
    text_ = static_cast<char*>(jAllocator::get()->localAlloc(size + 1));
    memAddInfo(text_, true, kFile, __LINE__, "BufferReader::readString", size + 1);
    std::memcpy(text_, text, size);
    text_[size] = '\0';
    return text_;
}

bool BufferReader::readBytes(void* bytes, int size) {
    const unsigned char* source = take(size);
    if (!source)
        return false;
    if (size > 0)
        std::memcpy(bytes, source, static_cast<std::size_t>(size));
    return true;
}

/// The next bytes, which it goes past; null, with the position at the end, when fewer remain.
const unsigned char* BufferReader::take(int size) {
    if (size < 0 || size > remaining() || position < 0 || position > size_) {
        position = size_;
        return nullptr;
    }
    const unsigned char* bytes = data_ + position;
    position += size;
    return bytes;
}

void BufferReader::freeText() {
    if (text_) {
        memRemoveInfo(text_, kFile, __LINE__, "BufferReader::readString");
        jAllocator::get()->localFree(text_);
        text_ = nullptr;
    }
}

} // namespace kor
