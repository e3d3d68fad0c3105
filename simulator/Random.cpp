#include "Random.h"

#include <algorithm>
#include <bit>

namespace kor::simulation {

std::uint32_t Random::size(std::uint32_t min, std::uint32_t max) {
    // Not by logarithms: their last bit differs from one mathematics library to another.
    const int bits = static_cast<int>(between(std::bit_width(min), std::bit_width(max)));
    const std::uint64_t low = bits <= 1 ? 1 : 1ull << (bits - 1);
    const std::uint64_t value = low + below(low);
    return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(value, min, max));
}

} // namespace kor::simulation
