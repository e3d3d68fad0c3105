// Loss and its repair, on the simulator's virtual time: the same figures on every machine.

#include "../Statistics.h"
#include "Figures.h"

#include "tests/simulation/world/World.h"

#include <stdexcept>
#include <vector>

namespace kor::bench {

namespace {

using namespace kor::simulation;

constexpr std::uint32_t kPayload = 1472;
constexpr double kLeastRepair = 0.1; // no repair takes less than the way there, in milliseconds

WorldModel seeded(std::uint64_t seed) {
    WorldModel model;
    model.seed = seed;
    return model;
}

/// Two connected hosts with 0.1 ms of way between them, each direction losing that part of its datagrams.
class Scene {
public:
    Scene(std::uint64_t seed, double loss) : world_(seeded(seed)) {
        HostModel model;
        model.maxDatagramPayload = kPayload;
        from_ = &world_.addHost(model);
        to_ = &world_.addHost(model);
        from_->connect(*to_);
        world_.runFor(kSecond / 2);
        PathModel path;
        path.loss = loss;
        world_.setPath(*from_, *to_, path);
    }

    World& world() { return world_; }
    Host& from() { return *from_; }
    Host& to() { return *to_; }

    const Stream& stream() { return connection().streams[1]; }
    std::uint64_t wireBytes() { return world_.tap().counts(connection().id, true).bytes; }
    std::uint64_t wireDatagrams() { return world_.tap().counts(connection().id, true).datagrams; }

    void settle() {
        world_.settle();
        if (!world_.faults().none())
            throw std::runtime_error(world_.faults().text());
    }

private:
    const Ledger::Connection& connection() { return world_.ledger().connections().begin()->second; }

    World world_;
    Host* from_ = nullptr;
    Host* to_ = nullptr;
};

/// How long each packet took, in milliseconds.
std::vector<double> delays(std::uint64_t seed, double loss, std::uint32_t bytes, int packets) {
    Scene scene(seed, loss);
    scene.world().flow(scene.from(), scene.to(), scene.world().now(), 20 * kMillisecond, packets,
                       [bytes] { return bytes; });
    scene.world().runFor(packets * 20 * kMillisecond);
    scene.settle();
    std::vector<double> result;
    for (const Stream::Packet& packet : scene.stream().packets)
        result.push_back(static_cast<double>(packet.received - packet.sent) * 1e-6);
    return result;
}

/// The extra delays of those packets that had to wait for a repair.
std::vector<double> extraDelays(std::uint32_t bytes, int packets) {
    const double clean = quantile(delays(1, 0, bytes, 50), 1);
    std::vector<double> extra;
    for (const double delay : delays(2, 0.01, bytes, packets))
        if (delay > clean + kLeastRepair)
            extra.push_back(delay - clean);
    return extra;
}

} // namespace

void measureRepair(Table& table) {
    // A packet of 65 datagrams mostly loses one in its middle; one of a single datagram loses its tail.
    const std::vector<double> middle = extraDelays(65 * 1437, 6000);
    const std::vector<double> tail = extraDelays(1000, 40000);
    table.add(
        {"repair, 1 % loss, extra delay of packets hit, p99, vs limit", quantile(middle, 0.99), "ms", 2});
    table.add(
        {"repair, 1 % loss, extra delay of packets hit, p50, vs limit", quantile(middle, 0.5), "ms", 2});
    table.add({"repair, 1 % loss, lost tail, p99, vs limit", quantile(tail, 0.99), "ms", 4});
    table.add({"repair, 1 % loss, lost tail, p50, vs limit", quantile(tail, 0.5), "ms", 4});
}

void measureWireBytes(Table& table) {
    constexpr std::uint32_t kBytes = 10u << 20;
    constexpr int kSeeds = 15;
    constexpr double kBelow = 28; // IPv4 and UDP headers
    std::vector<double> datagramBytes;
    std::vector<double> packetBytes;
    for (std::uint64_t seed = 1; seed <= kSeeds; ++seed) {
        Scene scene(seed, 0.001);
        const std::uint64_t bytes = scene.wireBytes();
        const std::uint64_t datagrams = scene.wireDatagrams();
        scene.from().send(scene.to(), kBytes);
        scene.settle();
        const auto sent = static_cast<double>(scene.wireBytes() - bytes);
        const auto headers = kBelow * static_cast<double>(scene.wireDatagrams() - datagrams);
        datagramBytes.push_back(sent / (1 << 20));
        packetBytes.push_back((sent + headers) / (1 << 20));
    }
    table.add({"wire-bytes, 10 MiB at 0.1 % loss, datagrams, vs packet", median(datagramBytes), "MiB", 10});
    table.add(
        {"wire-bytes, 10 MiB at 0.1 % loss, with IP and UDP, vs packet", median(packetBytes), "MiB", 10});
}

} // namespace kor::bench
