#include "support/net/Connection.h"

#include <algorithm>

namespace kor::detail {

namespace {
constexpr Nanoseconds kAckDelay = 500 * kMicrosecond;      // longest wait before an acknowledgement leaves
constexpr Nanoseconds kLongestLateness = 2 * kMillisecond; // beyond that, as far as repairs wait for it
constexpr std::uint32_t kAckBytes = 16u << 10;             // that much unacknowledged is reported at once
constexpr Nanoseconds kFirstReorderWindow = 500 * kMicrosecond;
constexpr Nanoseconds kLongestReorderWindow = 20 * kMillisecond;
constexpr Nanoseconds kReorderCalm = kSecond; // without a spurious repair the window narrows again
constexpr Nanoseconds kFirstRoundTrip = 5 * kMillisecond; // when nobody has measured one
constexpr Nanoseconds kLeastVariation = 250 * kMicrosecond;
constexpr Nanoseconds kVolleyStep = 5 * kMillisecond;
// The accepting side learns the clock from the other's volley; after that long it helps itself.
constexpr Nanoseconds kAcceptorPatience = 25 * kMillisecond;
constexpr Nanoseconds kSettling = 2 * kSecond; // while the clock's estimate is coarse
constexpr Nanoseconds kStampInterval = 20 * kMillisecond;
constexpr Nanoseconds kSettledStampInterval = 100 * kMillisecond;
constexpr std::size_t kLongestStamped = 1472; // a datagram with stamps and data
constexpr std::uint32_t kMaxInFlight = 16384; // datagrams
constexpr std::uint32_t kMaxRecorded = 4 * kMaxInFlight;
constexpr std::uint32_t kMaxRecordedPieces = 4 * kMaxRecorded;

std::uint32_t payloadLimit(const ConnectionConfig& config) {
    return std::clamp<std::uint32_t>(
        std::min(config.mine.maxDatagramPayload, config.theirs.maxDatagramPayload), 548, kMaxDatagramBytes);
}
} // namespace

Connection::Connection(const ConnectionConfig& config, Nanoseconds now)
    : config_(config),
      nextTrain_(now),
      lastProgress_(now),
      reorderWindow_(kFirstReorderWindow),
      lastSpurious_(now),
      deliveredId_(config.firstPacketId - 1),
      lastHeard_(now),
      handedUpId_(config.firstPacketId - 1),
      nextForget_(now),
      nextVolley_(config.initiator ? now : now + kAcceptorPatience),
      lastBeat_(now),
      lastPing_(now),
      lastStamp_(now - kStampInterval),
      settledAt_(now + kSettling),
      queue_(config.firstPacketId),
      probe_(payloadLimit(config), now),
      reassembly_(config.firstPacketId, {config.mine.maxPacketBytes, config.mine.receiveLimitBytes}),
      sent_(config.firstNumber),
      received_(static_cast<std::uint32_t>(config.firstNumber)) {
    if (config_.firstRoundTrip <= 0)
        config_.firstRoundTrip = kFirstRoundTrip;
    config_.firstRoundTrip = std::min(config_.firstRoundTrip, config_.longestRepairWait);
    queue_.setPeerLimit(config.theirs.receiveLimitBytes);
    window_.setPeerBuffer(config.theirs.socketBufferBytes);
    clock_.setMaxDelay(config.longestClockDelay);
}

void Connection::setTimes(Nanoseconds timeout, Nanoseconds longestRepairWait, Nanoseconds longestClockDelay,
                          Nanoseconds now) {
    if (timeout < config_.timeout)
        lastHeard_ = std::max(lastHeard_, now); // the peer knew nothing of the shorter one
    config_.timeout = timeout;
    config_.longestRepairWait = longestRepairWait;
    config_.longestClockDelay = longestClockDelay;
    clock_.setMaxDelay(longestClockDelay);
}

// ---------------------------------------------------------------------------------------------- receiving

void Connection::onDatagram(const DecodedDatagram& datagram, Nanoseconds arrival, std::size_t wireBytes,
                            Ring<NetEvent>& events) {
    ++stats_.datagramsReceived;
    stats_.wireBytesReceived += wireBytes;
    // Nothing could be acknowledged after it.
    if (received_.precedesFirst(datagram.number)) {
        ++malformed_.badFrame;
        return;
    }
    lastHeard_ = std::max(lastHeard_, arrival);
    if (datagram.close) {
        closedByPeer_ = true;
        return;
    }
    if (datagram.ack && !takeAck(*datagram.ack, arrival, events)) {
        ++malformed_.badFrame;
        return;
    }
    if (datagram.time)
        takeTime(*datagram.time, arrival);
    // A datagram of which a piece is refused counts as lost, so that its sender repairs it later.
    if (!takeFragments(datagram, events))
        return;
    resting_ = resting_ && datagram.fragmentCount == 0;
    unacknowledgedBytes_ += datagram.wantsAck() ? static_cast<std::uint32_t>(wireBytes) : 0;
    noteForAck(datagram, arrival);
}

bool Connection::takeAck(const AckFrame& ack, Nanoseconds arrival, Ring<NetEvent>& events) {
    const auto ahead = static_cast<std::int32_t>(ack.handedUp - static_cast<std::uint32_t>(deliveredId_));
    if (ahead > 0 && deliveredId_ + static_cast<std::uint64_t>(ahead) >= queue_.firstUnsentId())
        return false;
    const SentLog::Acknowledged result = sent_.acknowledge(ack, queue_);
    if (!result.valid)
        return false;
    if (result.newestSent) {
        const Nanoseconds held = Nanoseconds{ack.delayMicroseconds} * kMicrosecond;
        const Nanoseconds raw = arrival - *result.newestSent;
        lateness_ = std::max(std::min(held - kAckDelay, kLongestLateness), lateness_ - lateness_ / 64);
        // The peer's clock may run fast, and it may have held a report of which the first copy was lost.
        if (held < raw || !roundTrip_.known())
            roundTrip_.add(held < raw ? raw - held : raw, arrival);
    }
    if (result.payloadProbe != 0)
        probe_.acknowledged(arrival, result.payloadProbe);
    if (result.datagrams != 0 || result.spurious != 0) {
        lastProgress_ = std::max(lastProgress_, arrival);
        silentProbes_ = 0;
    }
    if (result.datagrams != 0) {
        probe_.arrived(result.largestCharge - SendWindow::kDatagramOverhead);
        window_.acknowledged(arrival, result.charge, stalled_, roundTrip_.latest(), roundTrip_.least());
    }
    stats_.spuriousRepairs += result.spurious;
    if (result.overtaken != 0) {
        lastSpurious_ = arrival;
        reorderWindow_ = std::min({reorderWindow_ * 2, kLongestReorderWindow,
                                   std::max(roundTrip_.smoothed(), 4 * kFirstReorderWindow)});
    }
    for (std::int32_t i = 0; i < ahead; ++i) {
        NetEvent event;
        event.kind = NetEvent::Kind::delivered;
        event.serial = config_.serial;
        event.addressKey = config_.addressKey;
        event.packetId = ++deliveredId_;
        events.push(std::move(event));
        ++stats_.packetsDelivered;
    }
    if (ahead > 0) {
        queue_.handedUp(deliveredId_);
        queries_ = 0;
    }
    return true;
}

bool Connection::takeFragments(const DecodedDatagram& datagram, Ring<NetEvent>& events) {
    bool all = true;
    for (std::size_t i = 0; i != datagram.fragmentCount && all; ++i) {
        const Reassembly::Result result = reassembly_.take(datagram.fragments[i]);
        malformed_.overLimit += result == Reassembly::Result::refused ? 1 : 0;
        malformed_.badFrame += result == Reassembly::Result::malformed ? 1 : 0;
        all = result == Reassembly::Result::taken || result == Reassembly::Result::known;
    }
    // Also when a later piece was refused: what is whole makes room once it is handed up.
    while (std::optional<Block> whole = reassembly_.popWhole()) {
        ++stats_.packetsReceived;
        stats_.bytesReceived += whole->size();
        NetEvent event;
        event.kind = NetEvent::Kind::packet;
        event.serial = config_.serial;
        event.addressKey = config_.addressKey;
        event.bytes = std::move(*whole);
        events.push(std::move(event));
    }
    return all;
}

void Connection::takeTime(const TimeFrame& time, Nanoseconds arrival) {
    // A stamp that an older datagram brings late must not become the newest one.
    if (!havePeerStamp_ || elapsed(time.sent, peerStamp_) > 0) {
        havePeerStamp_ = true;
        peerStamp_ = time.sent;
        peerStampArrival_ = arrival;
    }
    if (!time.hasEcho)
        return;
    clock_.add({time.echoSent, time.echoReceived, time.sent, arrival});
    clockKnown_ = clock().known;
    if (clock_.doubtful())
        settledAt_ = arrival + kSettling;
}

void Connection::noteForAck(const DecodedDatagram& datagram, Nanoseconds arrival) {
    const std::uint64_t number = received_.unwrap(datagram.number);
    const bool newest = received_.empty() || number > received_.newest();
    if (received_.insert(number) != ReceivedNumbers::Arrival::fresh)
        ++stats_.duplicates;
    if (newest)
        newestArrival_ = arrival;
    if (datagram.ping && datagram.time)
        stampWanted_ = true;
    const std::uint64_t missing = received_.newestMissing();
    const bool gap = missing > reportedMissing_;
    if (!datagram.wantsAck() && !gap)
        return;
    const bool atOnce = gap || datagram.ping || datagram.padding || unacknowledgedBytes_ >= kAckBytes;
    const Nanoseconds due = atOnce ? arrival : arrival + kAckDelay;
    ackDue_ = ackPending_ ? std::min(ackDue_, due) : due;
    ackPending_ = true;
    if (gap) {
        reportedMissing_ = missing;
        ++stats_.gapReports;
    }
}

void Connection::handedUp(Nanoseconds now, std::uint32_t size) {
    ++handedUpId_;
    reassembly_.handedUp(size);
    ackDue_ = ackPending_ ? std::min(ackDue_, now + kAckDelay) : now + kAckDelay;
    ackPending_ = true;
}

void Connection::forgetOldNumbers(Nanoseconds now) {
    // A number that has been missing this long has been repaired under another one.
    if (now < nextForget_ || received_.empty())
        return;
    nextForget_ = now + std::max(200 * kMillisecond, 4 * roundTrip_.smoothed());
    received_.forgetBelow(forgetMark_);
    forgetMark_ = received_.newest();
}

void Connection::forgiveSilence(Nanoseconds now) {
    lastHeard_ = std::max(lastHeard_, now - config_.timeout + std::min(config_.timeout, kSecond / 2));
}

// ------------------------------------------------------------------------------------------------ sending

void Connection::send(Block bytes) {
    ++stats_.packetsSent;
    stats_.bytesSent += bytes.size();
    resting_ = false;
    queue_.push(std::move(bytes));
}

Nanoseconds Connection::lossRoundTrip() const {
    return roundTrip_.known() ? std::max(roundTrip_.smoothed(), roundTrip_.latest()) : config_.firstRoundTrip;
}

Nanoseconds Connection::repairWait() const {
    const Nanoseconds smoothed = roundTrip_.known() ? roundTrip_.smoothed() : config_.firstRoundTrip;
    const Nanoseconds variation = roundTrip_.known() ? roundTrip_.variation() : config_.firstRoundTrip / 2;
    const Nanoseconds once = smoothed + std::max(4 * variation, kLeastVariation) + kAckDelay + lateness_;
    return std::min(once << std::min(silentProbes_, 16), std::max(once, config_.longestRepairWait));
}

Nanoseconds Connection::repairDeadline() const {
    return sent_.inFlight() == 0 ? kNever : std::max(sent_.lastSent(), lastProgress_) + repairWait();
}

void Connection::account(const SentLog::Lost& lost, Nanoseconds now) {
    stats_.repairs += lost.pieces;
    if (lost.charge != 0)
        window_.lost(now, lost.charge);
    if (lost.payloadProbe != 0)
        probe_.lost(now, lost.payloadProbe);
    if (lost.largestCharge == 0 || lastHeard_ - lost.newestSent <= lossRoundTrip() ||
        !probe_.missed(now, lost.largestCharge - SendWindow::kDatagramOverhead))
        return;
    const SentLog::Lost larger = sent_.giveUpLarger(probe_.payload() + SendWindow::kDatagramOverhead,
                                                    now - lossRoundTrip() - reorderWindow_, queue_);
    stats_.repairs += larger.pieces;
    silentProbes_ = 0;
}

void Connection::handleTimers(Nanoseconds now) {
    forgetOldNumbers(now);
    if (now - lastSpurious_ >= kReorderCalm) {
        reorderWindow_ = std::max(kFirstReorderWindow, reorderWindow_ / 2);
        lastSpurious_ = now;
    }
    if (now >= sent_.nextLoss(lossRoundTrip(), reorderWindow_))
        account(sent_.detectLost(now, lossRoundTrip(), reorderWindow_, queue_), now);
    // A peer that sends and never acknowledges must not make the record of our answers grow.
    while (sent_.recorded() > kMaxRecorded || sent_.recordedPieces() > kMaxRecordedPieces)
        account(sent_.giveUpOldest(queue_), now);
    if (now < repairDeadline())
        return;
    // Nobody reports the loss of a tail: the oldest piece in flight goes again and draws a report on the
    // rest.
    SentLog::Lost lost;
    do
        lost = sent_.giveUpOldest(queue_);
    while ((account(lost, now), lost.pieces == 0 && sent_.inFlight() != 0));
    lastProgress_ = now;
    ++silentProbes_;
    if (lost.pieces != 0) {
        probeDue_ = true;
        ++stats_.probes;
    }
}

bool Connection::mayBeginTrain(Nanoseconds now) const {
    if (!queue_.ready() || sent_.inFlight() >= kMaxInFlight)
        return false;
    return probeDue_ || (now >= nextTrain_ && window_.open(sent_.inFlightCharge()));
}

bool Connection::stampDue(Nanoseconds now) const {
    return stampWanted_ ||
           now - lastStamp_ >= (!clockKnown_ || now < settledAt_ ? kStampInterval : kSettledStampInterval);
}

DatagramWriter Connection::beginDatagram(std::span<std::uint8_t> buffer) const {
    return {buffer, config_.connectionId, config_.initiator, static_cast<std::uint32_t>(sent_.nextNumber())};
}

bool Connection::addControl(DatagramWriter& writer, Nanoseconds now, const Occasion& occasion) {
    if (!received_.empty() && (ackPending_ || occasion.beat)) {
        AckFrame ack;
        received_.fillAck(ack);
        ack.delayMicroseconds = static_cast<std::uint32_t>(
            std::clamp<Nanoseconds>((now - newestArrival_) / kMicrosecond, 0, UINT32_MAX));
        ack.handedUp = static_cast<std::uint32_t>(handedUpId_);
        writer.addAck(ack);
        ackPending_ = false;
        unacknowledgedBytes_ = 0;
    }
    if (occasion.stamp) {
        writer.addTime({now, havePeerStamp_, peerStamp_, peerStampArrival_});
        lastStamp_ = now;
        stampWanted_ = false;
    }
    if (occasion.beat)
        lastBeat_ = now;
    if (occasion.ping) {
        writer.addPing();
        lastPing_ = now;
        if (inVolley()) {
            ++volley_;
            nextVolley_ = now + kVolleyStep;
        }
    }
    return occasion.ping;
}

std::size_t Connection::addFragments(DatagramWriter& writer) {
    std::size_t count = 0;
    while (const std::size_t room = writer.fragmentRoom()) {
        const std::optional<FragmentRef> piece = queue_.take(static_cast<std::uint32_t>(room));
        if (!piece)
            break;
        const std::uint32_t size = queue_.packetSize(*piece);
        writer.addFragment({static_cast<std::uint32_t>(piece->packetId),
                            size,
                            piece->offset,
                            {queue_.bytes(*piece), piece->length}},
                           size - piece->offset - piece->length);
        pieces_[count++] = *piece;
    }
    return count;
}

void Connection::countSent(std::size_t bytes, bool wantsAck, Nanoseconds now, std::uint32_t payloadProbe,
                           std::size_t pieces) {
    const auto charge = static_cast<std::uint32_t>(bytes) + SendWindow::kDatagramOverhead;
    sent_.add(now, wantsAck ? charge : 0, payloadProbe, {pieces_.data(), pieces});
    ++stats_.datagramsSent;
    stats_.wireBytesSent += bytes;
}

Train Connection::probePayload(Nanoseconds now, std::span<std::uint8_t> buffer) {
    const std::uint32_t size = probe_.candidate();
    DatagramWriter writer = beginDatagram(buffer.first(size));
    writer.addPing();
    writer.addPaddingTo(size);
    const std::size_t bytes = writer.finish();
    probe_.sent();
    countSent(bytes, true, now, size, 0);
    return {bytes, bytes, 0};
}

Train Connection::poll(Nanoseconds now, std::span<std::uint8_t> buffer) {
    handleTimers(now);
    if (mayProbePayload(now))
        return probePayload(now, buffer);
    const bool query = now >= queryDue();
    queries_ += query ? 1 : 0;
    Occasion occasion;
    occasion.beat = query || now >= beatDue();
    occasion.ping = query || (occasion.beat && pingDue(now));
    bool data = mayBeginTrain(now);
    if (!occasion.beat && !data && !(ackPending_ && now >= ackDue_))
        return {};

    const std::size_t payload = probe_.payload();
    Train train;
    occasion.stamp = stampDue(now) || (occasion.ping && inVolley());
    // Copying a long train takes the system a while: stamps travel in a short datagram of their own ahead of
    // it.
    if (occasion.stamp && data &&
        queue_.readyExceeds(static_cast<std::uint32_t>(std::min(payload, kLongestStamped) - 128)))
        data = false;
    resting_ = resting_ || (occasion.beat && !query && !data);
    const std::size_t trainLimit = std::min<std::size_t>(SendWindow::kTrainBytes, buffer.size());
    std::size_t limit = occasion.stamp ? std::min(payload, kLongestStamped) : payload;
    while (train.bytes + limit <= trainLimit || train.bytes == 0) {
        DatagramWriter writer = beginDatagram(buffer.subspan(train.bytes, limit));
        const bool control = train.bytes == 0 && addControl(writer, now, occasion);
        const std::size_t pieces = data ? addFragments(writer) : 0;
        if (writer.empty())
            break;
        const std::size_t size = writer.finish();
        countSent(size, control || pieces != 0, now, 0, pieces);
        if (train.bytes == 0) {
            train.segment = limit = size;
            train.stampAt = writer.stampAt();
        }
        train.bytes += size;
        probeDue_ = probeDue_ && pieces == 0;
        if (occasion.stamp || size < limit || size + kFragmentHeaderBytes < payload || !mayBeginTrain(now))
            break;
    }
    stalled_ = waitsForWindow();
    stats_.windowStalls += stalled_ && data ? 1 : 0;
    if (data)
        nextTrain_ = now + window_.pace(static_cast<std::uint32_t>(train.bytes), roundTrip_.smoothed());
    return train;
}

Nanoseconds Connection::nextWake() const {
    Nanoseconds wake = lastHeard_ + config_.timeout;
    wake = std::min({wake, beatDue(), queryDue()});
    if (ackPending_)
        wake = std::min(wake, ackDue_);
    if (roundTrip_.known())
        wake = std::min(wake, probe_.nextProbe());
    wake = std::min(wake, sent_.nextLoss(lossRoundTrip(), reorderWindow_));
    return std::min({wake, repairDeadline(), nextDataWake()});
}

Nanoseconds Connection::nextDataWake() const {
    if (!queue_.ready() || sent_.inFlight() >= kMaxInFlight)
        return kNever;
    if (probeDue_)
        return kNow;
    return window_.open(sent_.inFlightCharge()) ? nextTrain_ : kNever;
}

void Connection::onTooBig(Nanoseconds now, std::size_t size) {
    probe_.refused(now, static_cast<std::uint32_t>(size));
}

Train Connection::farewell(std::span<std::uint8_t> buffer) {
    DatagramWriter writer = beginDatagram(buffer);
    writer.addClose();
    const std::size_t bytes = writer.finish();
    countSent(bytes, false, lastProgress_, 0, 0);
    return {bytes, bytes, 0};
}

ConnectionStatistics Connection::statistics(Nanoseconds now) const {
    ConnectionStatistics stats = stats_;
    const auto milliseconds = [](auto nanoseconds) { return static_cast<double>(nanoseconds) * 1e-6; };
    stats.roundTripLeast = milliseconds(roundTrip_.least());
    stats.roundTripP50 = milliseconds(roundTrip_.p50());
    stats.roundTripP99 = milliseconds(roundTrip_.p99());
    if (clock().known) {
        stats.timeOffset = milliseconds(clock().offsetAt(now));
        stats.timeOffsetBound = milliseconds(clock().boundAt(now));
        stats.clockSkew = clock().skewPpm;
    }
    stats.payloadSize = probe_.payload();
    stats.window = static_cast<std::uint32_t>(window_.size());
    stats.queuedBytes = queue_.queuedBytes();
    return stats;
}

} // namespace kor::detail
