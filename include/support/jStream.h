#pragma once

#include "Export.h"

namespace kor {

/// Something that bytes are read from and written to in elements of equal size.
class KOR_API jStream {
public:
    jStream() = default;
    jStream(const jStream&) = delete;
    jStream& operator=(const jStream&) = delete;

    virtual ~jStream();

    /// Closes the stream. Safe to call twice.
    virtual void release() = 0;

    /// Reads up to `count` elements of `elementSize` bytes and returns how many were read; 0 when there are
    /// none now.
    virtual int read(void* data, int elementSize, int count) = 0;

    /// Writes `count` elements of `elementSize` bytes and returns how many were written.
    virtual int write(const void* data, int elementSize, int count) = 0;

    /// True while the stream can be read from or written to.
    virtual bool isOpened() const = 0;
};

} // namespace kor
