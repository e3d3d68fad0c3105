#pragma once

#include "../Orders.h"

#include <atomic>
#include <thread>

namespace kor::bench {

/// Runs a host of peers on a thread of its own until there are no more orders, each of which asks for its
/// arrivals.
template <typename Host>
void serve(Host& host, Orders& orders) {
    std::atomic<bool> stop{false};
    std::thread thread([&] {
        while (!stop)
            host.turn();
    });
    orders.answer({});
    for (Order order; orders.next(order);)
        orders.answer(host.arrivals.take());
    stop = true;
    thread.join();
}

} // namespace kor::bench
