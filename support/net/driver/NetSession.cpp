#include "support/net/driver/NetSession.h"

#include "support/platform/SystemRandom.h"

#include <support/jTimer.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

namespace kor::detail {

namespace {
constexpr int kGoodbyes = 3;
constexpr auto kGoodbyeInterval = std::chrono::milliseconds(2);
constexpr std::uint32_t kReceiveSlack = 8u << 20; // packets begun while one of the largest size is under way
constexpr std::size_t kTrainBytes = 64u << 10;

bool randomWord(std::uint64_t& word) {
    std::array<std::uint8_t, sizeof word> bytes;
    const bool ok = systemRandom(bytes);
    std::memcpy(&word, bytes.data(), sizeof word);
    return ok;
}

UdpSocketOptions socketOptions(const NetOptions& options) {
    UdpSocketOptions result;
    result.receiveBufferBytes = options.receiveBufferBytes;
    result.sendBufferBytes = options.sendBufferBytes;
    result.segmentationOffload = options.segmentationOffload;
    result.receiveOffload = options.receiveOffload;
    result.batchSend = options.batchSend;
    result.batchReceive = options.batchReceive;
    result.kernelTimeStamps = options.kernelTimeStamps;
    return result;
}
} // namespace

NetSession::NetSession(const NetOptions& options, Poller& poller, std::mutex& coreMutex)
    : options_(options),
      poller_(poller),
      coreMutex_(coreMutex),
      sender_(sockets_, {options.batchSend, options.warmSends}),
      trainBuffer_(kTrainBytes),
      lastBusy_(clockNow()) {}

std::unique_ptr<NetSession> NetSession::open(const std::vector<std::uint16_t>& ports,
                                             const NetOptions& options, std::uint64_t firstSerial,
                                             Poller& poller, std::mutex& coreMutex, std::string& error) {
    if (!poller.isOpen()) {
        error = "the system has no file descriptor left";
        return nullptr;
    }
    std::unique_ptr<NetSession> session(new NetSession(options, poller, coreMutex));
    if (!session->openSockets(ports, error) || !session->openEndpoint(firstSerial, error))
        return nullptr;
    return session;
}

bool NetSession::openSockets(const std::vector<std::uint16_t>& ports, std::string& error) {
    for (const std::uint16_t port : ports) {
        auto socket = std::make_unique<UdpSocket>();
        if (!socket->open(port, socketOptions(options_))) {
            error = "port " + std::to_string(port) + ": " + socket->error();
            return false;
        }
        poller_.add(socket->fd());
        sockets_.push_back(std::move(socket));
    }
    return true;
}

bool NetSession::openEndpoint(std::uint64_t firstSerial, std::string& error) {
    EndpointConfig config;
    if (!randomWord(config.cookieSecret.low) || !randomWord(config.cookieSecret.high)) {
        error = "the system gives no random bytes";
        return false;
    }
    config.mine.maxPacketBytes = std::clamp<std::uint32_t>(options_.maxPacketBytes, 1, INT32_MAX);
    config.mine.receiveLimitBytes = config.mine.maxPacketBytes + kReceiveSlack;
    config.mine.socketBufferBytes = UINT32_MAX;
    for (const auto& socket : sockets_)
        config.mine.socketBufferBytes =
            std::min(config.mine.socketBufferBytes, socket->features().receiveBufferBytes);
    config.mine.maxDatagramPayload =
        std::clamp<std::uint32_t>(options_.maxDatagramPayload, 548, kMaxDatagramBytes);
    config.maxPeers = options_.maxPeers;
    config.firstSerial = firstSerial;
    config.random = [] {
        std::uint64_t word = 0;
        while (!randomWord(word) || word == 0) {
        }
        return word;
    };
    endpoint_.emplace(std::move(config), clockNow());
    return true;
}

void NetSession::sayGoodbye() {
    for (int i = 0; i != kGoodbyes && endpoint_->connectionCount() != 0; ++i) {
        if (i != 0)
            std::this_thread::sleep_for(kGoodbyeInterval);
        endpoint_->sayGoodbye(trainBuffer_, sender_);
        sender_.flush();
    }
}

std::vector<std::uint16_t> NetSession::localPorts() const {
    std::vector<std::uint16_t> ports;
    for (const auto& socket : sockets_)
        ports.push_back(socket->localPort());
    return ports;
}

Ring<NetEvent>& NetSession::takeEvents() {
    endpoint_->takeEvents(events_);
    return events_;
}

void NetSession::addStatistics(NetStatistics& result) const {
    endpoint_->addStatistics(result);
    result.gatherings = gathering_.count();
    result.warmSends = sender_.warmer().isOpen();
    for (const auto& socket : sockets_) {
        const UdpSocketFeatures& features = socket->features();
        const UdpSocketCounters counters = socket->counters();
        result.systemCallsSend += counters.systemCallsSend;
        result.systemCallsReceive += counters.systemCallsReceive;
        result.kernelDrops += counters.kernelDrops;
        result.segmentationOffload |= features.segmentationOffload;
        result.receiveOffload |= features.receiveOffload;
        result.batchSend |= features.batchSend;
        result.batchReceive |= features.batchReceive;
        result.kernelTimeStamps |= features.kernelTimeStamps;
        result.receiveBufferBytes = features.receiveBufferBytes;
        result.sendBufferBytes = features.sendBufferBytes;
    }
}

} // namespace kor::detail
