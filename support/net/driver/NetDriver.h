#pragma once

#include "support/net/driver/CallbackSlot.h"
#include "support/net/driver/NetSession.h"
#include "support/net/driver/UserTable.h"
#include "support/platform/Poller.h"

#include <support/NetOptions.h>
#include <support/NetStatistics.h>
#include <support/RTHandlers.h>
#include <support/RTNet.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kor::detail {

/// Drives one core: one thread, callbacks, and calls from other threads.
///
/// The layer's thread calls turn() again and again. The session's core is under `coreMutex_`, which is never
/// held during a callback, so applications may call in from anywhere. While a callback waits for an
/// AtomicLock, the lock's spin hook calls pump(), which receives, acknowledges and sends but makes no
/// callback.
class NetDriver {
public:
    NetDriver() = default;

    /// Opens a session. False with the reason in `error`. The layer's thread must not run.
    bool open(const std::vector<std::uint16_t>& ports, const NetOptions& options, std::string& error);

    /// On the layer's thread: makes it fit and sets the spin hook.
    void beginThread();
    /// One step of the layer's thread.
    void turn();
    /// Ends the present wait of turn().
    void wake() { poller_.waker().wake(); }
    /// After the thread has ended: says goodbye to every peer and drops the session.
    void close();

    NET_CONNECT_ATTEMPT_RET connect(const jString& ip, std::uint16_t port, int tryMilliseconds, int tries);
    RTUser* userByKey(std::uint64_t key) const { return users_.byKey(key); }
    std::vector<std::uint16_t> localPorts() const;
    bool onLayerThread() const {
        return layerThread_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }
    CallbackSlot<RTUserHandler>& userHandler() { return userHandler_; }

    /// Milliseconds, as in RTNet.
    struct Times {
        unsigned int timeout = 2000;
        unsigned int maxRepairWait = 250;
        double maxClockDelay = 1000;
    };
    Times times() const;
    void setTimes(const Times& times);

    /// From an open NetPeer, any thread: its outbox has something in it. True when the layer's thread must be
    /// woken for that. Does nothing while the layer is closed or when it throws `std::bad_alloc`.
    bool noteOutbox(std::uint64_t serial);

    ConnectionStatistics connectionStatistics(std::uint64_t serial) const;
    NetStatistics statistics() const;

private:
    static void spinHook(void* self);
    void pump();
    void sendOut();
    void dispatch();
    Ring<NetEvent>& takeEvents();
    void dispatchEvent(NetEvent& event);
    void dispatchConnected(const NetEvent& event, const RTAddr& addr);
    void dispatchEnded(const NetEvent& event, const RTAddr& addr);
    void dispatchPacket(NetEvent& event);
    void dispatchDelivered(const NetEvent& event);
    void publish(const NetEvent& event);
    void applyTimes();

    Poller poller_;
    UserTable users_;
    CallbackSlot<RTUserHandler> userHandler_;
    std::atomic<std::thread::id> layerThread_{};

    /// Taken before the locks of users, outboxes and connections. Guards the core in the session, and the
    /// times. The session comes and goes under it too, but only while the layer's thread does not run and all
    /// users are closed: that thread, and whoever uses an open user, finds it without the lock.
    mutable std::mutex coreMutex_;
    std::unique_ptr<NetSession> session_; ///< null while closed
    std::uint64_t nextSerial_ = 1; ///< of the next session: an RTUser kept from before must not meet its own
    Times times_;

    // the layer's thread's own
    bool inCallback_ = false;
    bool pumping_ = false;
    int spins_ = 0;
};

} // namespace kor::detail
