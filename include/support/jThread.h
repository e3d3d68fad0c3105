#pragma once

#include "Export.h"

#include <memory>

namespace kor {

/// A thread that repeats one step until it is asked to stop.
///
/// A derived class overrides `process` and calls `release` in its own destructor, since the thread must have
/// ended before the derived part of the object goes away.
class KOR_API jThread {
public:
    jThread();
    jThread(const jThread&) = delete;
    jThread& operator=(const jThread&) = delete;

    /// Stops the thread like `release`.
    virtual ~jThread();

    /// Asks the thread to stop and returns when it has ended; at once when none runs. From any thread, also
    /// from several at once, except from the thread itself: there it logs an error and does nothing.
    virtual void release();

protected:
    /// One step, called again and again on the thread. Must return soon after `stopping()` has become true.
    virtual void process();

    /// Starts the thread. False when one runs already or the system gives none. May follow a `release`.
    bool start();

    /// Lets `stopping()` become true and returns at once; `process` is not called again after its present
    /// step.
    void requestStop();

    /// True once the thread has been asked to stop. From any thread.
    bool stopping() const;

    /// True from `start` until the `release` that ends it.
    bool running() const;

    /// True when called on the thread itself.
    bool onOwnThread() const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace kor
