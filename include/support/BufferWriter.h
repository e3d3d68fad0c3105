#pragma once

#include "Export.h"

namespace kor {

/// Writes values one behind the other into memory of the caller: little-endian, IEEE 754, no padding.
///
/// A value that does not fit is not stored: the write returns false, the position stays. For one thread.
class KOR_API BufferWriter {
public:
    /// Writes into `capacity` bytes at `block`, which must outlive the writer. Position 0. A null block or a
    /// capacity below 0 has room for nothing.
    BufferWriter(void* block, int capacity);

    /// Current position: bytes from the start of the block.
    int tell() const { return position_; }

    /// Moves to a position from 0 to the capacity; anything else moves nothing. Bytes that are skipped keep
    /// what they held.
    void seekSet(int position);

    /// Bytes between the position and the end of the block.
    int remaining() const { return capacity_ - position_; }

    /// @{
    /// Stores a value: 1, 1, 4, 4 and 8 bytes. False, and nothing is stored, when it does not fit.
    bool writeChar(signed char value);
    bool writeUChar(unsigned char value);
    bool writeInt(int value);
    bool writeFloat(float value);
    bool writeDouble(double value);
    /// @}

    /// Stores a NUL-terminated UTF-8 text with its NUL; null counts as the empty text.
    bool writeString(const char* text);

    /// Stores `size` bytes as they are; false, too, for a size below 0.
    bool writeBytes(const void* bytes, int size);

    /// The block given at construction.
    void* getData() const { return block_; }

private:
    unsigned char* block_;
    int capacity_;
    int position_ = 0;
};

} // namespace kor
