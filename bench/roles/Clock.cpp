// One end of a connection whose clock runs fast by a known rate, and what it thinks of the other's clock.

#include "KorNode.h"
#include "Role.h"
#include "SystemTime.h"

#include <support/jTimer.h>

#include <atomic>
#include <thread>

namespace kor::bench {

namespace {

/// A clock made of the system's: `start` at system time `base`, and `rate` too fast.
struct DriftingClock {
    std::int64_t base = 0;
    std::int64_t start = 0;
    double rate = 0;

    std::int64_t at(std::int64_t system) const {
        const std::int64_t passed = system - base;
        return start + passed + static_cast<std::int64_t>(static_cast<double>(passed) * rate);
    }
};

DriftingClock ourClock; // set before the layer's thread exists

std::int64_t driftingNow() {
    return ourClock.at(systemNow());
}

DriftingClock clockOf(double base, double start, double ppm) {
    return {static_cast<std::int64_t>(base), static_cast<std::int64_t>(start), ppm * 1e-6};
}

/// Error of the estimate in microseconds, `count` times, every `milliseconds`.
Numbers errors(const RTUser& user, const DriftingClock& theirs, double count, double milliseconds) {
    Numbers result;
    for (; count > 0; --count) {
        sleepUntil(timeIn(milliseconds * 1e-3));
        const double estimate = user.getTimeOffset() * 1e6;
        const std::int64_t now = systemNow();
        result.push_back((estimate - static_cast<double>(theirs.at(now) - ourClock.at(now))) * 1e-3);
    }
    return result;
}

/// Sends a packet of 1 MiB sixty times a second while it is wanted.
[[noreturn]] void load(RTUser& user, const std::atomic<bool>& wanted) {
    const std::vector<char> packet(1u << 20, 'l');
    for (;;) {
        wanted.wait(false);
        const std::int64_t start = systemNow();
        for (std::int64_t n = 0; wanted; ++n) {
            sleepUntil(start + n * 1'000'000'000 / 60);
            user.sendAsyn(packet.data(), static_cast<int>(packet.size()));
        }
    }
}

// Given base, start and drift of its own clock, the same of the other's, and the port of the other, or 0 for
// the end that waits for it: that one answers its port, and at the first order waits for the other. "errors
// COUNT MILLISECONDS" answers so many errors in microseconds; "load 1" begins and "load 0" ends a stream of
// packets.
const Role kClock("kor-clock", [](const Numbers& arguments) {
    ourClock = clockOf(arguments.at(0), arguments.at(1), arguments.at(2));
    const DriftingClock theirs = clockOf(arguments.at(3), arguments.at(4), arguments.at(5));
    kor::detail::setClockSource(driftingNow);
    KorNode node(optionsOf({1472, 1}));
    if (arguments.at(6) != 0)
        node.connect(arguments.at(6));
    std::atomic<bool> loaded{false};
    std::thread loader;
    followOrders({node.port()}, [&](const Order& order) {
        RTUser& user = *node.users(1).front();
        if (order.word == "errors")
            return errors(user, theirs, order.numbers.at(0), order.numbers.at(1));
        if (!loader.joinable())
            loader = std::thread(load, std::ref(user), std::cref(loaded));
        loaded = order.numbers.at(0) != 0;
        loaded.notify_one();
        return Numbers{};
    });
});

} // namespace

} // namespace kor::bench
