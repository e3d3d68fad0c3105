// Round trips of reliable packets through ENet: at each end one thread that waits in its service call.

#include "../Statistics.h"
#include "EnetHost.h"
#include "Roles.h"
#include "SystemTime.h"

#include <array>
#include <atomic>
#include <thread>

namespace kor::bench {

namespace {
constexpr std::size_t kBytes = 64;
constexpr enet_uint32 kWaitMs = 100;

void send(EnetHost& host, ENetPeer* peer, const void* bytes, std::size_t size) {
    ::enet_peer_send(peer, 0, ::enet_packet_create(bytes, size, ENET_PACKET_FLAG_RELIABLE));
    ::enet_host_flush(host.get());
}
} // namespace

void enetEcho(const std::vector<double>&, Orders& orders) {
    EnetHost host;
    orders.answer({static_cast<double>(host.port())});
    std::atomic<bool> stop{false};
    std::thread server([&] {
        ENetEvent event{};
        while (!stop) {
            if (::enet_host_service(host.get(), &event, kWaitMs) <= 0)
                continue;
            if (event.type == ENET_EVENT_TYPE_CONNECT)
                EnetHost::keep(event.peer);
            if (event.type != ENET_EVENT_TYPE_RECEIVE)
                continue;
            send(host, event.peer, event.packet->data, event.packet->dataLength);
            ::enet_packet_destroy(event.packet);
        }
    });
    for (Order order; orders.next(order);) {
    }
    stop = true;
    server.join();
}

void enetPing(const std::vector<double>& arguments, Orders& orders) {
    EnetHost host;
    ENetPeer* const peer = host.connect(static_cast<std::uint16_t>(arguments.at(0)));
    orders.answer({});
    const std::array<char, kBytes> bytes{};
    for (Order order; orders.next(order);) {
        std::vector<double> samples;
        for (auto left = static_cast<int>(order.numbers.at(0)); left > 0; --left) {
            const std::int64_t sent = systemNow();
            send(host, peer, bytes.data(), bytes.size());
            ENetEvent event{};
            while (::enet_host_service(host.get(), &event, kWaitMs) <= 0 ||
                   event.type != ENET_EVENT_TYPE_RECEIVE) {
                if (event.type == ENET_EVENT_TYPE_DISCONNECT)
                    throw std::runtime_error("ENet disconnects");
            }
            samples.push_back(static_cast<double>(systemNow() - sent) * 1e-3);
            ::enet_packet_destroy(event.packet);
        }
        orders.answer({quantile(samples, 0.5), quantile(samples, 0.99)});
    }
}

} // namespace kor::bench
