#pragma once

#include "Ledger.h"
#include "Random.h"

#include "support/net/connection/Endpoint.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

namespace kor::simulation {

class World;

/// One computer with one process.
struct HostModel {
    double driftPpm = 0;                            ///< by how much its clock runs fast
    Nanoseconds clockZero = 0;                      ///< what its clock shows when the world begins
    std::uint32_t socketBuffer = 8u << 20;          ///< bytes that its kernel really holds
    std::uint32_t announcedSocketBuffer = 8u << 20; ///< bytes that it tells its peers
    Nanoseconds wakeLatency = 5 * kMicrosecond;     ///< from an arrival or a deadline to the process running
    Nanoseconds handlerTime = 0; ///< that the application takes for each packet; datagrams go on meanwhile
    double fullSocket = 0;       ///< chance that the system takes no more for a moment
    std::uint32_t maxPacketBytes = 64u << 20;
    std::uint32_t receiveLimitBytes = 72u << 20; ///< begun and not consumed, from each peer
    std::uint32_t maxDatagramPayload = detail::kMaxDatagramBytes;
    std::uint32_t maxPeers = 1024;
    Nanoseconds timeout = 2 * kSecond; ///< silence that loses a connection
    bool reconnects = false; ///< connects again by itself when a connection it had asked for has ended
};

/// A host: clock, socket buffer and a process that holds an Endpoint and runs when something has arrived or
/// is due. It drives the Endpoint as the library's own thread does. Made by World::addHost.
class Host final : private detail::DatagramSink {
public:
    Host(World& world, int index, const RTAddr& addr, const HostModel& model);

    int index() const { return index_; }
    const RTAddr& addr() const { return addr_; }
    /// A change of `reconnects` and of times holds at once, one of limits from the next start() on.
    HostModel& model() { return model_; }
    Nanoseconds clock() const; ///< what its clock shows now

    // What the process does.
    void connect(const Host& to, Nanoseconds tryDuration = kSecond, int tries = 3);
    /// Sends a packet of `size` bytes, whose content the ledger gives and checks. False when there is no
    /// connection to that host.
    bool send(const Host& to, std::uint32_t size);
    void goodbye(); ///< says goodbye to all and exits
    void kill();    ///< exits without a word
    void start();   ///< a fresh process; whatever waits in the socket is gone
    bool running() const { return endpoint_.has_value(); }
    void suspend() { suspended_ = true; } ///< stops the process; its socket goes on taking in
    void resume();

    /// The layer itself. Only while running().
    detail::Endpoint& endpoint() { return *endpoint_; }
    /// Null when there is none.
    const detail::Connection* connectionTo(const Host& other) const;
    std::size_t connections() const { return bySerial_.size(); }

    /// Called with every event after the ledger has seen it.
    std::function<void(const detail::NetEvent&)> onEvent;

    // What has been counted.
    std::uint64_t socketDrops() const { return socketDrops_; } ///< datagrams for which the buffer had no room
    std::uint64_t turns() const { return turns_; }             ///< times that the process ran
    std::uint64_t failedAttempts() const { return failedAttempts_; }

private:
    friend class World;

    struct Waiting {
        int from = 0;
        RTAddr source;
        Nanoseconds arrival = 0;
        std::vector<std::uint8_t> bytes;
    };
    struct Link {
        std::uint64_t id = 0;
        bool initiator = false;
        std::uint64_t addressKey = 0;
    };

    void arrive(int from, const RTAddr& source, std::vector<std::uint8_t> bytes);
    void turn(std::uint64_t token);
    bool send(const detail::OutgoingDatagrams& outgoing) override;
    void readSocket();
    void noteConnections();
    void dispatch();
    void dispatchOne(detail::NetEvent event);
    void reconnectLater(std::uint64_t addressKey);
    void consume(const detail::NetEvent& packet);
    void sendDue();
    void checkMemory();
    void plan();
    void wakeAt(Nanoseconds trueTime);
    Nanoseconds clockAt(Nanoseconds trueTime) const;
    Nanoseconds trueTimeOf(Nanoseconds local) const;

    World& world_;
    int index_;
    RTAddr addr_;
    HostModel model_;
    Random random_;
    std::optional<detail::Endpoint> endpoint_;
    std::unordered_map<std::uint64_t, Link> bySerial_; ///< connections that the application knows
    std::unordered_map<std::uint64_t, Link> fresh_;    ///< connections that it will hear of
    std::uint64_t eventsSeen_ = 0;
    std::deque<Waiting> socket_;
    std::uint64_t socketBytes_ = 0;
    std::optional<detail::NetEvent> handling_;
    Nanoseconds handlingUntil_ = 0;
    bool suspended_ = false;
    bool closing_ = false;
    bool socketFull_ = false;
    std::vector<std::pair<std::uint64_t, std::size_t>> tooBig_;
    Nanoseconds nextTurn_ = kNever;
    std::uint64_t turnToken_ = 0;
    std::uint64_t socketDrops_ = 0;
    std::uint64_t turns_ = 0;
    std::uint64_t failedAttempts_ = 0;
};

} // namespace kor::simulation
