#include "Figures.h"

#include <array>

namespace kor::bench {

std::span<const Figure> figures() {
    static constexpr std::array kFigures = {
        Figure{"round-trip", "64 bytes there and back, both ends waiting in the kernel; median",
               measureRoundTrip, true},
        Figure{"bulk", "1 MiB packets to one peer in 1472-byte datagrams, kernel offloads in use",
               measureBulk, true},
        Figure{"bulk-plain", "the same without offloads", measureBulkPlain, true},
        Figure{"bulk-loopback", "the same in datagrams of loopback's full size", measureBulkLoopback, true},
        Figure{"large-packet", "one packet of 2 MiB, from sendAsyn to onPacket; median", measureLargePacket,
               true},
        Figure{"fan-out", "1 KiB to each of 250 peers 240 times a second: sender's load, spread of a tick",
               measureFanOut, true},
        Figure{"idle", "250 connections without traffic: load and memory of the master", measureIdle},
        Figure{"repair", "simulated: what a lost datagram costs at 1 % loss and 0.2 ms round trip",
               measureRepair},
        Figure{"wire-bytes", "simulated: bytes on the wire for a packet of 10 MiB at 0.1 % loss",
               measureWireBytes},
        Figure{"clock", "error of the estimated clock of a peer that drifts by 30 ppm", measureClock},
        Figure{"tracking", "memAddInfo and memRemoveInfo of one block", measureTracking},
        Figure{"trace", "an event of a recording, clock readings included", measureTrace},
    };
    return kFigures;
}

} // namespace kor::bench
