#include "support/net/Endpoint.h"

#include <algorithm>
#include <array>

// What goes out.

namespace kor::detail {

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
        const Nanoseconds wake = peer.connection.nextWake();
        // One train in each turn; and whoever is due but has nothing to send must not hold up the others.
        wakes_.update(&peer, std::max(wake, now + (train.bytes == 0 ? 10 * kMicrosecond : 1)));
        countStalled(peer);
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

} // namespace kor::detail
