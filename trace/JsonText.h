#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kor::detail {

/// Appends a JSON string. Whatever is no UTF-8 becomes U+FFFD.
void appendJsonString(std::string& out, std::string_view text);

/// Appends a JSON number, or, where JSON has none (infinite, not a number), the string that names it.
void appendJsonNumber(std::string& out, double number);

/// Appends nanoseconds as microseconds with three digits behind the point.
void appendMicroseconds(std::string& out, std::int64_t nanoseconds);

} // namespace kor::detail
