// Round trips and bulk data in reliable packets through ENet: at each end one thread that waits in its
// service call.

#include "Arrivals.h"
#include "Role.h"
#include "SystemTime.h"

#include <enet/enet.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <thread>

namespace kor::bench {

namespace {

constexpr std::array<char, 64> kMessage{};
constexpr enet_uint32 kRoundTripWaitMs = 100;
constexpr std::size_t kPacketBytes = 1u << 20;
constexpr int kMaxInFlight = 8;
constexpr enet_uint32 kBulkWaitMs = 10;
constexpr enet_uint32 kPatienceMs = 120'000;

/// With one channel, datagrams as large as ours on a 1500-byte link, everything else as the library has it.
class EnetHost {
public:
    EnetHost() {
        ::enet_initialize();
        ENetAddress address{};
        address.host = ENET_HOST_ANY;
        address.port = ENET_PORT_ANY;
        host_ = ::enet_host_create(&address, 4, 1, 0, 0);
        if (host_ == nullptr)
            throw std::runtime_error("no ENet host");
        host_->mtu = 1472;
    }

    double port() const { return host_->address.port; }

    ENetPeer* connect(double port) {
        ENetAddress address{};
        ::enet_address_set_host_ip(&address, "127.0.0.1");
        address.port = static_cast<enet_uint16>(port);
        ENetPeer* const peer = ::enet_host_connect(host_, &address, 1, 0);
        for (int tries = 0; tries != 100; ++tries)
            if (service(kRoundTripWaitMs).type == ENET_EVENT_TYPE_CONNECT)
                return peer;
        throw std::runtime_error("ENet does not connect");
    }

    /// Sends what is queued and waits for the next event, or for none.
    ENetEvent service(enet_uint32 waitMs) {
        ENetEvent event{};
        ::enet_host_service(host_, &event, waitMs);
        if (event.type == ENET_EVENT_TYPE_DISCONNECT)
            throw std::runtime_error("ENet disconnects");
        // Lets the peer live through rounds in which nobody serves it.
        if (event.type == ENET_EVENT_TYPE_CONNECT)
            ::enet_peer_timeout(event.peer, kPatienceMs, kPatienceMs, kPatienceMs);
        return event;
    }

    /// Takes packets for ever.
    template <typename Take>
    [[noreturn]] void serve(enet_uint32 waitMs, Take take) {
        for (;;) {
            const ENetEvent event = service(waitMs);
            if (event.type != ENET_EVENT_TYPE_RECEIVE)
                continue;
            take(event.peer, *event.packet);
            ::enet_packet_destroy(event.packet);
        }
    }

    /// Sends a small packet at once.
    void send(ENetPeer* peer, const void* bytes, std::size_t size) {
        ::enet_peer_send(peer, 0, ::enet_packet_create(bytes, size, ENET_PACKET_FLAG_RELIABLE));
        ::enet_host_flush(host_);
    }

private:
    ENetHost* host_ = nullptr;
};

int inFlight = 0; // packets that are sent and not yet delivered

Numbers sendBulk(EnetHost& host, ENetPeer* peer, double seconds) {
    static const std::vector<char> bytes(kPacketBytes, 'e');
    for (const std::int64_t end = timeIn(seconds); systemNow() < end || inFlight != 0;) {
        for (; inFlight < kMaxInFlight && systemNow() < end; ++inFlight) {
            ENetPacket* const packet =
                ::enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
            packet->freeCallback = [](ENetPacket*) { --inFlight; };
            ::enet_peer_send(peer, 0, packet);
        }
        host.service(kBulkWaitMs);
    }
    return {};
}

const Role kEcho("enet-echo", [](const Numbers&) {
    EnetHost host;
    std::thread([&] {
        host.serve(kRoundTripWaitMs, [&](ENetPeer* peer, const ENetPacket& packet) {
            host.send(peer, packet.data, packet.dataLength);
        });
    }).detach();
    followOrders({host.port()});
});

const Role kPing("enet-ping", [](const Numbers& arguments) {
    EnetHost host;
    ENetPeer* const peer = host.connect(arguments.at(0));
    followOrders({}, [&](const Order& order) {
        Numbers samples;
        for (double left = order.numbers.at(0); left > 0; --left) {
            const std::int64_t sent = systemNow();
            host.send(peer, kMessage.data(), kMessage.size());
            ENetEvent event{};
            while (event.type != ENET_EVENT_TYPE_RECEIVE)
                event = host.service(kRoundTripWaitMs);
            samples.push_back(static_cast<double>(systemNow() - sent) * 1e-3);
            ::enet_packet_destroy(event.packet);
        }
        return samples;
    });
});

const Role kSink("enet-sink", [](const Numbers&) {
    EnetHost host;
    Meter meter;
    std::thread([&] {
        host.serve(kBulkWaitMs,
                   [&](ENetPeer*, const ENetPacket& packet) { meter.arrived(packet.dataLength); });
    }).detach();
    followOrders({host.port()}, [&](const Order&) { return meter.take(); });
});

const Role kSource("enet-source", [](const Numbers& arguments) {
    EnetHost host;
    ENetPeer* const peer = host.connect(arguments.at(0));
    followOrders({}, [&](const Order& order) { return sendBulk(host, peer, order.numbers.at(0)); });
});

} // namespace

} // namespace kor::bench
