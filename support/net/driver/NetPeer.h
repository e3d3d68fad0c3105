#pragma once

#include "support/net/clock/ClockFilter.h"
#include "support/net/delivery/Block.h"
#include "support/net/delivery/Ring.h"
#include "support/net/driver/CallbackSlot.h"
#include "support/Tracked.h"

#include <support/RTAddr.h>
#include <support/RTHandlers.h>
#include <support/RTUser.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace kor::detail {

class NetDriver;

/// What the threads share about one connection: packets for the layer's thread, the handler, and
/// the newest measurements.
class NetPeer {
public:
    NetPeer(NetDriver& driver, const RTAddr& addr, std::uint64_t serial, std::uint32_t maxPacketBytes,
            std::uint64_t maxQueuedBytes)
        : driver_(driver),
          addr_(addr),
          serial_(serial),
          maxPacketBytes_(maxPacketBytes),
          maxQueuedBytes_(maxQueuedBytes) {}

    const RTAddr& addr() const { return addr_; }
    std::uint64_t serial() const { return serial_; }
    NetDriver& driver() const { return driver_; }
    CallbackSlot<RTPacketHandler>& handler() { return handler_; }

    /// Any thread: copies the bytes into the outbox; kRefused when closed or over a limit.
    std::uint64_t enqueue(const void* data, int size);

    /// Layer's thread: takes what is in the outbox, in order.
    void takeOutbox(std::vector<Block>& blocks);
    /// The oldest packet accepted and not yet delivered has been delivered; its id.
    std::uint64_t delivered();
    /// The connection has ended: refuses from now on.
    void close();

    void publish(const ClockEstimate& clock, Nanoseconds roundTrip);
    ClockEstimate clock() const;
    Nanoseconds roundTrip() const;

private:
    NetDriver& driver_;
    const RTAddr addr_;
    const std::uint64_t serial_;
    const std::uint32_t maxPacketBytes_;
    const std::uint64_t maxQueuedBytes_;
    CallbackSlot<RTPacketHandler> handler_;

    bool takes(std::uint32_t bytes) const { return open_ && queuedBytes_ + bytes <= maxQueuedBytes_; }

    std::mutex sendMutex_; ///< held for a change of what follows
    std::atomic<bool> open_{true};
    std::atomic<std::uint64_t> queuedBytes_{0};
    std::vector<Block> outbox_;
    Ring<std::uint32_t> undelivered_{1}; ///< sizes, by packet id

    mutable std::mutex measureMutex_;
    ClockEstimate clock_;
    Nanoseconds roundTrip_ = 0;
};

/// The RTUser that applications see; lives as long as its layer keeps it.
class NetUser final : public RTUser, public TrackedNew<"support/net/driver/UserTable", "UserTable::add"> {
public:
    explicit NetUser(std::shared_ptr<NetPeer> peer) : RTUser(std::move(peer)) {}
    ~NetUser() override = default;
};

} // namespace kor::detail
