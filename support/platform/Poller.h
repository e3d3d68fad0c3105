#pragma once

#include "support/platform/FileDescriptor.h"
#include "support/Time.h"

#include <atomic>
#include <cstddef>
#include <memory>

namespace kor::detail {

/// Ends the wait of one `Poller` from another thread.
///
/// Costs an atomic exchange while the poller is not asleep or has been woken already, one system call
/// otherwise.
class Waker {
public:
    Waker();
    Waker(const Waker&) = delete;
    Waker& operator=(const Waker&) = delete;

    bool isOpen() const { return fd_.valid(); }

    /// From any thread and from a signal handler. The poller's present wait ends, or its next one returns at
    /// once; several calls before that count as one. What the caller wrote before is visible to the poller's
    /// thread then.
    void wake();

private:
    friend class Poller;
    enum State : int { awake, woken, asleep, napping };

    bool beginSleep(State how);
    void napUntil(Nanoseconds end);
    bool endSleep();

    FileDescriptor fd_;
    std::atomic<int> state_{awake};
};

/// Waits on a few sockets, a waker and a deadline at once. Belongs to one thread; only the waker is shared.
///
/// The timer is moved only to an earlier deadline: one that has become later ends a wait early instead, which
/// saves most settings of the clock's hardware, each worth as much as a datagram.
class Poller {
public:
    Poller();
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;
    ~Poller();

    /// False when the system had no descriptor left: no wait will be one.
    bool isOpen() const;

    Waker& waker() { return waker_; }

    /// Watches a descriptor for reading. Returns its index: 0 for the first, then counting up. It must stay
    /// open until `clear`.
    std::size_t add(int fd);

    /// Also watches it for writing, until told otherwise.
    void setWantWrite(std::size_t index, bool wanted);

    /// Forgets all descriptors.
    void clear();

    /// Waits until a socket is ready, the waker was called or our clock shows `deadline` (`kNever`: without
    /// end; a past one: not at all), to the microsecond. May return early.
    void wait(Nanoseconds deadline);

    /// Waits until the waker was called or our clock shows `end` (a past one: not at all), whatever the
    /// sockets do: for one system call more comes together on them. Then all of them count as readable.
    void nap(Nanoseconds end);

    /// The same for so many nanoseconds, whatever the waker does too.
    void pause(Nanoseconds duration);

    /// What the last `wait` found, or what is supposed since a nap or a pause. A socket with a pending error
    /// counts as readable.
    bool readable(std::size_t index) const;
    bool writable(std::size_t index) const;
    bool woken() const { return woken_; }

private:
    struct Watches;

    bool armFor(Nanoseconds deadline);
    void supposeReadable();

    Waker waker_;
    std::unique_ptr<Watches> watches_;
    bool woken_ = false;
};

} // namespace kor::detail
