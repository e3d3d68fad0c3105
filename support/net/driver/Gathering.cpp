#include "support/net/driver/Gathering.h"

#include <support/jTimer.h>

namespace kor::detail {

namespace {
constexpr std::uint32_t kCrowd = 16;             // connections
constexpr std::size_t kMaxReportBytes = 64;      // an acknowledgement with stamps
constexpr std::size_t kMaxSmallSentBytes = 2048; // longer runs are worth a system call of their own
constexpr Nanoseconds kReportWait = 100 * kMicrosecond;
constexpr Nanoseconds kBurstWait = 50 * kMicrosecond;
} // namespace

void Gathering::plan(const Turn& turn, std::uint32_t connections) {
    next_ = Wait::forAny;
    if (connections < kCrowd || turn.leftUnread)
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
    } else {
        poller.wait(deadline);
        return false;
    }
    count_.fetch_add(1, std::memory_order_relaxed);
    return true;
}

} // namespace kor::detail
