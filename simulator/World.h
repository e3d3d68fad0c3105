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
#include <utility>
#include <vector>

/// What becomes of a wall on a network that is described and not there: hosts whose processes hold the real
/// core of the connection layer, paths between them that delay, lose and reorder, and time that nobody waits
/// for. Ten seconds of a small wall take milliseconds.
///
///     World world({.seed = 7});
///     Host& master = world.addHost();
///     Host& slave = world.addHost({.driftPpm = 30});
///     world.setPath(master, slave, {.delay = 200 * kMicrosecond, .loss = 0.01});
///     slave.connect(master);
///     world.flow(master, slave, 50 * kMillisecond, 16'666'667, 600, [] { return 20'000u; });
///     world.settle();
///     for (const auto& [id, connection] : world.ledger().connections())
///         for (const Stream::Packet& packet : connection.sentBy(master.index()).packets)
///             print(packet.received - packet.sent);
///
/// | ask     | for                                                                                   |
/// | ------- | ------------------------------------------------------------------------------------- |
/// | Host    | its clock and what it takes the others' for, its connections, what its socket dropped |
/// | Ledger  | when each packet was sent, received and reported as delivered; how connections ended  |
/// | WireTap | datagrams, bytes, acknowledgements and repairs of each direction                      |
/// | Faults  | promises of the layer that were broken; none unless the layer has a fault             |
///
/// Pair is the world of two that is connected already. Everything follows from the seed: the same program
/// gives the same datagrams at the same nanosecond on every machine. A world belongs to one thread.
namespace kor::simulation {

struct WorldModel {
    std::uint64_t seed = 1;
    PathModel path; ///< between any two hosts, unless set otherwise
    /// What connections begin to count with. On the wire both wrap at 2^32; to see that, begin little below.
    std::uint64_t firstPacketId = 1;
    std::uint64_t firstNumber = 1;
};

/// A datagram as it left a host.
struct SentDatagram {
    int from = 0; ///< index of the host
    int to = 0;
    Nanoseconds at = 0;
    bool lost = false; ///< does not arrive
    std::vector<std::uint8_t> bytes;
};

/// Virtual time, the hosts and the network between them.
class World {
public:
    explicit World(const WorldModel& model = {});
    ~World();

    const WorldModel& model() const { return model_; }
    /// True time since the world began, which no host's clock need show.
    Nanoseconds now() const { return now_; }
    Random& random() { return random_; }

    /// The world keeps the host, which runs from now on.
    Host& addHost(const HostModel& model = {});
    Host& host(std::size_t index) { return *hosts_[index]; }
    std::size_t hostCount() const { return hosts_.size(); }

    /// The path from one host to another; a change holds for datagrams sent from now on.
    PathModel& path(const Host& from, const Host& to) { return pathOf(from.index(), to.index()).model(); }
    /// Sets it forward and backward.
    void setPath(const Host& a, const Host& b, const PathModel& model);

    /// Does something at that time, or now if that has passed.
    void at(Nanoseconds time, std::function<void()> action);
    void after(Nanoseconds wait, std::function<void()> action) { at(now_ + wait, std::move(action)); }
    /// Sends `count` packets of `size()` bytes, one every `interval` from `start` on; those for which there
    /// is no connection then are left out. The hosts must be those of this world.
    void flow(Host& from, Host& to, Nanoseconds start, Nanoseconds interval, int count,
              std::function<std::uint32_t()> size);

    void runFor(Nanoseconds duration) { runUntil(now_ + duration); }
    void runUntil(Nanoseconds time);
    /// Runs until `done()`, asked every millisecond of virtual time; false when that does not come in time.
    bool runUntil(const std::function<bool()>& done, Nanoseconds longest);
    /// Runs until all flows have ended, everything sent is delivered and each connection stands on both sides
    /// or none; a fault when that does not come in time.
    void settle(Nanoseconds longest = 10 * kSecond);
    /// Runs on without traffic; a fault when connections do not fall idle: datagrams, wake-ups or memory for
    /// which there is no reason. To be called when the world has settled.
    void idle(Nanoseconds duration = 400 * kMillisecond);

    /// Puts a datagram into a host's socket that seems to come from `source`.
    void inject(Host& to, const RTAddr& source, std::span<const std::uint8_t> bytes);

    const Ledger& ledger() const { return ledger_; }
    const WireTap& tap() const { return tap_; }
    Faults& faults() { return faults_; }
    /// Called with every datagram between two hosts; describe() puts one into words.
    std::function<void(const SentDatagram&)> onSent;

private:
    friend class Host;

    struct Event {
        Nanoseconds at = 0;
        std::uint64_t order = 0;
        std::function<void()> action;

        bool operator<(const Event& other) const {
            return at != other.at ? at > other.at : order > other.order;
        }
    };

    // For hosts.
    void transmit(Host& from, const RTAddr& to, std::span<const std::uint8_t> datagram);
    Host* hostAt(const RTAddr& addr);

    Path& pathOf(int from, int to);
    std::uint64_t turns() const;
    std::size_t connections() const;

    WorldModel model_;
    Faults faults_;
    Ledger ledger_;
    WireTap tap_;
    Random random_;
    Nanoseconds now_ = 0;
    Nanoseconds flowsEnd_ = 0;
    std::uint64_t order_ = 0;
    std::vector<Event> events_; ///< heap, the earliest at the front
    std::map<std::pair<int, int>, Path> paths_;
    std::vector<std::unique_ptr<Host>> hosts_;
};

} // namespace kor::simulation
