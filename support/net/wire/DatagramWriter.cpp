#include "support/net/wire/Crc32c.h"
#include "support/net/wire/DatagramFormat.h"
#include "support/net/wire/LittleEndian.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace kor::detail {

namespace {

/// A range is cut to what its field holds, and a cut one ends the report: what lies behind it is old and has
/// been reported before.
std::uint32_t cutRun(std::uint32_t count) {
    return std::min(count, kMaxRunInAck);
}

/// Ranges of the acknowledgement that can be written into `room` bytes.
std::size_t rangesThatFit(const AckFrame& ack, std::size_t room) {
    if (room < kAckFrameBytes)
        return 0;
    const std::size_t limit = std::min(ack.rangeCount, 1 + (room - kAckFrameBytes) / kAckRangeBytes);
    for (std::size_t i = 1; i < limit; ++i) {
        const AckFrame::Range& newer = ack.ranges[i - 1];
        const std::uint32_t missing = newer.last - newer.count - ack.ranges[i].last;
        assert(missing >= 1);
        if (newer.count > kMaxRunInAck || missing > kMaxRunInAck)
            return i;
    }
    return limit;
}

} // namespace

DatagramWriter::DatagramWriter(std::span<std::uint8_t> buffer, std::uint64_t connectionId, bool fromInitiator,
                               std::uint32_t number)
    : buffer_(buffer), size_(kDataHeaderBytes), summed_(kChecksumBytes) {
    assert(buffer.size() >= kDataHeaderBytes);
    writeHeader(buffer, DatagramKind::data, fromInitiator, connectionId);
    store32(buffer.data() + kHeaderBytes, number);
}

std::uint8_t* DatagramWriter::beginFrame(FrameType type, std::size_t bytes) {
    if (bytes > buffer_.size() - size_)
        return nullptr;
    std::uint8_t* const frame = buffer_.data() + size_;
    frame[0] = static_cast<std::uint8_t>(type);
    size_ += bytes;
    return frame + 1;
}

std::uint8_t* DatagramWriter::beginOnlyFrame(FrameType type, std::size_t bytes) {
    const FrameType once = type == FrameType::timeEcho ? FrameType::time : type;
    const unsigned bit = 1u << static_cast<unsigned>(once);
    if ((framesOnce_ & bit) != 0)
        return nullptr;
    std::uint8_t* const frame = beginFrame(type, bytes);
    if (frame != nullptr)
        framesOnce_ |= bit;
    return frame;
}

bool DatagramWriter::addAck(const AckFrame& ack) {
    assert(ack.rangeCount >= 1 && ack.rangeCount <= kMaxAckRanges);
    const std::size_t ranges = rangesThatFit(ack, buffer_.size() - size_);
    if (ranges == 0)
        return false;
    std::uint8_t* to = beginOnlyFrame(FrameType::ack, kAckFrameBytes + (ranges - 1) * kAckRangeBytes);
    if (to == nullptr)
        return false;
    store32(to, ack.ranges[0].last);
    store32(to + 4, ack.delayMicroseconds);
    store32(to + 8, ack.consumed);
    to[12] = static_cast<std::uint8_t>(ranges);
    store16(to + 13, static_cast<std::uint16_t>(cutRun(ack.ranges[0].count)));
    to += 15;
    for (std::size_t i = 1; i < ranges; ++i, to += kAckRangeBytes) {
        const AckFrame::Range& newer = ack.ranges[i - 1];
        store16(to, static_cast<std::uint16_t>(newer.last - newer.count - ack.ranges[i].last));
        store16(to + 2, static_cast<std::uint16_t>(cutRun(ack.ranges[i].count)));
    }
    return true;
}

bool DatagramWriter::addTime(const TimeFrame& time) {
    std::uint8_t* const to = time.hasEcho ? beginOnlyFrame(FrameType::timeEcho, kTimeEchoFrameBytes)
                                          : beginOnlyFrame(FrameType::time, kTimeFrameBytes);
    if (to == nullptr)
        return false;
    stampAt_ = static_cast<std::size_t>(to - buffer_.data());
    store64(to, static_cast<std::uint64_t>(time.sent));
    if (time.hasEcho) {
        store64(to + 8, static_cast<std::uint64_t>(time.echoSent));
        store64(to + 16, static_cast<std::uint64_t>(time.echoReceived));
    }
    return true;
}

bool DatagramWriter::addPing() {
    return beginOnlyFrame(FrameType::ping, 1) != nullptr;
}

bool DatagramWriter::addClose() {
    return beginOnlyFrame(FrameType::close, 1) != nullptr;
}

std::size_t DatagramWriter::fragmentRoom() const {
    const std::size_t room = buffer_.size() - size_;
    if (fragments_ == kMaxFragmentsPerDatagram || room <= kFragmentHeaderBytes)
        return 0;
    return std::min<std::size_t>(room - kFragmentHeaderBytes, UINT16_MAX);
}

bool DatagramWriter::addFragment(const FragmentFrame& fragment, std::size_t following) {
    const std::size_t length = fragment.bytes.size();
    assert(length >= 1 && std::uint64_t{fragment.offset} + length <= fragment.packetSize);
    if (length > fragmentRoom())
        return false;
    std::uint8_t* const to = beginFrame(FrameType::fragment, kFragmentHeaderBytes + length);
    store32(to, fragment.packetId);
    store32(to + 4, fragment.packetSize);
    store32(to + 8, fragment.offset);
    store16(to + 12, static_cast<std::uint16_t>(length));
    sum_ = crc32cCopy(buffer_.subspan(summed_, size_ - length - summed_), fragment.bytes, to + 14, sum_,
                      following);
    summed_ = size_;
    ++fragments_;
    return true;
}

bool DatagramWriter::addPaddingTo(std::size_t size) {
    if (size <= size_ || size > buffer_.size())
        return false;
    const std::size_t zeros = size - size_ - 1;
    std::memset(beginFrame(FrameType::padding, 1 + zeros), 0, zeros);
    buffer_ = buffer_.first(size_);
    return true;
}

void DatagramWriter::sumUp() {
    sum_ = crc32c(buffer_.subspan(summed_, size_ - summed_), sum_);
    summed_ = size_;
}

std::size_t DatagramWriter::finish() {
    assert(!empty());
    sumUp();
    store32(buffer_.data(), sum_);
    return size_;
}

void restamp(std::span<std::uint8_t> datagram, std::size_t stampAt, Nanoseconds now) {
    assert(stampAt >= kDataHeaderBytes && stampAt + sizeof now <= datagram.size());
    store64(datagram.data() + stampAt, static_cast<std::uint64_t>(now));
    store32(datagram.data(), crc32c(datagram.subspan(kChecksumBytes)));
}

} // namespace kor::detail
