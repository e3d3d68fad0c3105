#include <kit/jVector.h>
#include <support/jString.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kor;

namespace {

/// Counts its objects, so that a slot that is built or destroyed once too often shows.
struct Counted {
    static inline int alive = 0;
    int value = 0;
    Counted() { ++alive; }
    Counted(const Counted& other) : value(other.value) { ++alive; }
    Counted& operator=(const Counted&) = default;
    ~Counted() { --alive; }
};

std::string liveLabel() {
    const MemReport report = memReport();
    return report.entries.size() == 1 ? report.entries[0].label : "not one entry";
}

template <class T>
std::vector<T> contents(const jVector<T>& vector) {
    return {vector.begin(), vector.end()};
}

TEST(Vector, GrowsFromTenByDoubling) {
    jVector<int> v;
    EXPECT_EQ(v.capacity, 0);
    EXPECT_EQ(v.data, nullptr);
    for (int i = 0; i < 11; ++i) {
        EXPECT_EQ(*v.push_back(i), i);
        EXPECT_EQ(v.capacity, i < 10 ? 10 : 20);
    }
    for (int i = 0; i < 11; ++i)
        EXPECT_EQ(v[i], i);
    v.release();
    EXPECT_EQ(v.count, 0);
    EXPECT_EQ(v.capacity, 0);
    EXPECT_EQ(v.data, nullptr);
    v.push_back(1);
    EXPECT_EQ(v.capacity, 10);
}

TEST(Vector, ReserveFollowsItsTable) {
    jVector<int> v{1, 2, 3};
    const int* storage = v.data;
    v.reserve(5, true);
    v.reserve(0, true);
    EXPECT_EQ(v.count, 3);
    v.reserve(-1, false);
    EXPECT_EQ(v.count, 0);
    EXPECT_EQ(v.capacity, 10);
    EXPECT_EQ(v.data, storage);
    v.push_back(4);
    v.reserve(11, true);
    EXPECT_EQ(v.capacity, 11);
    EXPECT_EQ(contents(v), std::vector<int>{4});
    v.reserve(12, false);
    EXPECT_EQ(v.capacity, 12);
    EXPECT_TRUE(v.empty());
    v.data[0] = 7;
    v.count = 1;
    EXPECT_EQ(v[0], 7);
}

TEST(Vector, AssignmentCopiesAndReusesStorage) {
    jVector<int> v{1, 2};
    const jVector<int>& same = v;
    v = same;
    EXPECT_EQ(contents(v), (std::vector<int>{1, 2}));
    const jVector<int> copy(v);
    EXPECT_EQ(copy.capacity, 2);
    v = jVector<int>();
    EXPECT_EQ(v.count, 0);
    EXPECT_EQ(v.capacity, 10);
    v = copy;
    EXPECT_EQ(v.capacity, 10);
    EXPECT_EQ(contents(v), (std::vector<int>{1, 2}));
}

TEST(Vector, AppendsElementsOfItself) {
    jVector<jString> v;
    for (int i = 0; i < 10; ++i)
        v.push_back(jString("a text that is longer than the inline room " + std::to_string(i)));
    v.push_back(v[9]);
    EXPECT_EQ(v[10], v[9]);
    v.push_back(v.data + 1, 10);
    EXPECT_EQ(v.count, 21);
    EXPECT_EQ(v[11], v[1]);
    EXPECT_EQ(v[20], v[10]);
    v.push_back(v);
    EXPECT_EQ(v.count, 42);
    EXPECT_EQ(v[41], v[20]);
}

TEST(Vector, AppendsADefaultValueOverAStaleOne) {
    jVector<int> v{5, 6};
    v.reserve(0, false);
    EXPECT_EQ(*v.push_back(), 0);
    jVector<jString> texts{"stale"};
    texts.reserve(0, false);
    EXPECT_TRUE(texts.push_back()->empty());
}

TEST(Vector, ReallocateNeverLosesElements) {
    jVector<Counted> v;
    v.reallocate(0);
    v.push_back()->value = 1;
    v.push_back()->value = 2;
    EXPECT_EQ(Counted::alive, 10 + 1); // and the default value, which stays
    v.reallocate(1);
    EXPECT_EQ(v.capacity, 2);
    EXPECT_EQ(v[1].value, 2);
    EXPECT_EQ(Counted::alive, 2 + 1);
    v.reserve(5, false);
    EXPECT_EQ(Counted::alive, 5 + 1);
    v.release();
    EXPECT_EQ(Counted::alive, 1);
}

TEST(Vector, RegistersItsStorageUnderTheOperation) {
    jVector<jString> v;
    v.push_back("x");
    EXPECT_EQ(liveLabel(), "jVector<class jString>::reallocate");
    v.reserve(20, true);
    EXPECT_EQ(liveLabel(), "jVector<class jString>::reserve");
    const MemReport report = memReport();
    EXPECT_STREQ(report.entries[0].file, "include/kit/jVector");
    EXPECT_TRUE(report.entries[0].isArray);
    EXPECT_EQ(report.liveBytes, 20 * sizeof(jString));
    v.release();
    EXPECT_EQ(memReport().liveBlocks, 0U);
    jVector<Client*> clients;
    clients.reserve(1, false);
    EXPECT_EQ(liveLabel(), "jVector<class Client *>::reserve");
}

struct Named {
    static constexpr const char* kTypeLabel = "struct Named";
};
struct Unknown;

TEST(Vector, LabelsTypesOfTheApplication) {
    EXPECT_STREQ(TypeLabel<Named*>::text().c_str(), "struct Named *");
    EXPECT_STREQ(TypeLabel<Unknown*>::text().c_str(), "T *");
    EXPECT_NE(std::string(TypeLabel<Counted>::text().c_str()).find("Counted"), std::string::npos);
}

} // namespace
