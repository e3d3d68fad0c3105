#include <kit/SignalSlot.h>
#include <support/RTAddr.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using namespace kor;

namespace {

using AddressSignal = jVector<Function<void(const RTAddr&)>>;

std::vector<std::string> calls;

struct Base {
    virtual ~Base() = default;
    virtual void first(const RTAddr&) { calls.push_back(name + ".first"); }
    virtual void second(const RTAddr&) { calls.push_back(name + ".second"); }
    void plain(const RTAddr&) { calls.push_back(name + ".plain"); }
    void byValue(int* number) { calls.push_back(name + std::to_string(*number)); }
    std::string name;
    explicit Base(std::string itsName) : name(std::move(itsName)) {}
};

struct Other {
    virtual ~Other() = default;
    virtual void other(const RTAddr&) { calls.push_back("other"); }
};

struct Derived : Other, Base {
    explicit Derived(std::string itsName) : Base(std::move(itsName)) {}
    void first(const RTAddr&) override { calls.push_back(name + ".derived"); }
};

std::uint64_t handlers() {
    std::uint64_t blocks = 0;
    for (const MemReportEntry& entry : memReport().entries)
        blocks += std::string(entry.file) == "include/kit/SignalSlot" ? entry.blocks : 0;
    return blocks;
}

std::vector<std::string> emitted(const AddressSignal& signal) {
    calls.clear();
    emitSignal(signal, RTAddr());
    return std::exchange(calls, {});
}

TEST(Signals, CallSlotsInTheOrderOfConnection) {
    Base a("a");
    Derived b("b");
    AddressSignal signal;
    connect(signal, &a, &Base::first);
    connect(signal, &b, &Base::first);
    connect(signal, &b, &Base::second);
    connect(signal, &b, &Base::plain);
    connect(signal, &b, &Derived::other);
    EXPECT_EQ(emitted(signal),
              (std::vector<std::string>{"a.first", "b.derived", "b.second", "b.plain", "other"}));
    releaseSlots(signal);
    EXPECT_TRUE(emitted(signal).empty());
}

TEST(Signals, ABindingIsConnectedOnce) {
    Base a("a");
    Base b("b");
    AddressSignal signal;
    connect(signal, &a, &Base::second);
    connect(signal, &a, &Base::second);
    EXPECT_EQ(signal.count, 1);
    EXPECT_EQ(handlers(), 1U);
    connect(signal, &b, &Base::second);
    connect(signal, &a, &Base::first);
    EXPECT_EQ(signal.count, 3);
    EXPECT_EQ(signal[0].handler->refCount, 1);
    releaseSlots(signal);
    EXPECT_EQ(handlers(), 0U);
    EXPECT_EQ(signal.count, 0);
    EXPECT_EQ(signal.capacity, 10);
}

TEST(Signals, ASharedHandlerLivesUntilItsLastSlot) {
    Base a("a");
    AddressSignal one;
    AddressSignal two;
    connect(one, &a, &Base::plain);
    two.push_back(one[0]);
    EXPECT_EQ(one[0].handler->refCount, 2);
    releaseSlots(one);
    EXPECT_EQ(handlers(), 1U);
    EXPECT_EQ(emitted(two), std::vector<std::string>{"a.plain"});
    two[0] = Function<void(const RTAddr&)>();
    EXPECT_EQ(handlers(), 0U);
    EXPECT_TRUE(emitted(two).empty());
}

TEST(Signals, GrowthKeepsTheCounts) {
    std::vector<Base> objects(25, Base("x"));
    AddressSignal signal;
    for (Base& object : objects)
        connect(signal, &object, &Base::plain);
    const AddressSignal copy(signal);
    for (const auto& slot : copy)
        EXPECT_EQ(slot.handler->refCount, 2);
    EXPECT_EQ(emitted(signal).size(), 25U);
}

TEST(Signals, ClonesAreHandlersOfTheirOwn) {
    Base a("a");
    Base b("b");
    const Function<void(const RTAddr&)> original(&a, &Base::plain);
    EXPECT_STREQ(memReport().entries[0].label, "Function<void __cdecl(class RTAddr const &)>::Function");
    FunctionHandler<void, const RTAddr&>* clone = original.handler->clone();
    EXPECT_EQ(clone->refCount, 0);
    EXPECT_EQ(clone->getID(), original.id);
    clone->setObject(&b);
    EXPECT_NE(clone->getID(), original.id);
    Function<void(const RTAddr&)> owner(clone);
    calls.clear();
    owner.handler->invoke(RTAddr());
    EXPECT_EQ(std::exchange(calls, {}), std::vector<std::string>{"b.plain"});
    owner.release();
    owner.release();
    EXPECT_EQ(owner.id, 0U);
    EXPECT_EQ(handlers(), 1U);
}

TEST(Signals, TheArgumentConvertsForTheMember) {
    Base a("a");
    jVector<Function<void(int*&&)>> signal;
    connect(signal, &a, &Base::byValue);
    connect(signal, &a, &Base::byValue);
    int number = 7;
    calls.clear();
    emitSignal(signal, &number);
    EXPECT_EQ(std::exchange(calls, {}), std::vector<std::string>{"a7"});
}

TEST(Signals, ASlotMayConnectAnother) {
    struct Chain {
        AddressSignal& signal;
        Base& next;
        void call(const RTAddr&) { connect(signal, &next, &Base::plain); }
    };
    AddressSignal signal;
    Base a("a");
    std::vector<Chain> chains(10, Chain{signal, a});
    for (Chain& chain : chains)
        connect(signal, &chain, &Chain::call);
    EXPECT_EQ(emitted(signal), std::vector<std::string>{"a.plain"});
    EXPECT_EQ(signal.capacity, 20);
}

TEST(Signals, LabelsSpellTheBinding) {
    using Binder = bind_t<void, KorLogicClient, const RTAddr&>;
    EXPECT_STREQ(TypeLabel<Binder>::text().c_str(),
                 "class bind_t<void,class KorLogicClient,class RTAddr const &>");
    EXPECT_STREQ(TypeLabel<Function<void(Client * &&)>>::text().c_str(),
                 "class Function<void __cdecl(class Client * &&)>");
}

TEST(Signals, ChecksumIsTheStandardOne) {
    EXPECT_EQ(static_cast<std::uint64_t>(CRC::c64("123456789", 9)), 0x995DC9BBDF1939FAU);
    EXPECT_EQ(CRC::c64(nullptr, 9), 0);
    EXPECT_EQ(CRC::c64("123456789", -1), 0);
}

} // namespace
