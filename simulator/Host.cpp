#include "Host.h"

#include "World.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kor::simulation {

using detail::NetEvent;

namespace {
constexpr std::uint64_t kKernelBytesPerDatagram = 768; // beyond its own bytes
constexpr int kTrainsPerTurn = 64;
constexpr int kGoodbyes = 3;
constexpr Nanoseconds kGoodbyeInterval = 2 * kMillisecond;
constexpr Nanoseconds kMinTurn = kMicrosecond;
constexpr Nanoseconds kFullSocketRetry = 100 * kMicrosecond;
constexpr Nanoseconds kReconnectWait = 5 * kMillisecond;
constexpr std::uint64_t kMaxRecorded = 1u << 17;

std::span<std::uint8_t> trainBuffer() {
    static thread_local std::array<std::uint8_t, 64u << 10> buffer;
    return buffer;
}
} // namespace

Host::Host(World& world, int index, const RTAddr& addr, const HostModel& model)
    : world_(world), index_(index), addr_(addr), model_(model), random_(world.random().next()) {
    start();
}

Nanoseconds Host::clockAt(Nanoseconds trueTime) const {
    return model_.clockZero + trueTime +
           static_cast<Nanoseconds>(static_cast<double>(trueTime) * model_.driftPpm * 1e-6);
}

Nanoseconds Host::clock() const {
    return clockAt(world_.now());
}

Nanoseconds Host::trueTimeOf(Nanoseconds local) const {
    if (local == kNever)
        return kNever;
    if (local <= clock())
        return world_.now();
    const auto shown = static_cast<double>(local - model_.clockZero);
    Nanoseconds time = static_cast<Nanoseconds>(shown / (1 + model_.driftPpm * 1e-6));
    while (clockAt(time) < local)
        ++time;
    return time;
}

// ------------------------------------------------------------------------------------------- the process

void Host::start() {
    detail::EndpointConfig config;
    config.mine.maxPacketBytes = model_.maxPacketBytes;
    config.mine.receiveLimitBytes = model_.receiveLimitBytes;
    config.mine.socketBufferBytes = model_.announcedSocketBuffer;
    config.mine.maxDatagramPayload = model_.maxDatagramPayload;
    config.maxPeers = model_.maxPeers;
    config.times.timeout = model_.timeout;
    config.cookieSecret = {random_.next(), random_.next()};
    config.random = [this] { return random_.next() | 1; };
    config.firstPacketId = world_.model().firstPacketId;
    config.firstNumber = world_.model().firstNumber;
    endpoint_.emplace(std::move(config), clock());
    fresh_.clear();
    eventsSeen_ = 0;
    closing_ = false;
}

void Host::kill() {
    for (const auto& [serial, link] : bySerial_)
        world_.ledger_.end(link.id, link.initiator, NetEvent::Kind::lost, world_.now());
    bySerial_.clear();
    endpoint_.reset();
    socket_.clear();
    socketBytes_ = 0;
    handling_.reset();
    tooBig_.clear();
    socketFull_ = false;
}

void Host::goodbye() {
    closing_ = true;
    for (int i = 0; i != kGoodbyes; ++i)
        world_.after(i * kGoodbyeInterval, [this] {
            if (running() && closing_)
                endpoint_->sayGoodbye(trainBuffer(), *this);
        });
    world_.after(kGoodbyes * kGoodbyeInterval, [this] {
        if (running() && closing_)
            kill();
    });
}

void Host::resume() {
    suspended_ = false;
    wakeAt(world_.now() + model_.wakeLatency);
}

void Host::connect(const Host& to, Nanoseconds tryDuration, int tries) {
    if (!running() || closing_)
        return;
    endpoint_->connect(to.addr(), tryDuration, tries, clock());
    wakeAt(world_.now() + kMinTurn);
}

