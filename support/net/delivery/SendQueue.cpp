#include "support/net/delivery/SendQueue.h"

#include <algorithm>
#include <utility>

namespace kor::detail {

void SendQueue::push(Block bytes) {
    queuedBytes_ += bytes.size();
    packets_.push(Packet{std::move(bytes), 0});
}

bool SendQueue::freshReady() const {
    if (begun_ != packets_.begin() && packets_.contains(begun_ - 1)) {
        const Packet& newest = packets_[begun_ - 1];
        if (newest.sent < newest.bytes.size())
            return true;
    }
    if (begun_ == packets_.end())
        return false;
    if (begun_ == packets_.begin())
        return true;
    return begun_ - packets_.begin() < kPacketWindow &&
           begunBytes_ + packets_[begun_].bytes.size() <= peerLimitBytes_;
}

bool SendQueue::readyExceeds(std::uint32_t room) const {
    if (repairs_.size() > 1)
        return true;
    if (!freshReady())
        return false;
    const bool midway =
        begun_ != packets_.begin() && packets_[begun_ - 1].sent < packets_[begun_ - 1].bytes.size();
    const Packet& next = packets_[midway ? begun_ - 1 : begun_];
    return next.bytes.size() - next.sent > room;
}

std::optional<FragmentRef> SendQueue::take(std::uint32_t room) {
    if (room == 0)
        return std::nullopt;
    while (!repairs_.empty()) {
        Repair& next = repairs_.front();
        if (!packets_.contains(next.piece.packetId)) {
            repairs_.pop();
            continue;
        }
        FragmentRef piece = next.piece;
        piece.length = std::min(piece.length, room);
        next.piece.offset += piece.length;
        next.piece.length -= piece.length;
        if (next.piece.length == 0)
            repairs_.pop();
        return piece;
    }
    if (!freshReady())
        return std::nullopt;
    if (begun_ == packets_.begin() || packets_[begun_ - 1].sent == packets_[begun_ - 1].bytes.size()) {
        begunBytes_ += packets_[begun_].bytes.size();
        ++begun_;
    }
    Packet& packet = packets_[begun_ - 1];
    const FragmentRef piece{begun_ - 1, packet.sent, std::min(packet.bytes.size() - packet.sent, room)};
    packet.sent += piece.length;
    return piece;
}

bool SendQueue::repair(const FragmentRef& piece, std::uint64_t number) {
    if (!packets_.contains(piece.packetId))
        return false;
    repairs_.push(Repair{piece, number});
    return true;
}

void SendQueue::cancelRepairs(std::uint64_t number) {
    for (std::size_t left = repairs_.size(); left != 0; --left) {
        const Repair next = repairs_.front();
        repairs_.pop();
        if (next.number != number)
            repairs_.push(next);
    }
}

void SendQueue::consumed(std::uint64_t id) {
    while (!packets_.empty() && packets_.begin() <= id) {
        begunBytes_ -= packets_.front().bytes.size();
        queuedBytes_ -= packets_.front().bytes.size();
        packets_.pop();
    }
}

std::uint64_t SendQueue::firstUnsentId() const {
    if (begun_ == packets_.begin())
        return begun_;
    const Packet& newest = packets_[begun_ - 1];
    return newest.sent < newest.bytes.size() ? begun_ - 1 : begun_;
}

} // namespace kor::detail
