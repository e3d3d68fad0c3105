#include "support/net/connection/Endpoint.h"

#include <algorithm>
#include <utility>

namespace kor::detail {

namespace {
constexpr std::size_t kMaxWaitingEvents = 1u << 18; // over that, connections are refused
constexpr Nanoseconds kStopped = kSecond / 2;       // woken so much later than asked for, we were stopped

void add(MalformedCounters& sum, const MalformedCounters& part) {
    sum.badFrame += part.badFrame;
    sum.overLimit += part.overLimit;
}
} // namespace

Endpoint::Endpoint(EndpointConfig config, Nanoseconds now)
    : config_(std::move(config)),
      cookies_(config_.cookieSecret),
      nextSerial_(config_.firstSerial),
      lastPoll_(now),
      resetWindow_(now),
      decoded_(std::make_unique<DecodedDatagram>()) {}

Endpoint::Peer* Endpoint::peerAt(const RTAddr& addr) {
    const auto found = peers_.find(addr.getKey());
    return found == peers_.end() ? nullptr : found->second.get();
}

Endpoint::Peer* Endpoint::peerOf(std::uint64_t serial) const {
    const auto found = bySerial_.find(serial);
    return found == bySerial_.end() ? nullptr : found->second;
}

Endpoint::Peer* Endpoint::sender(const RTAddr& from) {
    Peer* const peer = peerAt(from);
    const DatagramHeader& header = decoded_->header;
    if (peer != nullptr && peer->connection.config().connectionId == header.connectionId &&
        peer->connection.config().initiator != header.fromInitiator)
        return peer;
    ++stats_.malformed.unknownConnection;
    return nullptr;
}

const Connection* Endpoint::find(std::uint64_t serial) const {
    const Peer* const peer = peerOf(serial);
    return peer == nullptr ? nullptr : &peer->connection;
}

std::uint64_t Endpoint::serialOf(std::uint64_t addressKey) const {
    const auto found = peers_.find(addressKey);
    return found == peers_.end() ? 0 : found->second->connection.config().serial;
}

void Endpoint::pushEvent(NetEvent::Kind kind, std::uint64_t serial, std::uint64_t addressKey) {
    NetEvent event;
    event.kind = kind;
    event.serial = serial;
    event.addressKey = addressKey;
    events_.push(std::move(event));
}

void Endpoint::takeEvents(Ring<NetEvent>& empty) {
    std::swap(empty, events_);
    ++eventQueue_;
}

void Endpoint::noteMeasured(Peer& peer) {
    // One that nobody has taken will do: whoever takes it asks for the newest values.
    if (peer.measuredIn == eventQueue_ && events_.contains(peer.measuredAt))
        return;
    peer.measuredIn = eventQueue_;
    peer.measuredAt = events_.end();
    pushEvent(NetEvent::Kind::measured, peer.connection.config().serial, peer.addr.getKey());
}

void Endpoint::reschedule(Peer& peer) {
    wakes_.update(&peer, peer.connection.nextWake());
}

bool Endpoint::roomForEvents() {
    const bool room = events_.size() < kMaxWaitingEvents;
    stats_.refusedConnections += room ? 0 : 1;
    return room;
}

void Endpoint::reportFailed(std::uint64_t addressKey) {
    pushEvent(NetEvent::Kind::failed, 0, addressKey);
}

// ------------------------------------------------------------------------------------------ what comes in

void Endpoint::onDatagram(std::size_t socket, const RTAddr& from, std::span<const std::uint8_t> bytes,
                          Nanoseconds arrival) {
    ++stats_.datagramsReceived;
    stats_.wireBytesReceived += bytes.size();
    const DecodeError error = decodeDatagram(bytes, *decoded_);
    if (error != DecodeError::none) {
        countMalformed(error);
        return;
    }
    switch (decoded_->header.kind) {
    case DatagramKind::data:
        onData(socket, from, bytes, arrival);
        break;
    case DatagramKind::request:
        onRequest(socket, from, arrival);
        break;
    case DatagramKind::challenge:
        onChallenge(from, arrival);
        break;
    case DatagramKind::response:
        onResponse(socket, from, arrival);
        break;
    case DatagramKind::accept:
        onAccept(socket, from, arrival);
        break;
    case DatagramKind::reset:
        onReset(from, arrival);
        break;
    }
}

void Endpoint::countMalformed(DecodeError error) {
    switch (error) {
    case DecodeError::tooShort:
        ++stats_.malformed.tooShort;
        break;
    case DecodeError::checksum:
        ++stats_.malformed.checksum;
        break;
    case DecodeError::unknownKind:
        ++stats_.malformed.unknownKind;
        break;
    case DecodeError::badFrame:
    case DecodeError::none:
        ++stats_.malformed.badFrame;
        break;
    }
}

void Endpoint::onData(std::size_t socket, const RTAddr& from, std::span<const std::uint8_t> bytes,
                      Nanoseconds arrival) {
    Peer* const peer = sender(from);
    if (peer == nullptr) {
        // While we connect, the peer may already send on a connection whose acceptance was lost.
        if (!decoded_->close && !attempts_.contains(from.getKey()))
            replyReset(socket, from, arrival);
        return;
    }
    const bool goesOn = peer->connection.onDatagram(*decoded_, arrival, bytes.size(), events_);
    if (decoded_->time)
        noteMeasured(*peer);
    if (goesOn)
        reschedule(*peer);
    else
        end(*peer, NetEvent::Kind::disconnected);
}

// -------------------------------------------------------------------------------------------- connections

Endpoint::Peer& Endpoint::establish(std::size_t socket, const RTAddr& addr, std::uint64_t connectionId,
                                    bool initiator, Nanoseconds roundTrip, Nanoseconds now) {
    ConnectionConfig config;
    config.serial = nextSerial_++;
    config.addressKey = addr.getKey();
    config.connectionId = connectionId;
    config.initiator = initiator;
    config.mine = config_.mine;
    config.theirs = decoded_->parameters;
    config.times = config_.times;
    config.firstRoundTrip = roundTrip;
    config.firstPacketId = config_.firstPacketId;
    config.firstNumber = config_.firstNumber;
    auto peer = std::make_unique<Peer>(config, now);
    peer->addr = addr;
    peer->socket = socket;
    Peer& result = *peer;
    peers_[addr.getKey()] = std::move(peer);
    bySerial_[config.serial] = &result;
    wakes_.insert(&result, result.connection.nextWake());
    pushEvent(NetEvent::Kind::connected, config.serial, addr.getKey());
    return result;
}

void Endpoint::end(Peer& peer, NetEvent::Kind kind) {
    const std::uint64_t key = peer.addr.getKey();
    const std::uint64_t serial = peer.connection.config().serial;
    remember(peer);
    add(endedMalformed_, peer.connection.malformed());
    wakes_.remove(&peer);
    bySerial_.erase(serial);
    peers_.erase(key);
    pushEvent(kind, serial, key);
}

void Endpoint::send(std::uint64_t serial, Block bytes) {
    Peer* const peer = peerOf(serial);
    if (peer == nullptr)
        return;
    peer->connection.send(std::move(bytes));
    // A packet changes no other timer, but for a keep-alive that it makes needless.
    wakes_.advance(peer, peer->connection.deadline(Connection::Timer::train));
}

void Endpoint::consumed(std::uint64_t serial, std::uint32_t size, Nanoseconds now) {
    if (Peer* const peer = peerOf(serial)) {
        peer->connection.consumed(now, size);
        reschedule(*peer);
    }
}

void Endpoint::onTooBig(std::uint64_t serial, std::size_t size, Nanoseconds now) {
    if (Peer* const peer = peerOf(serial)) {
        peer->connection.onTooBig(now, size);
        reschedule(*peer);
    }
}

std::size_t Endpoint::poll(Nanoseconds now, std::span<std::uint8_t> buffer, DatagramSink& sink,
                           int maxTrains) {
    if (now - std::max(nextWake(), lastPoll_) > kStopped)
        for (auto& [key, peer] : peers_) {
            peer->connection.forgiveSilence(now);
            reschedule(*peer);
        }
    lastPoll_ = now;
    if ((!replies_.empty() && !sendReplies(sink)) || (!attempts_.empty() && !pollAttempts(now, sink)))
        return 0;
    std::size_t bytes = 0;
    for (int trains = 0; trains != maxTrains && wakes_.nextWake() <= now; ++trains) {
        Peer& peer = *wakes_.first();
        if (peer.connection.timedOut(now)) {
            end(peer, NetEvent::Kind::lost);
            continue;
        }
        const Train train = peer.connection.poll(now, buffer);
        // One train in each turn: whoever has more to send lets the others go first.
        wakes_.update(&peer, std::max(peer.connection.nextWake(), now + 1));
        if (train.bytes == 0)
            continue;
        bytes += train.bytes;
        stats_.datagramsSent += (train.bytes + train.segment - 1) / train.segment;
        stats_.wireBytesSent += train.bytes;
        if (!sink.send({peer.socket, peer.addr, buffer.first(train.bytes), train.segment, train.stampAt,
                        peer.connection.config().serial}))
            break;
    }
    return bytes;
}

Nanoseconds Endpoint::nextWake() const {
    if (!replies_.empty())
        return kNow;
    Nanoseconds wake = wakes_.nextWake();
    for (const auto& [key, attempt] : attempts_)
        wake = std::min(wake, attempt.nextWake());
    return wake;
}

void Endpoint::sayGoodbye(std::span<std::uint8_t> buffer, DatagramSink& sink) {
    for (auto& [key, peer] : peers_) {
        const Train train = peer->connection.farewell(buffer);
        if (!sink.send({peer->socket, peer->addr, buffer.first(train.bytes), train.segment, 0, 0}))
            return;
    }
}

void Endpoint::setTimes(const ConnectionTimes& times, Nanoseconds now) {
    config_.times = times;
    for (auto& [key, peer] : peers_) {
        peer->connection.setTimes(times, now);
        reschedule(*peer);
    }
}

void Endpoint::addStatistics(NetStatistics& statistics) const {
    statistics.connections += connectionCount();
    statistics.wireBytesSent += stats_.wireBytesSent;
    statistics.wireBytesReceived += stats_.wireBytesReceived;
    statistics.datagramsSent += stats_.datagramsSent;
    statistics.datagramsReceived += stats_.datagramsReceived;
    statistics.refusedConnections += stats_.refusedConnections;
    statistics.badCookies += stats_.badCookies;
    statistics.malformed = stats_.malformed;
    add(statistics.malformed, endedMalformed_);
    for (const auto& [key, peer] : peers_)
        add(statistics.malformed, peer->connection.malformed());
}

} // namespace kor::detail
