#pragma once

#include <cstdint>

namespace kor {

/// Limits and switches of a connection layer. Set before `RTNet::init`; the defaults suit a display cluster.
struct NetOptions {
    std::uint32_t maxPeers = 1024;            ///< connections at most; more requests are refused and counted
    std::uint32_t maxPacketBytes = 64u << 20; ///< largest packet sent or taken, bytes
    std::uint64_t maxQueuedBytes = 64ull << 20;  ///< per peer: accepted by `sendAsyn` and not yet delivered
    std::uint32_t receiveBufferBytes = 8u << 20; ///< asked of the kernel per socket
    std::uint32_t sendBufferBytes = 4u << 20;    ///< asked of the kernel per socket
    std::uint32_t maxDatagramPayload = 65507;    ///< probes for a larger payload stop here; 1472 never probes
    bool segmentationOffload = true;             ///< false: never hand the kernel a run of datagrams
    bool receiveOffload = true;                  ///< false: never let the kernel join datagrams
    bool batchSend = true;                       ///< false: no sendmmsg
    bool batchReceive = true;                    ///< false: no recvmmsg
    bool kernelTimeStamps = true;                ///< false: arrival is when we read the datagram
    /// False: the first datagram after some milliseconds of sleep leaves late, and its time stamp is early
    /// by that.
    bool warmSends = true;
    /// False: never wait for more. With 16 connections or more, what comes while only acknowledgements come
    /// (and the delivery notices in them) is read every 0.1 ms, and short packets that follow others within
    /// 0.05 ms leave together. While the pieces of a large packet follow each other closely, they are read
    /// every 0.03 ms.
    bool gather = true;
};

} // namespace kor
