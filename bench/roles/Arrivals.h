#pragma once

#include "Role.h"
#include "SystemTime.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

namespace kor::bench {

/// Counts the bytes that arrive. One thread counts, another takes.
class Meter {
public:
    void arrived(std::uint64_t bytes) {
        const std::int64_t now = systemNow();
        if (first_.load(std::memory_order_relaxed) == 0)
            first_.store(now, std::memory_order_relaxed);
        else
            bytes_.fetch_add(bytes, std::memory_order_relaxed);
        last_.store(now, std::memory_order_relaxed);
    }

    /// Bytes behind the first message, and the seconds from the first to the last; starts anew.
    Numbers take() {
        const auto bytes = static_cast<double>(bytes_.exchange(0));
        const std::int64_t span = last_.load() - first_.exchange(0);
        return {bytes, static_cast<double>(span) * 1e-9};
    }

private:
    std::atomic<std::int64_t> first_{0};
    std::atomic<std::int64_t> last_{0};
    std::atomic<std::uint64_t> bytes_{0};
};

/// How long messages took that begin with their time of sending. One thread measures, another takes.
class Delays {
public:
    void arrived(const void* message) {
        std::int64_t sent = 0;
        std::memcpy(&sent, message, sizeof sent);
        const std::lock_guard lock(mutex_);
        milliseconds_.push_back(static_cast<double>(systemNow() - sent) * 1e-6);
    }
    Numbers take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(milliseconds_, {});
    }

private:
    std::mutex mutex_;
    Numbers milliseconds_;
};

/// Follows an order "send COUNT BYTES": such messages, one at a time, about a frame apart.
template <typename Send>
Numbers sendStamped(const Order& order, Send send) {
    std::vector<char> message(static_cast<std::size_t>(order.numbers.at(1)), 'd');
    for (double left = order.numbers.at(0); left > 0; --left) {
        const std::int64_t now = systemNow();
        std::memcpy(message.data(), &now, sizeof now);
        send(message);
        sleepUntil(timeIn(0.005));
    }
    return {};
}

} // namespace kor::bench
