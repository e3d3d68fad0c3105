#include "trace/JsonText.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>

namespace {

using namespace kor::detail;

std::string parsed(std::string_view text) {
    std::string json;
    appendJsonString(json, text);
    return nlohmann::json::parse(json).get<std::string>();
}

TEST(JsonText, SoundTextComesThroughAsItIs) {
    std::string all;
    for (char c = 1; c < 127; ++c)
        all += c;
    using namespace std::string_literals;
    for (const std::string& text : {""s, all, "\x7f\0\"\\"s, "\u00e4\u20ac\U0001F600\U0010FFFF\uFFFD"s})
        EXPECT_EQ(parsed(text), text);
}

TEST(JsonText, WhatIsNoUtf8IsReplaced) {
    const std::string mark = "\uFFFD";
    const std::pair<std::string, std::string> cases[] = {
        {"a\x80z", "a" + mark + "z"},
        {"\xC0\x80", mark + mark},                       // overlong
        {"\xE0\x80\x80", mark + mark + mark},            // overlong
        {"\xED\xA0\x80", mark + mark + mark},            // surrogate
        {"\xF4\x90\x80\x80", mark + mark + mark + mark}, // beyond the last
        {"\xE2\x82", mark + mark},                       // cut
        {"\xE2\x82|", mark + mark + "|"},
        {"\xFF\xFE", mark + mark},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(parsed(text), expected);
}

TEST(JsonText, Numbers) {
    std::string text;
    appendJsonNumber(text, 0.1);
    text += ' ';
    appendJsonNumber(text, std::numeric_limits<double>::infinity());
    appendJsonNumber(text, -std::numeric_limits<double>::infinity());
    appendJsonNumber(text, std::numeric_limits<double>::quiet_NaN());
    text += ' ';
    appendMicroseconds(text, 1'234'567);
    text += ' ';
    appendMicroseconds(text, -1);
    text += ' ';
    appendMicroseconds(text, std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(text, "0.1 \"inf\"\"-inf\"\"nan\" 1234.567 -0.001 -9223372036854775.808");
}

} // namespace
