#pragma once

#include "Faults.h"
#include "Host.h"
#include "Ledger.h"
#include "Path.h"
#include "Random.h"
#include "WireTap.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kor::simulation {

struct WorldModel {
    std::uint64_t seed = 1;
    PathModel path; ///< unless set otherwise between two hosts
    std::uint64_t firstPacketId = 1;
    std::uint64_t firstNumber = 1;
};

/// A datagram as it was sent, for those who want to send it again.
struct Recording {
    int from = 0;
    int to = 0;
    Nanoseconds at = 0;
    std::vector<std::uint8_t> bytes;
};

/// Virtual time, hosts and the network between them. Everything is decided by the seed: the same scenario
/// gives the same datagrams at the same nanosecond, on every machine.
class World {
public:
    explicit World(const WorldModel& model);
    ~World();

    const WorldModel& model() const { return model_; }
    Nanoseconds now() const { return now_; }
    Random& random() { return random_; }

    Host& addHost(const HostModel& model = {});
    Host& host(std::size_t index) { return *hosts_[index]; }
    std::size_t hostCount() const { return hosts_.size(); }

    /// The way from one host to another; a change holds for datagrams sent from now on.
    PathModel& path(const Host& from, const Host& to) { return pathOf(from.index(), to.index()).model(); }
    /// Sets both directions.
    void setPath(const Host& a, const Host& b, const PathModel& model);

    void at(Nanoseconds time, std::function<void()> action);
    void after(Nanoseconds wait, std::function<void()> action) { at(now_ + wait, std::move(action)); }
    /// Sends packets of `size()` bytes, `count` times, whenever there is a connection then.
    void flow(Host& from, Host& to, Nanoseconds start, Nanoseconds interval, int count,
              std::function<std::uint32_t()> size);

    void runFor(Nanoseconds duration) { runUntil(now_ + duration); }
    void runUntil(Nanoseconds time);
    /// Runs until `done()`, asked every millisecond of virtual time; false when that does not come in time.
    bool runUntil(const std::function<bool()>& done, Nanoseconds longest);
    /// Runs until all flows have ended, everything sent is delivered and each connection stands on both sides
    /// or none; a fault when that does not come in time.
    void settle(Nanoseconds longest = 10 * kSecond);
    /// Runs on without traffic, and finds fault with what does not rest.
    void rest(Nanoseconds duration = 400 * kMillisecond);

    /// Puts a datagram into a host's socket that seems to come from `source`.
    void inject(Host& to, const RTAddr& source, std::span<const std::uint8_t> bytes);

    Ledger& ledger() { return ledger_; }
    WireTap& tap() { return tap_; }
    Faults& faults() { return faults_; }
    std::vector<Recording>* record = nullptr; ///< when set, every datagram sent is kept there
    static bool trace;                        ///< print every datagram

    // For hosts.
    void transmit(Host& from, const RTAddr& to, std::span<const std::uint8_t> datagram);
    void planTurn(Host& host, Nanoseconds time, std::uint64_t token);
    Host* hostAt(const RTAddr& addr);
    /// No datagram comes back to `from` earlier than this.
    Nanoseconds leastRoundTrip(int from, int to);

private:
    struct Event {
        Nanoseconds at = 0;
        std::uint64_t order = 0;
        std::uint32_t slot = 0; ///< in flights_ or actions_
        int host = -1;          ///< turn of that host, or arrival there; -1: action
        std::uint64_t token = 0;
        bool arrival = false;
    };
    struct Flight {
        int from = 0;
        RTAddr source;
        std::vector<std::uint8_t> bytes;
    };

    Path& pathOf(int from, int to);
    void push(Event event);
    void step();

    WorldModel model_;
    Faults faults_;
    Ledger ledger_;
    WireTap tap_;
    Random random_;
    Nanoseconds now_ = 0;
    Nanoseconds flowsEnd_ = 0;
    std::uint64_t order_ = 0;
    std::vector<Event> events_; ///< heap
    std::vector<Flight> flights_;
    std::vector<std::uint32_t> freeFlights_;
    std::vector<std::function<void()>> actions_;
    std::vector<std::uint32_t> freeActions_;
    std::map<std::pair<int, int>, Path> paths_;
    std::vector<std::unique_ptr<Host>> hosts_;
};

} // namespace kor::simulation
