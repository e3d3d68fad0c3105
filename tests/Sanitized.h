#pragma once

namespace kor::testing_support {

/// True in a program that a sanitizer watches, which is many times slower and keeps memory of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kSanitized =
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer);
#else
inline constexpr bool kSanitized = false;
#endif

} // namespace kor::testing_support
