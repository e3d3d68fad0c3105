#pragma once

#include "support/Time.h"

#include <array>
#include <cstddef>

namespace kor::detail {

/// Least value of a sliding window of time, in constant memory: one minimum per 1/16 of the window.
///
/// The window in force is between 15/16 and all of the one asked for. Old values leave only when a new one
/// comes, so silence forgets nothing. Times may lie on both sides of the wrap; a time that runs backwards
/// counts as the newest.
class RunningMinimum {
public:
    /// `window` in nanoseconds, at least 16.
    explicit RunningMinimum(Nanoseconds window) : bucketLength_(window / static_cast<Nanoseconds>(kBuckets)) {
        clear();
    }

    void add(Nanoseconds value, Nanoseconds now) {
        if (least_ == kNever)
            bucketStart_ = now;
        const Nanoseconds age = elapsed(now, bucketStart_);
        if (age >= bucketLength_)
            advance(age, now);
        if (value < buckets_[current_])
            buckets_[current_] = value;
        if (value < least_)
            least_ = value;
    }

    /// kNever while nothing was added.
    Nanoseconds least() const { return least_; }

    void clear() {
        buckets_.fill(kNever);
        current_ = 0;
        least_ = kNever;
    }

private:
    static constexpr std::size_t kBuckets = 16;

    void advance(Nanoseconds age, Nanoseconds now) {
        const Nanoseconds steps = age / bucketLength_;
        if (steps >= static_cast<Nanoseconds>(kBuckets)) {
            clear();
            bucketStart_ = now;
            return;
        }
        for (Nanoseconds i = 0; i < steps; ++i) {
            current_ = (current_ + 1) % kBuckets;
            buckets_[current_] = kNever;
        }
        bucketStart_ = elapsed(bucketStart_, -steps * bucketLength_);
        least_ = kNever;
        for (const Nanoseconds bucket : buckets_)
            if (bucket < least_)
                least_ = bucket;
    }

    Nanoseconds bucketLength_;
    Nanoseconds bucketStart_ = 0;
    Nanoseconds least_ = kNever;
    std::size_t current_ = 0;
    std::array<Nanoseconds, kBuckets> buckets_;
};

} // namespace kor::detail
