#include "support/net/connection/Connection.h"

#include <algorithm>

namespace kor::detail {

namespace {
constexpr std::size_t kMaxStamped = 1472;     // a datagram with stamps and data
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
      keepAlive_(config.initiator, config.times.timeout, now),
      queue_(config.firstPacketId, config.theirs.receiveLimitBytes),
      window_(config.theirs.socketBufferBytes, now),
      payloadProbe_(payloadLimit(config), now),
      reassembly_(config.firstPacketId, {config.mine.maxPacketBytes, config.mine.receiveLimitBytes}),
      stamps_(config.times.maxClockDelay, now),
      timing_(config.firstRoundTrip, config.times.maxRepairWait, now),
      acks_(static_cast<std::uint32_t>(config.firstNumber), now),
      sent_(config.firstNumber) {}

void Connection::setTimes(const ConnectionTimes& times, Nanoseconds now) {
    config_.times = times;
    keepAlive_.setTimeout(times.timeout, now);
    timing_.setMaxWait(times.maxRepairWait);
    stamps_.setMaxDelay(times.maxClockDelay);
}

// ----------------------------------------------------------------------------------------- what is due when

Nanoseconds Connection::deadline(Timer timer) const {
    switch (timer) {
    case Timer::timeout:
        return keepAlive_.timeoutAt();
    case Timer::loss:
        return sent_.nextLoss(timing_.roundTrip(), timing_.reorderWindow());
    case Timer::tailProbe:
        return sent_.inFlight() == 0 ? kNever : timing_.tailProbe(sent_.lastSent());
    case Timer::payloadProbe:
        return roundTrip().known() ? payloadProbe_.nextProbe() : kNever;
    case Timer::deliveryProbe:
        return sent_.inFlight() != 0 || !queue_.awaitsDelivery()
                   ? kNever
                   : keepAlive_.deliveryProbeDue(std::max(timing_.lastProgress(), sent_.lastSent()));
    case Timer::keepAlive:
        return keepAlive_.due();
    case Timer::acknowledgement:
        return acks_.due();
    case Timer::train:
        return !queue_.ready() || sent_.inFlight() >= kMaxInFlight
                   ? kNever
                   : window_.nextTrain(sent_.inFlightCharge());
    }
    return kNever;
}

Nanoseconds Connection::nextWake() const {
    Nanoseconds wake = kNever;
    for (int timer = 0; timer != kTimers; ++timer)
        wake = std::min(wake, deadline(static_cast<Timer>(timer)));
    return wake;
}

// ---------------------------------------------------------------------------------------------- receiving

bool Connection::onDatagram(const DecodedDatagram& datagram, Nanoseconds arrival, std::size_t wireBytes,
                            Ring<NetEvent>& events) {
    ++stats_.datagramsReceived;
    stats_.wireBytesReceived += wireBytes;
    if (acks_.precedesFirst(datagram.number)) {
        ++malformed_.badFrame;
        return true;
    }
    keepAlive_.heard(arrival);
    if (datagram.close)
        return false;
    if (datagram.ack && !takeAck(*datagram.ack, arrival, events)) {
        ++malformed_.badFrame;
        return true;
    }
    if (datagram.time && stamps_.take(*datagram.time, arrival))
        keepAlive_.clockMeasured();
    // A datagram of which a piece is refused counts as lost, so that its sender repairs it later.
    if (!takeFragments(datagram, events))
        return true;
    if (datagram.fragmentCount != 0)
        keepAlive_.packetPassed();
    if (datagram.ping && datagram.time)
        stamps_.answer();
    const AckSchedule::Noted noted = acks_.arrived(datagram, arrival, wireBytes);
    stats_.duplicates += noted.isNew ? 0 : 1;
    stats_.gapReports += noted.newGap ? 1 : 0;
    return true;
}

bool Connection::takeAck(const AckFrame& ack, Nanoseconds arrival, Ring<NetEvent>& events) {
    const std::uint64_t known = queue_.consumedId();
    const auto ahead = static_cast<std::int32_t>(ack.consumed - static_cast<std::uint32_t>(known));
    if (ahead > 0 && known + static_cast<std::uint64_t>(ahead) >= queue_.firstUnsentId())
        return false;
    const SentLog::Acknowledged result = sent_.acknowledge(ack, queue_);
    if (!result.valid)
        return false;
    if (result.newestSent)
        timing_.measured(arrival - *result.newestSent, Nanoseconds{ack.delayMicroseconds} * kMicrosecond,
                         arrival);
    if (result.payloadProbe != 0)
        payloadProbe_.acknowledged(arrival, result.payloadProbe);
    if (result.datagrams != 0 || result.spurious != 0)
        timing_.progressed(arrival);
    if (result.datagrams != 0) {
        payloadProbe_.arrived(result.largestCharge - SendWindow::kDatagramOverhead);
        window_.acknowledged(arrival, result.charge, roundTrip().latest(), roundTrip().least());
    }
    stats_.spuriousRepairs += result.spurious;
    if (result.overtaken != 0)
        timing_.overtaken(arrival);
    if (ahead <= 0)
        return true;
    for (std::int32_t i = 1; i <= ahead; ++i) {
        NetEvent delivered = event(NetEvent::Kind::delivered);
        delivered.packetId = known + static_cast<std::uint64_t>(i);
        events.push(std::move(delivered));
    }
    stats_.packetsDelivered += static_cast<std::uint64_t>(ahead);
    queue_.consumed(known + static_cast<std::uint64_t>(ahead));
    keepAlive_.deliveryTold();
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
    // Also when a later piece was refused: what is whole makes room once it is consumed.
    while (std::optional<Block> whole = reassembly_.popWhole()) {
        ++stats_.packetsReceived;
        stats_.bytesReceived += whole->size();
        NetEvent packet = event(NetEvent::Kind::packet);
        packet.bytes = std::move(*whole);
        events.push(std::move(packet));
    }
    return all;
}

NetEvent Connection::event(NetEvent::Kind kind) const {
    NetEvent event;
    event.kind = kind;
    event.serial = config_.serial;
    event.addressKey = config_.addressKey;
    return event;
}

void Connection::consumed(Nanoseconds now, std::uint32_t size) {
    reassembly_.consumed(size);
    acks_.consumed(now);
}

// -------------------------------------------------------------------------------------------------- losses

void Connection::findLosses(Nanoseconds now) {
    acks_.forgetOld(now, roundTrip().smoothed());
    if (due(Timer::loss, now))
        account(sent_.detectLost(now, timing_.roundTrip(), timing_.reorderWindow(), queue_), now);
    // A peer that sends and never acknowledges must not make the record of our answers grow.
    while (sent_.recorded() > kMaxRecorded || sent_.recordedPieces() > kMaxRecordedPieces)
        account(sent_.giveUpOldest(queue_), now);
    if (due(Timer::tailProbe, now))
        probeTail(now);
    timing_.settle(now);
}

void Connection::probeTail(Nanoseconds now) {
    // Nobody reports the loss of a tail: the oldest piece in flight goes again and draws a report.
    SentLog::Lost lost;
    while (lost.pieces == 0 && sent_.inFlight() != 0) {
        lost = sent_.giveUpOldest(queue_);
        account(lost, now);
    }
    timing_.tailProbed(now);
    if (lost.pieces == 0)
        return;
    window_.beginTailProbe();
    ++stats_.probes;
}

void Connection::account(const SentLog::Lost& lost, Nanoseconds now) {
    stats_.repairs += lost.pieces;
    if (lost.charge != 0)
        window_.lost(now, lost.charge);
    if (lost.payloadProbe != 0)
        payloadProbe_.lost(now, lost.payloadProbe);
    const Nanoseconds roundTrip = timing_.roundTrip();
    if (lost.largestCharge == 0 || keepAlive_.lastHeard() - lost.newestSent <= roundTrip ||
        !payloadProbe_.missed(now, lost.largestCharge - SendWindow::kDatagramOverhead))
        return;
    const SentLog::Lost larger = sent_.giveUpLarger(payloadProbe_.payload() + SendWindow::kDatagramOverhead,
                                                    now - roundTrip - timing_.reorderWindow(), queue_);
    stats_.repairs += larger.pieces;
    timing_.endSilence();
}

void Connection::onTooBig(Nanoseconds now, std::size_t size) {
    payloadProbe_.refused(now, static_cast<std::uint32_t>(size));
}

// ------------------------------------------------------------------------------------------------- sending

void Connection::send(Block bytes) {
    ++stats_.packetsSent;
    stats_.bytesSent += bytes.size();
    keepAlive_.packetPassed();
    queue_.push(std::move(bytes));
}

KeepAlive::Message Connection::dueMessage(Nanoseconds now) const {
    if (due(Timer::deliveryProbe, now))
        return KeepAlive::Message::deliveryProbe;
    if (due(Timer::keepAlive, now))
        return keepAlive_.dueMessage(roundTrip().known(), now);
    return KeepAlive::Message::none;
}

Train Connection::poll(Nanoseconds now, std::span<std::uint8_t> buffer) {
    findLosses(now);
    if (due(Timer::payloadProbe, now))
        return probePayload(now, buffer);
    Control control;
    control.message = dueMessage(now);
    bool data = due(Timer::train, now);
    if (control.message == KeepAlive::Message::none && !data && !due(Timer::acknowledgement, now))
        return {};
    control.stamp = stamps_.due(now) || (control.message != KeepAlive::Message::none && keepAlive_.opening());
    // Copying a long train takes the system a while: stamps go ahead in a short datagram of their own.
    const std::size_t stamped = std::min<std::size_t>(payloadProbe_.payload(), kMaxStamped);
    if (control.stamp && data && queue_.readyExceeds(static_cast<std::uint32_t>(stamped - 128)))
        data = false;
    if (control.message != KeepAlive::Message::none)
        keepAlive_.sent(control.message, data, now);
    const Train train = writeTrain(now, buffer, control, data);
    const bool full = waitsForWindow();
    window_.paused(full);
    if (data) {
        stats_.windowStalls += full ? 1 : 0;
        window_.trainLeft(now, train.bytes, roundTrip().smoothed());
    }
    return train;
}

Train Connection::writeTrain(Nanoseconds now, std::span<std::uint8_t> buffer, const Control& control,
                             bool data) {
    const std::size_t payload = payloadProbe_.payload();
    const std::size_t trainLimit = std::min<std::size_t>(SendWindow::kTrainBytes, buffer.size());
    std::size_t limit = control.stamp ? std::min(payload, kMaxStamped) : payload;
    Train train;
    while (train.bytes + limit <= trainLimit || train.bytes == 0) {
        DatagramWriter writer = beginDatagram(buffer.subspan(train.bytes, limit));
        const bool ping = train.bytes == 0 && addControl(writer, now, control);
        const bool hasData = data && addFragments(writer);
        if (writer.empty())
            break;
        const std::size_t size = writer.finish();
        countSent(size, hasData || ping, now);
        if (train.bytes == 0) {
            train.segment = limit = size;
            train.stampAt = writer.stampAt();
        }
        train.bytes += size;
        if (hasData)
            window_.endTailProbe();
        if (control.stamp || size < limit || size + kFragmentHeaderBytes < payload || !due(Timer::train, now))
            break;
    }
    return train;
}

DatagramWriter Connection::beginDatagram(std::span<std::uint8_t> buffer) const {
    return {buffer, config_.connectionId, config_.initiator, static_cast<std::uint32_t>(sent_.nextNumber())};
}

bool Connection::addControl(DatagramWriter& writer, Nanoseconds now, const Control& control) {
    const bool speaks = control.message != KeepAlive::Message::none;
    if (acks_.pending() || (speaks && acks_.canReport()))
        writer.addAck(acks_.report(now, reassembly_.consumedId()));
    if (control.stamp)
        writer.addTime(stamps_.stamp(now));
    return speaks && control.message != KeepAlive::Message::keepAlive && writer.addPing();
}

bool Connection::addFragments(DatagramWriter& writer) {
    bool any = false;
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
        sent_.addPiece(*piece);
        any = true;
    }
    return any;
}

void Connection::countSent(std::size_t bytes, bool wantsAck, Nanoseconds now, std::uint32_t payloadProbe) {
    const auto charge = static_cast<std::uint32_t>(bytes) + SendWindow::kDatagramOverhead;
    sent_.add(now, wantsAck ? charge : 0, payloadProbe);
    ++stats_.datagramsSent;
    stats_.wireBytesSent += bytes;
}

Train Connection::probePayload(Nanoseconds now, std::span<std::uint8_t> buffer) {
    const std::uint32_t size = payloadProbe_.candidate();
    DatagramWriter writer = beginDatagram(buffer.first(size));
    writer.addPing();
    writer.addPaddingTo(size);
    const std::size_t bytes = writer.finish();
    payloadProbe_.sent();
    countSent(bytes, true, now, size);
    return {bytes, bytes, 0};
}

Train Connection::farewell(std::span<std::uint8_t> buffer) {
    DatagramWriter writer = beginDatagram(buffer);
    writer.addClose();
    const std::size_t bytes = writer.finish();
    countSent(bytes, false, timing_.lastProgress());
    return {bytes, bytes, 0};
}

ConnectionStatistics Connection::statistics(Nanoseconds now) const {
    ConnectionStatistics stats = stats_;
    const auto milliseconds = [](auto nanoseconds) { return static_cast<double>(nanoseconds) * 1e-6; };
    stats.roundTripLeast = milliseconds(roundTrip().least());
    stats.roundTripP50 = milliseconds(roundTrip().p50());
    stats.roundTripP99 = milliseconds(roundTrip().p99());
    if (clock().known) {
        stats.timeOffset = milliseconds(clock().offsetAt(now));
        stats.timeOffsetBound = milliseconds(clock().boundAt(now));
        stats.clockSkew = clock().skewPpm;
    }
    stats.payloadSize = payloadProbe_.payload();
    stats.window = static_cast<std::uint32_t>(window_.size());
    stats.queuedBytes = queue_.queuedBytes();
    return stats;
}

} // namespace kor::detail
