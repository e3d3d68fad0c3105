// Fan-out over bare UDP and nothing else: one thread sends to every peer in batches, and takes in their
// answers as they come. The peers answer each packet with as many bytes as an acknowledgement has, and as
// late.

#include "Arrivals.h"
#include "Roles.h"
#include "ServeArrivals.h"
#include "SystemTime.h"

#include "support/net/Time.h"
#include "support/platform/Poller.h"
#include "support/platform/ReceiveBatch.h"
#include "support/platform/UdpSocket.h"

#include <support/jTimer.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include <sys/epoll.h>
#include <unistd.h>

namespace kor::bench {

namespace {

using namespace kor::detail;

constexpr std::uint32_t kThisMachine = 0x7F000001;
constexpr std::size_t kBatch = 64;
constexpr Nanoseconds kAnswerDelay = 500 * kMicrosecond;
constexpr Nanoseconds kLongestWait = 50 * kMillisecond;
constexpr std::array<std::uint8_t, 36> kAnswer{};

std::unique_ptr<UdpSocket> openSocket() {
    auto socket = std::make_unique<UdpSocket>();
    if (!socket->open(0, UdpSocketOptions{}))
        throw std::runtime_error(socket->error());
    return socket;
}

class UdpMaster {
public:
    UdpMaster() { poller_.add(socket_->fd()); }

    std::uint16_t port() const { return socket_->localPort(); }

    /// Everybody who has sent something is a peer.
    void awaitPeers(std::size_t count) {
        while (peers_.size() < count)
            serve(clockNow() + kLongestWait, true);
    }

    void tick(int count, double perSecond, std::size_t bytes) {
        std::vector<std::uint8_t> packet(bytes, 'f');
        std::vector<OutDatagram> datagrams;
        for (const SocketAddress& peer : peers_)
            datagrams.push_back({peer, packet});
        const Nanoseconds start = clockNow();
        for (std::int32_t n = 0; n != count; ++n) {
            const auto due = start + static_cast<Nanoseconds>(1e9 * n / perSecond);
            while (clockNow() < due)
                serve(due, false);
            std::memcpy(packet.data(), &n, sizeof n);
            for (std::size_t i = 0; i < datagrams.size(); i += kBatch) {
                const auto batch = std::span(datagrams).subspan(i, std::min(kBatch, datagrams.size() - i));
                std::size_t sent = 0;
                if (socket_->sendBatch(batch, sent) != SendResult::sent)
                    throw std::runtime_error("the kernel takes no more");
            }
        }
    }

private:
    void serve(Nanoseconds until, bool join) {
        poller_.wait(until);
        if (!poller_.readable(0))
            return;
        socket_->receive(batch_);
        for (const ReceivedRun& run : batch_)
            if (join)
                peers_.push_back(run.from);
    }

    std::unique_ptr<UdpSocket> socket_ = openSocket();
    Poller poller_;
    ReceiveBatch batch_;
    std::vector<SocketAddress> peers_;
};

class UdpHost {
public:
    UdpHost(std::uint16_t masterPort, std::size_t count)
        : master_{kThisMachine, masterPort}, poll_(::epoll_create1(EPOLL_CLOEXEC)) {
        for (std::size_t i = 0; i != count; ++i) {
            sockets_.push_back(openSocket());
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = i;
            ::epoll_ctl(poll_, EPOLL_CTL_ADD, sockets_[i]->fd(), &event);
            sockets_[i]->send(master_, kAnswer);
        }
    }
    ~UdpHost() { ::close(poll_); }

    void turn() {
        const Nanoseconds wake = due_.empty() ? kLongestWait : due_.front().at - clockNow();
        const timespec wait{0, static_cast<long>(std::clamp<Nanoseconds>(wake, 0, kLongestWait))};
        const int ready =
            ::epoll_pwait2(poll_, ready_.data(), static_cast<int>(ready_.size()), &wait, nullptr);
        for (int i = 0; i < ready; ++i) {
            const std::size_t peer = ready_[static_cast<std::size_t>(i)].data.u64;
            sockets_[peer]->receive(batch_);
            for (const ReceivedRun& run : batch_) {
                arrivals.note(run.bytes, run.arrival + clockZero_);
                due_.push_back({run.arrival + kAnswerDelay, peer});
            }
        }
        for (const Nanoseconds now = clockNow(); !due_.empty() && due_.front().at <= now; due_.pop_front())
            sockets_[due_.front().peer]->send(master_, kAnswer);
    }

    Arrivals arrivals;

private:
    struct Due {
        Nanoseconds at;
        std::size_t peer;
    };

    const Nanoseconds clockZero_ = static_cast<Nanoseconds>(jTimer::getZeroOnSystemClock() * 1e9);
    const SocketAddress master_;
    const int poll_;
    std::vector<std::unique_ptr<UdpSocket>> sockets_;
    std::deque<Due> due_;
    std::array<epoll_event, 256> ready_;
    ReceiveBatch batch_;
};

} // namespace

void udpMaster(const std::vector<double>&, Orders& orders) {
    UdpMaster master;
    orders.answer({static_cast<double>(master.port())});
    for (Order order; orders.next(order);) {
        if (order.word == "users")
            master.awaitPeers(static_cast<std::size_t>(order.numbers.at(0)));
        else if (order.word == "ticks")
            master.tick(static_cast<int>(order.numbers.at(0)), order.numbers.at(1),
                        static_cast<std::size_t>(order.numbers.at(2)));
        orders.answer({processorSeconds(), static_cast<double>(systemNow()) * 1e-9});
    }
}

void udpPeerHost(const std::vector<double>& arguments, Orders& orders) {
    UdpHost host(static_cast<std::uint16_t>(arguments.at(0)), static_cast<std::size_t>(arguments.at(1)));
    serve(host, orders);
}

} // namespace kor::bench
