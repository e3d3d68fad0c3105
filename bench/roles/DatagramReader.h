#pragma once

#include <array>
#include <cstddef>
#include <memory>

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kor::bench {

/// Reads a UDP socket by one of two means. With the same system calls as the connection layer it waits in
/// epoll, then takes what is there with recvmmsg, together with senders' addresses, the kernel's arrival
/// stamps and its count of drops. With the fewest calls it blocks in recvmmsg and takes nothing but the
/// bytes.
class DatagramReader {
public:
    DatagramReader(int fd, bool sameCalls)
        : fd_(fd), epoll_(sameCalls ? ::epoll_create1(EPOLL_CLOEXEC) : -1) {
        for (std::size_t i = 0; i != kSlots; ++i)
            reset(i);
        if (!sameCalls)
            return;
        epoll_event event{};
        event.events = EPOLLIN;
        ::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
        for (const int option : {SO_TIMESTAMPNS, SO_RXQ_OVFL}) {
            const int on = 1;
            ::setsockopt(fd, SOL_SOCKET, option, &on, sizeof on);
        }
    }
    DatagramReader(const DatagramReader&) = delete;
    DatagramReader& operator=(const DatagramReader&) = delete;
    ~DatagramReader() { ::close(epoll_); }

    /// Waits and calls `take(bytes, size, from)` for each message. With the fewest calls `from` is not known.
    template <typename Take>
    void read(Take take) {
        epoll_event event{};
        if (epoll_ >= 0)
            ::epoll_wait(epoll_, &event, 1, -1);
        const int how = epoll_ >= 0 ? MSG_DONTWAIT : MSG_WAITFORONE;
        const int got = ::recvmmsg(fd_, messages_.data(), kSlots, how, nullptr);
        for (int i = 0; i < got; ++i) {
            const auto slot = static_cast<std::size_t>(i);
            take(slots_.get() + slot * kSlotBytes, std::size_t{messages_[slot].msg_len}, names_[slot]);
            if (epoll_ >= 0)
                reset(slot);
        }
    }

private:
    static constexpr std::size_t kSlots = 32; // as many as the connection layer reads in one call
    static constexpr std::size_t kSlotBytes = 65536;
    static constexpr std::size_t kControlBytes = 128;

    void reset(std::size_t i) {
        vectors_[i] = {slots_.get() + i * kSlotBytes, kSlotBytes};
        msghdr& header = messages_[i].msg_hdr;
        header = {};
        header.msg_iov = &vectors_[i];
        header.msg_iovlen = 1;
        if (epoll_ < 0)
            return;
        header.msg_name = &names_[i];
        header.msg_namelen = sizeof names_[i];
        header.msg_control = controls_.data() + i * kControlBytes;
        header.msg_controllen = kControlBytes;
    }

    int fd_;
    int epoll_; ///< -1 with the fewest calls
    std::unique_ptr<char[]> slots_{new char[kSlots * kSlotBytes]};
    std::array<mmsghdr, kSlots> messages_{};
    std::array<iovec, kSlots> vectors_{};
    std::array<sockaddr_in, kSlots> names_{};
    alignas(cmsghdr) std::array<char, kSlots * kControlBytes> controls_{};
};

} // namespace kor::bench
