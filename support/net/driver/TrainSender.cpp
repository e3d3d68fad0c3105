#include "support/net/driver/TrainSender.h"

#include <support/jTimer.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kor::detail {

TrainSender::TrainSender(std::vector<std::unique_ptr<UdpSocket>>& sockets, const Options& options)
    : sockets_(sockets), batch_(options.batch) {
    if (options.warm)
        warmer_.open();
}

bool TrainSender::send(const OutgoingDatagrams& outgoing) {
    if (blocked()) {
        keep(outgoing, 0);
        return false;
    }
    const bool single = outgoing.bytes.size() <= outgoing.segment;
    // A stamp must not wait for the others, nor hold them up.
    if (outgoing.stampAt != 0 && single &&
        std::ranges::find(gatheredSerials_, outgoing.serial) == gatheredSerials_.end())
        return sendNow(outgoing);
    if (!batch_ || !single || outgoing.stampAt != 0 || outgoing.bytes.size() > kBatchBytes) {
        if (!flush()) {
            keep(outgoing, 0);
            return false;
        }
        return sendNow(outgoing);
    }
    if (!gathered_.empty() && gatheredSocket_ != outgoing.socket && !flush()) {
        keep(outgoing, 0);
        return false;
    }
    std::uint8_t* const slot = slotAt(gathered_.size());
    std::memcpy(slot, outgoing.bytes.data(), outgoing.bytes.size());
    gatheredSocket_ = outgoing.socket;
    gathered_.push_back({{outgoing.to.getIP(), outgoing.to.getPort()}, {slot, outgoing.bytes.size()}});
    gatheredSerials_.push_back(outgoing.serial);
    return gathered_.size() < kBatch || flush();
}

void TrainSender::stamp(const OutgoingDatagrams& outgoing) {
    if (cold_)
        warmer_.warm();
    restamp(outgoing.bytes.first(std::min(outgoing.segment, outgoing.bytes.size())), outgoing.stampAt,
            clockNow());
}

bool TrainSender::sendNow(const OutgoingDatagrams& outgoing) {
    if (outgoing.stampAt != 0)
        stamp(outgoing);
    cold_ = false;
    std::size_t sent = 0;
    while (sent < outgoing.bytes.size()) {
        std::size_t part = 0;
        const SendResult result =
            sockets_[outgoing.socket]->sendTrain({outgoing.to.getIP(), outgoing.to.getPort()},
                                                 outgoing.bytes.subspan(sent), outgoing.segment, part);
        sent += part;
        if (result == SendResult::sent)
            break;
        if (result == SendResult::blocked) {
            keep(outgoing, sent);
            return false;
        }
        if (result == SendResult::tooBig)
            tooBig_.push_back({outgoing.serial, outgoing.segment});
        // Refused for good: what is left counts as lost, and the connection repairs it.
        break;
    }
    return true;
}

bool TrainSender::flush() {
    std::size_t begin = 0;
    bool room = true;
    cold_ = cold_ && gathered_.empty();
    while (begin != gathered_.size() && room) {
        std::size_t sent = 0;
        const SendResult result = sockets_[gatheredSocket_]->sendBatch(
            std::span<const OutDatagram>(gathered_).subspan(begin), sent);
        begin += sent;
        if (result == SendResult::sent)
            break;
        if (result == SendResult::blocked) {
            room = false;
            break;
        }
        if (result == SendResult::tooBig)
            tooBig_.push_back({gatheredSerials_[begin], gathered_[begin].bytes.size()});
        ++begin;
    }
    for (; !room && begin != gathered_.size(); ++begin) {
        const OutDatagram& out = gathered_[begin];
        keep({gatheredSocket_,
              RTAddr(out.to.ip, out.to.port),
              {slotAt(begin), out.bytes.size()},
              out.bytes.size(),
              0,
              gatheredSerials_[begin]},
             0);
    }
    gathered_.clear();
    gatheredSerials_.clear();
    return room;
}

void TrainSender::keep(const OutgoingDatagrams& outgoing, std::size_t from) {
    Waiting waiting;
    waiting.socket = outgoing.socket;
    waiting.to = outgoing.to;
    waiting.segment = outgoing.segment;
    // Its first datagram has left when the train was cut.
    waiting.stampAt = from == 0 ? outgoing.stampAt : 0;
    waiting.serial = outgoing.serial;
    waiting.bytes.assign(outgoing.bytes.begin() + static_cast<std::ptrdiff_t>(from), outgoing.bytes.end());
    waiting_.push_back(std::move(waiting));
}

bool TrainSender::retry() {
    std::deque<Waiting> waiting = std::exchange(waiting_, {});
    while (!waiting.empty()) {
        Waiting& next = waiting.front();
        if (!sendNow({next.socket, next.to, next.bytes, next.segment, next.stampAt, next.serial})) {
            // sendNow() has kept what is left of this one; the others follow behind it.
            waiting.pop_front();
            for (Waiting& later : waiting)
                waiting_.push_back(std::move(later));
            return false;
        }
        waiting.pop_front();
    }
    return true;
}

std::vector<TrainSender::TooBig> TrainSender::takeTooBig() {
    return std::exchange(tooBig_, {});
}

} // namespace kor::detail
