#include "support/Tracked.h"

#include <support/jLog.h>
#include <support/jThread.h>

#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>

namespace kor {

/// Shared with the thread, so that it can find its way out even when a step of it destroys the object.
struct jThread::State {
    std::mutex mutex; ///< guards `thread`
    std::thread thread;
    std::atomic<std::thread::id> id{};
    std::atomic<bool> stop{false};
    std::atomic<bool> running{false};
};

jThread::jThread()
    : state_(std::allocate_shared<State>(
          detail::TrackedAllocator<State, "support/jThread", "jThread::jThread">())) {}

jThread::~jThread() {
    if (!onOwnThread()) {
        jThread::release();
        return;
    }
    requestStop();
    state_->thread.detach();
}

void jThread::release() {
    if (onOwnThread()) {
        jLog::error("%s:called on the thread itself, which cannot wait for its own end", "jThread::release");
        return;
    }
    requestStop();
    const std::lock_guard guard(state_->mutex);
    if (state_->thread.joinable())
        state_->thread.join();
    state_->running = false;
}

void jThread::process() {
    requestStop();
}

bool jThread::start() {
    if (onOwnThread())
        return false;
    const std::lock_guard guard(state_->mutex);
    if (state_->thread.joinable())
        return false;
    state_->stop = false;
    try {
        state_->thread = std::thread([this, state = state_] {
            state->id = std::this_thread::get_id();
            while (!state->stop)
                process();
            state->id = std::thread::id();
        });
    } catch (const std::system_error& error) {
        jLog::error("%s:no thread, %s", "jThread::start", error.what());
        return false;
    }
    state_->running = true;
    return true;
}

void jThread::requestStop() {
    state_->stop = true;
}

bool jThread::stopping() const {
    return state_->stop;
}

bool jThread::running() const {
    return state_->running;
}

bool jThread::onOwnThread() const {
    return state_->id.load() == std::this_thread::get_id();
}

} // namespace kor
