#include "support/net/connection/Endpoint.h"

#include <algorithm>
#include <array>

// How connections come about.

namespace kor::detail {

namespace {
constexpr int kResetsPerWindow = 64;
constexpr Nanoseconds kResetWindow = 10 * kMillisecond;
constexpr std::size_t kMaxReplies = 512; // waiting to be sent; more are dropped
} // namespace

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

bool Endpoint::pollAttempts(Nanoseconds now, DatagramSink& sink) {
    bool room = true;
    for (auto it = attempts_.begin(); it != attempts_.end() && room;) {
        ConnectAttempt& attempt = it->second;
        if (now >= attempt.deadline) {
            reportFailed(it->first);
            it = attempts_.erase(it);
            continue;
        }
        if (now >= attempt.nextWake()) {
            std::array<std::uint8_t, kHandshakeBytes> bytes;
            const std::size_t size = attempt.write(bytes, config_.mine, now);
            ++stats_.datagramsSent;
            stats_.wireBytesSent += size;
            room = sink.send({0, attempt.to, {bytes.data(), size}, size, 0, 0});
        }
        ++it;
    }
    return room;
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

void Endpoint::onAccept(std::size_t socket, const RTAddr& from, Nanoseconds now) {
    const auto found = attempts_.find(from.getKey());
    if (found == attempts_.end() || found->second.nonce != decoded_->header.connectionId ||
        !found->second.answered)
        return;
    if (!roomForEvents())
        return; // the attempt goes on, and the peer accepts again
    const ConnectAttempt attempt = found->second;
    attempts_.erase(found);
    Peer& peer = establish(socket, from, decoded_->newConnectionId, true, now - *attempt.answered, now);
    peer.nonce = attempt.nonce;
    peer.tryDuration = attempt.duration;
    peer.tries = attempt.tries;
}

void Endpoint::onReset(const RTAddr& from, Nanoseconds now) {
    Peer* const peer = sender(from);
    if (peer == nullptr)
        return;
    if (!peer->connection.config().initiator)
        return end(*peer, NetEvent::Kind::lost);
    const RTAddr addr = peer->addr;
    const Nanoseconds duration = peer->tryDuration;
    const int tries = peer->tries;
    end(*peer, NetEvent::Kind::reconnecting);
    beginAttempt(addr, duration, tries, now);
}

bool Endpoint::mayConnect(const Peer* known) {
    if (known != nullptr || peers_.size() < config_.maxPeers)
        return roomForEvents();
    ++stats_.refusedConnections;
    return false;
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

Endpoint::Reply* Endpoint::reply(std::size_t socket, const RTAddr& to) {
    if (replies_.size() >= kMaxReplies)
        return nullptr;
    Reply& out = replies_.emplace_back();
    out.socket = socket;
    out.to = to;
    return &out;
}

void Endpoint::replyReset(std::size_t socket, const RTAddr& to, Nanoseconds now) {
    if (now - resetWindow_ >= kResetWindow) {
        resetWindow_ = now;
        resetsLeft_ = kResetsPerWindow;
    }
    if (resetsLeft_ <= 0)
        return;
    --resetsLeft_;
    if (Reply* out = reply(socket, to))
        out->size = writeReset(out->bytes, decoded_->header.connectionId, !decoded_->header.fromInitiator);
}

bool Endpoint::sendReplies(DatagramSink& sink) {
    bool room = true;
    std::size_t sent = 0;
    while (sent != replies_.size() && room) {
        Reply& out = replies_[sent++];
        ++stats_.datagramsSent;
        stats_.wireBytesSent += out.size;
        room = sink.send({out.socket, out.to, {out.bytes.data(), out.size}, out.size, 0, 0});
    }
    replies_.erase(replies_.begin(), replies_.begin() + static_cast<std::ptrdiff_t>(sent));
    return room;
}

} // namespace kor::detail
