// Applications of other compilers' making reach the virtual operations by their place in the table. The
// places of the library's own classes stand in cmake/symbols; templates are made in each program, so they are
// not there.

#include <kit/jVector.h>
#include <kit/SignalSlot.h>
#include <support/RTAddr.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <numeric>
#include <vector>

#if defined(__x86_64__)

namespace {

using namespace kor;

template <class Member>
std::uintptr_t placeOf(Member member) {
    std::uintptr_t word = 0;
    std::memcpy(&word, &member, sizeof word);
    return (word - 1) / sizeof(void*);
}

template <class... Members>
void expectInOrder(std::uintptr_t first, Members... members) {
    std::vector<std::uintptr_t> expected(sizeof...(members));
    std::iota(expected.begin(), expected.end(), first);
    EXPECT_EQ((std::vector<std::uintptr_t>{placeOf(members)...}), expected);
}

TEST(SlotOrder, Slots) {
    using Handler = FunctionHandler<void, const RTAddr&>;
    expectInOrder(0, &Handler::setObject, &Handler::getID, &Handler::clone, &Handler::invoke);
}

TEST(SlotOrder, VectorBehindItsDestructor) {
    using Ints = jVector<int>;
    expectInOrder(2, static_cast<void (Ints::*)(const int*, int)>(&Ints::push_back),
                  static_cast<void (Ints::*)(const Ints&)>(&Ints::push_back),
                  static_cast<int* (Ints::*)(const int&)>(&Ints::push_back),
                  static_cast<int* (Ints::*)()>(&Ints::push_back), &Ints::reserve, &Ints::release,
                  &Ints::grow, &Ints::reallocate);
}

} // namespace

#endif
