#include "support/net/driver/Gathering.h"

#include <support/jTimer.h>

namespace kor::detail {

namespace {
constexpr std::uint32_t kCrowd = 16;             // connections
constexpr std::size_t kMaxReportBytes = 64;      // an acknowledgement with stamps
constexpr std::size_t kMaxSmallSentBytes = 2048; // longer runs are worth a system call of their own
constexpr Nanoseconds kReportWait = 100 * kMicrosecond;
constexpr Nanoseconds kBurstWait = 50 * kMicrosecond;
constexpr Nanoseconds kPieceWait = 30 * kMicrosecond; // what is to come takes longer up to 17 Gbit/s
constexpr Nanoseconds kCloseBehind = kPieceWait / 2;
constexpr std::size_t kMinPieceBytes = 1024;
constexpr std::size_t kJoinedBytes = 16u << 10; // a longer run was worth waking for
} // namespace

void Gathering::received(Turn& turn, const ReceivedRun& run) {
    const std::size_t size = std::max<std::size_t>(run.segmentSize, 1);
    const bool full = run.bytes.size() % size == 0 && size >= kMinPieceBytes && size == lastSize_;
    turn.amidPacket = full && run.bytes.size() <= kJoinedBytes && run.arrival - lastArrival_ < kCloseBehind;
    turn.longestReceived = std::max(turn.longestReceived, size);
    lastArrival_ = run.arrival;
    lastSize_ = size;
}

void Gathering::plan(const Turn& turn, std::uint32_t connections) {
    next_ = Wait::forAny;
    if (turn.leftUnread)
        return;
    if (turn.amidPacket && turn.longestSent <= kMaxReportBytes)
        next_ = Wait::forPieces;
    if (connections < kCrowd)
        return;
    // Reports that let more data leave are awaited: a window is full.
    const bool onlyReports = turn.longestReceived != 0 && turn.longestReceived <= kMaxReportBytes;
    if (turn.tookOutboxes && turn.longestSent <= kMaxSmallSentBytes)
        next_ = Wait::forBurst;
    else if (onlyReports && turn.longestSent == 0)
        next_ = Wait::forReports;
}

bool Gathering::wait(Poller& poller, Nanoseconds deadline) {
    const Nanoseconds now = next_ == Wait::forAny ? kNow : clockNow();
    if (next_ == Wait::forBurst && deadline > now + kBurstWait) {
        poller.pause(kBurstWait);
    } else if (next_ == Wait::forReports && deadline > now) {
        poller.nap(std::min(deadline, now + kReportWait));
    } else if (next_ == Wait::forPieces && deadline > now) {
        poller.nap(std::min(deadline, now + kPieceWait));
    } else {
        poller.wait(deadline);
        return false;
    }
    count_.fetch_add(1, std::memory_order_relaxed);
    return true;
}

} // namespace kor::detail
