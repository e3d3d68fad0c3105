#include <support/jString.h>
#include <support/memInfo.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>

using namespace kor;

namespace {

/// Texts on both sides of the inline room.
class StringOf : public testing::TestWithParam<std::size_t> {
protected:
    const std::string text = std::string(GetParam(), 'x');
    std::uint64_t blocksEach() const { return GetParam() > jString::kInlineCapacity ? 1 : 0; }
};
INSTANTIATE_TEST_SUITE_P(Lengths, StringOf, testing::Values(0, 1, 22, 23, 24, 1000));

TEST_P(StringOf, CopiesAndMoves) {
    jString a(text.c_str());
    EXPECT_EQ(a, text);
    EXPECT_EQ(a.empty(), text.empty());
    EXPECT_EQ(std::string(a.c_str()), text);
    EXPECT_EQ(memReport().liveBlocks, blocksEach());
    jString b(a);
    EXPECT_EQ(a, b);
    jString c(std::move(a));
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(c, b);
    EXPECT_EQ(memReport().liveBlocks, 2 * blocksEach());
    a = "another text that does not fit the inline room at all";
    a = std::move(c);
    EXPECT_EQ(a, text);
    EXPECT_STREQ(c.c_str(), "");
    const jString& self = a;
    a = self;
    EXPECT_EQ(a, b);
    a.clear();
    b = "";
    EXPECT_EQ(a, b);
    b = static_cast<const char*>(nullptr);
    EXPECT_EQ(b, jString::null());
}

TEST_P(StringOf, AssignsAndAppendsPartsOfItself) {
    jString a{std::string_view(text)};
    a += "tail";
    EXPECT_EQ(a, text + "tail");
    a += a;
    EXPECT_EQ(a, text + "tail" + text + "tail");
    a = std::string_view(a).substr(text.size());
    EXPECT_EQ(a, "tail" + text + "tail");
    a = a.c_str() + 4 + text.size();
    EXPECT_EQ(a, "tail");
}

TEST(String, FindsTheLastOccurrenceOfTheWholeText) {
    const jString ip("192.255.168.255");
    EXPECT_EQ(ip.find_last_of(".255"), 11);
    EXPECT_EQ(ip.find_last_of(".25"), 11);
    EXPECT_EQ(ip.find_last_of("192"), 0);
    EXPECT_EQ(ip.find_last_of(".254"), -1);
    EXPECT_EQ(ip.find_last_of("552."), -1);
    EXPECT_EQ(ip.find_last_of(nullptr), -1);
    EXPECT_EQ(ip.find_last_of(""), 15);
    EXPECT_EQ(jString().find_last_of(".255"), -1);
}

TEST(String, Compares) {
    EXPECT_NE(jString("a"), jString("ab"));
    EXPECT_LT(jString("a"), jString("b"));
    EXPECT_FALSE(jString("a") == "ab");
    const std::string_view withNul("a\0b", 3);
    EXPECT_EQ(jString(withNul), withNul);
    EXPECT_FALSE(jString(withNul) == "a");
}

} // namespace