bool Host::send(const Host& to, std::uint32_t size) {
    const std::uint64_t serial = running() && !closing_ ? endpoint_->serialOf(to.addr().getKey()) : 0;
    const auto link = bySerial_.find(serial);
    if (link == bySerial_.end())
        return false;
    endpoint_->send(serial, world_.ledger_.send(link->second.id, link->second.initiator, size, world_.now()));
    wakeAt(world_.now() + kMinTurn);
    return true;
}

const detail::Connection* Host::connectionTo(const Host& other) const {
    return running() ? endpoint_->find(endpoint_->serialOf(other.addr().getKey())) : nullptr;
}

// ---------------------------------------------------------------------------------------------- its turns

void Host::arrive(int from, const RTAddr& source, std::vector<std::uint8_t> bytes) {
    if (!running())
        return;
    const std::uint64_t cost = bytes.size() + kKernelBytesPerDatagram;
    if (socketBytes_ + cost > model_.socketBuffer) {
        ++socketDrops_;
        return;
    }
    socketBytes_ += cost;
    socket_.push_back({from, source, clock(), std::move(bytes)});
    if (!suspended_)
        wakeAt(world_.now() + model_.wakeLatency);
}

void Host::wakeAt(Nanoseconds trueTime) {
    if (trueTime >= nextTurn_)
        return;
    nextTurn_ = trueTime;
    world_.at(trueTime, [this, token = ++turnToken_] { turn(token); });
}

void Host::turn(std::uint64_t token) {
    if (token != turnToken_)
        return;
    nextTurn_ = kNever;
    if (!running() || suspended_ || closing_)
        return;
    ++turns_;
    readSocket();
    dispatch();
    sendDue();
    checkMemory();
    plan();
}

void Host::readSocket() {
    while (!socket_.empty()) {
        Waiting next = std::move(socket_.front());
        socket_.pop_front();
        socketBytes_ -= next.bytes.size() + kKernelBytesPerDatagram;
        world_.tap_.read(next.from, index_, next.bytes.size());
        endpoint_->onDatagram(0, next.source, next.bytes, next.arrival);
        noteConnections();
    }
}

void Host::noteConnections() {
    detail::Ring<NetEvent>& events = endpoint_->events();
    for (; eventsSeen_ != events.end(); ++eventsSeen_) {
        const NetEvent& event = events[eventsSeen_];
        const detail::Connection* connection = endpoint_->find(event.serial);
        if (event.kind != NetEvent::Kind::connected || connection == nullptr ||
            bySerial_.contains(event.serial))
            continue;
        fresh_[event.serial] = {connection->config().connectionId, connection->config().initiator,
                                event.addressKey};
    }
}

void Host::dispatch() {
    if (handling_ && world_.now() >= handlingUntil_) {
        consume(*handling_);
        handling_.reset();
    }
    while (running() && !handling_ && !endpoint_->events().empty()) {
        NetEvent event = std::move(endpoint_->events().front());
        endpoint_->events().pop();
        dispatchOne(std::move(event));
    }
}

void Host::consume(const NetEvent& packet) {
    const auto link = bySerial_.find(packet.serial);
    if (link != bySerial_.end())
        world_.ledger_.consume(link->second.id, link->second.initiator);
    endpoint_->consumed(packet.serial, packet.bytes.size(), clock());
}

