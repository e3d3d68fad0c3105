#include "support/net/driver/NetDriver.h"

#include "support/platform/ThreadTuning.h"

#include <support/AtomicLock.h>
#include <support/jTimer.h>

#include <algorithm>
#include <utility>

namespace kor::detail {

namespace {
constexpr int kSpinsBeforePump = 256; // most locks are held for less than this
constexpr Nanoseconds kPumpWait = 50 * kMicrosecond;

RTAddr addrOf(std::uint64_t key) {
    return {static_cast<std::uint32_t>(key >> 16), static_cast<std::uint16_t>(key & 0xFFFF)};
}

NET_CONNECT_ATTEMPT_RET resultOf(Endpoint::Connect connect) {
    switch (connect) {
    case Endpoint::Connect::started:
        return NET_CONNECT_ATTEMPT_STARTED;
    case Endpoint::Connect::connected:
        return NET_CONNECT_ATTEMPT_CONNECTED;
    case Endpoint::Connect::pending:
        break;
    }
    return NET_CONNECT_ATTEMPT_PENDING;
}
} // namespace

// ------------------------------------------------------------------------------------------ open and close

bool NetDriver::open(const std::vector<std::uint16_t>& ports, const NetOptions& options, std::string& error) {
    close();
    auto session = NetSession::open(ports, options, nextSerial_, poller_, coreMutex_, error);
    if (!session)
        return false;
    const std::lock_guard lock(coreMutex_);
    session_ = std::move(session);
    applyTimes();
    return true;
}

void NetDriver::close() {
    layerThread_.store(std::thread::id{});
    const std::lock_guard lock(coreMutex_);
    if (!session_)
        return;
    session_->sayGoodbye();
    users_.closeAll();
    nextSerial_ = session_->endpoint().nextSerial();
    session_.reset();
}

void NetDriver::beginThread() {
    layerThread_.store(std::this_thread::get_id());
    prepareNetworkThread("kor-net");
    setSpinHook(&NetDriver::spinHook, this);
}

// ---------------------------------------------------------------------------------------- the layer's thread

void NetDriver::turn() {
    session_->wait();
    session_->receive();
    dispatch();
    sendOut();
}

void NetDriver::sendOut() {
    const std::lock_guard lock(coreMutex_);
    session_->sendOut(users_);
}

bool NetDriver::noteOutbox(std::uint64_t serial) {
    if (!session_)
        return false; // nobody would send it
    if (onLayerThread()) {
        session_->noteOwnOutbox(serial);
        return false;
    }
    session_->noteOutbox(serial);
    return true;
}

void NetDriver::spinHook(void* self) {
    static_cast<NetDriver*>(self)->pump();
}

void NetDriver::pump() {
    // Only a callback may wait long; and input and output must not start within themselves.
    if (!inCallback_ || pumping_ || ++spins_ < kSpinsBeforePump)
        return;
    pumping_ = true;
    poller_.wait(clockNow() + kPumpWait);
    session_->receive();
    sendOut();
    pumping_ = false;
}

// ------------------------------------------------------------------------------------------------ callbacks

Ring<NetEvent>& NetDriver::takeEvents() {
    const std::lock_guard lock(coreMutex_);
    return session_->takeEvents();
}

void NetDriver::dispatch() {
    for (Ring<NetEvent>* events = &takeEvents(); !events->empty(); events = &takeEvents())
        for (; !events->empty(); events->pop()) {
            inCallback_ = true;
            spins_ = 0;
            dispatchEvent(events->front());
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
    if (users_.find(event.serial) == nullptr) {
        const NetOptions& options = session_->options();
        std::uint32_t maxPacketBytes = options.maxPacketBytes;
        {
            const std::lock_guard lock(coreMutex_);
            if (const Connection* connection = session_->endpoint().find(event.serial))
                maxPacketBytes = std::min(maxPacketBytes, connection->config().theirs.maxPacketBytes);
        }
        users_.add(std::allocate_shared<NetPeer>(
            TrackedAllocator<NetPeer, "support/net/driver/NetDriver", "NetDriver::dispatchConnected">(),
            *this, addr, event.serial, maxPacketBytes, options.maxQueuedBytes));
    }
    userHandler_.call([&](RTUserHandler* handler) { handler->onConnect(addr, true); });
}

void NetDriver::dispatchEnded(const NetEvent& event, const RTAddr& addr) {
    UserTable::User user = users_.take(event.serial);
    if (!user.peer)
        return;
    user.peer->close();
    userHandler_.call([&](RTUserHandler* handler) {
        if (event.kind == NetEvent::Kind::reconnecting)
            handler->onReConnect(addr);
        else if (event.kind == NetEvent::Kind::disconnected)
            handler->onDisConnect(addr);
        else
            handler->onConnectLost(addr);
    });
    users_.retire(std::move(user));
}

void NetDriver::dispatchPacket(NetEvent& event) {
    const std::uint32_t size = event.bytes.size();
    if (UserTable::User* const user = users_.find(event.serial)) {
        Packet packet{size, event.bytes.data(), true};
        user->peer->handler().call(
            [&](RTPacketHandler* handler) { handler->onPacket(user->user.get(), &packet); });
        if (!packet.owned)
            event.bytes.release();
    }
    event.bytes = Block{};
    session_->noteConsumed(event.serial, size);
}

void NetDriver::dispatchDelivered(const NetEvent& event) {
    UserTable::User* const user = users_.find(event.serial);
    if (user == nullptr)
        return;
    RS_SendPacketsQueue send{user->peer->delivered()};
    user->peer->handler().call(
        [&](RTPacketHandler* handler) { handler->onSendOver(user->user.get(), &send); });
}

void NetDriver::publish(const NetEvent& event) {
    UserTable::User* const user = users_.find(event.serial);
    if (user == nullptr)
        return;
    const std::lock_guard lock(coreMutex_);
    if (const Connection* connection = session_->endpoint().find(event.serial))
        user->peer->publish(connection->clock(), connection->roundTrip().smoothed());
}

// -------------------------------------------------------------------------------------- from other threads

NET_CONNECT_ATTEMPT_RET NetDriver::connect(const jString& ip, std::uint16_t port, int tryMilliseconds,
                                           int tries) {
    RTAddr addr;
    const bool good = addr.set(ip, port) && port != 0 && addr.getIP() != 0;
    NET_CONNECT_ATTEMPT_RET result = NET_CONNECT_ATTEMPT_BAD_ADDRESS;
    {
        const std::lock_guard lock(coreMutex_);
        if (!session_)
            return NET_CONNECT_ATTEMPT_CLOSED;
        Endpoint& endpoint = session_->endpoint();
        if (good)
            result = resultOf(
                endpoint.connect(addr, std::max(tryMilliseconds, 1) * kMillisecond, tries, clockNow()));
        else
            endpoint.reportFailed(addr.getKey());
    }
    wake();
    return result;
}

std::vector<std::uint16_t> NetDriver::localPorts() const {
    const std::lock_guard lock(coreMutex_);
    return session_ ? session_->localPorts() : std::vector<std::uint16_t>{};
}

NetDriver::Times NetDriver::times() const {
    const std::lock_guard lock(coreMutex_);
    return times_;
}

void NetDriver::setTimes(const Times& times) {
    {
        const std::lock_guard lock(coreMutex_);
        times_ = times;
        applyTimes();
    }
    wake();
}

/// The core's mutex is held.
void NetDriver::applyTimes() {
    const double delay = std::clamp(times_.maxClockDelay, 0.0, 1e6);
    if (session_)
        session_->endpoint().setTimes({std::max(times_.timeout, 1u) * kMillisecond,
                                       std::max(times_.maxRepairWait, 1u) * kMillisecond,
                                       static_cast<Nanoseconds>(delay * 1e6)},
                                      clockNow());
}

ConnectionStatistics NetDriver::connectionStatistics(std::uint64_t serial) const {
    const std::lock_guard lock(coreMutex_);
    const Connection* connection = session_ ? session_->endpoint().find(serial) : nullptr;
    return connection != nullptr ? connection->statistics(clockNow()) : ConnectionStatistics{};
}

NetStatistics NetDriver::statistics() const {
    NetStatistics result;
    const std::lock_guard lock(coreMutex_);
    if (session_)
        session_->addStatistics(result);
    return result;
}

} // namespace kor::detail
