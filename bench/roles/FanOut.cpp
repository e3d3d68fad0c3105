#include "FanOut.h"

#include "support/Time.h"

#include <support/jTimer.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <unistd.h>

namespace kor::bench {

using namespace kor::detail;

namespace {
constexpr Nanoseconds kMaxWait = 50 * kMillisecond;
} // namespace

Numbers usage() {
    double pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages; // the second number is what is resident
    return {static_cast<double>(readClock(CLOCK_PROCESS_CPUTIME_ID)) * 1e-9,
            static_cast<double>(systemNow()) * 1e-9,
            pages * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1 << 20)};
}

SocketLoop::SocketLoop() : poll_(::epoll_create1(EPOLL_CLOEXEC)) {}

void SocketLoop::add(UdpSocket& socket) {
    if (!socket.open(0, UdpSocketOptions{}))
        throw std::runtime_error(socket.error());
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = sockets_.size();
    ::epoll_ctl(poll_, EPOLL_CTL_ADD, socket.fd(), &event);
    sockets_.push_back(&socket);
}

std::span<const epoll_event> SocketLoop::ready(Nanoseconds until) {
    const Nanoseconds now = clockNow();
    const timespec wait{0, static_cast<long>(std::clamp(until, now, now + kMaxWait) - now)};
    const int count = ::epoll_pwait2(poll_, ready_.data(), static_cast<int>(ready_.size()), &wait, nullptr);
    return std::span(ready_).first(static_cast<std::size_t>(std::max(count, 0)));
}

void TickArrivals::note(std::span<const std::uint8_t> packet, Nanoseconds arrival) {
    std::int32_t tick = -1;
    if (packet.size() < sizeof tick)
        return;
    std::memcpy(&tick, packet.data(), sizeof tick);
    const std::lock_guard lock(mutex_);
    pairs_.push_back(tick);
    pairs_.push_back(static_cast<double>(arrival) + jTimer::getZeroOnSystemClock() * 1e9);
}

Numbers TickArrivals::take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(pairs_, {});
}

} // namespace kor::bench
