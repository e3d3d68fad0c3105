#pragma once

#include "Export.h"
#include "NetStatistics.h"
#include "RTAddr.h"

#include <cstdint>
#include <memory>

namespace kor {

class RTPacketHandler;

namespace detail {
class NetPeer;
}

/// The connection to one peer. Created and owned by the connection layer; every operation may be called from
/// any thread, also from inside a callback.
///
/// After the connection has ended, `sendAsyn` refuses and the clock stays at its last value. The object
/// itself is kept until the layer is destroyed or 256 later connections have ended, so that a pointer which
/// another thread still holds stays readable; take a fresh one from each `onConnect` all the same.
class KOR_API RTUser {
public:
    /// What `sendAsyn` returns when it refuses.
    static constexpr std::uint64_t kRefused = ~std::uint64_t{0};

    RTUser(const RTUser&) = delete;
    RTUser& operator=(const RTUser&) = delete;

    /// Queues a copy of the bytes as one packet and returns at once, whatever the peer does. The identifier
    /// is unique on this connection and comes back in `RTPacketHandler::onSendOver`. Refused with `kRefused`:
    /// null, a size below 1 or over the largest packet, a queue over its limit (`NetOptions`), an ended
    /// connection, a lack of memory.
    std::uint64_t sendAsyn(const void* data, int size);

    /// Writes the connection's statistics to the log, as messages.
    void printStatistics();

    /// The same figures for programs.
    ConnectionStatistics getStatistics() const;

    /// Bound on the error of `getTimeOffset` in milliseconds, growing with silence; 0 while that is unknown.
    double getTimeOffsetErrorBound() const;

    /// Parts per million by which the peer's clock runs faster than ours; 0 while unknown.
    double getClockSkew() const;

    /// The peer's address.
    virtual const RTAddr& getAddr() const;

    /// Smoothed round-trip time in milliseconds; 0 before the first measurement.
    virtual double getPing() const;

    /// The peer's `jTimer` clock minus ours at this moment, in milliseconds; exactly -1e9 while not yet
    /// known. Known within 100 ms of the connection; from then on it never steps.
    virtual double getTimeOffset() const;

    /// From now on packets and delivery notices of this connection go to `handler`; null stops them.
    ///
    /// On another thread than the layer's it returns only when the old handler is not running and never will
    /// be again, so the caller must hold no lock that the handler takes. On the layer's own thread it takes
    /// effect at once. Packets that arrive while no handler is set are dropped.
    virtual void setPacketHandler(RTPacketHandler* handler);

protected:
    /// For the connection layer, which makes the connections.
    explicit RTUser(std::shared_ptr<detail::NetPeer> peer);
    virtual ~RTUser();

private:
    friend class detail::NetPeer;
    std::shared_ptr<detail::NetPeer> peer_;
};

} // namespace kor
