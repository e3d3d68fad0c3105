#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

namespace kor::detail {

/// Whether the value, cut to an integer, fits 32 bits. False for what is not a number.
inline bool fitsInt(double value) {
    return value > -2147483649.0 && value < 2147483648.0;
}

/// The value cut to 32 bits: the nearest bound for those outside, 0 for what is not a number.
inline int toInt(double value) {
    using Limits = std::numeric_limits<int>;
    return std::isnan(value) ? 0 : static_cast<int>(std::clamp<double>(value, Limits::min(), Limits::max()));
}

/// The value as a float; those outside its range give the nearest bound.
inline float toFloat(double value) {
    constexpr double kMax = std::numeric_limits<float>::max();
    return static_cast<float>(std::clamp(value, -kMax, kMax));
}

} // namespace kor::detail
