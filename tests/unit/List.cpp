#include <kit/jList.h>
#include <support/jString.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace kor;

namespace {

/// The values, after checking that both directions and the count agree.
std::vector<int> contents(const jList<int>& list) {
    std::vector<int> values;
    const jList<int>::Node* last = nullptr;
    for (const auto* node = list.head; node; node = node->next) {
        EXPECT_EQ(node->prev, last);
        last = node;
        values.push_back(node->value);
    }
    EXPECT_EQ(list.tail, last);
    EXPECT_EQ(list.count, static_cast<int>(values.size()));
    return values;
}

TEST(List, RemovesAnywhere) {
    jList<int> list;
    auto* one = list.push_back(1);
    auto* two = list.push_back(2);
    auto* three = list.push_back(3);
    list.push_back(4);
    EXPECT_EQ(contents(list), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_TRUE(list.remove(two));
    EXPECT_EQ(contents(list), (std::vector<int>{1, 3, 4}));
    EXPECT_TRUE(list.remove(list.tail));
    EXPECT_TRUE(list.remove(one));
    EXPECT_EQ(contents(list), std::vector<int>{3});
    EXPECT_TRUE(list.remove(three));
    EXPECT_EQ(list.head, nullptr);
    EXPECT_TRUE(contents(list).empty());
    EXPECT_EQ(memReport().liveBlocks, 0U);
}

TEST(List, LeavesNodesOfOthersAlone) {
    jList<int> list;
    jList<int> other;
    list.push_back(1);
    auto* foreign = other.push_back(2);
    EXPECT_FALSE(list.remove(foreign));
    EXPECT_FALSE(list.remove(nullptr));
    EXPECT_EQ(contents(list), std::vector<int>{1});
    EXPECT_EQ(contents(other), std::vector<int>{2});
}

TEST(List, AssignmentReplacesTheContents) {
    jList<int> list;
    list.push_back(1);
    jList<int> other;
    other.push_back(2);
    other.push_back(3);
    list = other;
    EXPECT_EQ(contents(list), (std::vector<int>{2, 3}));
    EXPECT_EQ(memReport().liveBlocks, 4U);
    other.release();
    EXPECT_TRUE(contents(other).empty());
    const jList<int>& same = list;
    list = same;
    EXPECT_EQ(contents(list), (std::vector<int>{2, 3}));
    EXPECT_STREQ(memReport().entries[0].label, "jList<int>::push_back");
    EXPECT_FALSE(memReport().entries[0].isArray);
}

TEST(List, DestroysValuesThatOwnSomething) {
    jList<jString> list;
    list.push_back("a text that is longer than the inline room of a string");
    list.push_back(list.head->value);
    EXPECT_EQ(memReport().liveBlocks, 4U);
    list.remove(list.head);
    list.release();
    EXPECT_EQ(memReport().liveBlocks, 0U);
}

TEST(List, SizeMayBeReadByAnotherThread) {
    jList<int> list;
    std::thread watcher([&list] {
        while (list.size() < 100) {
        }
    });
    for (int i = 0; i < 100; ++i)
        list.push_back(i);
    watcher.join();
    EXPECT_FALSE(list.empty());
}

} // namespace
