#include "World.h"

#include "Describe.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace kor::simulation {

namespace {
constexpr Nanoseconds kAsking = kMillisecond;
constexpr double kPingsPerSecond = 10;

struct Later {
    template <typename Event>
    bool operator()(const Event& a, const Event& b) const {
        return a.at != b.at ? a.at > b.at : a.order > b.order;
    }
};
} // namespace

bool World::trace = false;

World::World(const WorldModel& model)
    : model_(model), ledger_(faults_, model.firstPacketId), tap_(faults_), random_(model.seed) {}

World::~World() = default;

Host& World::addHost(const HostModel& model) {
    hosts_.push_back(std::make_unique<Host>(*this, static_cast<int>(hosts_.size()), model));
    return *hosts_.back();
}

Host* World::hostAt(const RTAddr& addr) {
    const std::uint32_t index = addr.getIP() - 0x0A000001u;
    return index < hosts_.size() && hosts_[index]->addr() == addr ? hosts_[index].get() : nullptr;
}

Path& World::pathOf(int from, int to) {
    const auto found = paths_.find({from, to});
    if (found != paths_.end())
        return found->second;
    const std::uint64_t seed =
        model_.seed * 0x2545F4914F6CDD1Du + static_cast<std::uint64_t>(from * 65536 + to);
    return paths_.emplace(std::pair{from, to}, Path(model_.path, seed)).first->second;
}

void World::setPath(const Host& a, const Host& b, const PathModel& model) {
    path(a, b) = model;
    path(b, a) = model;
}

Nanoseconds World::leastRoundTrip(int from, int to) {
    return pathOf(from, to).model().delay + pathOf(to, from).model().delay;
}

// ------------------------------------------------------------------------------------------------- events

void World::push(Event event) {
    event.order = order_++;
    events_.push_back(event);
    std::push_heap(events_.begin(), events_.end(), Later{});
}

void World::at(Nanoseconds time, std::function<void()> action) {
    std::uint32_t slot = 0;
    if (freeActions_.empty()) {
        slot = static_cast<std::uint32_t>(actions_.size());
        actions_.emplace_back();
    } else {
        slot = freeActions_.back();
        freeActions_.pop_back();
    }
    actions_[slot] = std::move(action);
    push({.at = std::max(time, now_), .slot = slot});
}

void World::planTurn(Host& host, Nanoseconds time, std::uint64_t token) {
    push({.at = time, .host = host.index(), .token = token});
}

void World::step() {
    std::pop_heap(events_.begin(), events_.end(), Later{});
    const Event event = events_.back();
    events_.pop_back();
    now_ = event.at;
    if (event.arrival) {
        Flight flight = std::move(flights_[event.slot]);
        freeFlights_.push_back(event.slot);
        hosts_[static_cast<std::size_t>(event.host)]->arrive(flight.from, flight.source,
                                                             std::move(flight.bytes));
    } else if (event.host >= 0) {
        hosts_[static_cast<std::size_t>(event.host)]->turn(event.token);
    } else {
        const std::function<void()> action = std::move(actions_[event.slot]);
        actions_[event.slot] = nullptr;
        freeActions_.push_back(event.slot);
        action();
    }
}

void World::runUntil(Nanoseconds time) {
    while (!events_.empty() && events_.front().at <= time)
        step();
    now_ = std::max(now_, time);
}

bool World::runUntil(const std::function<bool()>& done, Nanoseconds longest) {
    const Nanoseconds end = now_ + longest;
    while (!done()) {
        if (now_ >= end)
            return false;
        runUntil(std::min(end, now_ + kAsking));
    }
    return true;
}

void World::settle(Nanoseconds longest) {
    runUntil(flowsEnd_);
    if (!runUntil([this] { return ledger_.settled(); }, longest))
        faults_.add("does not settle: " + ledger_.unsettled());
}

