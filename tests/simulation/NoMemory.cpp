// What happens when the system has no memory left: for packets to be sent, and for packets that arrive.

#include "simulator/Pair.h"
#include "support/net/driver/NetDriver.h"
#include "support/net/driver/NetPeer.h"
#include "tests/ReplacedNew.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace kor::simulation {

static double refusedBlocks = 0; ///< share of the packets' blocks
static Random dice(1);

// The linker puts the first of each two in the place of the library's operation, which is then the second.
void* tryAllocateOrNot(std::size_t size) asm("__wrap__ZN3kor6detail11tryAllocateEm");
void* tryAllocateReally(std::size_t size) asm("__real__ZN3kor6detail11tryAllocateEm");

void* tryAllocateOrNot(std::size_t size) {
    return dice.chance(refusedBlocks) ? nullptr : tryAllocateReally(size);
}

void* allocateOrNot(std::size_t size) asm("__wrap__ZN3kor6detail15allocateOrThrowEm");
void* allocateReally(std::size_t size) asm("__real__ZN3kor6detail15allocateOrThrowEm");

void* allocateOrNot(std::size_t size) {
    int& left = testing_support::allocationsLeft;
    if (left == 0)
        throw std::bad_alloc();
    left -= left > 0 ? 1 : 0;
    return allocateReally(size);
}

TEST(NoMemory, ARefusedSendChangesNothing) {
    using testing_support::allocationsLeft;
    constexpr std::uint32_t kPackets = 40;
    detail::NetDriver driver;
    std::string error;
    ASSERT_TRUE(driver.open({0}, {}, error)) << error;
    // A refused packet that left its bytes booked would take the room of a later one.
    detail::NetPeer peer(driver, RTAddr(1, 1), 1, 1000, kPackets * sizeof(std::uint32_t));
    int refusals = 0;
    for (std::uint32_t i = 0; i != kPackets; ++i) {
        refusedBlocks = 1;
        EXPECT_EQ(peer.enqueue(&i, sizeof i), RTUser::kRefused);
        refusedBlocks = 0;
        // At one allocation after the other, until all that it needs are granted.
        std::uint64_t id = RTUser::kRefused;
        for (int granted = 0; granted != 10 && id == RTUser::kRefused; ++granted) {
            allocationsLeft = granted;
            EXPECT_NO_THROW(id = peer.enqueue(&i, sizeof i));
            allocationsLeft = -1;
            refusals += id == RTUser::kRefused ? 1 : 0;
        }
        EXPECT_EQ(id, i + 1);
    }
    EXPECT_GT(refusals, 6); // all three containers, and two of them more than once

    std::vector<detail::Block> blocks;
    peer.takeOutbox(blocks);
    ASSERT_EQ(blocks.size(), kPackets);
    for (std::uint32_t i = 0; i != kPackets; ++i) {
        EXPECT_EQ(std::memcmp(blocks[i].data(), &i, sizeof i), 0);
        EXPECT_EQ(peer.delivered(), i + 1);
    }
    EXPECT_EQ(peer.delivered(), RTUser::kRefused);
}

TEST(NoMemory, PacketsThatFindNoneArriveLater) {
    Pair pair;
    auto& [world, master, slave] = pair;
    Random sizes(2);
    for (int i = 0; i != 60; ++i) {
        master.send(slave, sizes.size(1, 400'000));
        slave.send(master, sizes.size(1, 3'000));
    }

    refusedBlocks = 1;
    world.runFor(500 * kMillisecond);
    for (const auto& [receiver, sender] : {std::pair{&slave, &master}, std::pair{&master, &slave}}) {
        const detail::Connection* connection = receiver->connectionTo(*sender);
        ASSERT_NE(connection, nullptr);
        EXPECT_EQ(connection->statistics(0).packetsReceived, 0u);
        EXPECT_EQ(connection->heldBytes(), 0u);
        EXPECT_GT(connection->malformed().overLimit, 0u);
    }

    refusedBlocks = 0.5; // of first blocks as well as of larger ones for packets begun
    world.runFor(200 * kMillisecond);
    EXPECT_GT(world.ledger().packetsDelivered(), 0u);
    refusedBlocks = 0;
    world.settle();
    world.idle();
    EXPECT_EQ(world.ledger().packetsDelivered(), 120u);
    EXPECT_EQ(world.ledger().connections().size(), 1u);
    EXPECT_TRUE(world.faults().none()) << world.faults().text();
}

} // namespace kor::simulation
