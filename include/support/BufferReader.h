#pragma once

#include "Export.h"

#include <cstdint>

namespace kor {

/// Reads what `BufferWriter` wrote. Never touches memory outside the data, whatever the data holds.
///
/// A read past the end gives 0, or the empty text, and leaves the reader at its end. For one thread at a
/// time.
class KOR_API BufferReader {
public:
    /// Bytes from the start of the data; reads begin here.
    std::int32_t position = 0;

    /// Reads `size` bytes at `data`, which must outlive the reader. Of more than 2 GiB only the first 2 GiB
    /// are read.
    BufferReader(const void* data, std::uint32_t size);
    ~BufferReader();

    BufferReader(const BufferReader&) = delete;
    BufferReader& operator=(const BufferReader&) = delete;

    /// Moves to a position from 0 to the size; anything else returns false and moves nothing.
    bool seekSet(int newPosition);

    /// Bytes between the position and the end of the data; 0 while `position` is outside.
    int remaining() const;

    /// @{
    /// The next value, little-endian, IEEE 754: 1, 1, 4, 4 and 8 bytes. Where fewer remain it is 0, and the
    /// reader is at its end.
    signed char readChar();
    unsigned char readUChar();
    int readInt();
    float readFloat();
    double readDouble();
    /// @}

    /// A NUL-terminated text, valid until the next operation on the reader. A text that the data ends without
    /// a NUL is given as far as it goes.
    const char* readString();

    /// Copies `size` bytes out; when fewer remain it copies none, goes to the end and returns false.
    bool readBytes(void* bytes, int size);

private:
    const unsigned char* take(int size);
    void freeText();

    std::int32_t size_;
    const unsigned char* data_;
    char* text_ = nullptr;
};

} // namespace kor
