#include "support/net/driver/NetSession.h"

#include <support/jTimer.h>

#include <algorithm>
#include <utility>

// What the layer's thread does in each turn.

namespace kor::detail {

namespace {
constexpr int kBatchesPerTurn = 8; // what lies unread may be the report of what else is taken for lost
constexpr Nanoseconds kFresh = kMillisecond; // we have woken for it at once
constexpr int kTrainsPerTurn = 256; // about a millisecond: what is read in between holds up the others
constexpr std::size_t kBytesPerTurn = 4u << 20;
constexpr Nanoseconds kSoon = 20 * kMicrosecond; // what is due later needs no second look at the clock
constexpr Nanoseconds kGoesCold = kMillisecond;  // after a sleep of that length, sending is slow at first
constexpr Nanoseconds kBlockedRetry = kMillisecond;
} // namespace

void NetSession::wait() {
    if (gathering_.wait(poller_, deadline_))
        expectsMany_ = true;
    turn_ = {};
}

void NetSession::receive() {
    for (std::size_t i = 0; i != sockets_.size(); ++i) {
        bool more = poller_.readable(i);
        for (int round = 0; more && round != kBatchesPerTurn; ++round) {
            const std::lock_guard lock(coreMutex_);
            more = receiveSome(i);
        }
        turn_.leftUnread |= more;
    }
}

/// True when more may wait.
bool NetSession::receiveSome(std::size_t socket) {
    const std::size_t maxRuns = expectsMany_ ? ReceiveBatch::kSlots : 1;
    const std::size_t runs = sockets_[socket]->receive(batch_, maxRuns);
    if (runs == 0)
        return false;
    expectsMany_ = runs > 1 || !sleptFor(batch_[0]);
    for (const ReceivedRun& run : batch_) {
        lastBusy_ = std::max(lastBusy_, run.arrival);
        gathering_.received(turn_, run);
        const RTAddr from(run.from.ip, run.from.port);
        for (std::size_t n = 0; n != run.datagramCount(); ++n)
            endpoint_->onDatagram(socket, from, run.datagram(n), run.arrival);
    }
    return runs == maxRuns && expectsMany_;
}

/// True when we were waiting for that datagram, which then is likely to be alone. If not, the others are seen
/// before the next sleep.
bool NetSession::sleptFor(const ReceivedRun& run) const {
    return run.stamped && run.arrival > lastBusy_ && clockNow() - run.arrival < kFresh;
}

void NetSession::noteOutbox(std::uint64_t serial) {
    const std::lock_guard lock(outboxMutex_);
    outboxes_.push_back(serial);
}

void NetSession::takeOutboxes(UserTable& users) {
    std::swap(takenOutboxes_, ownOutboxes_);
    {
        const std::lock_guard lock(outboxMutex_);
        turn_.tookOutboxes |= !outboxes_.empty();
        takenOutboxes_.insert(takenOutboxes_.end(), outboxes_.begin(), outboxes_.end());
        outboxes_.clear();
    }
    for (const std::uint64_t serial : takenOutboxes_)
        if (const UserTable::User* const user = users.find(serial)) {
            user->peer->takeOutbox(takenBlocks_);
            for (Block& block : takenBlocks_)
                endpoint_->send(serial, std::move(block));
            takenBlocks_.clear();
        }
    takenOutboxes_.clear();
}

void NetSession::sendOut(UserTable& users) {
    if (!consumed_.empty()) {
        const Nanoseconds now = clockNow();
        for (const Consumed& packet : consumed_)
            endpoint_->consumed(packet.serial, packet.size, now);
        consumed_.clear();
    }
    takeOutboxes(users);
    sendDue();
    deadline_ = nextDeadline();
    planWait();
}

void NetSession::sendDue() {
    Nanoseconds now = clockNow();
    if (now - lastBusy_ > kGoesCold)
        sender_.afterSleep();
    lastBusy_ = std::max(lastBusy_, now);
    if (sender_.blocked() && !sender_.retry())
        return;
    std::size_t bytes = 0;
    for (int trains = 0; trains != kTrainsPerTurn && bytes < kBytesPerTurn && !sender_.blocked(); ++trains) {
        const Nanoseconds due = endpoint_->nextWake();
        if (due > now + kSoon)
            break;
        if (trains != 0)
            now = clockNow();
        if (due > now)
            break;
        const std::size_t sent = endpoint_->poll(now, trainBuffer_, sender_, 1);
        turn_.sent(sent);
        bytes += sent;
    }
    sender_.flush();
    lastBusy_ = std::max(lastBusy_, now);
    for (const TrainSender::TooBig& refused : sender_.takeTooBig())
        endpoint_->onTooBig(refused.serial, refused.size, clockNow());
}

Nanoseconds NetSession::nextDeadline() {
    const bool blocked = sender_.blocked();
    for (std::size_t i = 0; i != sockets_.size(); ++i)
        poller_.setWantWrite(i, blocked && sender_.blockedSocket() == i);
    if (!endpoint_->events().empty())
        return kNow;
    return blocked ? clockNow() + kBlockedRetry : endpoint_->nextWake();
}

void NetSession::planWait() {
    const bool stamped =
        std::ranges::all_of(sockets_, [](const auto& socket) { return socket->features().kernelTimeStamps; });
    if (options_.gather && stamped && !sender_.blocked())
        gathering_.plan(turn_, endpoint_->connectionCount());
    else
        gathering_.planNone();
}

} // namespace kor::detail
