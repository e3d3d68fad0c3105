#pragma once

#include "Role.h"
#include "SystemTime.h"

#include "support/platform/ReceiveBatch.h"
#include "support/platform/UdpSocket.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include <sys/epoll.h>

namespace kor::bench {

/// The tick that a packet belongs to stands at its beginning.
template <typename Byte>
void stampTick(std::vector<Byte>& packet, std::int32_t tick) {
    std::memcpy(packet.data(), &tick, sizeof tick);
}

/// What this process has used: processor time in seconds, until when in seconds, resident memory in MiB.
Numbers usage();

/// Many sockets in one process, served by one thread: on two processors a thread for each would measure the
/// scheduler instead of the sender.
class SocketLoop {
public:
    SocketLoop();

    /// Opens one more socket. It must stay alive as long as this.
    void add(detail::UdpSocket& socket);

    /// Waits until a datagram comes or the time is there; calls `take(index, run)` for each run of them.
    template <typename Take>
    void wait(detail::Nanoseconds until, Take take) {
        for (const epoll_event& event : ready(until)) {
            const std::size_t index = event.data.u64;
            sockets_[index]->receive(batch_);
            for (const detail::ReceivedRun& run : batch_)
                take(index, run);
        }
    }

private:
    std::span<const epoll_event> ready(detail::Nanoseconds until);

    const int poll_;
    std::vector<detail::UdpSocket*> sockets_;
    std::array<epoll_event, 256> ready_;
    detail::ReceiveBatch batch_;
};

/// Tick and arrival of each packet. One thread notes, another takes.
class TickArrivals {
public:
    /// The kernel stamped the packet at that time of the layer's clock.
    void note(std::span<const std::uint8_t> packet, detail::Nanoseconds arrival);
    /// For each packet the tick, and the time in nanoseconds of the system's clock; starts anew.
    Numbers take();

private:
    std::mutex mutex_;
    Numbers pairs_;
};

/// Follows an order "ticks COUNT PER_SECOND BYTES": `send(packet)` for each tick, when it is due.
template <typename Send>
void sendTicks(const Order& order, Send send) {
    std::vector<std::uint8_t> packet(static_cast<std::size_t>(order.numbers.at(2)), 'f');
    const std::int64_t start = systemNow();
    for (std::int32_t tick = 0; tick < order.numbers.at(0); ++tick) {
        sleepUntil(start + static_cast<std::int64_t>(1e9 * tick / order.numbers.at(1)));
        stampTick(packet, tick);
        send(packet);
    }
}

/// Serves the peers of a host on a thread of its own, and answers their arrivals at any order.
template <typename Host>
[[noreturn]] void serve(Host& host) {
    std::thread([&] {
        for (;;)
            host.turn();
    }).detach();
    followOrders({}, [&](const Order&) { return host.arrivals.take(); });
}

} // namespace kor::bench
