#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

namespace kor::detail {

/// Whether the value, cut to an integer, fits 32 bits. False for what is not a number.
inline bool fitsInt(double value) {
    return value > -2147483649.0 && value < 2147483648.0;
}

/// The value cut to an integer of 32 bits; those outside give the nearest bound, what is not a number gives
/// 0.
inline int toInt(double value) {
    if (fitsInt(value)) {
        return static_cast<int>(value);
    }
    return value > 0 ? std::numeric_limits<int>::max() : value < 0 ? std::numeric_limits<int>::min() : 0;
}

/// The value as a float; those outside its range give the nearest bound.
inline float toFloat(double value) {
    constexpr double kMost = std::numeric_limits<float>::max();
    return static_cast<float>(std::clamp(value, -kMost, kMost));
}

} // namespace kor::detail
