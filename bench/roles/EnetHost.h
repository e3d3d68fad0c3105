#pragma once

#include <cstdint>
#include <stdexcept>

#include <enet/enet.h>

namespace kor::bench {

/// A host of the ENet library with one channel, its datagrams as large as ours on a 1500-byte link,
/// everything else as the library has it.
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
    EnetHost(const EnetHost&) = delete;
    EnetHost& operator=(const EnetHost&) = delete;
    ~EnetHost() { ::enet_host_destroy(host_); }

    ENetHost* get() const { return host_; }
    std::uint16_t port() const { return host_->address.port; }

    ENetPeer* connect(std::uint16_t port) {
        ENetAddress address{};
        ::enet_address_set_host_ip(&address, "127.0.0.1");
        address.port = port;
        ENetPeer* const peer = ::enet_host_connect(host_, &address, 1, 0);
        ENetEvent event{};
        for (int tries = 0; tries != 100; ++tries)
            if (::enet_host_service(host_, &event, 100) > 0 && event.type == ENET_EVENT_TYPE_CONNECT) {
                keep(peer);
                return peer;
            }
        throw std::runtime_error("ENet does not connect");
    }

    /// Lets the peer live through rounds in which nobody serves this host.
    static void keep(ENetPeer* peer) {
        constexpr enet_uint32 kPatienceMs = 120'000;
        ::enet_peer_timeout(peer, kPatienceMs, kPatienceMs, kPatienceMs);
    }

private:
    ENetHost* host_ = nullptr;
};

} // namespace kor::bench
