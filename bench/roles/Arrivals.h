#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <span>
#include <vector>

namespace kor::bench {

/// First and last arrival of each tick, in nanoseconds of the system's clock.
class Arrivals {
public:
    /// A packet that begins with its tick's number has arrived at that time.
    void note(std::span<const std::uint8_t> packet, std::int64_t at) {
        std::int32_t tick = -1;
        if (packet.size() >= sizeof tick)
            std::memcpy(&tick, packet.data(), sizeof tick);
        const std::lock_guard lock(mutex_);
        if (tick < 0 || tick > 1'000'000)
            return;
        if (static_cast<std::size_t>(tick) >= spans_.size())
            spans_.resize(static_cast<std::size_t>(tick) + 1);
        Span& span = spans_[static_cast<std::size_t>(tick)];
        span.first = span.count == 0 ? at : std::min(span.first, at);
        span.last = std::max(span.last, at);
        ++span.count;
    }
    /// Count, first and last of each tick; starts anew.
    std::vector<double> take() {
        const std::lock_guard lock(mutex_);
        std::vector<double> numbers;
        for (const Span& span : spans_) {
            numbers.push_back(static_cast<double>(span.count));
            numbers.push_back(static_cast<double>(span.first));
            numbers.push_back(static_cast<double>(span.last));
        }
        spans_.clear();
        return numbers;
    }

private:
    struct Span {
        int count = 0;
        std::int64_t first = 0;
        std::int64_t last = 0;
    };
    std::mutex mutex_;
    std::vector<Span> spans_;
};

} // namespace kor::bench
