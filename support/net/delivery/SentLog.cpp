#include "support/net/delivery/SentLog.h"

#include <algorithm>
#include <utility>

namespace kor::detail {

void SentLog::add(Nanoseconds now, std::uint32_t charge, std::uint32_t payloadProbe) {
    Entry entry;
    entry.sent = now;
    entry.charge = charge;
    entry.payloadProbe = payloadProbe;
    entry.pieces = std::exchange(newPieces_, 0);
    entry.open = charge != 0;
    entries_.push(entry);
    if (entry.open) {
        inFlightCharge_ += charge;
        ++inFlight_;
        lastSent_ = now;
    }
    popClosed();
}

void SentLog::close(Entry& entry) {
    entry.open = false;
    inFlightCharge_ -= entry.charge;
    --inFlight_;
}

void SentLog::popClosed() {
    while (!entries_.empty() && !entries_.front().open) {
        for (std::uint32_t i = entries_.front().pieces; i != 0; --i)
            fragments_.pop();
        entries_.pop();
    }
}

SentLog::Acknowledged SentLog::acknowledge(const AckFrame& ack, SendQueue& queue) {
    Acknowledged result;
    // The report's newest number, unwrapped: it must be one that has been sent.
    const std::uint64_t next = entries_.end();
    const std::uint32_t back = static_cast<std::uint32_t>(next - 1) - ack.ranges[0].last;
    if (back >= (1u << 31) || back >= next - firstNumber_) {
        result.valid = false;
        return result;
    }
    const std::uint64_t newest = next - 1 - back;
    const bool isNews = newest > newestAcknowledged_;
    if (isNews) {
        newestAcknowledged_ = newest;
        if (entries_.contains(newest))
            result.newestSent = entries_[newest].sent;
    }
    findSpurious(ack, newest, isNews, result, queue);

    for (std::size_t i = 0; i != ack.rangeCount; ++i) {
        const std::uint32_t below = ack.ranges[0].last - ack.ranges[i].last;
        if (below > newest)
            break;
        const std::uint64_t last = newest - below;
        if (last < entries_.begin())
            break;
        const std::uint64_t count = std::min<std::uint64_t>(ack.ranges[i].count, last - entries_.begin() + 1);
        for (std::uint64_t number = last; number != last - count; --number) {
            Entry& entry = entries_[number];
            if (!entry.open)
                continue;
            close(entry);
            ++result.datagrams;
            result.charge += entry.charge;
            result.largestCharge = std::max(result.largestCharge, entry.charge);
            result.payloadProbe = std::max(result.payloadProbe, entry.payloadProbe);
        }
    }
    popClosed();
    return result;
}

void SentLog::findSpurious(const AckFrame& ack, std::uint64_t newest, bool isNews, Acknowledged& result,
                           SendQueue& queue) {
    std::uint32_t left = rememberedCount_;
    for (std::size_t at = rememberedNext_; left != 0;) {
        at = (at + kRemembered - 1) % kRemembered;
        Remembered& lost = remembered_[at];
        left -= lost.number != 0 ? 1 : 0;
        if (lost.number == 0 || lost.number > newest)
            continue;
        for (std::size_t i = 0; i != ack.rangeCount; ++i) {
            const std::uint64_t last = newest - (ack.ranges[0].last - ack.ranges[i].last);
            if (lost.number > last || last - lost.number >= ack.ranges[i].count)
                continue;
            if (isNews && lost.number == newest)
                result.newestSent = lost.sent;
            queue.cancelRepairs(lost.number);
            lost.number = 0;
            --rememberedCount_;
            ++result.spurious;
            result.overtaken += lost.overtaken ? 1 : 0;
            break;
        }
    }
}

void SentLog::declareLost(std::uint64_t number, std::uint64_t firstPiece, SendQueue& queue, Lost& lost) {
    Entry& entry = entries_[number];
    close(entry);
    if (entry.payloadProbe == 0) {
        lost.charge += entry.charge;
        lost.largestCharge = std::max(lost.largestCharge, entry.charge);
    }
    lost.newestSent = entry.sent;
    lost.payloadProbe = std::max(lost.payloadProbe, entry.payloadProbe);
    for (std::uint32_t i = 0; i != entry.pieces; ++i)
        lost.pieces += queue.repair(fragments_[firstPiece + i], number) ? 1 : 0;
    Remembered& slot = remembered_[rememberedNext_];
    rememberedNext_ = (rememberedNext_ + 1) % kRemembered;
    rememberedCount_ += slot.number == 0 ? 1 : 0;
    slot = {number, entry.sent, number < newestAcknowledged_};
}

SentLog::Lost SentLog::detectLost(Nanoseconds now, Nanoseconds roundTrip, Nanoseconds reorderWindow,
                                  SendQueue& queue) {
    Lost lost;
    std::uint64_t piece = fragments_.begin();
    for (std::uint64_t number = entries_.begin(); number != entries_.end() && number < newestAcknowledged_;
         ++number) {
        const Entry& entry = entries_[number];
        if (entry.open) {
            if (elapsed(now, entry.sent) < roundTrip + reorderWindow)
                break;
            declareLost(number, piece, queue, lost);
        }
        piece += entry.pieces;
    }
    popClosed();
    return lost;
}

Nanoseconds SentLog::nextLoss(Nanoseconds roundTrip, Nanoseconds reorderWindow) const {
    // The oldest entry is open whenever there is one.
    if (entries_.empty() || entries_.begin() >= newestAcknowledged_)
        return kNever;
    return entries_.front().sent + roundTrip + reorderWindow;
}

SentLog::Lost SentLog::giveUpOldest(SendQueue& queue) {
    Lost lost;
    if (!entries_.empty()) {
        declareLost(entries_.begin(), fragments_.begin(), queue, lost);
        popClosed();
    }
    return lost;
}

SentLog::Lost SentLog::giveUpLarger(std::uint32_t charge, Nanoseconds before, SendQueue& queue) {
    Lost lost;
    std::uint64_t piece = fragments_.begin();
    for (std::uint64_t number = entries_.begin(); number != entries_.end(); ++number) {
        const Entry& entry = entries_[number];
        if (elapsed(before, entry.sent) <= 0)
            break;
        if (entry.open && entry.charge > charge)
            declareLost(number, piece, queue, lost);
        piece += entry.pieces;
    }
    popClosed();
    return lost;
}

} // namespace kor::detail
