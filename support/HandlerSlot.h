#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

namespace kor::detail {

/// Holds the handler that an application may replace at any time, from any thread, also from inside the
/// handler. Callers take a share of it and call it without a lock.
template <class Handler>
class HandlerSlot {
public:
    constexpr HandlerSlot() = default;

    /// An empty handler leaves the slot empty. Returns the one that was there, empty when there was none.
    Handler exchange(Handler handler) {
        std::shared_ptr<Handler> next = handler ? std::make_shared<Handler>(std::move(handler)) : nullptr;
        {
            const std::lock_guard guard(mutex_);
            present_.store(next != nullptr, std::memory_order_relaxed);
            current_.swap(next);
        }
        // Copied and destroyed with the lock gone: that is the application's code.
        return next ? *next : Handler();
    }

    /// Null when the slot is empty, at the cost of one atomic load.
    std::shared_ptr<Handler> get() const {
        if (!present_.load(std::memory_order_relaxed))
            return nullptr;
        const std::lock_guard guard(mutex_);
        return current_;
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<Handler> current_;
    std::atomic<bool> present_{false};
};

/// A static object that is there before any start-up code runs and that nothing destroys: threads and
/// destructors of other static objects may use it to the last.
template <class T>
union Immortal {
    T value;
    constexpr Immortal() : value() {}
    ~Immortal() {}
};

} // namespace kor::detail
