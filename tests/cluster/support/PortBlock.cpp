#include "PortBlock.h"

#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kLowest = 12000;
constexpr int kHighest = 32000;

int bound(int type, int port) {
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) {
        return fd;
    }
    ::close(fd);
    return -1;
}

bool allFree(int first) {
    for (int port = first; port < first + PortBlock::kSize; ++port) {
        const int fd = bound(SOCK_DGRAM, port);
        if (fd < 0) {
            return false;
        }
        ::close(fd);
    }
    return true;
}

} // namespace

PortBlock::PortBlock() {
    constexpr int kBlocks = (kHighest - kLowest) / kSize;
    const int start = ::getpid() % kBlocks;
    for (int i = 0; i < kBlocks; ++i) {
        if (claim(kLowest + (start + i) % kBlocks * kSize)) {
            return;
        }
    }
    std::fputs("no block of free ports\n", stderr);
    std::abort();
}

PortBlock::~PortBlock() {
    ::close(claim_);
}

bool PortBlock::claim(int first) {
    claim_ = bound(SOCK_STREAM, first);
    if (claim_ >= 0 && ::listen(claim_, 1) == 0 && allFree(first)) {
        first_ = first;
        return true;
    }
    if (claim_ >= 0) {
        ::close(claim_);
    }
    claim_ = -1;
    return false;
}
