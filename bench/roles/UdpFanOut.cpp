// The same over bare UDP and nothing else: one thread sends to every peer in batches, and takes in their
// answers as they come. The peers answer each packet with as many bytes as an acknowledgement has, and as
// late.

#include "FanOut.h"
#include "Role.h"

#include "support/Time.h"

#include <support/jTimer.h>

#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <stdexcept>

namespace kor::bench {

namespace {

using namespace kor::detail;

constexpr std::uint32_t kThisMachine = 0x7F000001;
constexpr std::size_t kBatch = 64;
constexpr Nanoseconds kAnswerDelay = 500 * kMicrosecond;
constexpr std::array<std::uint8_t, 36> kAnswer{};

class Master {
public:
    Master() { loop_.add(socket_); }

    double port() const { return socket_.localPort(); }

    /// Everybody who has sent something is a peer.
    void awaitPeers(double count) {
        while (static_cast<double>(peers_.size()) < count)
            loop_.wait(kNever, [this](std::size_t, const ReceivedRun& run) { peers_.push_back(run.from); });
    }

    void send(double ticks, double perSecond, double bytes) {
        std::vector<std::uint8_t> packet(static_cast<std::size_t>(bytes), 'f');
        std::vector<OutDatagram> datagrams;
        for (const SocketAddress& peer : peers_)
            datagrams.push_back({peer, packet});
        const Nanoseconds start = clockNow();
        for (std::int32_t tick = 0; tick < ticks; ++tick) {
            const auto due = start + static_cast<Nanoseconds>(1e9 * tick / perSecond);
            while (clockNow() < due)
                loop_.wait(due, [](std::size_t, const ReceivedRun&) {});
            stampTick(packet, tick);
            for (std::size_t i = 0; i < datagrams.size(); i += kBatch) {
                const auto batch = std::span(datagrams).subspan(i, std::min(kBatch, datagrams.size() - i));
                std::size_t sent = 0;
                if (socket_.sendBatch(batch, sent) != SendResult::sent)
                    throw std::runtime_error("the kernel takes no more");
            }
        }
    }

private:
    UdpSocket socket_;
    SocketLoop loop_;
    std::vector<SocketAddress> peers_;
};

class Host {
public:
    Host(double masterPort, double count) : master_{kThisMachine, static_cast<std::uint16_t>(masterPort)} {
        for (; count > 0; --count) {
            sockets_.push_back(std::make_unique<UdpSocket>());
            loop_.add(*sockets_.back());
            sockets_.back()->send(master_, kAnswer);
        }
    }

    void turn() {
        loop_.wait(due_.empty() ? kNever : due_.front().at, [this](std::size_t peer, const ReceivedRun& run) {
            arrivals.note(run.bytes, run.arrival);
            due_.push_back({run.arrival + kAnswerDelay, peer});
        });
        for (const Nanoseconds now = clockNow(); !due_.empty() && due_.front().at <= now; due_.pop_front())
            sockets_[due_.front().peer]->send(master_, kAnswer);
    }

    TickArrivals arrivals;

private:
    struct Due {
        Nanoseconds at;
        std::size_t peer;
    };

    const SocketAddress master_;
    SocketLoop loop_;
    std::vector<std::unique_ptr<UdpSocket>> sockets_;
    std::deque<Due> due_;
};

const Role kMaster("udp-master", [](const Numbers&) {
    Master master;
    followOrders({master.port()}, [&](const Order& order) {
        if (order.word == "users")
            master.awaitPeers(order.numbers.at(0));
        else if (order.word == "ticks")
            master.send(order.numbers.at(0), order.numbers.at(1), order.numbers.at(2));
        return usage();
    });
});

const Role kPeerHost("udp-peer-host", [](const Numbers& arguments) {
    Host host(arguments.at(0), arguments.at(1));
    serve(host);
});

} // namespace

} // namespace kor::bench
