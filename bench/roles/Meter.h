#pragma once

#include "SystemTime.h"

#include <atomic>
#include <cstdint>
#include <vector>

namespace kor::bench {

/// Counts what arrives at a sink. One thread counts, another takes.
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
    std::vector<double> take() {
        const auto bytes = static_cast<double>(bytes_.exchange(0));
        const std::int64_t span = last_.load() - first_.exchange(0);
        return {bytes, static_cast<double>(span) * 1e-9};
    }

private:
    std::atomic<std::int64_t> first_{0};
    std::atomic<std::int64_t> last_{0};
    std::atomic<std::uint64_t> bytes_{0};
};

} // namespace kor::bench
