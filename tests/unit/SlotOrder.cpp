// Applications of other compilers' making reach the virtual operations by their place in the table.

#include <kor/kor.h>

#include <gmock/gmock.h>

#include <cstdint>
#include <cstring>
#include <vector>

#if defined(__x86_64__)

namespace {

using namespace kor;
using testing::ElementsAreArray;

template <class Member>
std::uintptr_t placeOf(Member member) {
    std::uintptr_t word = 0;
    std::memcpy(&word, &member, sizeof word);
    return (word - 1) / sizeof(void*);
}

template <class... Members>
void expectInOrder(std::uintptr_t first, Members... members) {
    std::vector<std::uintptr_t> expected;
    while (expected.size() < sizeof...(members)) {
        expected.push_back(first + expected.size());
    }
    EXPECT_THAT((std::vector<std::uintptr_t>{placeOf(members)...}), ElementsAreArray(expected));
}

constexpr std::uintptr_t kBehindDestructor = 2;

using Ports = jVector<unsigned short>;

struct MasterLogic : KorLogicServer {
    static void check() {
        using S = MasterLogic;
        expectInOrder(0, &S::onConnect, &S::onReConnect, &S::onDisConnect, &S::onConnectLost,
                      &S::getFrameInterval, &S::setFrameInterval, &S::getFrameTime, &S::setFrameTime,
                      &S::getFrameID, &S::setFrameID, &S::getSwapTime, &S::setSwapTime, &S::getWaitTime,
                      &S::setWaitTime);
        using ByLists = bool (S::*)(const jString&, Ports&, Ports&, Ports&);
        using ByPorts = bool (S::*)(const jString&, unsigned short, unsigned short, unsigned short);
        using HasName = bool (S::*)(const jString&);
        using HasAddr = bool (S::*)(const RTAddr&);
        using ByName = Slave* (S::*)(const jString&);
        using ByAddr = Slave* (S::*)(const RTAddr&);
        using ByIndex = Slave* (S::*)(int);
        expectInOrder(14 + kBehindDestructor, static_cast<ByLists>(&S::init), static_cast<ByPorts>(&S::init),
                      &S::release, &S::update, &S::wait, &S::swap, static_cast<HasName>(&S::isSlaveExist),
                      static_cast<HasAddr>(&S::isSlaveExist), &S::getNumSlaves,
                      static_cast<ByName>(&S::getSlave), static_cast<ByAddr>(&S::getSlave),
                      static_cast<ByIndex>(&S::getSlave), &S::clear, &S::remove_slave, &S::check_slave,
                      &S::on_client_idle);
    }
};

struct SlaveLogic : KorLogicClient {
    static void check() {
        using C = SlaveLogic;
        expectInOrder(0, &C::getFrameDeadline, &C::getFrameID, &C::getFrameInterval, &C::setFrameInterval,
                      &C::getFrameDeadlineExpected, &C::setFrameDeadlineExpected, &C::getTimeCheckResult,
                      &C::setTimeCheckResult, &C::getUnstableError, &C::setUnstableError, &C::isInit,
                      &C::isShowLog, &C::setShowLog, &C::getExpectedVsyncime, &C::setExpectedVsyncime,
                      &C::getSwapBeginTime, &C::setSwapBeginTime, &C::getSwapEndTime, &C::setSwapEndTime,
                      &C::getSwapBeginTimeLast, &C::setSwapBeginTimeLast, &C::getSwapEndTimeLast,
                      &C::setSwapEndTimeLast);
        expectInOrder(23 + kBehindDestructor, &C::init, &C::wait, &C::getCmds, &C::getClient, &C::getNumCache,
                      &C::clearState, &C::release, &C::applyData, &C::swapBegin, &C::swapEnd,
                      &C::process_data, &C::process_cache, &C::clear_cache, &C::find_cache, &C::on_connect,
                      &C::on_reconnect, &C::on_disconnect, &C::on_connect_lost, &C::on_clear);
    }
};

TEST(SlotOrder, Handlers) {
    expectInOrder(0, &RTUserHandler::onConnect, &RTUserHandler::onReConnect, &RTUserHandler::onDisConnect,
                  &RTUserHandler::onConnectLost);
    expectInOrder(0, &RTPacketHandler::onPacket, &RTPacketHandler::onSendOver);
    expectInOrder(0, &KorServerHandler::onConnect, &KorServerHandler::onReConnect,
                  &KorServerHandler::onDisConnect, &KorServerHandler::onConnectLost);
    using Handler = FunctionHandler<void, const RTAddr&>;
    expectInOrder(0, &Handler::setObject, &Handler::getID, &Handler::clone, &Handler::invoke);
}

TEST(SlotOrder, ConnectionLayer) {
    struct Net : RTNet {
        using RTNet::process;
    };
    expectInOrder(kBehindDestructor, &RTNet::release, &Net::process, &RTNet::getUserHandler,
                  &RTNet::setUserHandler, &RTNet::getTimeoutTime, &RTNet::setTimeoutTime,
                  &RTNet::getMtuResendTimeoutTime, &RTNet::setMtuResendTimeoutTime,
                  &RTNet::getMaxValidPingTime, &RTNet::setMaxValidPingTime);
    expectInOrder(0, &RTUser::getAddr, &RTUser::getPing, &RTUser::getTimeOffset, &RTUser::setPacketHandler);
}

TEST(SlotOrder, Vector) {
    using Ints = jVector<int>;
    expectInOrder(kBehindDestructor, static_cast<void (Ints::*)(const int*, int)>(&Ints::push_back),
                  static_cast<void (Ints::*)(const Ints&)>(&Ints::push_back),
                  static_cast<int* (Ints::*)(const int&)>(&Ints::push_back),
                  static_cast<int* (Ints::*)()>(&Ints::push_back), &Ints::reserve, &Ints::release,
                  &Ints::grow, &Ints::reallocate);
}

TEST(SlotOrder, ClientRecord) {
    struct Record : Client {
        using Client::onPacket;
        using Client::onSendOver;
    };
    expectInOrder(0, &Record::onPacket, &Record::onSendOver, &Client::getData, &Client::setData,
                  static_cast<RTUser* (Client::*)() const>(&Client::getUser), &Client::getAddr,
                  &Client::setAddr, &Client::getName, &Client::setName, &Client::getCamNames,
                  &Client::setCamNames, &Client::isInit, &Client::isSendOver, &Client::setSendOver,
                  &Client::getPacketID, &Client::setPacketID, &Client::getState, &Client::setState,
                  &Client::getWaitTime, &Client::setWaitTime, &Client::getIdleTimes, &Client::setIdleTimes,
                  &Client::getTotalWaitTime, &Client::setTotalWaitTime, &Client::getIDCheck,
                  &Client::setIDCheck, &Client::getTimeCheck, &Client::setTimeCheck,
                  &Client::getTimeCheckResult, &Client::setTimeCheckResult, &Client::getTotalIdleTimes,
                  &Client::setTotalIdleTimes, &Client::getDisconnectTimes, &Client::setDisconnectTimes,
                  &Client::isDebugSendOver, &Client::setDebugSendOver);
}

TEST(SlotOrder, Endpoints) {
    struct Server : KorServer {
        using KorServer::onConnect;
        using KorServer::onConnectLost;
        using KorServer::onDisConnect;
        using KorServer::onReConnect;
    };
    expectInOrder(0, &Server::onConnect, &Server::onReConnect, &Server::onDisConnect, &Server::onConnectLost,
                  &KorServer::getBroadcastIP, &KorServer::getBroadcastPort, &KorServer::getPorts,
                  &KorServer::getFrameID, &KorServer::getWaitTime, &KorServer::getHandler,
                  &KorServer::setHandler);
    struct Slave : KorClient {
        using KorClient::onConnect;
        using KorClient::onConnectLost;
        using KorClient::onDisConnect;
        using KorClient::onReConnect;
    };
    expectInOrder(0, &Slave::onConnect, &Slave::onReConnect, &Slave::onDisConnect, &Slave::onConnectLost,
                  &KorClient::getName, &KorClient::getCamNames,
                  static_cast<const jList<KorData>& (KorClient::*)() const>(&KorClient::getData),
                  &KorClient::setData, &KorClient::getWaitTime, &KorClient::isConnected);
}

TEST(SlotOrder, Logic) {
    MasterLogic::check();
    SlaveLogic::check();
}

} // namespace

#endif
