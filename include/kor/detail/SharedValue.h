#pragma once

#include <atomic>

namespace kor::detail {

/// A word that one thread may read while another writes it; copies like a plain value.
template <class T>
class SharedValue {
public:
    SharedValue(T value = T{}) noexcept : value_(value) {}
    SharedValue(const SharedValue& other) noexcept : value_(other.load()) {}

    SharedValue& operator=(const SharedValue& other) noexcept { return *this = other.load(); }
    SharedValue& operator=(T value) noexcept {
        value_.store(value, std::memory_order_release);
        return *this;
    }

    operator T() const noexcept { return load(); }
    T load() const noexcept { return value_.load(std::memory_order_acquire); }

    /// Stores a value and returns the one before.
    T exchange(T value) noexcept { return value_.exchange(value, std::memory_order_acq_rel); }

    /// Stores `value` only when the present one is still, bit for bit, `expected`.
    bool replace(T expected, T value) noexcept {
        return value_.compare_exchange_strong(expected, value, std::memory_order_acq_rel);
    }

private:
    std::atomic<T> value_;
};

} // namespace kor::detail
