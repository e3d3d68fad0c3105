#pragma once

#include "tests/unit/EndpointFixture.h"

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>

/// Sends datagrams that nobody asked for, from a socket of its own. Seeded, so that a run can be repeated.
class Rubbish {
public:
    explicit Rubbish(std::uint64_t seed) : random_(seed) {
        EXPECT_TRUE(socket_.create() && socket_.nonblock());
        socket_.setSendIP("127.0.0.1");
    }

    /// Sends one datagram to a port of this machine's loopback interface; lost when there is no room for it.
    void send(int port, std::string_view bytes) {
        socket_.setSendPort(port);
        socket_.write(bytes.data(), 1, static_cast<int>(bytes.size()));
    }

    /// Random bytes, of a random size that is small, of a packet's or of a datagram's largest.
    std::string noise() {
        static constexpr std::array<std::size_t, 4> kLimits{16, 100, 1500, 65507};
        const std::size_t limit = kLimits[random_() % kLimits.size()];
        return kor::testing_support::rubbish(1 + random_() % limit, random_());
    }

private:
    std::mt19937_64 random_;
    kor::SocketUDP socket_;
};
