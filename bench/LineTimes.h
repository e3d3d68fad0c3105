#pragma once

#include <optional>

namespace kor::bench {

/// Nanoseconds until a line of memory is here. They tell two processors that share a cache from two that do
/// not, which decides what processes pay for what they hand each other; below a virtual machine that may
/// change from one minute to the next.
struct LineTimes {
    double fromOther = 0; ///< to the first usable processor, from the second, which has just written it
    double fromOwn = 0;   ///< out of 4 MiB that nobody else uses
};

/// Occupies two processors for some ten milliseconds. Nothing when there is only one, or they cannot be
/// chosen.
std::optional<LineTimes> measureLineTimes();

} // namespace kor::bench
