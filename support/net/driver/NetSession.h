#pragma once

#include "support/net/connection/Endpoint.h"
#include "support/net/driver/Gathering.h"
#include "support/net/driver/TrainSender.h"
#include "support/net/driver/UserTable.h"
#include "support/platform/Poller.h"
#include "support/platform/ReceiveBatch.h"
#include "support/platform/UdpSocket.h"
#include "support/Tracked.h"

#include <support/NetOptions.h>
#include <support/NetStatistics.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kor::detail {

/// All that belongs to one opening of a layer, and is dropped with it: the sockets and their places in the
/// poller, the core, what goes in and out, and what the layer's thread remembers between its turns.
///
/// Belongs to the layer's thread, and to who opens and closes the layer while that thread does not run. Other
/// threads, and the layer's thread where it is told below, hold the core's mutex.
class NetSession : public TrackedNew<"support/net/driver/NetSession", "NetSession::open"> {
public:
    /// Opens one socket per port. Null, with the reason in `error`, when that fails. `poller` must watch
    /// nothing else, and it and `coreMutex` must outlive the session.
    static std::unique_ptr<NetSession> open(const std::vector<std::uint16_t>& ports,
                                            const NetOptions& options, std::uint64_t firstSerial,
                                            Poller& poller, std::mutex& coreMutex, std::string& error);
    NetSession(const NetSession&) = delete;
    NetSession& operator=(const NetSession&) = delete;
    ~NetSession() { poller_.clear(); }

    const NetOptions& options() const { return options_; }
    std::vector<std::uint16_t> localPorts() const;
    /// Core's mutex held.
    Endpoint& endpoint() { return *endpoint_; }
    /// Core's mutex held.
    void addStatistics(NetStatistics& statistics) const;
    /// Core's mutex held: tells every peer that its connection ends.
    void sayGoodbye();

    /// A connection's outbox has something in it. From any thread, without the core's mutex, while the user
    /// of that connection is open.
    void noteOutbox(std::uint64_t serial);
    /// The same from a callback.
    void noteOwnOutbox(std::uint64_t serial) { ownOutboxes_.push_back(serial); }
    /// That packet has been given to the application, or dropped.
    void noteConsumed(std::uint64_t serial, std::uint32_t size) { consumed_.push_back({serial, size}); }

    /// Waits until there is something to do. Core's mutex not held.
    void wait();
    /// Reads what the poller has found. Takes the core's mutex for each batch anew, to let others in.
    void receive();
    /// Sends what is due. Core's mutex held.
    void sendOut(UserTable& users);
    /// Events to pass on; the queue belongs to the layer's thread. Core's mutex held.
    Ring<NetEvent>& takeEvents();

private:
    struct Consumed {
        std::uint64_t serial = 0;
        std::uint32_t size = 0;
    };

    NetSession(const NetOptions& options, Poller& poller, std::mutex& coreMutex);

    bool openSockets(const std::vector<std::uint16_t>& ports, std::string& error);
    bool openEndpoint(std::uint64_t firstSerial, std::string& error);
    bool receiveSome(std::size_t socket);
    bool sleptFor(const ReceivedRun& run) const;
    void takeOutboxes(UserTable& users);
    void sendDue();
    Nanoseconds nextDeadline();
    void planWait();

    const NetOptions options_;
    Poller& poller_;
    std::mutex& coreMutex_;

    // under the core's mutex
    std::vector<std::unique_ptr<UdpSocket>> sockets_;
    std::optional<Endpoint> endpoint_;
    TrainSender sender_;

    std::mutex outboxMutex_;
    std::vector<std::uint64_t> outboxes_; ///< serials of connections with something in their outbox

    // the layer's thread's own
    ReceiveBatch batch_;
    std::vector<std::uint8_t,
                TrackedAllocator<std::uint8_t, "support/net/driver/NetSession", "NetSession::open">>
        trainBuffer_;
    Ring<NetEvent> events_; ///< taken from the endpoint together
    std::vector<Consumed> consumed_;
    std::vector<std::uint64_t> ownOutboxes_; ///< those that callbacks have filled
    std::vector<std::uint64_t> takenOutboxes_;
    std::vector<Block> takenBlocks_;
    Gathering gathering_;
    Gathering::Turn turn_;
    Nanoseconds deadline_ = kNow;
    Nanoseconds lastBusy_;    ///< when there was something to do
    bool expectsMany_ = true; ///< more than one datagram waits when one does
};

} // namespace kor::detail
