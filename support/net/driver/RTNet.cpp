#include <support/RTNet.h>

#include "support/net/driver/NetDriver.h"
#include "support/Tracked.h"

#include <support/jLog.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

namespace kor {

RTNet::RTNet()
    : driver_(std::allocate_shared<detail::NetDriver>(
          detail::TrackedAllocator<detail::NetDriver, "support/net/driver/RTNet", "RTNet::RTNet">())) {}

RTNet::~RTNet() {
    RTNet::release();
}

bool RTNet::init(unsigned short port) {
    jVector<unsigned short> ports;
    ports.push_back(port);
    return init(ports);
}

bool RTNet::init(jVector<unsigned short>& ports) {
    if (running()) {
        jLog::error("%s:open already, release first", "RTNet::init");
        return false;
    }
    if (ports.count < 1) {
        jLog::error("%s:no port given", "RTNet::init");
        return false;
    }
    std::string error;
    if (!driver_->open(std::vector<std::uint16_t>(ports.data, ports.data + ports.count), options_, error)) {
        jLog::error("%s:%s", "RTNet::init", error.c_str());
        return false;
    }
    if (!start()) {
        jLog::error("%s:the system gives no thread", "RTNet::init");
        driver_->close();
        return false;
    }
    return true;
}

void RTNet::release() {
    if (onOwnThread()) {
        jLog::error("%s:called from a callback", "RTNet::release");
        return;
    }
    requestStop();
    driver_->wake();
    jThread::release();
    driver_->close();
}

void RTNet::process() {
    if (!driver_->onLayerThread())
        driver_->beginThread();
    try {
        driver_->turn();
    } catch (const std::bad_alloc&) {
        // Packets that do not fit are refused before; without a few bytes more nothing can go on.
        jLog::error("%s:out of memory", "RTNet::process");
        std::abort();
    }
}

NET_CONNECT_ATTEMPT_RET RTNet::connect(const jString& ip, unsigned short port, int attemptMilliseconds,
                                       int attempts) {
    return driver_->connect(ip, port, attemptMilliseconds, attempts);
}

RTUser* RTNet::getUserByAddr(const RTAddr& addr) {
    return driver_->userByKey(addr.getKey());
}

jVector<unsigned short> RTNet::getLocalPorts() const {
    jVector<unsigned short> ports;
    for (const std::uint16_t port : driver_->localPorts())
        ports.push_back(port);
    return ports;
}

void RTNet::setOptions(const NetOptions& options) {
    options_ = options;
}
const NetOptions& RTNet::getOptions() const {
    return options_;
}
NetStatistics RTNet::getStatistics() const {
    return driver_->statistics();
}

RTUserHandler* RTNet::getUserHandler() {
    return driver_->userHandler().get();
}
void RTNet::setUserHandler(RTUserHandler* handler) {
    driver_->userHandler().set(handler, onOwnThread());
}

unsigned int RTNet::getTimeoutTime() {
    return driver_->times().timeout;
}

void RTNet::setTimeoutTime(unsigned int milliseconds) {
    detail::NetDriver::Times times = driver_->times();
    times.timeout = milliseconds;
    driver_->setTimes(times);
}

unsigned int RTNet::getMtuResendTimeoutTime() {
    return driver_->times().maxRepairWait;
}

void RTNet::setMtuResendTimeoutTime(unsigned int milliseconds) {
    detail::NetDriver::Times times = driver_->times();
    times.maxRepairWait = milliseconds;
    driver_->setTimes(times);
}

double RTNet::getMaxValidPingTime() {
    return driver_->times().maxClockDelay;
}

void RTNet::setMaxValidPingTime(double milliseconds) {
    detail::NetDriver::Times times = driver_->times();
    times.maxClockDelay = milliseconds;
    driver_->setTimes(times);
}

} // namespace kor
