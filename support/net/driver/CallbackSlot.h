#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace kor::detail {

/// Holds an application's handler and calls it, so that whoever takes it away knows when it is no longer
/// running. A call takes no lock while nobody waits for its end.
template <typename Handler>
class CallbackSlot {
public:
    /// From any thread. Unless `onLayerThread`, returns only when the old handler is not running; the caller
    /// must hold no lock that the old handler wants.
    void set(Handler* handler, bool onLayerThread) {
        handler_.store(handler);
        if (onLayerThread)
            return;
        const std::uint64_t seen = steps_.load();
        if (!running(seen))
            return;
        std::unique_lock lock(mutex_);
        ++waiting_;
        idle_.wait(lock, [&] { return steps_.load() != seen; });
        --waiting_;
    }

    Handler* get() const { return handler_.load(); }

    /// On the layer's thread: calls `function(handler)` when there is one. The handler may take itself away
    /// meanwhile, and its object may be gone when the call returns.
    template <typename Function>
    void call(Function function) {
        // The order of these two, and of their like in set(), is what keeps a handler that was taken away
        // from being called: they must stay sequentially consistent.
        steps_.fetch_add(1);
        if (Handler* const handler = handler_.load())
            function(handler);
        steps_.fetch_add(1);
        if (waiting_.load() == 0)
            return;
        { const std::lock_guard lock(mutex_); }
        idle_.notify_all();
    }

private:
    static bool running(std::uint64_t steps) { return steps % 2 != 0; }

    std::atomic<Handler*> handler_{nullptr};
    std::atomic<std::uint64_t> steps_{0}; ///< begun and ended calls
    std::atomic<int> waiting_{0};
    std::mutex mutex_;
    std::condition_variable idle_;
};

} // namespace kor::detail
