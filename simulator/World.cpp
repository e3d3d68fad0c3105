#include "World.h"

#include <algorithm>
#include <string>
#include <utility>

namespace kor::simulation {

namespace {
constexpr Nanoseconds kAskInterval = kMillisecond;
constexpr std::uint32_t kFirstIp = 0x0A000001; // 10.0.0.1
constexpr std::uint16_t kPort = 7000;

// What an idle connection may cost.
constexpr double kDatagramsPerSecond = 10;
constexpr std::size_t kMaxRecorded = 64; // datagrams
} // namespace

World::World(const WorldModel& model)
    : model_(model), ledger_(faults_, model.firstPacketId), tap_(faults_), random_(model.seed) {}

World::~World() = default;

Host& World::addHost(const HostModel& model) {
    const RTAddr addr(kFirstIp + static_cast<std::uint32_t>(hosts_.size()), kPort);
    hosts_.push_back(std::make_unique<Host>(*this, static_cast<int>(hosts_.size()), addr, model));
    return *hosts_.back();
}

Host* World::hostAt(const RTAddr& addr) {
    const std::uint32_t index = addr.getIP() - kFirstIp;
    return index < hosts_.size() && hosts_[index]->addr() == addr ? hosts_[index].get() : nullptr;
}

Path& World::pathOf(int from, int to) {
    const std::uint64_t seed =
        model_.seed * 0x2545F4914F6CDD1Du + static_cast<std::uint64_t>(from * 65536 + to);
    return paths_.try_emplace({from, to}, model_.path, seed).first->second;
}

void World::setPath(const Host& a, const Host& b, const PathModel& model) {
    path(a, b) = model;
    path(b, a) = model;
}

// -------------------------------------------------------------------------------------------------- time

void World::at(Nanoseconds time, std::function<void()> action) {
    events_.push_back({std::max(time, now_), order_++, std::move(action)});
    std::push_heap(events_.begin(), events_.end());
}

void World::runUntil(Nanoseconds time) {
    while (!events_.empty() && events_.front().at <= time) {
        std::pop_heap(events_.begin(), events_.end());
        const Event event = std::move(events_.back());
        events_.pop_back();
        now_ = event.at;
        event.action();
    }
    now_ = std::max(now_, time);
}

bool World::runUntil(const std::function<bool()>& done, Nanoseconds longest) {
    const Nanoseconds end = now_ + longest;
    while (!done()) {
        if (now_ >= end)
            return false;
        runUntil(std::min(end, now_ + kAskInterval));
    }
    return true;
}

void World::settle(Nanoseconds longest) {
    runUntil(flowsEnd_);
    if (!runUntil([this] { return ledger_.settled(); }, longest))
        faults_.add("does not settle: " + ledger_.unsettled());
}

std::uint64_t World::turns() const {
    std::uint64_t sum = 0;
    for (const auto& host : hosts_)
        sum += host->turns();
    return sum;
}

std::size_t World::connections() const {
    std::size_t sum = 0;
    for (const auto& host : hosts_)
        sum += host->connections();
    return sum;
}

void World::idle(Nanoseconds duration) {
    const auto countDatagrams = [this] { return tap_.total().datagrams - tap_.total().paddings; };
    const std::uint64_t datagramsBefore = countDatagrams();
    const std::uint64_t turnsBefore = turns();
    const std::size_t connectionsBefore = connections();
    runFor(duration);
    const auto peers = static_cast<double>(std::max(connectionsBefore, connections()));
    const double expected = peers * kDatagramsPerSecond * static_cast<double>(duration) * 1e-9;
    const auto datagrams = static_cast<double>(countDatagrams() - datagramsBefore);
    const auto turnCount = static_cast<double>(turns() - turnsBefore);
    if (datagrams > 2 * expected + 40 * peers)
        faults_.add("not idle: " + std::to_string(datagrams) + " datagrams, expected about " +
                    std::to_string(expected));
    if (turnCount > 4 * datagrams + 40 * peers + 40)
        faults_.add("not idle: " + std::to_string(turnCount) + " turns");
    for (const auto& host : hosts_) {
        const auto fault = [&](const std::string& text) {
            faults_.add("host " + std::to_string(host->index()) + " " + text + " although it is idle");
        };
        for (const auto& other : hosts_)
            if (const detail::Connection* connection = host->connectionTo(*other)) {
                if (connection->sentLog().recorded() > kMaxRecorded)
                    fault("records " + std::to_string(connection->sentLog().recorded()) + " datagrams");
                if (connection->heldBytes() != 0)
                    fault("holds bytes");
                if (connection->statistics(host->clock()).queuedBytes != 0)
                    fault("has bytes queued");
            }
    }
}

// ------------------------------------------------------------------------------------------------ network

void World::transmit(Host& from, const RTAddr& to, std::span<const std::uint8_t> datagram) {
    Host* const target = hostAt(to);
    if (target == nullptr) {
        tap_.leaves(from.index(), -1, datagram, now_, 0);
        return;
    }
    Path& path = pathOf(from.index(), target->index());
    tap_.leaves(from.index(), target->index(), datagram, now_,
                path.model().delay + this->path(*target, from).delay);
    const Path::Fate fate = path.carry(now_, datagram.size());
    if (onSent)
        onSent({from.index(), target->index(), now_, fate.copies == 0, {datagram.begin(), datagram.end()}});
    for (std::size_t i = 0; i != fate.copies; ++i) {
        std::vector<std::uint8_t> bytes(datagram.begin(), datagram.end());
        for (int bit = 0; bit != fate.copy[i].turnedBits; ++bit) {
            const std::uint64_t at = path.random().below(bytes.size() * 8);
            bytes[at / 8] = static_cast<std::uint8_t>(bytes[at / 8] ^ (1u << (at % 8)));
        }
        at(fate.copy[i].at,
           [target, index = from.index(), source = from.addr(), bytes = std::move(bytes)]() mutable {
               target->arrive(index, source, std::move(bytes));
           });
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
