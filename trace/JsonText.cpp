#include "trace/JsonText.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdio>

namespace kor::detail {

namespace {

unsigned byteAt(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

/// Length of the well-formed UTF-8 sequence at that place, 0 where there is none.
std::size_t sequenceLength(std::string_view text, std::size_t at) {
    constexpr unsigned kMinCodes[] = {0, 0, 0x80, 0x800, 0x10000}; // by length; smaller ones are overlong
    const auto length = static_cast<std::size_t>(std::countl_one(static_cast<unsigned char>(text[at])));
    if (length == 0)
        return 1;
    if (length == 1 || length > 4 || text.size() - at < length)
        return 0;
    unsigned code = byteAt(text, at) & (0x7Fu >> length);
    for (std::size_t i = 1; i != length; ++i) {
        if ((byteAt(text, at + i) & 0xC0) != 0x80)
            return 0;
        code = code << 6 | (byteAt(text, at + i) & 0x3F);
    }
    const bool surrogate = code >= 0xD800 && code < 0xE000;
    return code < kMinCodes[length] || code > 0x10FFFF || surrogate ? 0 : length;
}

} // namespace

void appendJsonString(std::string& out, std::string_view text) {
    out += '"';
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = sequenceLength(text, at);
        const unsigned lead = byteAt(text, at);
        if (length == 0) {
            out += "\\ufffd";
        } else if (lead == '"' || lead == '\\') {
            out += '\\';
            out += text[at];
        } else if (lead < 0x20 || lead == 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", lead);
            out += escape;
        } else {
            out += text.substr(at, length);
        }
        at += length == 0 ? 1 : length;
    }
    out += '"';
}

void appendJsonNumber(std::string& out, double number) {
    if (!std::isfinite(number)) {
        const char* const infinity = number > 0 ? "\"inf\"" : "\"-inf\"";
        out += std::isnan(number) ? "\"nan\"" : infinity;
        return;
    }
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, number);
    out.append(text, result.ptr);
}

void appendMicroseconds(std::string& out, std::int64_t nanoseconds) {
    const bool negative = nanoseconds < 0;
    const auto amount =
        negative ? 0 - static_cast<std::uint64_t>(nanoseconds) : static_cast<std::uint64_t>(nanoseconds);
    char text[32];
    std::snprintf(text, sizeof text, "%s%llu.%03u", negative ? "-" : "",
                  static_cast<unsigned long long>(amount / 1000), static_cast<unsigned>(amount % 1000));
    out += text;
}

} // namespace kor::detail
