// Many peers in one process, each with a socket and a core of its own, all served by one thread: on two
// processors a thread for each would measure the scheduler instead of the sender. Notes when the kernel
// stamped each packet.

#include "Arrivals.h"
#include "Roles.h"
#include "ServeArrivals.h"
#include "SystemTime.h"

#include "support/net/Endpoint.h"
#include "support/net/TrainSender.h"
#include "support/platform/ReceiveBatch.h"
#include "support/platform/UdpSocket.h"

#include <support/jTimer.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include <sys/epoll.h>

namespace kor::bench {

namespace {

using namespace kor::detail;

constexpr Nanoseconds kLongestWait = 50 * kMillisecond;

/// One peer without a thread.
class Peer {
public:
    Peer(const RTAddr& master, std::uint64_t seed) {
        sockets_.push_back(std::make_unique<UdpSocket>());
        UdpSocketOptions socketOptions;
        if (!socket().open(0, socketOptions))
            throw std::runtime_error(socket().error());
        EndpointConfig config;
        config.mine = {64u << 20, 72u << 20, socket().features().receiveBufferBytes, 1472};
        config.random = [state = seed]() mutable {
            return state = state * 6364136223846793005u + 1442695040888963407u;
        };
        endpoint_.emplace(std::move(config), clockNow());
        sender_.emplace(sockets_, TrainSender::Options{true, false});
        endpoint_->connect(master, kSecond, 10, clockNow());
    }

    UdpSocket& socket() { return *sockets_.front(); }
    bool connected() const { return endpoint_->connectionCount() != 0; }
    Nanoseconds nextWake() const { return endpoint_->nextWake(); }

    void receive(ReceiveBatch& batch, Arrivals& arrivals, std::int64_t clockZero) {
        socket().receive(batch);
        for (const ReceivedRun& run : batch)
            for (std::size_t i = 0; i != run.datagramCount(); ++i) {
                endpoint_->onDatagram(0, {run.from.ip, run.from.port}, run.datagram(i), run.arrival);
                drain(arrivals, run.arrival + clockZero);
            }
    }

    void send(std::span<std::uint8_t> buffer) {
        for (int trains = 0; trains != 8 && endpoint_->nextWake() <= clockNow(); ++trains)
            endpoint_->poll(clockNow(), buffer, *sender_, 1);
        sender_->flush();
    }

    void sayGoodbye(std::span<std::uint8_t> buffer) {
        endpoint_->sayGoodbye(buffer, *sender_);
        sender_->flush();
    }

private:
    void drain(Arrivals& arrivals, std::int64_t at) {
        for (Ring<NetEvent>& events = endpoint_->events(); !events.empty(); events.pop()) {
            const NetEvent& event = events.front();
            if (event.kind != NetEvent::Kind::packet)
                continue;
            arrivals.note({event.bytes.data(), event.bytes.size()}, at);
            endpoint_->handedUp(event.serial, event.bytes.size(), clockNow());
        }
    }

    std::vector<std::unique_ptr<UdpSocket>> sockets_;
    std::optional<Endpoint> endpoint_;
    std::optional<TrainSender> sender_;
};

class Host {
public:
    Host(std::uint16_t masterPort, std::size_t count)
        : clockZero_(static_cast<std::int64_t>(jTimer::getZeroOnSystemClock() * 1e9)),
          poll_(::epoll_create1(EPOLL_CLOEXEC)) {
        for (std::size_t i = 0; i != count; ++i) {
            peers_.push_back(std::make_unique<Peer>(
                RTAddr(kThisMachine, masterPort), static_cast<std::uint64_t>(systemNow()) * 31 + i * 2 + 1));
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = i;
            ::epoll_ctl(poll_, EPOLL_CTL_ADD, peers_[i]->socket().fd(), &event);
        }
    }
    ~Host() { ::close(poll_); }

    void turn() {
        Nanoseconds wake = clockNow() + kLongestWait;
        for (const auto& peer : peers_)
            wake = std::min(wake, peer->nextWake());
        const Nanoseconds left = std::max<Nanoseconds>(0, wake == kNow ? 0 : wake - clockNow());
        const timespec wait{0, static_cast<long>(left)};
        const int ready =
            ::epoll_pwait2(poll_, ready_.data(), static_cast<int>(ready_.size()), &wait, nullptr);
        for (int i = 0; i < ready; ++i)
            peers_[ready_[static_cast<std::size_t>(i)].data.u64]->receive(batch_, arrivals, clockZero_);
        const Nanoseconds now = clockNow();
        for (const auto& peer : peers_)
            if (peer->nextWake() <= now)
                peer->send(buffer_);
    }

    bool connected() const {
        return std::all_of(peers_.begin(), peers_.end(), [](const auto& peer) { return peer->connected(); });
    }
    void sayGoodbye() {
        for (const auto& peer : peers_)
            peer->sayGoodbye(buffer_);
    }

    Arrivals arrivals;

private:
    static constexpr std::uint32_t kThisMachine = 0x7F000001;

    std::int64_t clockZero_;
    int poll_;
    std::vector<std::unique_ptr<Peer>> peers_;
    std::array<epoll_event, 256> ready_;
    ReceiveBatch batch_;
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(64 << 10);
};

} // namespace

void korPeerHost(const std::vector<double>& arguments, Orders& orders) {
    Host host(static_cast<std::uint16_t>(arguments.at(0)), static_cast<std::size_t>(arguments.at(1)));
    while (!host.connected())
        host.turn();
    serve(host, orders);
    host.sayGoodbye();
}

} // namespace kor::bench
