#include "simulator/World.h"
#include "tests/TestArguments.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace kor::simulation {

namespace {

/// What a scenario puts on the wire, to the datagram.
struct Counts {
    std::uint64_t datagrams = 0;
    std::uint64_t wireBytes = 0;
    std::uint64_t fragments = 0;
    std::uint64_t repairs = 0;
    std::uint64_t repairBytes = 0;
    std::uint64_t acks = 0;
    std::uint64_t pings = 0;

    bool operator==(const Counts&) const = default;

    std::string text() const {
        std::string all;
        for (const std::uint64_t count : {datagrams, wireBytes, fragments, repairs, repairBytes, acks, pings})
            all += (all.empty() ? "" : ", ") + std::to_string(count);
        return "{" + all + "}";
    }
};

struct Case {
    const char* name;
    std::function<void(World&)> play; ///< hosts and traffic
    WorldModel model;
    Counts counts;
};

void PrintTo(const Case& test, std::ostream* out) {
    *out << test.name;
}

constexpr std::uint32_t kMegabyte = 1u << 20;

Host& join(World& world, Host& master, const HostModel& model = {}) {
    Host& slave = world.addHost(model);
    slave.connect(master);
    return slave;
}

/// A wall: frames of 20 KB to each slave at 60 Hz, reports back.
void frames(World& world, std::size_t slaves, int count, std::uint32_t bytes, const HostModel& model = {}) {
    Host& master = world.addHost();
    for (std::size_t i = 0; i != slaves; ++i)
        join(world, master, model);
    world.runFor(200 * kMillisecond);
    const Nanoseconds start = world.now();
    for (std::size_t i = 1; i <= slaves; ++i) {
        world.flow(master, world.host(i), start, 16'666'667, count, [bytes] { return bytes; });
        world.flow(world.host(i), master, start + 5 * kMillisecond, 16'666'667, count, [] { return 38u; });
    }
    world.settle();
}

void bulk(World& world, std::uint32_t bytes, int count, const HostModel& model = {}) {
    Host& master = world.addHost();
    Host& slave = join(world, master, model);
    world.runFor(200 * kMillisecond);
    world.flow(master, slave, world.now(), kMillisecond, count, [bytes] { return bytes; });
    world.settle(60 * kSecond);
}

void frameWall(World& world) {
    frames(world, 4, 120, 20'000);
}

PathModel lossy(double loss) {
    PathModel path;
    path.loss = loss;
    path.mtu = 1472;
    return path;
}

PathModel ethernet() {
    return lossy(0);
}

/// A path of its own for each direction, and everything that is drawn in the seeds of the case.
std::vector<Case> cases() {
    std::vector<Case> all;
    const auto add = [&](const char* name, const PathModel& path, std::function<void(World&)> play,
                         const Counts& counts) {
        WorldModel model;
        model.seed = 42;
        model.path = path;
        all.push_back({name, std::move(play), model, counts});
    };
    // Counts: datagrams, wire bytes, fragments, repairs, repaired bytes, pure acknowledgements, pings.
    add("Idle", ethernet(),
        [](World& world) {
            frames(world, 1, 0, 0);
            world.runFor(10 * kSecond);
        },
        {105, 770312, 0, 0, 0, 58, 47});
    add("Frames", ethernet(), frameWall, {8580, 13002240, 7200, 0, 0, 1048, 156});
    add("FramesAtOnePercentLoss", lossy(0.01), frameWall, {8745, 13117390, 7283, 83, 101893, 1129, 156});
    add("FramesAtTwentyPercentLoss", lossy(0.2), frameWall,
        {12346, 16241457, 9857, 2657, 2860403, 2395, 162});
    add("Bulk", ethernet(), [](World& world) { bulk(world, kMegabyte, 32); },
        {23954, 35022613, 23360, 0, 0, 567, 25});
    add("BulkOnJumboFrames", {}, [](World& world) { bulk(world, kMegabyte, 32); },
        {1111, 33725321, 544, 0, 0, 554, 11});
    add("LargePacketAtOneInAThousandLost", lossy(0.001), [](World& world) { bulk(world, 10 * kMegabyte, 1); },
        {7516, 11349289, 7307, 9, 12933, 185, 23});

    PathModel path = ethernet();
    path.burstBegins = 0.002;
    path.burst = 20 * kMillisecond;
    add("BurstsOfLoss", path, frameWall, {8780, 13169728, 7368, 168, 159147, 1097, 156});

    path = ethernet();
    path.reordered = 0.1;
    path.reorderDelay = 3 * kMillisecond;
    add("Reordering", path, frameWall, {9678, 13474245, 7554, 354, 423342, 1790, 156});

    path = ethernet();
    path.duplicated = 0.2;
    add("Duplication", path, frameWall, {8580, 13002240, 7200, 0, 0, 1048, 156});

    path = ethernet();
    path.corrupted = 0.05;
    add("Corruption", path, frameWall, {9342, 13592682, 7613, 413, 521408, 1396, 156});

    path = ethernet();
    path.delay = 5 * kMillisecond;
    path.jitter = 2 * kMillisecond;
    path.keepsOrder = false;
    add("JitteredDelay", path, frameWall, {11238, 13225114, 7284, 84, 84068, 3612, 176});

    add("AsymmetricDelay", ethernet(),
        [](World& world) {
            Host& master = world.addHost();
            Host& slave = world.addHost();
            world.path(master, slave).delay = 8 * kMillisecond;
            slave.connect(master);
            world.runFor(200 * kMillisecond);
            world.flow(master, slave, world.now(), 4 * kMillisecond, 250, [] { return 10'000u; });
            world.settle();
        },
        {2115, 3345554, 1750, 0, 0, 276, 40});

    path = ethernet();
    path.bytesPerSecond = 12'500'000;
    path.queueBytes = 256u << 10;
    add("RateLimit", path, [](World& world) { bulk(world, kMegabyte, 8); },
        {7096, 9429951, 5845, 0, 0, 1185, 39});

    HostModel small;
    small.socketBuffer = 256u << 10;
    small.handlerTime = 0;
    small.wakeLatency = kMillisecond;
    add("OverflowingReceiver", ethernet(), [small](World& world) { bulk(world, kMegabyte, 8, small); },
        {6781, 10567534, 6804, 956, 1195486, 72, 34});

    add("SuspendedSlave", ethernet(),
        [](World& world) {
            Host& master = world.addHost();
            Host& slave = join(world, master);
            world.runFor(200 * kMillisecond);
            world.flow(master, slave, world.now(), 4 * kMillisecond, 500, [] { return 3000u; });
            world.runFor(100 * kMillisecond);
            slave.suspend();
            world.runFor(1500 * kMillisecond);
            slave.resume();
            world.settle();
        },
        {1487, 2336456, 1539, 11, 8874, 166, 49});

    HostModel drifting;
    drifting.driftPpm = 100;
    drifting.clockZero = -kSecond;
    add("DriftingSlaves", ethernet(), [drifting](World& world) { frames(world, 4, 60, 20'000, drifting); },
        {4404, 8038020, 3600, 0, 0, 568, 156});

    add("TwoHundredAndFiftySlaves", lossy(0.01), [](World& world) { frames(world, 250, 12, 1024); },
        {26616, 195773646, 6114, 114, 74338, 10763, 9742});

    add("WrappingNumbers", lossy(0.01), frameWall, {8745, 13117390, 7283, 83, 101893, 1129, 156});
    all.back().model.firstPacketId = (1ull << 32) - 50;
    all.back().model.firstNumber = (1ull << 32) - 500;
    return all;
}

class ExactCounts : public testing::TestWithParam<Case> {};

} // namespace

/// An efficiency lost, or won, shows here. Who has changed the protocol on purpose looks at the difference,
/// and puts the new counts in, which `simulation_ExactCounts --print` lists.
TEST_P(ExactCounts, AreThoseOfTheSeed) {
    World world(GetParam().model);
    GetParam().play(world);
    const WireCounts wire = world.tap().total();
    const Counts counts{wire.datagrams,   wire.bytes, wire.fragments, wire.repairs,
                        wire.repairBytes, wire.acks,  wire.pings};
    if (std::ranges::find(testArguments(), "--print") != testArguments().end())
        std::printf("%s: %s\n", GetParam().name, counts.text().c_str());
    EXPECT_TRUE(world.faults().none()) << world.faults().text();
    EXPECT_GT(world.ledger().connections().size(), 0u);
    EXPECT_TRUE(world.ledger().settled()) << world.ledger().unsettled();
    EXPECT_EQ(counts, GetParam().counts)
        << "counted " << counts.text() << "\nexpected " << GetParam().counts.text()
        << "\nto repeat: simulation_ExactCounts --gtest_filter='*/" << GetParam().name << "'";
}

INSTANTIATE_TEST_SUITE_P(All, ExactCounts, testing::ValuesIn(cases()),
                         [](const auto& test) { return std::string(test.param.name); });

} // namespace kor::simulation