void Host::dispatchOne(NetEvent event) {
    Ledger& ledger = world_.ledger_;
    const auto link = bySerial_.find(event.serial);
    const bool known = link != bySerial_.end();
    switch (event.kind) {
    case NetEvent::Kind::connected:
        // An application that connects to whom it is connected with is told so again.
        if (const auto fresh = fresh_.find(event.serial); fresh != fresh_.end()) {
            ledger.begin(fresh->second.id, fresh->second.initiator, index_, world_.now());
            bySerial_.insert(fresh_.extract(fresh));
        } else if (!known) {
            world_.faults_.add("host " + std::to_string(index_) + " is connected to nobody");
        }
        break;
    case NetEvent::Kind::failed:
        ++failedAttempts_;
        reconnectLater(event.addressKey);
        break;
    case NetEvent::Kind::reconnecting:
    case NetEvent::Kind::disconnected:
    case NetEvent::Kind::lost:
        if (!known)
            break;
        ledger.end(link->second.id, link->second.initiator, event.kind, world_.now());
        if (link->second.initiator && event.kind != NetEvent::Kind::reconnecting)
            reconnectLater(event.addressKey);
        bySerial_.erase(link);
        break;
    case NetEvent::Kind::packet:
        if (known)
            ledger.receive(link->second.id, link->second.initiator, event.bytes, world_.now());
        else
            world_.faults_.add("host " + std::to_string(index_) + " got a packet without a connection");
        break;
    case NetEvent::Kind::delivered:
        if (!known)
            break;
        ledger.deliver(link->second.id, link->second.initiator, event.packetId, world_.now());
        world_.tap_.delivered(link->second.id, link->second.initiator, event.packetId);
        break;
    case NetEvent::Kind::measured:
        break;
    }
    if (onEvent)
        onEvent(event);
    if (event.kind != NetEvent::Kind::packet || !running())
        return;
    if (model_.handlerTime == 0)
        return consume(event);
    handlingUntil_ = world_.now() + model_.handlerTime;
    handling_ = std::move(event);
}

void Host::reconnectLater(std::uint64_t addressKey) {
    if (!model_.reconnects)
        return;
    const RTAddr to(static_cast<std::uint32_t>(addressKey >> 16), static_cast<std::uint16_t>(addressKey));
    world_.after(kReconnectWait, [this, to] {
        if (running() && !closing_ && endpoint_->serialOf(to.getKey()) == 0)
            connect(*world_.hostAt(to));
    });
}

bool Host::send(const detail::OutgoingDatagrams& outgoing) {
    const Host* const to = world_.hostAt(outgoing.to);
    const std::size_t limit = to != nullptr && world_.path(*this, *to).refusesTooBig
                                  ? world_.path(*this, *to).mtu
                                  : detail::kMaxDatagramBytes;
    for (std::size_t at = 0; at < outgoing.bytes.size(); at += outgoing.segment) {
        const auto datagram =
            outgoing.bytes.subspan(at, std::min(outgoing.segment, outgoing.bytes.size() - at));
        if (datagram.size() > limit) {
            tooBig_.push_back({outgoing.serial, outgoing.segment});
            break;
        }
        world_.transmit(*this, outgoing.to, datagram);
    }
    socketFull_ = random_.chance(model_.fullSocket);
    return !socketFull_;
}

void Host::sendDue() {
    socketFull_ = false;
    for (int i = 0; i != kTrainsPerTurn && !socketFull_ && endpoint_->nextWake() <= clock(); ++i)
        endpoint_->poll(clock(), trainBuffer(), *this, 1);
    for (const auto& [serial, size] : std::exchange(tooBig_, {}))
        endpoint_->onTooBig(serial, size, clock());
}

void Host::checkMemory() {
    if (bySerial_.size() > 4 && turns_ % 64 != 0)
        return;
    const std::uint64_t held = std::max<std::uint64_t>(model_.receiveLimitBytes, model_.maxPacketBytes);
    for (const auto& [serial, link] : bySerial_) {
        const detail::Connection* connection = endpoint_->find(serial);
        if (connection == nullptr)
            continue;
        if (connection->sentLog().recorded() > kMaxRecorded)
            world_.faults_.add("host " + std::to_string(index_) + " records too many datagrams");
        if (connection->heldBytes() > held)
            world_.faults_.add("host " + std::to_string(index_) + " holds too many bytes");
    }
}

void Host::plan() {
    Nanoseconds next = trueTimeOf(endpoint_->nextWake());
    if (next != kNever)
        next += model_.wakeLatency;
    if (socketFull_)
        next = world_.now() + kFullSocketRetry;
    if (handling_)
        next = std::min(next, handlingUntil_);
    else if (!endpoint_->events().empty())
        next = world_.now();
    if (next != kNever)
        wakeAt(std::max(next, world_.now() + kMinTurn));
}

} // namespace kor::simulation
