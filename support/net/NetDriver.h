#pragma once

#include "support/net/CallbackSlot.h"
#include "support/net/Endpoint.h"
#include "support/net/NetPeer.h"
#include "support/net/TrainSender.h"
#include "support/platform/Poller.h"
#include "support/platform/ReceiveBatch.h"
#include "support/platform/UdpSocket.h"

#include <support/NetOptions.h>
#include <support/NetStatistics.h>
#include <support/RTHandlers.h>
#include <support/RTNet.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace kor::detail {

/// The thin driver around an Endpoint: sockets, one thread, callbacks.
///
/// The layer's thread calls turn() again and again. The core is under `coreMutex_`, which is never held
/// during a callback, so applications may call in from anywhere. While a callback waits for an AtomicLock,
/// the lock's spin hook calls pump(), which receives, acknowledges and sends but makes no callback.
class NetDriver {
public:
    NetDriver() = default;

    /// Opens one socket per port and a fresh endpoint. False with the reason in `error`.
    bool open(const std::vector<std::uint16_t>& ports, const NetOptions& options, std::string& error);

    /// On the layer's thread: makes it fit and sets the spin hook.
    void beginThread();
    /// One step of the layer's thread.
    void turn();
    /// Ends the present wait of turn().
    void wake() { poller_.waker().wake(); }
    /// After the thread has ended: says goodbye to every peer and closes the sockets.
    void close();

    NET_CONNECT_ATTEMPT_RET connect(const jString& ip, std::uint16_t port, int tryMilliseconds, int tries);
    RTUser* userByKey(std::uint64_t key);
    std::vector<std::uint16_t> localPorts() const;
    bool onLayerThread() const {
        return layerThread_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }
    CallbackSlot<RTUserHandler>& userHandler() { return userHandler_; }

    /// Milliseconds, as in RTNet.
    struct Times {
        unsigned int timeout = 2000;
        unsigned int longestRepairWait = 250;
        double longestClockDelay = 1000;
    };
    Times times() const;
    void setTimes(const Times& times);

    /// From NetPeer, any thread: there is something in that connection's outbox. True when the layer's thread
    /// must be woken for it. Throws `std::bad_alloc`, and then has noted nothing.
    bool noteOutbox(std::uint64_t serial);

    ConnectionStatistics connectionStatistics(std::uint64_t serial) const;
    NetStatistics statistics() const;

private:
    struct User {
        std::shared_ptr<NetPeer> peer;
        std::unique_ptr<NetUser> user;
    };
    static constexpr std::size_t kRetired = 256;

    static void spinHook(void* self);
    void pump();
    void rest();
    enum class Rest {
        none,       ///< until something comes
        forReports, ///< of a crowd
        forBurst,   ///< of packets that the application sends to a crowd
        midPacket
    };
    Rest chooseRest() const;
    void receive();
    bool sleptFor(const ReceivedRun& run) const;
    void takeOutboxes();
    void sendOut();
    void sendDue();
    Nanoseconds nextDeadline();
    void dispatch();
    bool takeEvents();
    void dispatchEvent(NetEvent& event);
    void dispatchConnected(const NetEvent& event, const RTAddr& addr);
    void dispatchEnded(const NetEvent& event, const RTAddr& addr);
    void dispatchPacket(NetEvent& event);
    void dispatchDelivered(const NetEvent& event);
    void publish(const NetEvent& event);
    User* userOf(std::uint64_t serial);
    void applyTimes();

    NetOptions options_;
    mutable std::mutex coreMutex_;
    std::optional<Endpoint> endpoint_;
    std::uint64_t nextSerial_ = 1; ///< of the next endpoint: an RTUser kept from before must not meet its own
    std::vector<std::unique_ptr<UdpSocket>> sockets_;
    std::optional<TrainSender> sender_;
    std::unique_ptr<ReceiveBatch> batch_;
    Nanoseconds lastBusy_ = 0;  ///< when the layer's thread last had something to do
    bool onlyReports_ = false;  ///< are all datagrams that the last turn has read
    bool tookOutboxes_ = false; ///< the last turn, of other threads
    bool moreWaits_ = false;    ///< the last turn has not read all
    bool midPacket_ = false;    ///< the last turn has ended amid the pieces of a packet, close together
    Nanoseconds lastArrival_ = 0;
    Rest rest_ = Rest::none; ///< chosen by the last turn
    std::atomic<std::uint64_t> gatherings_{0};
    bool expectsMany_ = true; ///< more than one datagram waits when one does
    std::vector<std::uint8_t> trainBuffer_;
    Poller poller_;

    mutable std::mutex outboxMutex_;
    std::vector<std::uint64_t> outboxes_; ///< serials of connections with something in their outbox

    mutable std::mutex usersMutex_; ///< the layer's thread reads without it, since it alone changes them
    std::unordered_map<std::uint64_t, User> users_; ///< by serial
    std::unordered_map<std::uint64_t, RTUser*> usersByKey_;
    std::deque<User> retired_;

    CallbackSlot<RTUserHandler> userHandler_;
    std::atomic<std::thread::id> layerThread_{};
    mutable std::mutex timesMutex_;
    Times times_;
    std::vector<std::uint16_t> ports_;

    // What follows is the layer's thread's own.
    struct HandedUp {
        std::uint64_t serial = 0;
        std::uint32_t size = 0;
    };
    Ring<NetEvent> dispatching_; ///< taken from the endpoint together
    std::vector<HandedUp> handedUp_;
    std::vector<std::uint64_t> ownOutboxes_; ///< those that callbacks have filled
    std::vector<std::uint64_t> takenOutboxes_;
    std::vector<Block> takenBlocks_;
    User* lastUser_ = nullptr; ///< what userOf() found last
    Nanoseconds deadline_ = kNow;
    bool inCallback_ = false;
    bool pumping_ = false;
    int spins_ = 0;
};

} // namespace kor::detail
