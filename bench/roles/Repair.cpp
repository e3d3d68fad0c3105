// Loss and its repair, on the simulator's virtual time: the same numbers on every machine.

#include "Role.h"

#include "simulator/Pair.h"

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

HostModel shortDatagrams() {
    HostModel model;
    model.maxDatagramPayload = kPayload;
    return model;
}

/// Two connected hosts 0.1 ms apart, each direction losing that part of its datagrams.
struct LossyPair : Pair {
    LossyPair(double seed, double loss) : Pair(seeded(seed), shortDatagrams(), shortDatagrams()) {
        world.runFor(kSecond / 2);
        PathModel path;
        path.loss = loss;
        world.setPath(master, slave, path);
    }

    const Ledger::Connection& connection() { return world.ledger().connections().begin()->second; }
    /// Bytes and datagrams that the slave has put on the wire; it is who sends.
    Numbers sent() {
        const auto& counts = world.tap().counts(connection().id, true);
        return {static_cast<double>(counts.bytes), static_cast<double>(counts.datagrams)};
    }
    void settle() {
        drive();
        if (!world.faults().none())
            throw std::runtime_error(world.faults().text());
    }
};

/// How long each packet took, in milliseconds.
Numbers delays(double seed, double loss, std::uint32_t bytes, int packets) {
    LossyPair pair(seed, loss);
    pair.world.flow(pair.slave, pair.master, pair.world.now(), kInterval, packets, [bytes] { return bytes; });
    pair.world.runFor(packets * kInterval);
    pair.settle();
    Numbers result;
    for (const Stream::Packet& packet : pair.connection().streams[1].packets)
        result.push_back(static_cast<double>(packet.received - packet.sent) * 1e-6);
    return result;
}

/// Bytes and datagrams on the wire for one packet.
Numbers wire(double seed, double loss, std::uint32_t bytes) {
    LossyPair pair(seed, loss);
    const Numbers before = pair.sent();
    pair.slave.send(pair.master, bytes);
    pair.settle();
    const Numbers after = pair.sent();
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
