#pragma once

#include "support/platform/SocketAddress.h"
#include "support/Time.h"
#include "support/Tracked.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace kor::detail {

/// What the kernel handed over at once from one sender: one datagram, or several of equal size (the last may
/// be shorter) that it joined.
struct ReceivedRun {
    SocketAddress from;
    /// All datagrams back to back; valid until the batch is filled again.
    std::span<const std::uint8_t> bytes;
    std::size_t segmentSize = 0; ///< size of each datagram but the last; never 0 unless `bytes` is empty
    Nanoseconds arrival = 0;     ///< of the first of them, on our clock; never later than its reading
    bool stamped = false;        ///< the arrival is the kernel's; else it is the time of reading

    /// At least 1: an empty datagram counts.
    std::size_t datagramCount() const {
        return bytes.empty() ? 1 : (bytes.size() + segmentSize - 1) / segmentSize;
    }

    /// Datagram `i` of `datagramCount()`.
    std::span<const std::uint8_t> datagram(std::size_t i) const {
        const std::size_t begin = i * segmentSize;
        return bytes.subspan(begin, std::min(segmentSize, bytes.size() - begin));
    }
};

/// Room for what one receiving call takes in. Allocated once and may serve several sockets of one thread in
/// turn.
///
/// Every slot holds the largest datagram, and so also the largest run that the kernel joins; pages of it
/// become resident only as they are used.
class ReceiveBatch {
public:
    static constexpr std::size_t kSlots = 32;
    static constexpr std::size_t kSlotBytes = 64 * 1024;

    ReceiveBatch();
    ReceiveBatch(const ReceiveBatch&) = delete;
    ReceiveBatch& operator=(const ReceiveBatch&) = delete;
    ~ReceiveBatch();

    std::size_t size() const { return count_; }
    const ReceivedRun& operator[](std::size_t i) const { return runs_[i]; }
    const ReceivedRun* begin() const { return runs_.data(); }
    const ReceivedRun* end() const { return runs_.data() + count_; }

private:
    friend class UdpSocket;
    struct Headers;
    struct Slots : TrackedNew<"support/platform/ReceiveBatch", "ReceiveBatch::ReceiveBatch"> {
        std::array<std::uint8_t, kSlots * kSlotBytes> bytes;
    };

    void reset();
    std::uint8_t* slot(std::size_t i) { return slots_->bytes.data() + i * kSlotBytes; }

    std::unique_ptr<Slots> slots_;
    std::unique_ptr<Headers> headers_;
    std::array<ReceivedRun, kSlots> runs_;
    std::size_t count_ = 0;
};

} // namespace kor::detail
