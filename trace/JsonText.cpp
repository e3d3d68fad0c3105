#include "trace/JsonText.h"

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
    const unsigned lead = byteAt(text, at);
    const std::size_t length = lead < 0x80   ? 1
                               : lead < 0xC2 ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length < 2) {
        return length;
    }
    if (text.size() - at < length) {
        return 0;
    }
    // The second byte rules out overlong forms, surrogates and what lies beyond U+10FFFF.
    const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (byteAt(text, at + 1) < lowest || byteAt(text, at + 1) > highest) {
        return 0;
    }
    for (std::size_t i = 2; i != length; ++i) {
        if ((byteAt(text, at + i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
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
        out += std::isnan(number) ? "\"nan\"" : number > 0 ? "\"inf\"" : "\"-inf\"";
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
