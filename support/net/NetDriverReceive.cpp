#include "support/net/NetDriver.h"

#include <support/jTimer.h>

#include <algorithm>

// How the layer's thread waits and reads.

namespace kor::detail {

namespace {
constexpr int kBatchesPerTurn = 8;    // what lies unread may be the report of what else is taken for lost
constexpr int kSpinsBeforePump = 256; // most locks are held for less than this
constexpr Nanoseconds kFresh = kMillisecond; // we have woken for it at once
constexpr Nanoseconds kPumpWait = 50 * kMicrosecond;
constexpr std::uint32_t kCrowd = 16; // connections
constexpr Nanoseconds kReportGathering = 100 * kMicrosecond;
constexpr Nanoseconds kBurstGathering = 50 * kMicrosecond;
constexpr Nanoseconds kPieceGathering = 30 * kMicrosecond; // what is to come takes longer up to 17 Gbit/s
constexpr Nanoseconds kCloseTogether = kPieceGathering / 2;
constexpr std::size_t kJoinedBytes = 16u << 10; // a longer run was worth waking for
} // namespace

/// The pieces of a large packet that follow each other closely, in a crowd what each peer reports, and what
/// an application sends to one peer after the other, would wake us for a few datagrams each time; over
/// loopback the sender pays for that. A short rest during which nothing else does brings them together. The
/// kernel has stamped what arrives meanwhile.
NetDriver::Rest NetDriver::chooseRest() const {
    const bool crowd = endpoint_->connectionCount() >= kCrowd;
    const Rest rest = crowd && tookOutboxes_  ? Rest::forBurst
                      : crowd && onlyReports_ ? Rest::forReports
                      : midPacket_            ? Rest::midPacket
                                              : Rest::none;
    const bool may =
        rest != Rest::none && options_.gather && !moreWaits_ && endpoint_->stalledCount() == 0 &&
        !sender_->blocked() &&
        std::ranges::all_of(sockets_, [](const auto& socket) { return socket->features().kernelTimeStamps; });
    return may ? rest : Rest::none;
}

void NetDriver::rest() {
    const Nanoseconds now = rest_ == Rest::none ? kNow : clockNow();
    if (rest_ == Rest::forBurst && deadline_ > now + kBurstGathering)
        poller_.pause(kBurstGathering);
    else if (rest_ == Rest::forReports && deadline_ > now)
        poller_.nap(std::min(deadline_, now + kReportGathering));
    else if (rest_ == Rest::midPacket && deadline_ > now)
        poller_.nap(std::min(deadline_, now + kPieceGathering));
    else
        return poller_.wait(deadline_);
    expectsMany_ = true;
    gatherings_.fetch_add(1, std::memory_order_relaxed);
}

void NetDriver::spinHook(void* self) {
    static_cast<NetDriver*>(self)->pump();
}

void NetDriver::pump() {
    // Only a callback may wait long; and input and output must not start within themselves.
    if (!inCallback_ || pumping_ || ++spins_ < kSpinsBeforePump)
        return;
    pumping_ = true;
    poller_.wait(clockNow() + kPumpWait);
    receive();
    sendOut();
    pumping_ = false;
}

/// True when we were waiting for that datagram, which then is likely to be alone. If not, the others are seen
/// before the next sleep.
bool NetDriver::sleptFor(const ReceivedRun& run) const {
    return run.stamped && run.arrival > lastBusy_ && clockNow() - run.arrival < kFresh;
}

void NetDriver::receive() {
    bool reports = false;
    bool others = false;
    moreWaits_ = false;
    midPacket_ = false;
    for (std::size_t i = 0; i != sockets_.size(); ++i) {
        if (!poller_.readable(i))
            continue;
        for (int round = 0; round != kBatchesPerTurn; ++round) {
            const std::lock_guard lock(coreMutex_);
            const std::size_t most = expectsMany_ ? ReceiveBatch::kSlots : 1;
            const std::size_t runs = sockets_[i]->receive(*batch_, most);
            if (runs == 0)
                break;
            expectsMany_ = runs > 1 || !sleptFor((*batch_)[0]);
            for (const ReceivedRun& run : *batch_) {
                lastBusy_ = std::max(lastBusy_, run.arrival);
                const RTAddr from(run.from.ip, run.from.port);
                const bool close =
                    run.bytes.size() <= kJoinedBytes && run.arrival - lastArrival_ < kCloseTogether;
                lastArrival_ = run.arrival;
                for (std::size_t n = 0; n != run.datagramCount(); ++n) {
                    const Endpoint::Arrived arrived =
                        endpoint_->onDatagram(i, from, run.datagram(n), run.arrival);
                    reports |= arrived == Endpoint::Arrived::report;
                    others |= arrived != Endpoint::Arrived::report;
                    midPacket_ = close && arrived == Endpoint::Arrived::midPacket;
                }
            }
            if (runs < most || !expectsMany_)
                break;
            moreWaits_ |= round + 1 == kBatchesPerTurn;
        }
    }
    onlyReports_ = reports && !others;
}

} // namespace kor::detail
