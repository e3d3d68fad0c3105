#include "support/platform/Poller.h"

#include "support/Tracked.h"

#include <linux/futex.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <support/jTimer.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <vector>

namespace kor::detail {

namespace {

timespec toTimespec(Nanoseconds duration) {
    return {static_cast<time_t>(duration / kSecond), static_cast<long>(duration % kSecond)};
}

void futex(std::atomic<int>& word, int operation, int value, const timespec* wait) {
    static_assert(sizeof word == sizeof(int));
#if defined(SYS_futex_time64)
    // A 32-bit system has a call for each width of time_t.
    constexpr long call = sizeof(time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
    constexpr long call = SYS_futex;
#endif
    ::syscall(call, &word, operation, value, wait, nullptr, 0);
}

} // namespace

Waker::Waker() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

void Waker::wake() {
    const int before = state_.exchange(woken, std::memory_order_acq_rel);
    if (before != asleep && before != napping)
        return;
    const int kept = errno;
    if (before == napping) {
        futex(state_, FUTEX_WAKE_PRIVATE, 1, nullptr);
    } else {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(fd_.get(), &one, sizeof one);
    }
    errno = kept;
}

/// False when somebody has called already, so that there is no time to sleep.
bool Waker::beginSleep(State how) {
    int expected = awake;
    return state_.compare_exchange_strong(expected, how, std::memory_order_acq_rel);
}

void Waker::napUntil(Nanoseconds end) {
    const Nanoseconds now = clockNow(); // compared first, as kNow would overflow the difference
    if (end <= now || !beginSleep(napping))
        return;
    const timespec wait = toTimespec(end - now);
    futex(state_, FUTEX_WAIT_PRIVATE, napping, &wait);
}

/// True when somebody called since the last time.
bool Waker::endSleep() {
    return state_.exchange(awake, std::memory_order_acq_rel) == woken;
}

struct Poller::Watches : TrackedNew<"support/platform/Poller", "Poller::Poller"> {
    struct Watch {
        int fd = -1;
        std::uint32_t wanted = 0;
        std::uint32_t found = 0;
    };

    FileDescriptor epoll;
    FileDescriptor timer;
    Nanoseconds armed = kNever; ///< when the timer will fire; kNever when it is not running
    std::vector<Watch> sockets;

    void control(int operation, std::uint32_t events, int fd, std::uint32_t key) const {
        epoll_event event{};
        event.events = events;
        event.data.u32 = key;
        ::epoll_ctl(epoll.get(), operation, fd, &event);
    }
};

namespace {
constexpr std::uint32_t kWakerKey = 0;
constexpr std::uint32_t kTimerKey = 1;
constexpr std::uint32_t kFirstSocketKey = 2;
constexpr std::size_t kEventsPerWait = 16; // further ones are found by the next wait
} // namespace

Poller::Poller() : watches_(std::make_unique<Watches>()) {
    watches_->epoll = FileDescriptor(::epoll_create1(EPOLL_CLOEXEC));
    watches_->timer = FileDescriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    // Edges: neither needs to be read before it can be noticed again.
    watches_->control(EPOLL_CTL_ADD, EPOLLIN | EPOLLET, waker_.fd_.get(), kWakerKey);
    watches_->control(EPOLL_CTL_ADD, EPOLLIN | EPOLLET, watches_->timer.get(), kTimerKey);
}

Poller::~Poller() = default;

bool Poller::isOpen() const {
    return waker_.isOpen() && watches_->epoll.valid() && watches_->timer.valid();
}

std::size_t Poller::add(int fd) {
    const std::size_t index = watches_->sockets.size();
    watches_->sockets.push_back({fd, EPOLLIN, 0});
    watches_->control(EPOLL_CTL_ADD, EPOLLIN, fd, kFirstSocketKey + static_cast<std::uint32_t>(index));
    return index;
}

void Poller::setWantWrite(std::size_t index, bool wanted) {
    Watches::Watch& socket = watches_->sockets[index];
    const std::uint32_t events = wanted ? EPOLLIN | EPOLLOUT : EPOLLIN;
    if (socket.wanted == events)
        return;
    socket.wanted = events;
    watches_->control(EPOLL_CTL_MOD, events, socket.fd, kFirstSocketKey + static_cast<std::uint32_t>(index));
}

void Poller::clear() {
    for (const Watches::Watch& socket : watches_->sockets)
        watches_->control(EPOLL_CTL_DEL, 0, socket.fd, 0);
    watches_->sockets.clear();
}

/// False when the deadline has passed.
bool Poller::armFor(Nanoseconds deadline) {
    if (deadline >= watches_->armed)
        return true; // it fires early, and costs less than setting it anew before each wait
    const Nanoseconds now = clockNow();
    if (deadline <= now)
        return false;
    itimerspec timer{};
    timer.it_value = toTimespec(deadline - now);
    ::timerfd_settime(watches_->timer.get(), 0, &timer, nullptr);
    watches_->armed = deadline;
    return true;
}

void Poller::wait(Nanoseconds deadline) {
    for (Watches::Watch& socket : watches_->sockets)
        socket.found = 0;
    const bool sleep = waker_.beginSleep(Waker::asleep) && armFor(deadline);
    std::array<epoll_event, kEventsPerWait> events;
    int found = ::epoll_wait(watches_->epoll.get(), events.data(), kEventsPerWait, sleep ? -1 : 0);
    if (found < 0) // interrupted, perhaps for long: what has come meanwhile must be seen
        found = ::epoll_wait(watches_->epoll.get(), events.data(), kEventsPerWait, 0);
    woken_ = waker_.endSleep();
    for (int i = 0; i < found; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        if (event.data.u32 == kTimerKey)
            watches_->armed = kNever;
        else if (event.data.u32 >= kFirstSocketKey)
            watches_->sockets[event.data.u32 - kFirstSocketKey].found = event.events;
    }
}

void Poller::nap(Nanoseconds end) {
    waker_.napUntil(end);
    woken_ = waker_.endSleep();
    supposeReadable();
}

void Poller::pause(Nanoseconds duration) {
    const timespec wait = toTimespec(duration);
    ::clock_nanosleep(CLOCK_MONOTONIC, 0, &wait, nullptr);
    supposeReadable();
}

void Poller::supposeReadable() {
    for (Watches::Watch& socket : watches_->sockets)
        socket.found = EPOLLIN;
}

bool Poller::readable(std::size_t index) const {
    return (watches_->sockets[index].found & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0;
}

bool Poller::writable(std::size_t index) const {
    return (watches_->sockets[index].found & EPOLLOUT) != 0;
}

} // namespace kor::detail
