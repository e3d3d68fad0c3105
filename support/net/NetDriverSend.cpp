#include "support/net/NetDriver.h"

#include <support/jTimer.h>

#include <algorithm>
#include <utility>

namespace kor::detail {

namespace {
constexpr int kTrainsPerTurn = 256; // about a millisecond: what is read in between holds up the others
constexpr std::size_t kBytesPerTurn = 4u << 20;
constexpr Nanoseconds kSoon = 20 * kMicrosecond; // what is due later needs no second look at the clock
constexpr Nanoseconds kGoesCold = kMillisecond;  // after a rest of that length, sending is slow at first
constexpr Nanoseconds kBlockedRetry = kMillisecond;
} // namespace

bool NetDriver::noteOutbox(std::uint64_t serial) {
    if (onLayerThread()) {
        ownOutboxes_.push_back(serial);
        return false;
    }
    const std::lock_guard lock(outboxMutex_);
    outboxes_.push_back(serial);
    return true;
}

void NetDriver::takeOutboxes() {
    std::swap(takenOutboxes_, ownOutboxes_);
    {
        const std::lock_guard lock(outboxMutex_);
        tookOutboxes_ = !outboxes_.empty();
        takenOutboxes_.insert(takenOutboxes_.end(), outboxes_.begin(), outboxes_.end());
        outboxes_.clear();
    }
    for (const std::uint64_t serial : takenOutboxes_)
        if (User* const user = userOf(serial)) {
            user->peer->takeOutbox(takenBlocks_);
            for (Block& block : takenBlocks_)
                endpoint_->send(serial, std::move(block));
            takenBlocks_.clear();
        }
    takenOutboxes_.clear();
}

void NetDriver::sendOut() {
    const std::lock_guard lock(coreMutex_);
    if (!handedUp_.empty()) {
        const Nanoseconds now = clockNow();
        for (const HandedUp& packet : handedUp_)
            endpoint_->handedUp(packet.serial, packet.size, now);
        handedUp_.clear();
    }
    takeOutboxes();
    sendDue();
    deadline_ = nextDeadline();
    rest_ = chooseRest();
}

void NetDriver::sendDue() {
    Nanoseconds now = clockNow();
    if (now - lastBusy_ > kGoesCold)
        sender_->afterRest();
    lastBusy_ = std::max(lastBusy_, now);
    if (sender_->blocked() && !sender_->retry())
        return;
    std::size_t bytes = 0;
    for (int trains = 0; trains != kTrainsPerTurn && bytes < kBytesPerTurn && !sender_->blocked(); ++trains) {
        const Nanoseconds due = endpoint_->nextWake();
        if (due > now + kSoon)
            break;
        if (trains != 0)
            now = clockNow();
        if (due > now)
            break;
        bytes += endpoint_->poll(now, trainBuffer_, *sender_, 1);
    }
    sender_->flush();
    lastBusy_ = std::max(lastBusy_, now);
    for (const TrainSender::TooBig& refused : sender_->takeTooBig())
        endpoint_->onTooBig(refused.serial, refused.size, clockNow());
}

Nanoseconds NetDriver::nextDeadline() {
    const bool blocked = sender_->blocked();
    for (std::size_t i = 0; i != sockets_.size(); ++i)
        poller_.setWantWrite(i, blocked && sender_->blockedSocket() == i);
    if (!endpoint_->events().empty())
        return kNow;
    return blocked ? clockNow() + kBlockedRetry : endpoint_->nextWake();
}

} // namespace kor::detail
