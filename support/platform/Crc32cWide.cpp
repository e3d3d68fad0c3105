#include "support/platform/Crc32cWide.h"

#if defined(__x86_64__)

#include "support/platform/Crc32cShifts.h"
#include "support/platform/FetchAhead.h"

#include <immintrin.h>

#include <cstring>
#include <iterator>

#define KOR_WIDE [[gnu::target("avx512f,avx512vl,vpclmulqdq,pclmul,sse4.2")]]

namespace kor::detail {

namespace {

constexpr std::size_t kStep = 64; // one register
constexpr std::size_t kRound = 4 * kStep;
static_assert(kMinCrc32cWideBytes >= kRound);

/// Moves 128 bits ahead by a multiple of 64 bits: factors for their first half and their second.
KOR_WIDE __m128i factors(std::size_t bytes) {
    return _mm_set_epi64x(kCrc32cShifts[bytes / 8], kCrc32cShifts[bytes / 8 + 1]);
}

KOR_WIDE __m512i factorsOfAll(std::size_t bytes) {
    const long long first = kCrc32cShifts[bytes / 8 + 1];
    const long long second = kCrc32cShifts[bytes / 8];
    return _mm512_set4_epi64(second, first, second, first);
}

constexpr int kXor = 0x96; // of three

KOR_WIDE __m512i fold(__m512i sum, __m512i factors, __m512i next) {
    return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(sum, factors, 0x00),
                                     _mm512_clmulepi64_epi128(sum, factors, 0x11), next, kXor);
}

KOR_WIDE __m128i fold(__m128i sum, __m128i factors, __m128i next) {
    return _mm_ternarylogic_epi64(_mm_clmulepi64_si128(sum, factors, 0x00),
                                  _mm_clmulepi64_si128(sum, factors, 0x11), next, kXor);
}

template <bool kCopies>
KOR_WIDE __m512i pass(const std::uint8_t* from, [[maybe_unused]] std::uint8_t* copyTo) {
    const __m512i bytes = _mm512_loadu_si512(from);
    if constexpr (kCopies)
        _mm512_storeu_si512(copyTo, bytes);
    return bytes;
}

/// The sum of all that four neighbouring pieces of 16 bytes stand for.
KOR_WIDE std::uint64_t reduce(__m512i sum) {
    alignas(64) __m128i pieces[4];
    _mm512_store_si512(pieces, sum);
    __m128i folded = pieces[0];
    for (std::size_t i = 1; i != std::size(pieces); ++i)
        folded = fold(folded, factors(sizeof folded), pieces[i]);
    const std::uint64_t crc = _mm_crc32_u64(0, static_cast<std::uint64_t>(_mm_cvtsi128_si64(folded)));
    return _mm_crc32_u64(crc, static_cast<std::uint64_t>(_mm_extract_epi64(folded, 1)));
}

template <bool kCopies>
KOR_WIDE std::uint32_t sum(std::uint32_t crc, const std::uint8_t* data, std::size_t size,
                           std::uint8_t* copyTo, std::size_t readable) {
    const auto at = [&](std::size_t offset) { return kCopies ? copyTo + offset : nullptr; };
    fetchAhead(data, kRound, readable);
    const __m512i before = _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(~crc)));
    __m512i first = _mm512_xor_si512(pass<kCopies>(data, at(0)), before);
    __m512i second = pass<kCopies>(data + kStep, at(kStep));
    __m512i third = pass<kCopies>(data + 2 * kStep, at(2 * kStep));
    __m512i fourth = pass<kCopies>(data + 3 * kStep, at(3 * kStep));
    std::size_t done = kRound;
    for (const __m512i round = factorsOfAll(kRound); size - done >= kRound; done += kRound) {
        fetchAhead(data + done, kRound, readable - done);
        first = fold(first, round, pass<kCopies>(data + done, at(done)));
        second = fold(second, round, pass<kCopies>(data + done + kStep, at(done + kStep)));
        third = fold(third, round, pass<kCopies>(data + done + 2 * kStep, at(done + 2 * kStep)));
        fourth = fold(fourth, round, pass<kCopies>(data + done + 3 * kStep, at(done + 3 * kStep)));
    }
    fetchAhead(data + done, size - done, readable - done);
    const __m512i step = factorsOfAll(kStep);
    __m512i all = fold(first, factorsOfAll(3 * kStep), fourth);
    all = fold(second, factorsOfAll(2 * kStep), all);
    all = fold(third, step, all);
    for (; size - done >= kStep; done += kStep)
        all = fold(all, step, pass<kCopies>(data + done, at(done)));

    std::uint64_t wide = reduce(all);
    if constexpr (kCopies)
        std::memcpy(copyTo + done, data + done, size - done);
    for (std::uint64_t word = 0; size - done >= sizeof word; done += sizeof word) {
        std::memcpy(&word, data + done, sizeof word);
        wide = _mm_crc32_u64(wide, word);
    }
    auto result = static_cast<std::uint32_t>(wide);
    for (; done != size; ++done)
        result = _mm_crc32_u8(result, data[done]);
    return ~result;
}

} // namespace

bool crc32cWideAvailable() {
    static const bool available = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
                                  __builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("pclmul") &&
                                  __builtin_cpu_supports("sse4.2");
    return available;
}

std::uint32_t crc32cWide(std::uint32_t crc, const std::uint8_t* data, std::size_t size) {
    return sum<false>(crc, data, size, nullptr, size);
}

std::uint32_t crc32cWideCopy(std::uint32_t crc, const std::uint8_t* data, std::size_t size,
                             std::uint8_t* copyTo, std::size_t following) {
    return sum<true>(crc, data, size, copyTo, size + following);
}

} // namespace kor::detail

#else

namespace kor::detail {

bool crc32cWideAvailable() {
    return false;
}

std::uint32_t crc32cWide(std::uint32_t crc, const std::uint8_t*, std::size_t) {
    return crc;
}

std::uint32_t crc32cWideCopy(std::uint32_t crc, const std::uint8_t*, std::size_t, std::uint8_t*,
                             std::size_t) {
    return crc;
}

} // namespace kor::detail

#endif
