#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

/// Sends datagrams that nobody asked for, from a socket of its own. Seeded, so that a run can be repeated.
class Rubbish {
public:
    explicit Rubbish(unsigned seed);
    Rubbish(const Rubbish&) = delete;
    Rubbish& operator=(const Rubbish&) = delete;
    ~Rubbish();

    /// Sends one datagram to a port of this machine's loopback interface; lost when there is no room for it.
    void send(int port, const std::vector<std::uint8_t>& bytes) const;

    /// Random bytes, of a random size that is small, of a packet's or of a datagram's largest.
    std::vector<std::uint8_t> noise();

    /// A record with its head changed, maybe with more behind it, or cut off.
    std::vector<std::uint8_t> damaged(std::vector<std::uint8_t> bytes);

    /// A master's announcement of that data port.
    static std::vector<std::uint8_t> announcement(int dataPort);

private:
    std::size_t below(std::size_t limit) { return random_() % limit; }

    std::mt19937_64 random_;
    std::vector<std::uint8_t> pool_; // of random bytes, which take long to make
    int socket_;
};
