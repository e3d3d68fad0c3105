#include "support/net/NetDriver.h"

#include "support/platform/SystemRandom.h"
#include "support/platform/ThreadTuning.h"

#include <support/AtomicLock.h>
#include <support/jLog.h>
#include <support/jTimer.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <utility>

namespace kor::detail {

namespace {
constexpr int kGoodbyes = 3;
constexpr auto kGoodbyeInterval = std::chrono::milliseconds(2);
constexpr std::uint32_t kReceiveSlack = 8u << 20; // packets begun while one of the largest size is under way

RTAddr addrOf(std::uint64_t key) {
    return {static_cast<std::uint32_t>(key >> 16), static_cast<std::uint16_t>(key & 0xFFFF)};
}

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

// ------------------------------------------------------------------------------------------ open and close

bool NetDriver::open(const std::vector<std::uint16_t>& ports, const NetOptions& options, std::string& error) {
    if (!poller_.isOpen()) {
        error = "the system has no file descriptor left";
        return false;
    }
    std::vector<std::unique_ptr<UdpSocket>> sockets;
    std::vector<std::uint16_t> localPorts;
    std::uint32_t buffer = UINT32_MAX;
    for (const std::uint16_t port : ports) {
        auto socket = std::make_unique<UdpSocket>();
        if (!socket->open(port, socketOptions(options))) {
            error = "port " + std::to_string(port) + ": " + socket->error();
            return false;
        }
        buffer = std::min(buffer, socket->features().receiveBufferBytes);
        localPorts.push_back(socket->localPort());
        sockets.push_back(std::move(socket));
    }
    EndpointConfig config;
    if (!randomWord(config.cookieSecret.low) || !randomWord(config.cookieSecret.high)) {
        error = "the system gives no random bytes";
        return false;
    }
    config.mine.maxPacketBytes = std::clamp<std::uint32_t>(options.maxPacketBytes, 1, INT32_MAX);
    config.mine.receiveLimitBytes = config.mine.maxPacketBytes + kReceiveSlack;
    config.mine.socketBufferBytes = buffer;
    config.mine.maxDatagramPayload =
        std::clamp<std::uint32_t>(options.maxDatagramPayload, 548, kMaxDatagramBytes);
    config.maxPeers = options.maxPeers;
    config.random = [] {
        std::uint64_t word = 0;
        while (!randomWord(word) || word == 0) {
        }
        return word;
    };

    if (!batch_)
        batch_ = std::make_unique<ReceiveBatch>();
    trainBuffer_.resize(std::size_t{64} << 10);
    {
        const std::lock_guard lock(coreMutex_);
        options_ = options;
        sockets_ = std::move(sockets);
        sender_.emplace(sockets_, TrainSender::Options{options.batchSend, options.warmSends});
        config.firstSerial = nextSerial_;
        endpoint_.emplace(std::move(config), clockNow());
        ports_ = std::move(localPorts);
        lastBusy_ = clockNow();
        gatherings_ = 0;
        poller_.clear();
        for (const auto& socket : sockets_)
            poller_.add(socket->fd());
    }
    applyTimes();
    return true;
}

void NetDriver::close() {
    layerThread_.store(std::thread::id{});
    const std::lock_guard lock(coreMutex_);
    if (!endpoint_)
        return;
    for (int i = 0; i != kGoodbyes && endpoint_->connectionCount() != 0; ++i) {
        if (i != 0)
            std::this_thread::sleep_for(kGoodbyeInterval);
        endpoint_->sayGoodbye(trainBuffer_, *sender_);
        sender_->flush();
    }
    poller_.clear();
    sender_.reset();
    nextSerial_ = endpoint_->nextSerial();
    endpoint_.reset();
    sockets_.clear();
    ports_.clear();
    const std::lock_guard usersLock(usersMutex_);
    usersByKey_.clear();
    for (auto& [serial, user] : users_) {
        user.peer->close();
        retired_.push_back(std::move(user));
    }
    users_.clear();
    while (retired_.size() > kRetired)
        retired_.pop_front();
    lastUser_ = nullptr;
    dispatching_ = Ring<NetEvent>();
    handedUp_.clear();
    ownOutboxes_.clear();
    deadline_ = kNow;
    onlyReports_ = tookOutboxes_ = moreWaits_ = midPacket_ = false;
    rest_ = Rest::none;
    lastArrival_ = 0;
    expectsMany_ = true;
    const std::lock_guard outboxLock(outboxMutex_);
    outboxes_.clear();
}

void NetDriver::beginThread() {
    layerThread_.store(std::this_thread::get_id());
    prepareNetworkThread("kor-net");
    setSpinHook(&NetDriver::spinHook, this);
}

// ---------------------------------------------------------------------------------------- the layer's thread

void NetDriver::turn() {
    rest();
    receive();
    dispatch();
    sendOut();
}

// ------------------------------------------------------------------------------------------------ callbacks

bool NetDriver::takeEvents() {
    const std::lock_guard lock(coreMutex_);
    endpoint_->takeEvents(dispatching_);
    return !dispatching_.empty();
}

void NetDriver::dispatch() {
    while (takeEvents())
        for (; !dispatching_.empty(); dispatching_.pop()) {
            inCallback_ = true;
            spins_ = 0;
            dispatchEvent(dispatching_.front());
            inCallback_ = false;
        }
}

void NetDriver::dispatchEvent(NetEvent& event) {
    const RTAddr addr = addrOf(event.addressKey);
    switch (event.kind) {
    case NetEvent::Kind::connected:
        dispatchConnected(event, addr);
        break;
    case NetEvent::Kind::failed:
        userHandler_.call([&](RTUserHandler* handler) { handler->onConnect(addr, false); });
        break;
    case NetEvent::Kind::reconnecting:
    case NetEvent::Kind::disconnected:
    case NetEvent::Kind::lost:
        dispatchEnded(event, addr);
        break;
    case NetEvent::Kind::packet:
        dispatchPacket(event);
        break;
    case NetEvent::Kind::measured:
        publish(event);
        break;
    case NetEvent::Kind::delivered:
        dispatchDelivered(event);
        break;
    }
}

void NetDriver::dispatchConnected(const NetEvent& event, const RTAddr& addr) {
    if (userOf(event.serial) == nullptr) {
        std::uint32_t maxPacketBytes = options_.maxPacketBytes;
        {
            const std::lock_guard lock(coreMutex_);
            if (const Connection* connection = endpoint_->find(event.serial))
                maxPacketBytes = std::min(maxPacketBytes, connection->config().theirs.maxPacketBytes);
        }
        User user;
        user.peer =
            std::make_shared<NetPeer>(*this, addr, event.serial, maxPacketBytes, options_.maxQueuedBytes);
        user.user = std::make_unique<NetUser>(user.peer);
        const std::lock_guard lock(usersMutex_);
        usersByKey_[event.addressKey] = user.user.get();
        users_[event.serial] = std::move(user);
    }
    userHandler_.call([&](RTUserHandler* handler) { handler->onConnect(addr, true); });
}

void NetDriver::dispatchEnded(const NetEvent& event, const RTAddr& addr) {
    User user;
    {
        const std::lock_guard lock(usersMutex_);
        const auto found = users_.find(event.serial);
        if (found == users_.end())
            return;
        user = std::move(found->second);
        users_.erase(found);
        lastUser_ = nullptr;
        const auto byKey = usersByKey_.find(event.addressKey);
        if (byKey != usersByKey_.end() && byKey->second == user.user.get())
            usersByKey_.erase(byKey);
    }
    user.peer->close();
    userHandler_.call([&](RTUserHandler* handler) {
        if (event.kind == NetEvent::Kind::reconnecting)
            handler->onReConnect(addr);
        else if (event.kind == NetEvent::Kind::disconnected)
            handler->onDisConnect(addr);
        else
            handler->onConnectLost(addr);
    });
    User oldest; // freed after the lock is given back
    const std::lock_guard lock(usersMutex_);
    retired_.push_back(std::move(user));
    if (retired_.size() > kRetired) {
        oldest = std::move(retired_.front());
        retired_.pop_front();
    }
}

void NetDriver::dispatchPacket(NetEvent& event) {
    const std::uint32_t size = event.bytes.size();
    if (User* const user = userOf(event.serial)) {
        Packet packet{size, event.bytes.data(), true};
        user->peer->handler().call(
            [&](RTPacketHandler* handler) { handler->onPacket(user->user.get(), &packet); });
        if (!packet.owned)
            event.bytes.release();
    }
    event.bytes = Block{};
    handedUp_.push_back({event.serial, size});
}

void NetDriver::dispatchDelivered(const NetEvent& event) {
    User* const user = userOf(event.serial);
    if (user == nullptr)
        return;
    RS_SendPacketsQueue send{user->peer->delivered()};
    user->peer->handler().call(
        [&](RTPacketHandler* handler) { handler->onSendOver(user->user.get(), &send); });
}

void NetDriver::publish(const NetEvent& event) {
    User* const user = userOf(event.serial);
    if (user == nullptr)
        return;
    const std::lock_guard lock(coreMutex_);
    if (const Connection* connection = endpoint_->find(event.serial))
        user->peer->publish(connection->clock(), connection->roundTrip().smoothed());
}

NetDriver::User* NetDriver::userOf(std::uint64_t serial) {
    if (lastUser_ != nullptr && lastUser_->peer->serial() == serial)
        return lastUser_;
    const auto found = users_.find(serial);
    if (found == users_.end())
        return nullptr;
    lastUser_ = &found->second;
    return lastUser_;
}

// -------------------------------------------------------------------------------------- from other threads

NET_CONNECT_ATTEMPT_RET NetDriver::connect(const jString& ip, std::uint16_t port, int tryMilliseconds,
                                           int tries) {
    RTAddr addr;
    const bool good = addr.set(ip, port) && port != 0 && addr.getIP() != 0;
    NET_CONNECT_ATTEMPT_RET result = NET_CONNECT_ATTEMPT_BAD_ADDRESS;
    {
        const std::lock_guard lock(coreMutex_);
        if (!endpoint_)
            return NET_CONNECT_ATTEMPT_CLOSED;
        if (!good) {
            endpoint_->reportFailed(addr.getKey());
        } else {
            switch (
                endpoint_->connect(addr, std::max(tryMilliseconds, 1) * kMillisecond, tries, clockNow())) {
            case Endpoint::Connect::started:
                result = NET_CONNECT_ATTEMPT_STARTED;
                break;
            case Endpoint::Connect::connected:
                result = NET_CONNECT_ATTEMPT_CONNECTED;
                break;
            case Endpoint::Connect::pending:
                result = NET_CONNECT_ATTEMPT_PENDING;
                break;
            }
        }
    }
    wake();
    return result;
}

RTUser* NetDriver::userByKey(std::uint64_t key) {
    const std::lock_guard lock(usersMutex_);
    const auto found = usersByKey_.find(key);
    return found == usersByKey_.end() ? nullptr : found->second;
}

std::vector<std::uint16_t> NetDriver::localPorts() const {
    const std::lock_guard lock(coreMutex_);
    return ports_;
}

NetDriver::Times NetDriver::times() const {
    const std::lock_guard lock(timesMutex_);
    return times_;
}

void NetDriver::setTimes(const Times& times) {
    {
        const std::lock_guard lock(timesMutex_);
        times_ = times;
    }
    applyTimes();
    wake();
}

void NetDriver::applyTimes() {
    const Times times = this->times();
    const double delay = std::clamp(times.longestClockDelay, 0.0, 1e6);
    const std::lock_guard lock(coreMutex_);
    if (endpoint_)
        endpoint_->setTimes(std::max(times.timeout, 1u) * kMillisecond,
                            std::max(times.longestRepairWait, 1u) * kMillisecond,
                            static_cast<Nanoseconds>(delay * 1e6), clockNow());
}

ConnectionStatistics NetDriver::connectionStatistics(std::uint64_t serial) const {
    const std::lock_guard lock(coreMutex_);
    if (!endpoint_)
        return {};
    const Connection* connection = endpoint_->find(serial);
    return connection != nullptr ? connection->statistics(clockNow()) : ConnectionStatistics{};
}

NetStatistics NetDriver::statistics() const {
    NetStatistics result;
    const std::lock_guard lock(coreMutex_);
    if (endpoint_)
        endpoint_->addStatistics(result);
    result.gatherings = gatherings_.load(std::memory_order_relaxed);
    result.warmSends = sender_ && sender_->warmer().isOpen();
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
    return result;
}

} // namespace kor::detail
