#include <support/RTUser.h>

#include "support/net/driver/NetDriver.h"
#include "support/net/driver/NetPeer.h"

#include <support/jLog.h>
#include <support/jTimer.h>

#include <cinttypes>
#include <utility>

namespace kor {

RTUser::RTUser(std::shared_ptr<detail::NetPeer> peer) : peer_(std::move(peer)) {}
RTUser::~RTUser() = default;

std::uint64_t RTUser::sendAsyn(const void* data, int size) {
    return peer_->enqueue(data, size);
}

const RTAddr& RTUser::getAddr() const {
    return peer_->addr();
}

double RTUser::getPing() const {
    return static_cast<double>(peer_->roundTrip()) * 1e-6;
}

double RTUser::getTimeOffset() const {
    const detail::ClockEstimate clock = peer_->clock();
    return clock.known ? clock.offsetAt(detail::clockNow()) * 1e-6 : -1e9;
}

double RTUser::getTimeOffsetErrorBound() const {
    const detail::ClockEstimate clock = peer_->clock();
    return clock.known ? clock.boundAt(detail::clockNow()) * 1e-6 : 0.0;
}

double RTUser::getClockSkew() const {
    const detail::ClockEstimate clock = peer_->clock();
    return clock.known ? clock.skewPpm : 0.0;
}

void RTUser::setPacketHandler(RTPacketHandler* handler) {
    peer_->handler().set(handler, peer_->driver().onLayerThread());
}

ConnectionStatistics RTUser::getStatistics() const {
    return peer_->driver().connectionStatistics(peer_->serial());
}

void RTUser::printStatistics() {
    const ConnectionStatistics s = getStatistics();
    const NetStatistics n = peer_->driver().statistics();
    const jString addr = getAddr().formatString();
    jLog::message("[%s] round trip least %.3f ms, p50 %.3f ms, p99 %.3f ms", addr.c_str(), s.roundTripLeast,
                  s.roundTripP50, s.roundTripP99);
    jLog::message("[%s] clock offset %.6f ms, bound %.6f ms, skew %.3f ppm", addr.c_str(), s.timeOffset,
                  s.timeOffsetBound, s.clockSkew);
    jLog::message("[%s] packets sent %" PRIu64 ", delivered %" PRIu64 ", received %" PRIu64
                  "; bytes sent %" PRIu64 ", received %" PRIu64 ", queued %" PRIu64,
                  addr.c_str(), s.packetsSent, s.packetsDelivered, s.packetsReceived, s.bytesSent,
                  s.bytesReceived, s.queuedBytes);
    jLog::message("[%s] datagrams sent %" PRIu64 " (%" PRIu64 " bytes), received %" PRIu64 " (%" PRIu64
                  " bytes), payload %u, window %u",
                  addr.c_str(), s.datagramsSent, s.wireBytesSent, s.datagramsReceived, s.wireBytesReceived,
                  s.payloadSize, s.window);
    jLog::message("[%s] repairs %" PRIu64 " (%" PRIu64 " spurious, %" PRIu64 " probes), duplicates %" PRIu64
                  ", gap reports %" PRIu64 ", window stalls %" PRIu64,
                  addr.c_str(), s.repairs, s.spuriousRepairs, s.probes, s.duplicates, s.gapReports,
                  s.windowStalls);
    jLog::message("[%s] layer: malformed %" PRIu64 " short, %" PRIu64 " checksum, %" PRIu64 " kind, %" PRIu64
                  " frame, %" PRIu64 " connection, %" PRIu64 " limit; kernel drops %" PRIu64,
                  addr.c_str(), n.malformed.tooShort, n.malformed.checksum, n.malformed.unknownKind,
                  n.malformed.badFrame, n.malformed.unknownConnection, n.malformed.overLimit, n.kernelDrops);
    jLog::message("[%s] in use:%s%s%s%s%s%s%s; receive buffer %u, send buffer %u", addr.c_str(),
                  n.segmentationOffload ? " segmentation offload" : "",
                  n.receiveOffload ? " receive offload" : "", n.batchSend ? " sendmmsg" : "",
                  n.batchReceive ? " recvmmsg" : "", n.kernelTimeStamps ? " kernel stamps" : "",
                  n.warmSends ? " warm sends" : "", n.gatherings != 0 ? " gathering" : "",
                  n.receiveBufferBytes, n.sendBufferBytes);
}

} // namespace kor
