#include "Roles.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kor::bench {

Role findRole(const std::string& name) {
    struct Entry {
        std::string_view name;
        Role role;
    };
    static constexpr auto kRoles = std::to_array<Entry>({
        {"kor-echo", korEcho},
        {"kor-ping", korPing},
        {"udp-echo", udpEcho},
        {"udp-ping", udpPing},
        {"enet-echo", enetEcho},
        {"enet-ping", enetPing},
        {"kor-sink", korSink},
        {"kor-source", korSource},
        {"udp-sink", udpSink},
        {"udp-source", udpSource},
        {"enet-sink", enetSink},
        {"enet-source", enetSource},
        {"tcp-sink", tcpSink},
        {"tcp-source", tcpSource},
        {"kor-delay-sink", korDelaySink},
        {"kor-delay-source", korDelaySource},
        {"tcp-delay-sink", tcpDelaySink},
        {"tcp-delay-source", tcpDelaySource},
        {"kor-master", korMaster},
        {"kor-peer-host", korPeerHost},
        {"udp-master", udpMaster},
        {"udp-peer-host", udpPeerHost},
        {"kor-clock", korClock},
    });
    const auto found =
        std::find_if(kRoles.begin(), kRoles.end(), [&](const auto& role) { return role.name == name; });
    return found == kRoles.end() ? nullptr : found->role;
}

} // namespace kor::bench
