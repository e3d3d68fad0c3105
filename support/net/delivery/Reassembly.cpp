#include "support/net/delivery/Reassembly.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kor::detail {

namespace {
constexpr std::uint32_t kEagerBytes = 64u << 10;
}

Reassembly::Result Reassembly::take(const FragmentFrame& fragment) {
    const std::uint64_t next = partial_.begin();
    const auto ahead = static_cast<std::int32_t>(fragment.packetId - static_cast<std::uint32_t>(next));
    if (ahead < 0)
        return Result::known;
    const auto distance = static_cast<std::uint64_t>(ahead);
    if (distance + waiting_ >= kPacketWindow || fragment.packetSize > limits_.maxPacketBytes)
        return Result::refused;
    while (partial_.end() <= next + distance)
        partial_.push(Partial{});

    Partial& packet = partial_[next + distance];
    if (packet.size != 0 && packet.size != fragment.packetSize)
        return Result::malformed;
    const Span piece{fragment.offset, fragment.offset + static_cast<std::uint32_t>(fragment.bytes.size())};
    if (packet.size != 0 && packet.received == packet.size)
        return Result::known;
    if (piece.end > packet.received && piece.end - packet.received > kMaxAhead)
        return Result::refused;

    const bool isNew = packet.size == 0;
    packet.size = fragment.packetSize;
    if (!makeRoom(packet, piece.end)) {
        if (isNew)
            packet.size = 0;
        return Result::refused;
    }
    const Result result = merge(packet, piece, distance == 0);
    if (result == Result::taken)
        std::memcpy(packet.bytes.data() + piece.begin, fragment.bytes.data(), fragment.bytes.size());
    return result;
}

bool Reassembly::makeRoom(Partial& packet, std::uint32_t end) {
    const std::uint32_t have = packet.bytes.size();
    if (end <= have)
        return true;
    const std::uint32_t proved = std::max(kEagerBytes, largestWhole_);
    const std::uint64_t wanted = std::max<std::uint64_t>({end, std::uint64_t{have} * 2, proved});
    const auto room = static_cast<std::uint32_t>(std::min<std::uint64_t>(wanted, packet.size));
    const bool alone = heldBytes_ == have;
    if (!alone && heldBytes_ + room - have > limits_.heldBytes)
        return false;
    const std::uint32_t keep = packet.spans.empty() ? 0 : packet.spans.back().end;
    if (!packet.bytes.grow(room, keep))
        return false;
    heldBytes_ += room - have;
    return true;
}

bool Reassembly::makeSpanRoom(std::vector<Span>& spans, bool oldest) {
    if (spans.size() >= kMaxGaps)
        return false;
    if (spans.size() < spans.capacity())
        return true;
    const std::size_t had = spans.capacity();
    const std::size_t wanted = std::max<std::size_t>(1, 2 * had);
    // Never the oldest packet, whose end all others wait for.
    if (!oldest && spanRoom_ + wanted - had > kMaxSpanRoom)
        return false;
    spans.reserve(wanted);
    spanRoom_ += spans.capacity() - had;
    return true;
}

Reassembly::Result Reassembly::merge(Partial& packet, Span piece, bool oldest) {
    std::vector<Span>& spans = packet.spans;
    if (!spans.empty() && spans.back().end == piece.begin) {
        spans.back().end = piece.end;
        packet.received += piece.end - piece.begin;
        return Result::taken;
    }
    // First span that touches or lies behind the piece, and one past the last that touches it.
    const auto first =
        std::lower_bound(spans.begin(), spans.end(), piece.begin,
                         [](const Span& span, std::uint32_t begin) { return span.end < begin; });
    auto last = first;
    std::uint32_t covered = 0;
    Span joined = piece;
    while (last != spans.end() && last->begin <= piece.end) {
        covered += last->end - last->begin;
        joined.begin = std::min(joined.begin, last->begin);
        joined.end = std::max(joined.end, last->end);
        ++last;
    }
    const std::uint32_t added = joined.end - joined.begin - covered;
    if (added == 0)
        return Result::known;
    if (first == last) {
        const auto at = first - spans.begin();
        if (!makeSpanRoom(spans, oldest))
            return Result::refused;
        spans.insert(spans.begin() + at, joined);
    } else {
        *first = joined;
        spans.erase(first + 1, last);
    }
    packet.received += added;
    return Result::taken;
}

std::optional<Block> Reassembly::popWhole() {
    if (partial_.empty())
        return std::nullopt;
    Partial& packet = partial_.front();
    if (packet.size == 0 || packet.received != packet.size)
        return std::nullopt;
    Block whole = std::move(packet.bytes);
    largestWhole_ = std::max(largestWhole_, packet.size);
    spanRoom_ -= packet.spans.capacity();
    partial_.pop();
    ++waiting_;
    return whole;
}

} // namespace kor::detail
