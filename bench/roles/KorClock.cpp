// One end of a connection whose clock runs fast by a known rate, and what it thinks of the other's clock.

#include "KorNode.h"
#include "Roles.h"
#include "SystemTime.h"

#include <support/jTimer.h>

#include <atomic>
#include <thread>
#include <vector>

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
std::vector<double> errors(const RTUser& user, const DriftingClock& theirs, int count, double milliseconds) {
    std::vector<double> result;
    for (int i = 0; i != count; ++i) {
        sleepUntil(systemNow() + static_cast<std::int64_t>(milliseconds * 1e6));
        const double estimate = user.getTimeOffset() * 1e6;
        const std::int64_t now = systemNow();
        result.push_back((estimate - static_cast<double>(theirs.at(now) - ourClock.at(now))) * 1e-3);
    }
    return result;
}

/// A packet of 1 MiB sixty times a second, until told to stop.
void load(RTUser& user, const std::atomic<bool>& stop) {
    const std::vector<char> packet(1u << 20, 'l');
    const std::int64_t start = systemNow();
    for (std::int64_t n = 0; !stop; ++n) {
        sleepUntil(start + n * 1'000'000'000 / 60);
        user.sendAsyn(packet.data(), static_cast<int>(packet.size()));
    }
}

} // namespace

/// Given base, start and drift of its own clock, the same of the other's, and the port of the other, or 0 for
/// the end that waits for it. Orders: "errors COUNT MILLISECONDS" answers so many errors in microseconds;
/// "load 1" begins and "load 0" ends a stream of packets to the other.
void korClock(const std::vector<double>& arguments, Orders& orders) {
    ourClock = clockOf(arguments.at(0), arguments.at(1), arguments.at(2));
    const DriftingClock theirs = clockOf(arguments.at(3), arguments.at(4), arguments.at(5));
    const auto port = static_cast<unsigned short>(arguments.at(6));
    kor::detail::setClockSource(driftingNow);
    KorNode node(optionsOf(1472, 1));
    if (port == 0)
        orders.answer({static_cast<double>(node.port())});
    RTUser& user = port != 0 ? node.connect(port) : *node.users(1).front();
    if (port != 0)
        orders.answer({});
    std::thread loader;
    std::atomic<bool> stop{false};
    for (Order order; orders.next(order);) {
        if (order.word == "errors") {
            orders.answer(errors(user, theirs, static_cast<int>(order.numbers.at(0)), order.numbers.at(1)));
            continue;
        }
        stop = order.numbers.at(0) == 0;
        if (!stop)
            loader = std::thread(load, std::ref(user), std::cref(stop));
        else if (loader.joinable())
            loader.join();
        orders.answer({});
    }
    stop = true;
    if (loader.joinable())
        loader.join();
}

} // namespace kor::bench
