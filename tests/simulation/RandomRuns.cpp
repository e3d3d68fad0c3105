#include "simulator/Describe.h"
#include "simulator/World.h"
#include "tests/Sanitized.h"
#include "tests/TestArguments.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

namespace kor::simulation {

namespace {

using testing_support::kSanitized;

/// What runs have cost, for those who compare two versions of the protocol.
struct Cost {
    WireCounts wire;
    double packets = 0; ///< delivered
    double packetBytes = 0;
    double spurious = 0;     ///< datagrams taken for lost that had arrived, on connections still open
    double delaySeconds = 0; ///< from sending to receiving, sum over all packets

    void print() const {
        std::printf(
            "%.0f packets with %.1f MB: %.0f datagrams with %.1f MB, %.0f repairs with %.1f MB, %.0f of "
            "them needless; %.3f ms from sending to receiving\n",
            packets, packetBytes * 1e-6, static_cast<double>(wire.datagrams),
            static_cast<double>(wire.bytes) * 1e-6, static_cast<double>(wire.repairs),
            static_cast<double>(wire.repairBytes) * 1e-6, spurious, delaySeconds / packets * 1e3);
    }
};

constexpr std::uint32_t kMaxPacket = 2u << 20;

template <typename T, std::size_t N>
T oneOf(Random& random, const T (&choices)[N]) {
    return choices[random.below(N)];
}

/// A network of one kind, or of several at once.
PathModel randomPath(Random& random) {
    PathModel path;
    path.delay = random.between(20, 150) * kMicrosecond;
    constexpr std::size_t kMtus[] = {1472, 1472, 1472, 1472, 1472, 8972, 65507, 65507, 1200, 548};
    path.mtu = oneOf(random, kMtus);
    path.refusesTooBig = random.chance(0.5);
    if (random.chance(0.15))
        path.delay = random.between(1, 25) * kMillisecond;
    if (random.chance(0.4))
        path.loss = random.chance(0.5) ? random.uniform(0, 0.02) : random.uniform(0, 0.2);
    if (random.chance(0.15)) {
        path.burstBegins = random.uniform(0, 0.02);
        path.burst = random.between(100, 100'000) * kMicrosecond;
        path.burstLoss = random.uniform(0.5, 1);
    }
    if (random.chance(0.3)) {
        path.jitter = random.between(1, 3000) * kMicrosecond;
        path.keepsOrder = random.chance(0.5);
    }
    if (random.chance(0.2)) {
        path.reordered = random.uniform(0, 0.2);
        path.reorderDelay = random.between(10, 5000) * kMicrosecond;
    }
    if (random.chance(0.2))
        path.duplicated = random.uniform(0, 0.2);
    if (random.chance(0.2))
        path.corrupted = random.uniform(0, 0.05);
    if (random.chance(0.2)) {
        path.bytesPerSecond = static_cast<std::uint64_t>(random.between(5'000'000, 120'000'000));
        path.queueBytes = random.size(96u << 10, 1u << 20);
    }
    return path;
}

HostModel randomHost(Random& random) {
    HostModel host;
    host.driftPpm = random.uniform(-100, 100);
    host.clockZero = random.between(-3, 20) * kSecond + random.between(0, kSecond);
    constexpr std::uint32_t kBuffers[] = {212'992, 425'984, 8u << 20, 8u << 20};
    host.announcedSocketBuffer = oneOf(random, kBuffers);
    host.socketBuffer = host.announcedSocketBuffer;
    if (random.chance(0.2))
        host.socketBuffer = random.size(128u << 10, host.announcedSocketBuffer);
    host.wakeLatency = random.between(1, 100) * kMicrosecond;
    if (random.chance(0.15))
        host.handlerTime = random.between(10, 2000) * kMicrosecond;
    if (random.chance(0.1))
        host.fullSocket = random.uniform(0, 0.3);
    host.maxPacketBytes = kMaxPacket;
    host.receiveLimitBytes = random.chance(0.2) ? random.size(4096, 1u << 20) : 10u << 20;
    host.reconnects = true;
    return host;
}

/// A small world that follows from the seed: hosts, network, traffic, mishaps.
class Scenario {
public:
    explicit Scenario(std::uint64_t seed)
        : random_(seed ^ 0x5EEDull << 40), world_(worldModel(seed, random_)) {}

    /// The promises broken, one a line; empty when all were kept.
    std::string run(Cost& cost) {
        if (hasFlag("--trace"))
            world_.onSent = print;
        const std::size_t hosts = random_.chance(0.75) ? 2 : static_cast<std::size_t>(random_.between(3, 6));
        for (std::size_t i = 0; i != hosts; ++i)
            world_.addHost(randomHost(random_));
        for (std::size_t i = 1; i != hosts; ++i)
            join(world_.host(i));
        if (random_.chance(0.25))
            mishap();
        world_.runFor(random_.between(20, 80) * kMillisecond);
        world_.runUntil(busyUntil_);
        if (stable_)
            world_.runUntil([this] { return allConnected(); }, 3 * kSecond);
        world_.settle();
        checkConnections();
        world_.idle(random_.chance(0.1) ? 800 * kMillisecond : 200 * kMillisecond);
        addTo(cost);
        return world_.faults().text();
    }

private:
    static WorldModel worldModel(std::uint64_t seed, Random& random) {
        WorldModel model;
        model.seed = seed;
        model.path = randomPath(random);
        // Just below the wrap of what is on the wire.
        if (random.chance(0.5))
            model.firstPacketId = (1ull << 32) - random.below(40);
        if (random.chance(0.5))
            model.firstNumber = (1ull << 32) - random.below(200);
        return model;
    }

    static void print(const SentDatagram& sent) {
        std::printf("%11.6f ms  %d > %d %s %s\n", static_cast<double>(sent.at) * 1e-6, sent.from, sent.to,
                    sent.lost ? "x" : " ", describe(sent.bytes).c_str());
    }

    void addTo(Cost& cost) {
        cost.wire += world_.tap().total();
        for (const auto& [id, connection] : world_.ledger().connections())
            for (const Stream& stream : connection.streams)
                for (std::uint64_t i = 0; i != stream.delivered; ++i) {
                    const Stream::Packet& packet = stream.packets[i];
                    ++cost.packets;
                    cost.packetBytes += packet.size;
                    cost.delaySeconds += static_cast<double>(packet.received - packet.sent) * 1e-9;
                }
        for (std::size_t i = 0; i != world_.hostCount(); ++i)
            for (std::size_t j = 0; j != world_.hostCount(); ++j)
                if (const detail::Connection* connection = world_.host(i).connectionTo(world_.host(j)))
                    cost.spurious += static_cast<double>(connection->statistics(0).spuriousRepairs);
    }

    bool allConnected() {
        for (std::size_t i = 1; i != world_.hostCount(); ++i)
            if (world_.host(i).connections() == 0)
                return false;
        return true;
    }

    Host& master() { return world_.host(0); }

    void join(Host& slave) {
        if (random_.chance(0.3))
            world_.path(slave, master()) = randomPath(random_);
        const Nanoseconds start = random_.between(0, 5) * kMillisecond;
        world_.at(start, [this, &slave] { slave.connect(master()); });
        if (random_.chance(0.15))
            world_.at(start + random_.between(0, 2000) * kMicrosecond, [this, &slave] {
                if (master().running())
                    master().connect(slave);
            });
        frames(master(), slave, 60);
        frames(slave, master(), 60);
        if (random_.chance(0.4))
            bulk(master(), slave);
        if (random_.chance(0.15))
            bulk(slave, master());
    }

    /// Packets at the pace of a display.
    void frames(Host& from, Host& to, int most) {
        const int count = static_cast<int>(random_.between(0, most));
        const std::uint32_t largest = random_.size(1, 20'000);
        world_.flow(from, to, random_.between(0, 20) * kMillisecond, random_.between(20, 4000) * kMicrosecond,
                    count, [this, largest] { return random_.size(1, largest); });
    }

    void bulk(Host& from, Host& to) {
        const std::uint32_t size = random_.size(20'000, random_.chance(0.3) ? kMaxPacket : 300'000);
        world_.flow(from, to, random_.between(1, 20) * kMillisecond, kMillisecond,
                    static_cast<int>(random_.between(1, 3)), [size] { return size; });
    }

    void mishap() {
        Host& host = world_.host(random_.below(world_.hostCount()));
        const Nanoseconds start = random_.between(1, 40) * kMillisecond;
        switch (random_.below(8)) {
        default:
            return suspend(host, start, random_.between(5, 300) * kMillisecond);
        case 4:
            return suspend(host, start, random_.between(1000, 1500) * kMillisecond);
        case 5:
            stable_ = false;
            return suspend(host, start, random_.between(2500, 3000) * kMillisecond);
        case 6:
            stable_ = false;
            world_.at(start, [&host] { host.kill(); });
            return later(start + random_.between(0, 60) * kMillisecond, [this, &host] {
                host.start();
                if (&host != &master())
                    host.connect(master());
            });
        case 7:
            stable_ = false;
            return later(start, [&host] { host.goodbye(); });
        }
    }

    void suspend(Host& host, Nanoseconds start, Nanoseconds length) {
        world_.at(start, [&host] { host.suspend(); });
        later(start + length, [&host] { host.resume(); });
    }

    void later(Nanoseconds time, std::function<void()> action) {
        busyUntil_ = std::max(busyUntil_, time + kMillisecond);
        world_.at(time, std::move(action));
    }

    void checkConnections() {
        for (std::size_t i = 1; i != world_.hostCount() && stable_; ++i)
            if (world_.host(i).connectionTo(master()) == nullptr)
                world_.faults().add("host " + std::to_string(i) + " is not connected");
        for (const auto& [id, connection] : world_.ledger().connections())
            for (const auto& side : connection.sides)
                if (side.ended && stable_)
                    world_.faults().add("connection " + std::to_string(id) + " ended, reason " +
                                        std::to_string(static_cast<int>(side.end)));
    }

    Random random_;
    World world_;
    bool stable_ = true; ///< nothing happens that may end a connection
    Nanoseconds busyUntil_ = 0;
};

} // namespace

/// `--runs N` makes N runs, `--seed S` begins with that seed, `--trace` prints every datagram.
TEST(RandomRuns, KeepEveryPromise) {
    const std::uint64_t first = numberAfter("--seed", 1);
    const std::uint64_t runs = numberAfter("--runs", kSanitized ? 500 : 10'000);
    Cost cost;
    int failed = 0;
    for (std::uint64_t seed = first; seed != first + runs && failed != 5; ++seed) {
        const std::string faults = Scenario(seed).run(cost);
        if (faults.empty())
            continue;
        ++failed;
        ADD_FAILURE() << "seed " << seed << ":\n"
                      << faults << "to repeat: simulation_RandomRuns --seed " << seed << " --runs 1";
    }
    cost.print();
}

} // namespace kor::simulation
