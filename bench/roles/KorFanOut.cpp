// A master with many peers, and the peers, each with a core of its own.

#include "FanOut.h"
#include "KorNode.h"
#include "Role.h"

#include "support/net/connection/Endpoint.h"
#include "support/net/driver/TrainSender.h"

#include <support/jTimer.h>

#include <algorithm>
#include <memory>
#include <optional>

namespace kor::bench {

namespace {

using namespace kor::detail;

constexpr std::uint32_t kThisMachine = 0x7F000001;
constexpr int kMaxTrains = 8;

class Peer {
public:
    Peer(SocketLoop& loop, double masterPort, std::uint64_t seed) {
        sockets_.push_back(std::make_unique<UdpSocket>());
        loop.add(*sockets_.front());
        EndpointConfig config;
        config.mine = {64u << 20, 72u << 20, sockets_.front()->features().receiveBufferBytes, 1472};
        config.random = [state = seed]() mutable {
            return state = state * 6364136223846793005u + 1442695040888963407u;
        };
        endpoint_.emplace(std::move(config), clockNow());
        sender_.emplace(sockets_, TrainSender::Options{true, false});
        const RTAddr master(kThisMachine, static_cast<unsigned short>(masterPort));
        endpoint_->connect(master, kSecond, 10, clockNow());
    }

    bool connected() const { return endpoint_->connectionCount() != 0; }
    Nanoseconds nextWake() const { return endpoint_->nextWake(); }

    void receive(const ReceivedRun& run, TickArrivals& arrivals) {
        for (std::size_t i = 0; i != run.datagramCount(); ++i) {
            endpoint_->onDatagram(0, {run.from.ip, run.from.port}, run.datagram(i), run.arrival);
            for (Ring<NetEvent>& events = endpoint_->events(); !events.empty(); events.pop()) {
                const NetEvent& event = events.front();
                if (event.kind != NetEvent::Kind::packet)
                    continue;
                arrivals.note({event.bytes.data(), event.bytes.size()}, run.arrival);
                endpoint_->consumed(event.serial, event.bytes.size(), clockNow());
            }
        }
    }

    void send(std::span<std::uint8_t> buffer) {
        for (int trains = 0; trains != kMaxTrains && nextWake() <= clockNow(); ++trains)
            endpoint_->poll(clockNow(), buffer, *sender_, 1);
        sender_->flush();
    }

private:
    std::vector<std::unique_ptr<UdpSocket>> sockets_;
    std::optional<Endpoint> endpoint_;
    std::optional<TrainSender> sender_;
};

class Host {
public:
    Host(double masterPort, double count) {
        for (auto seed = static_cast<std::uint64_t>(systemNow()) * 31 + 1; count > 0; --count, seed += 2)
            peers_.push_back(std::make_unique<Peer>(loop_, masterPort, seed));
    }

    void turn() {
        Nanoseconds wake = kNever;
        for (const auto& peer : peers_)
            wake = std::min(wake, peer->nextWake());
        loop_.wait(wake,
                   [this](std::size_t i, const ReceivedRun& run) { peers_[i]->receive(run, arrivals); });
        const Nanoseconds now = clockNow();
        for (const auto& peer : peers_)
            if (peer->nextWake() <= now)
                peer->send(buffer_);
    }

    bool connected() const {
        return std::all_of(peers_.begin(), peers_.end(), [](const auto& peer) { return peer->connected(); });
    }

    TickArrivals arrivals;

private:
    SocketLoop loop_;
    std::vector<std::unique_ptr<Peer>> peers_;
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(64 << 10);
};

// "users COUNT" waits until so many are connected; "ticks COUNT PER_SECOND BYTES" sends one packet to
// everybody, so often. Every order, "usage" among them, answers what the process has used by then.
const Role kMaster("kor-master", [](const Numbers&) {
    KorNode node;
    std::vector<RTUser*> users;
    followOrders({node.port()}, [&](const Order& order) {
        if (order.word == "users")
            users = node.users(order.numbers.at(0));
        if (order.word == "ticks")
            sendTicks(order, [&](const std::vector<std::uint8_t>& packet) {
                for (RTUser* const user : users)
                    user->sendAsyn(packet.data(), static_cast<int>(packet.size()));
            });
        return usage();
    });
});

// Given the master's port, and how many.
const Role kPeerHost("kor-peer-host", [](const Numbers& arguments) {
    Host host(arguments.at(0), arguments.at(1));
    while (!host.connected())
        host.turn();
    serve(host);
});

// A peer with the whole layer, as a program has it. Arrivals are those of the callbacks.
const Role kReader("kor-reader", [](const Numbers& arguments) {
    TickArrivals arrivals;
    KorNode node;
    node.onPacketHook = [&](RTUser&, Packet& packet) {
        arrivals.note({static_cast<const std::uint8_t*>(packet.data), packet.size}, clockNow());
    };
    node.connect(arguments.at(0));
    followOrders({}, [&](const Order&) { return arrivals.take(); });
});

} // namespace

} // namespace kor::bench
