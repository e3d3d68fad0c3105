// Bulk data in reliable 1 MiB packets through ENet.

#include "EnetHost.h"
#include "Meter.h"
#include "Roles.h"

#include <atomic>
#include <thread>
#include <vector>

namespace kor::bench {

namespace {

constexpr std::size_t kPacketBytes = 1u << 20;
constexpr int kUnderWay = 8;
constexpr enet_uint32 kWaitMs = 10;

int underWay = 0;

void count(ENetPacket*) {
    --underWay;
}

void run(EnetHost& host, ENetPeer* peer, double seconds) {
    static const std::vector<char> bytes(kPacketBytes, 'e');
    const std::int64_t end = systemNow() + static_cast<std::int64_t>(seconds * 1e9);
    while (systemNow() < end || underWay != 0) {
        for (; underWay < kUnderWay && systemNow() < end; ++underWay) {
            ENetPacket* const packet =
                ::enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
            packet->freeCallback = count;
            ::enet_peer_send(peer, 0, packet);
        }
        ENetEvent event{};
        ::enet_host_service(host.get(), &event, kWaitMs);
        if (event.type == ENET_EVENT_TYPE_DISCONNECT)
            throw std::runtime_error("ENet disconnects");
    }
}

void serve(EnetHost& host, Meter& meter, const std::atomic<bool>& stop) {
    ENetEvent event{};
    while (!stop) {
        if (::enet_host_service(host.get(), &event, kWaitMs) <= 0)
            continue;
        if (event.type == ENET_EVENT_TYPE_CONNECT)
            EnetHost::keep(event.peer);
        if (event.type != ENET_EVENT_TYPE_RECEIVE)
            continue;
        meter.arrived(event.packet->dataLength);
        ::enet_packet_destroy(event.packet);
    }
}

} // namespace

void enetSink(const std::vector<double>&, Orders& orders) {
    EnetHost host;
    Meter meter;
    orders.answer({static_cast<double>(host.port())});
    std::atomic<bool> stop{false};
    std::thread server([&] { serve(host, meter, stop); });
    for (Order order; orders.next(order);)
        orders.answer(meter.take());
    stop = true;
    server.join();
}

void enetSource(const std::vector<double>& arguments, Orders& orders) {
    EnetHost host;
    ENetPeer* const peer = host.connect(static_cast<std::uint16_t>(arguments.at(0)));
    orders.answer({});
    for (Order order; orders.next(order);) {
        run(host, peer, order.numbers.at(0));
        orders.answer({});
    }
}

} // namespace kor::bench
