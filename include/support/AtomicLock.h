#pragma once

#include "Export.h"

#include <atomic>

namespace kor {

namespace detail {

/// What this thread does between two attempts while an `AtomicLock` keeps it waiting; null for nothing, the
/// default.
///
/// The connection layer's thread goes on receiving and acknowledging here while an application holds a lock
/// that a handler wants. Per thread. The hook is not entered again while it runs.
KOR_API void setSpinHook(void (*hook)(void*), void* context);

/// Takes a word that is taken at the moment, calling this thread's hook between attempts.
KOR_API void spinUntilTaken(int& word);

} // namespace detail

/// A scoped spin lock over an int word of its owner: 0 free, 1 taken.
///
/// For short sections: it never enters the operating system and never yields. Not re-entrant. Define the word
/// as a plain int, set it to 0, and touch it through `AtomicLock` only.
class AtomicLock {
public:
    /// Spins until it has taken the word. The word must outlive the lock.
    explicit AtomicLock(volatile int* word) : word_(const_cast<int*>(word)) {
        int free = 0;
        if (!std::atomic_ref<int>(*word_).compare_exchange_strong(free, 1, std::memory_order_acquire,
                                                                  std::memory_order_relaxed)) {
            detail::spinUntilTaken(*word_);
        }
    }

    /// Gives the word back.
    ~AtomicLock() {
        int taken = 1;
        while (!std::atomic_ref<int>(*word_).compare_exchange_weak(taken, 0, std::memory_order_release,
                                                                   std::memory_order_relaxed)) {
            taken = 1;
        }
    }

    AtomicLock(const AtomicLock&) = delete;
    AtomicLock& operator=(const AtomicLock&) = delete;

private:
    int* word_;
};

} // namespace kor
