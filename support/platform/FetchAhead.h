#pragma once

#include <cstddef>
#include <cstdint>

namespace kor::detail {

constexpr std::size_t kFetchAhead = 4096;

/// Asks for the `size` bytes that lie kFetchAhead behind `data`, where at least so many are `readable`. What
/// another processor has written may lie in a cache far away, and a loop that computes keeps too few reads
/// under way to hide that.
inline void fetchAhead(const std::uint8_t* data, std::size_t size, std::size_t readable) {
    constexpr std::size_t kLineBytes = 64;
    if (readable >= kFetchAhead + size)
        for (std::size_t at = 0; at < size; at += kLineBytes)
            __builtin_prefetch(data + kFetchAhead + at);
}

} // namespace kor::detail
