#pragma once

#include "support/platform/Poller.h"
#include "support/platform/UdpSocket.h"
#include "support/Time.h"

#include <gtest/gtest.h>
#include <support/jTimer.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kor::detail {

inline constexpr std::uint32_t kLoopback = 0x7F000001;
inline constexpr Nanoseconds kPatience = 30 * kSecond; ///< before a test gives up on what must happen

using Bytes = std::vector<std::uint8_t>;

/// Bytes whose every part is recognised: no period that a datagram's size could divide.
inline Bytes pattern(std::size_t size, std::uint32_t seed = 1) {
    Bytes bytes(size);
    for (auto& byte : bytes) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(seed >> 24);
    }
    return bytes;
}

inline SocketAddress addressOf(const UdpSocket& socket) {
    return {kLoopback, socket.localPort()};
}

inline UdpSocketOptions plainOptions() {
    UdpSocketOptions options;
    options.segmentationOffload = options.receiveOffload = false;
    options.batchSend = options.batchReceive = false;
    options.kernelTimeStamps = false;
    return options;
}

/// Waits until the socket has something, then takes in one batch. Empty only after `kPatience`.
inline std::size_t receiveSome(UdpSocket& socket, ReceiveBatch& batch) {
    Poller poller;
    poller.add(socket.fd());
    const Nanoseconds deadline = clockNow() + kPatience;
    while (socket.receive(batch) == 0 && clockNow() < deadline)
        poller.wait(deadline);
    return batch.size();
}

/// Takes in `count` datagrams, in order of arrival.
inline std::vector<Bytes> receiveDatagrams(UdpSocket& socket, std::size_t count) {
    std::vector<Bytes> datagrams;
    ReceiveBatch batch;
    while (datagrams.size() < count && receiveSome(socket, batch) != 0)
        for (const ReceivedRun& run : batch)
            for (std::size_t i = 0; i < run.datagramCount(); ++i)
                datagrams.emplace_back(run.datagram(i).begin(), run.datagram(i).end());
    EXPECT_EQ(datagrams.size(), count);
    return datagrams;
}

/// `bytes` cut into datagrams of `segmentSize`.
inline std::vector<Bytes> cut(const Bytes& bytes, std::size_t segmentSize) {
    std::vector<Bytes> pieces;
    for (std::size_t begin = 0; begin < bytes.size(); begin += segmentSize) {
        const auto end = static_cast<std::ptrdiff_t>(std::min(bytes.size(), begin + segmentSize));
        pieces.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(begin), bytes.begin() + end);
    }
    return pieces;
}

} // namespace kor::detail
