#include "support/platform/Crc32cHardware.h"

#if defined(__x86_64__)

#include "support/platform/Crc32cShifts.h"
#include "support/platform/FetchAhead.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace kor::detail {

namespace {

constexpr std::size_t kMaxWords = 128; // per stream and round
constexpr std::size_t kMinWords = 4;   // per stream; shorter data is done faster in one stream
constexpr std::size_t kWordBytes = 8;

static_assert(2 * kMaxWords < kCrc32cShifts.size());

std::uint64_t load64(const std::uint8_t* from) {
    std::uint64_t word = 0;
    std::memcpy(&word, from, sizeof word);
    return word;
}

/// With element n of the shifts, and put through the CRC instruction: the CRC moved past n words of zero.
[[gnu::target("sse4.2,pclmul")]] std::uint64_t multiply(std::uint64_t crc, std::uint32_t shift) {
    const __m128i product = _mm_clmulepi64_si128(_mm_cvtsi64_si128(static_cast<long long>(crc)),
                                                 _mm_cvtsi64_si128(static_cast<long long>(shift)), 0);
    return static_cast<std::uint64_t>(_mm_cvtsi128_si64(product));
}

/// Stands for a place to copy to where nothing is to be copied.
struct NoCopy {
    NoCopy operator+(std::size_t) const { return {}; }
};

std::uint64_t pass(const std::uint8_t* from, NoCopy) {
    return load64(from);
}

std::uint64_t pass(const std::uint8_t* from, std::uint8_t* copyTo) {
    const std::uint64_t word = load64(from);
    std::memcpy(copyTo, &word, sizeof word);
    return word;
}

/// Three neighbouring streams of `words` words each: the instruction takes three cycles, but starts one every
/// cycle.
template <typename To>
[[gnu::target("sse4.2,pclmul")]] std::uint64_t threeStreams(std::uint64_t crc, const std::uint8_t* data,
                                                            std::size_t words, To copyTo) {
    const std::size_t stride = words * kWordBytes;
    std::uint64_t second = 0;
    std::uint64_t third = 0;
    for (std::size_t at = 0; at != stride - kWordBytes; at += kWordBytes) {
        crc = _mm_crc32_u64(crc, pass(data + at, copyTo + at));
        second = _mm_crc32_u64(second, pass(data + at + stride, copyTo + (at + stride)));
        third = _mm_crc32_u64(third, pass(data + at + 2 * stride, copyTo + (at + 2 * stride)));
    }
    const std::size_t last = stride - kWordBytes;
    crc = _mm_crc32_u64(crc, pass(data + last, copyTo + last));
    second = _mm_crc32_u64(second, pass(data + last + stride, copyTo + (last + stride)));
    return _mm_crc32_u64(third, pass(data + last + 2 * stride, copyTo + (last + 2 * stride)) ^
                                    multiply(crc, kCrc32cShifts[2 * words]) ^
                                    multiply(second, kCrc32cShifts[words]));
}

template <typename To>
[[gnu::target("sse4.2,pclmul")]] std::uint32_t sum(std::uint32_t crc, const std::uint8_t* data,
                                                   std::size_t size, To copyTo, std::size_t readable) {
    std::uint64_t wide = ~crc;
    while (size >= 3 * kMinWords * kWordBytes) {
        const std::size_t words = std::min(size / (3 * kWordBytes), kMaxWords);
        const std::size_t bytes = 3 * words * kWordBytes;
        fetchAhead(data, bytes, readable);
        wide = threeStreams(wide, data, words, copyTo);
        readable -= bytes;
        data += bytes;
        copyTo = copyTo + bytes;
        size -= bytes;
    }
    if constexpr (!std::is_same_v<To, NoCopy>)
        std::memcpy(copyTo, data, size);
    for (; size >= kWordBytes; data += kWordBytes, size -= kWordBytes)
        wide = _mm_crc32_u64(wide, load64(data));
    auto result = static_cast<std::uint32_t>(wide);
    for (; size > 0; ++data, --size)
        result = _mm_crc32_u8(result, *data);
    return ~result;
}

} // namespace

bool crc32cHardwareAvailable() {
    static const bool available = __builtin_cpu_supports("sse4.2") && __builtin_cpu_supports("pclmul");
    return available;
}

std::uint32_t crc32cHardware(std::uint32_t crc, const std::uint8_t* data, std::size_t size) {
    return sum(crc, data, size, NoCopy{}, size);
}

std::uint32_t crc32cHardwareCopy(std::uint32_t crc, const std::uint8_t* data, std::size_t size,
                                 std::uint8_t* copyTo, std::size_t following) {
    return sum(crc, data, size, copyTo, size + following);
}

} // namespace kor::detail

#else

namespace kor::detail {

bool crc32cHardwareAvailable() {
    return false;
}

std::uint32_t crc32cHardware(std::uint32_t crc, const std::uint8_t*, std::size_t) {
    return crc;
}

std::uint32_t crc32cHardwareCopy(std::uint32_t crc, const std::uint8_t*, std::size_t, std::uint8_t*,
                                 std::size_t) {
    return crc;
}

} // namespace kor::detail

#endif
