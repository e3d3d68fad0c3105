#include "support/net/Endpoint.h"

#include <algorithm>
#include <utility>

namespace kor::detail {

namespace {
constexpr int kResetsPerWindow = 64;
constexpr Nanoseconds kResetWindow = 10 * kMillisecond;

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

const Connection* Endpoint::find(std::uint64_t serial) const {
    const auto found = bySerial_.find(serial);
    return found == bySerial_.end() ? nullptr : &found->second->connection;
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
    countStalled(peer);
}

void Endpoint::countStalled(Peer& peer) {
    const bool before = std::exchange(peer.stalled, peer.connection.waitsForWindow());
    stalledCount_ += static_cast<std::uint32_t>(peer.stalled) - static_cast<std::uint32_t>(before);
}

bool Endpoint::roomForEvents() {
    const bool room = events_.size() < kMaxWaitingEvents;
    stats_.refusedConnections += room ? 0 : 1;
    return room;
}

bool Endpoint::mayConnect(const Peer* known) {
    if (known != nullptr || peers_.size() < config_.maxPeers)
        return roomForEvents();
    ++stats_.refusedConnections;
    return false;
}

void Endpoint::reportFailed(std::uint64_t addressKey) {
    pushEvent(NetEvent::Kind::failed, 0, addressKey);
}

// ------------------------------------------------------------------------------------------ what comes in

Endpoint::Arrived Endpoint::onDatagram(std::size_t socket, const RTAddr& from,
                                       std::span<const std::uint8_t> bytes, Nanoseconds arrival) {
    ++stats_.datagramsReceived;
    stats_.wireBytesReceived += bytes.size();
    const DecodeError error = decodeDatagram(bytes, *decoded_);
    if (error != DecodeError::none) {
        countMalformed(error);
        return Arrived::other;
    }
    switch (decoded_->header.kind) {
    case DatagramKind::data:
        return onData(socket, from, bytes, arrival);
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
    return Arrived::other;
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

Endpoint::Arrived Endpoint::onData(std::size_t socket, const RTAddr& from,
                                   std::span<const std::uint8_t> bytes, Nanoseconds arrival) {
    Peer* peer = peerAt(from);
    const DatagramHeader& header = decoded_->header;
    if (peer == nullptr || peer->connection.config().connectionId != header.connectionId ||
        peer->connection.config().initiator == header.fromInitiator) {
        ++stats_.malformed.unknownConnection;
        // While we connect, the peer may already send on the connection that its lost acceptance would have
        // told us of.
        if (!decoded_->close && !attempts_.contains(from.getKey()))
            replyReset(socket, from, header, arrival);
        return Arrived::other;
    }
    peer->connection.onDatagram(*decoded_, arrival, bytes.size(), events_);
    if (decoded_->time)
        noteMeasured(*peer);
    if (peer->connection.closedByPeer()) {
        end(*peer, NetEvent::Kind::disconnected);
        return Arrived::other;
    }
    reschedule(*peer);
    if (!decoded_->wantsAck())
        return Arrived::report;
    const bool midPacket = !decoded_->ping && peer->connection.missingBytes() >= kMidPacketBytes;
    return midPacket ? Arrived::midPacket : Arrived::other;
}

void Endpoint::onRequest(std::size_t socket, const RTAddr& from, Nanoseconds now) {
    const std::uint64_t nonce = decoded_->header.connectionId;
    const auto attempt = attempts_.find(from.getKey());
    // Both connect at once: the larger nonce goes first.
    if (attempt != attempts_.end() && attempt->second.nonce >= nonce)
        return;
    if (!mayConnect(peerAt(from)))
        return;
    if (Reply* out = reply(socket, from))
        out->size =
            writeChallenge(out->bytes, nonce, cookies_.make(from.getIP(), from.getPort(), nonce, now), now);
}

void Endpoint::onChallenge(const RTAddr& from, Nanoseconds now) {
    const auto attempt = attempts_.find(from.getKey());
    if (attempt != attempts_.end() && attempt->second.nonce == decoded_->header.connectionId)
        attempt->second.challenge(decoded_->cookie, decoded_->cookieTime, now);
}

void Endpoint::onResponse(std::size_t socket, const RTAddr& from, Nanoseconds now) {
    const std::uint64_t nonce = decoded_->header.connectionId;
    const Nanoseconds cookieTime = decoded_->cookieTime;
    if (!cookies_.check(from.getIP(), from.getPort(), nonce, cookieTime, decoded_->cookie, now)) {
        ++stats_.badCookies;
        return;
    }
    Peer* peer = peerAt(from);
    if (peer != nullptr && peer->nonce == nonce && !peer->connection.config().initiator) {
        if (Reply* out = reply(socket, from))
            out->size = writeAccept(out->bytes, nonce, peer->connection.config().connectionId, config_.mine);
        return;
    }
    const auto attempt = attempts_.find(from.getKey());
    if (attempt != attempts_.end() && attempt->second.nonce >= nonce)
        return;
    if (isOutdated(from.getKey(), nonce, cookieTime))
        return;
    if (!mayConnect(peer))
        return;
    if (peer != nullptr)
        end(*peer, NetEvent::Kind::reconnecting);
    attempts_.erase(from.getKey());
    Peer& fresh = establish(socket, from, config_.random(), false, now - cookieTime, now);
    fresh.nonce = nonce;
    if (Reply* out = reply(socket, from))
        out->size = writeAccept(out->bytes, nonce, fresh.connection.config().connectionId, config_.mine);
}

bool Endpoint::isOutdated(std::uint64_t addressKey, std::uint64_t nonce, Nanoseconds cookieTime) const {
    // A response to a challenge from before the present or the last connection with that address belongs to
    // an attempt that this connection has settled.
    const auto peer = peers_.find(addressKey);
    if (peer != peers_.end() && cookieTime <= peer->second->established)
        return true;
    const auto ended = ended_.find(addressKey);
    if (ended != ended_.end() && (nonce == ended->second.nonce || cookieTime <= ended->second.established))
        return true;
    return cookieTime <= endedFloor_;
}

void Endpoint::remember(const Peer& peer) {
    if (ended_.size() >= config_.maxPeers) {
        for (const auto& [key, ended] : ended_)
            endedFloor_ = std::max(endedFloor_, ended.established);
        ended_.clear();
    }
    ended_[peer.addr.getKey()] = {peer.nonce, peer.established};
}

void Endpoint::onAccept(std::size_t socket, const RTAddr& from, Nanoseconds now) {
    const auto found = attempts_.find(from.getKey());
    if (found == attempts_.end() || found->second.nonce != decoded_->header.connectionId ||
        !found->second.anyAnswer)
        return;
    if (!roomForEvents())
        return; // the attempt goes on, and the peer accepts again
    const ConnectAttempt attempt = found->second;
    attempts_.erase(found);
    Peer& peer = establish(socket, from, decoded_->newConnectionId, true, now - attempt.answered, now);
    peer.nonce = attempt.nonce;
    peer.tryDuration = attempt.duration;
    peer.tries = attempt.tries;
}

void Endpoint::onReset(const RTAddr& from, Nanoseconds now) {
    Peer* peer = peerAt(from);
    const DatagramHeader& header = decoded_->header;
    if (peer == nullptr || peer->connection.config().connectionId != header.connectionId ||
        peer->connection.config().initiator == header.fromInitiator) {
        ++stats_.malformed.unknownConnection;
        return;
    }
    if (!peer->connection.config().initiator)
        return end(*peer, NetEvent::Kind::lost);
    const RTAddr addr = peer->addr;
    const Nanoseconds duration = peer->tryDuration;
    const int tries = peer->tries;
    end(*peer, NetEvent::Kind::reconnecting);
    beginAttempt(addr, duration, tries, now);
}

// --------------------------------------------------------------------------------- connections and attempts

Endpoint::Reply* Endpoint::reply(std::size_t socket, const RTAddr& to) {
    if (replies_.size() >= kMaxReplies)
        return nullptr;
    Reply& out = replies_.emplace_back();
    out.socket = socket;
    out.to = to;
    return &out;
}

void Endpoint::replyReset(std::size_t socket, const RTAddr& to, const DatagramHeader& header,
                          Nanoseconds now) {
    if (now - resetWindow_ >= kResetWindow) {
        resetWindow_ = now;
        resetsLeft_ = kResetsPerWindow;
    }
    if (resetsLeft_ <= 0)
        return;
    --resetsLeft_;
    if (Reply* out = reply(socket, to))
        out->size = writeReset(out->bytes, header.connectionId, !header.fromInitiator);
}

Endpoint::Peer& Endpoint::establish(std::size_t socket, const RTAddr& addr, std::uint64_t connectionId,
                                    bool initiator, Nanoseconds roundTrip, Nanoseconds now) {
    ConnectionConfig config;
    config.serial = nextSerial_++;
    config.addressKey = addr.getKey();
    config.connectionId = connectionId;
    config.initiator = initiator;
    config.mine = config_.mine;
    config.theirs = decoded_->parameters;
    config.timeout = config_.timeout;
    config.longestRepairWait = config_.longestRepairWait;
    config.longestClockDelay = config_.longestClockDelay;
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
    stalledCount_ -= peer.stalled ? 1 : 0;
    wakes_.remove(&peer);
    bySerial_.erase(serial);
    peers_.erase(key);
    pushEvent(kind, serial, key);
}

void Endpoint::beginAttempt(const RTAddr& to, Nanoseconds tryDuration, int tries, Nanoseconds now) {
    ConnectAttempt attempt;
    attempt.to = to;
    attempt.nonce = config_.random();
    attempt.duration = std::max(tryDuration, kMillisecond);
    attempt.tries = std::clamp(tries, 1, 1'000'000);
    attempt.deadline = now + attempt.duration * attempt.tries;
    attempt.nextSend = now;
    attempts_[to.getKey()] = attempt;
}

Endpoint::Connect Endpoint::connect(const RTAddr& to, Nanoseconds tryDuration, int tries, Nanoseconds now) {
    if (const Peer* peer = peerAt(to)) {
        pushEvent(NetEvent::Kind::connected, peer->connection.config().serial, to.getKey());
        return Connect::connected;
    }
    if (attempts_.contains(to.getKey()))
        return Connect::pending;
    beginAttempt(to, tryDuration, tries, now);
    return Connect::started;
}

void Endpoint::send(std::uint64_t serial, Block bytes) {
    const auto found = bySerial_.find(serial);
    if (found == bySerial_.end())
        return;
    Peer& peer = *found->second;
    peer.connection.send(std::move(bytes));
    wakes_.advance(&peer, peer.connection.nextDataWake());
    countStalled(peer);
}

void Endpoint::handedUp(std::uint64_t serial, std::uint32_t size, Nanoseconds now) {
    const auto found = bySerial_.find(serial);
    if (found == bySerial_.end())
        return;
    found->second->connection.handedUp(now, size);
    reschedule(*found->second);
}

void Endpoint::onTooBig(std::uint64_t serial, std::size_t size, Nanoseconds now) {
    const auto found = bySerial_.find(serial);
    if (found == bySerial_.end())
        return;
    found->second->connection.onTooBig(now, size);
    reschedule(*found->second);
}

void Endpoint::setTimes(Nanoseconds timeout, Nanoseconds longestRepairWait, Nanoseconds longestClockDelay,
                        Nanoseconds now) {
    config_.timeout = timeout;
    config_.longestRepairWait = longestRepairWait;
    config_.longestClockDelay = longestClockDelay;
    for (auto& [key, peer] : peers_) {
        peer->connection.setTimes(timeout, longestRepairWait, longestClockDelay, now);
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
