#pragma once

#include "Export.h"

#include <cstdint>

namespace kor {

/// Cyclic redundancy checks.
class KOR_API CRC {
public:
    /// CRC-64/XZ (ECMA-182 polynomial, reflected, all ones in and out) of `length` bytes. 0 for no bytes, for
    /// null and for a length below 1.
    static std::int64_t c64(const void* data, int length);
};

} // namespace kor
