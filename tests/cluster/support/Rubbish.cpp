#include "Rubbish.h"

#include <kor/KorCoders.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace {

constexpr std::size_t kPoolBytes = 256 << 10;

} // namespace

Rubbish::Rubbish(unsigned seed)
    : random_(seed), socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}

Rubbish::~Rubbish() {
    ::close(socket_);
}

void Rubbish::send(int port, const std::vector<std::uint8_t>& bytes) const {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<std::uint16_t>(port));
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::sendto(socket_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&name), sizeof name);
}

std::vector<std::uint8_t> Rubbish::noise() {
    static constexpr std::array<std::size_t, 4> kLimits{16, 100, 1500, 65508};
    if (pool_.empty()) {
        pool_.resize(kPoolBytes);
        for (std::uint8_t& byte : pool_) {
            byte = static_cast<std::uint8_t>(random_());
        }
    }
    const std::size_t size = below(kLimits[below(kLimits.size())]);
    const auto begin = pool_.begin() + static_cast<std::ptrdiff_t>(below(kPoolBytes - size));
    return {begin, begin + static_cast<std::ptrdiff_t>(size)};
}

std::vector<std::uint8_t> Rubbish::damaged(std::vector<std::uint8_t> bytes) {
    static constexpr std::array<std::size_t, 2> kHead{0, 5}; // type code and version
    if (below(2) == 0) {
        bytes.resize(below(bytes.size()));
        return bytes;
    }
    bytes[kHead[below(kHead.size())]] ^= static_cast<std::uint8_t>(1 + below(255));
    bytes.resize(bytes.size() + below(100), 0xFF);
    return bytes;
}

std::vector<std::uint8_t> Rubbish::announcement(int dataPort) {
    std::vector<std::uint8_t> bytes(14);
    kor::BufferWriter writer(bytes.data(), static_cast<int>(bytes.size()));
    kor::KorMsg::codeBroadcast(writer, dataPort, 0);
    return bytes;
}
