#include <support/AtomicLock.h>

namespace kor::detail {

namespace {

struct SpinHook {
    void (*function)(void*) = nullptr;
    void* context = nullptr;
    bool running = false;
};

thread_local SpinHook spinHook;

} // namespace

void setSpinHook(void (*hook)(void*), void* context) {
    spinHook.function = hook;
    spinHook.context = context;
}

void spinUntilTaken(int& word) {
    SpinHook& hook = spinHook;
    const std::atomic_ref<int> lock(word);
    int free = 0;
    while (!lock.compare_exchange_weak(free, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
        free = 0;
        if (hook.function && !hook.running) {
            hook.running = true;
            hook.function(hook.context);
            hook.running = false;
        }
    }
}

} // namespace kor::detail
