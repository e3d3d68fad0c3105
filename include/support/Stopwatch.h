#pragma once

#include "Export.h"

#include <cstdint>

namespace kor {

/// Measures time in laps, on the clock of `jTimer`. For one thread at a time.
class KOR_API Stopwatch {
public:
    /// Stands still; reads 0 until `start`.
    Stopwatch() = default;
    /// @{
    /// A copy goes on by itself from the lap of the original.
    Stopwatch(const Stopwatch&) = default;
    Stopwatch& operator=(const Stopwatch&) = default;
    /// @}

    /// Starts anew: the next reading counts from now.
    void start();

    /// Stops: the next reading counts up to now, later ones are 0.
    void stop();

    /// Seconds since the previous reading, or `start`. Readings added up give the whole time.
    double getElapsed();

private:
    std::int64_t lap_ = 0;
    std::int64_t end_ = 0;
    bool running_ = false;
};

} // namespace kor