void World::rest(Nanoseconds duration) {
    const auto turns = [this] {
        std::uint64_t sum = 0;
        for (const auto& host : hosts_)
            sum += host->turns();
        return sum;
    };
    const auto countLinks = [this] {
        std::size_t sum = 0;
        for (const auto& host : hosts_)
            sum += host->connections();
        return sum;
    };
    const std::uint64_t datagramsBefore = tap_.total().datagrams - tap_.total().paddings;
    const std::uint64_t turnsBefore = turns();
    const std::size_t linksBefore = countLinks();
    runFor(duration);
    const auto links = static_cast<double>(std::max(linksBefore, countLinks()));
    const double expected = links * kPingsPerSecond * static_cast<double>(duration) * 1e-9;
    const auto datagrams =
        static_cast<double>(tap_.total().datagrams - tap_.total().paddings - datagramsBefore);
    const auto turnCount = static_cast<double>(turns() - turnsBefore);
    if (datagrams > 2 * expected + 40 * links)
        faults_.add("does not rest: " + std::to_string(datagrams) + " datagrams, expected about " +
                    std::to_string(expected));
    if (turnCount > 4 * datagrams + 40 * links + 40)
        faults_.add("does not rest: " + std::to_string(turnCount) + " turns");
    for (const auto& host : hosts_) {
        if (host->running() && host->endpoint().stalledCount() != 0)
            faults_.add("host " + std::to_string(host->index()) + " counts full windows at rest");
        for (const auto& other : hosts_)
            if (const detail::Connection* connection = host->connectionTo(*other)) {
                if (connection->sentLog().recorded() > 64)
                    faults_.add("host " + std::to_string(host->index()) + " still records " +
                                std::to_string(connection->sentLog().recorded()) + " datagrams at rest");
                if (connection->heldBytes() != 0)
                    faults_.add("host " + std::to_string(host->index()) + " holds bytes at rest");
                if (connection->statistics(host->clock()).queuedBytes != 0)
                    faults_.add("host " + std::to_string(host->index()) + " has bytes queued at rest");
            }
    }
}

// ------------------------------------------------------------------------------------------------ network

void World::transmit(Host& from, const RTAddr& to, std::span<const std::uint8_t> datagram) {
    Host* const target = hostAt(to);
    const int toIndex = target != nullptr ? target->index() : -1;
    tap_.leaves(from.index(), toIndex, datagram, now_,
                target != nullptr ? leastRoundTrip(from.index(), toIndex) : 0);
    if (target == nullptr)
        return;
    if (record != nullptr)
        record->push_back({from.index(), toIndex, now_, {datagram.begin(), datagram.end()}});
    Path& path = pathOf(from.index(), toIndex);
    const Path::Fate fate = path.carry(now_, datagram.size());
    if (trace)
        std::printf("%11.6f ms  %d > %d %s %s\n", static_cast<double>(now_) * 1e-6, from.index(), toIndex,
                    fate.copies == 0 ? "x" : " ", describe(datagram).c_str());
    for (std::size_t i = 0; i != fate.copies; ++i) {
        std::uint32_t slot = 0;
        if (freeFlights_.empty()) {
            slot = static_cast<std::uint32_t>(flights_.size());
            flights_.emplace_back();
        } else {
            slot = freeFlights_.back();
            freeFlights_.pop_back();
        }
        Flight& flight = flights_[slot];
        flight.from = from.index();
        flight.source = from.addr();
        flight.bytes.assign(datagram.begin(), datagram.end());
        for (int bit = 0; bit != fate.copy[i].turnedBits; ++bit) {
            const std::uint64_t at = path.random().below(flight.bytes.size() * 8);
            flight.bytes[at / 8] = static_cast<std::uint8_t>(flight.bytes[at / 8] ^ (1u << (at % 8)));
        }
        push({.at = fate.copy[i].at, .slot = slot, .host = toIndex, .arrival = true});
    }
}

void World::inject(Host& to, const RTAddr& source, std::span<const std::uint8_t> bytes) {
    Host* const from = hostAt(source);
    to.arrive(from != nullptr ? from->index() : -1, source, {bytes.begin(), bytes.end()});
}

void World::flow(Host& from, Host& to, Nanoseconds start, Nanoseconds interval, int count,
                 std::function<std::uint32_t()> size) {
    if (count == 0)
        return;
    flowsEnd_ = std::max(flowsEnd_, start + (count - 1) * interval);
    at(start, [this, &from, &to, start, interval, count, size = std::move(size)]() mutable {
        from.send(to, size());
        flow(from, to, start + interval, interval, count - 1, std::move(size));
    });
}

} // namespace kor::simulation
