#pragma once

#include "../kit/jVector.h"
#include "Export.h"
#include "jString.h"
#include "jThread.h"
#include "NetOptions.h"
#include "NetStatistics.h"
#include "RTAddr.h"
#include "RTHandlers.h"
#include "RTUser.h"

#include <cstdint>
#include <memory>

namespace kor {

namespace detail {
class NetDriver;
}

/// What became of a call of `RTNet::connect`. Whatever it is, exactly one `onConnect` follows on the layer's
/// thread, except after `NET_CONNECT_ATTEMPT_CLOSED`.
enum NET_CONNECT_ATTEMPT_RET {
    NET_CONNECT_ATTEMPT_STARTED = 0,   ///< an attempt is under way
    NET_CONNECT_ATTEMPT_CONNECTED = 1, ///< the connection stands already; it is reported again
    NET_CONNECT_ATTEMPT_PENDING = 2, ///< an attempt to that peer runs already; its outcome serves both calls
    NET_CONNECT_ATTEMPT_BAD_ADDRESS = 3, ///< no IPv4 address, or port 0; reported as failed
    NET_CONNECT_ATTEMPT_CLOSED = 4       ///< the layer is not open; nothing follows
};

/// The connection layer: reliable, ordered packets of any size between peers over UDP, with delivery notices,
/// connection events and the peer's clock.
///
/// One thread does all the work and makes all the callbacks, one at a time. While a callback waits for an
/// `AtomicLock` that another thread holds, that thread goes on receiving, acknowledging and sending.
/// `docs/protocol.md` describes the bytes on the wire.
class KOR_API RTNet : public jThread {
public:
    /// Closed until `init`; no thread runs yet.
    RTNet();
    RTNet(const RTNet&) = delete;
    RTNet& operator=(const RTNet&) = delete;

    /// Opens the layer on a local UDP port (0: any free one) on every interface and starts its thread. False,
    /// with the reason in the log, when the port cannot be used or the layer is open already.
    bool init(unsigned short port);

    /// The same on several local ports at once. False when the list is empty or any of them cannot be used.
    bool init(jVector<unsigned short>& ports);

    /// Starts an attempt to connect to a peer and returns at once; see `NET_CONNECT_ATTEMPT_RET`. The attempt
    /// asks `attempts` times, each time for `attemptMilliseconds`, before it fails. Values below 1 count
    /// as 1.
    NET_CONNECT_ATTEMPT_RET connect(const jString& ip, unsigned short port, int attemptMilliseconds,
                                    int attempts);

    /// The connection to that peer, null when there is none. Not null while its `onConnect` with true runs.
    RTUser* getUserByAddr(const RTAddr& addr);

    /// The local ports in use, in the order of `init`; tells which one port 0 became.
    jVector<unsigned short> getLocalPorts() const;

    /// @{
    /// Limits and switches; takes effect at the next `init`.
    void setOptions(const NetOptions& options);
    const NetOptions& getOptions() const;
    /// @}

    /// What the layer has seen since `init`, all connections together. From any thread.
    NetStatistics getStatistics() const;

    ~RTNet() override;

    /// Says goodbye to every peer, closes every connection and stops the thread. Returns when the thread no
    /// longer runs; no callback is made after it. Safe to call twice. The caller must hold no lock that a
    /// callback takes, and must not be a callback: on the layer's own thread it logs an error and does
    /// nothing.
    void release() override;

protected:
    /// The layer's own thread step.
    void process() override;

public:
    /// The receiver set by `setUserHandler`, null for none. Not owned.
    virtual RTUserHandler* getUserHandler();

    /// Receiver of connection events; null drops them. Same rules as `RTUser::setPacketHandler`.
    virtual void setUserHandler(RTUserHandler* handler);

    /// @{
    /// Silence after which a connection is reported lost, in milliseconds; default 2000.
    virtual unsigned int getTimeoutTime();
    virtual void setTimeoutTime(unsigned int milliseconds);
    /// @}

    /// @{
    /// Longest wait before an unacknowledged datagram is sent again, in milliseconds; default 250. The wait
    /// itself follows the measured round trip, and doubles up to this bound while nothing is heard.
    virtual unsigned int getMtuResendTimeoutTime();
    virtual void setMtuResendTimeoutTime(unsigned int milliseconds);
    /// @}

    /// @{
    /// Round trips over this many milliseconds are left out of the peer's clock; default 1000.
    virtual double getMaxValidPingTime();
    virtual void setMaxValidPingTime(double milliseconds);
    /// @}

private:
    NetOptions options_;
    std::shared_ptr<detail::NetDriver> driver_;
};

} // namespace kor
