// Loss and its repair, on the simulator's virtual time: the same numbers on every machine.

#include "Role.h"

#include "simulator/World.h"

#include <stdexcept>

namespace kor::bench {

namespace {

using namespace kor::simulation;

constexpr std::uint32_t kPayload = 1472;
constexpr Nanoseconds kInterval = 20 * kMillisecond;

WorldModel seeded(double seed) {
    WorldModel model;
    model.seed = static_cast<std::uint64_t>(seed);
    return model;
}

/// Two connected hosts 0.1 ms apart, each direction losing that part of its datagrams.
class Scene {
public:
    Scene(double seed, double loss) : world(seeded(seed)), from(addHost()), to(addHost()) {
        from.connect(to);
        world.runFor(kSecond / 2);
        PathModel path;
        path.loss = loss;
        world.setPath(from, to, path);
    }

    const Ledger::Connection& connection() { return world.ledger().connections().begin()->second; }
    /// Bytes and datagrams that the sender has put on the wire.
    Numbers sent() {
        const auto& counts = world.tap().counts(connection().id, true);
        return {static_cast<double>(counts.bytes), static_cast<double>(counts.datagrams)};
    }
    void settle() {
        world.settle();
        if (!world.faults().none())
            throw std::runtime_error(world.faults().text());
    }

    World world;
    Host& from;
    Host& to;

private:
    Host& addHost() {
        HostModel model;
        model.maxDatagramPayload = kPayload;
        return world.addHost(model);
    }
};

/// How long each packet took, in milliseconds.
Numbers delays(double seed, double loss, std::uint32_t bytes, int packets) {
    Scene scene(seed, loss);
    scene.world.flow(scene.from, scene.to, scene.world.now(), kInterval, packets, [bytes] { return bytes; });
    scene.world.runFor(packets * kInterval);
    scene.settle();
    Numbers result;
    for (const Stream::Packet& packet : scene.connection().streams[1].packets)
        result.push_back(static_cast<double>(packet.received - packet.sent) * 1e-6);
    return result;
}

/// Bytes and datagrams on the wire for one packet.
Numbers wire(double seed, double loss, std::uint32_t bytes) {
    Scene scene(seed, loss);
    const Numbers before = scene.sent();
    scene.from.send(scene.to, bytes);
    scene.settle();
    const Numbers after = scene.sent();
    return {after[0] - before[0], after[1] - before[1]};
}

// "delays SEED LOSS BYTES PACKETS" and "wire SEED LOSS BYTES".
const Role kRepair("repair", [](const Numbers&) {
    followOrders({}, [](const Order& order) {
        const Numbers& n = order.numbers;
        const auto bytes = static_cast<std::uint32_t>(n.at(2));
        return order.word == "wire" ? wire(n[0], n[1], bytes)
                                    : delays(n[0], n[1], bytes, static_cast<int>(n.at(3)));
    });
});

} // namespace

} // namespace kor::bench
