// Applications of other compilers' making reach the virtual operations by their place in the table, so the
// orders here are written by hand and never follow the headers.

#include <kit/jVector.h>
#include <kit/SignalSlot.h>
#include <kor/KorClient.h>
#include <kor/KorLogicClient.h>
#include <kor/KorLogicServer.h>
#include <kor/KorServer.h>
#include <support/RTNet.h>
#include <support/RTUser.h>
#include <support/SocketUDP.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <numeric>
#include <vector>

#if defined(__x86_64__)

namespace {

using namespace kor;

template <class Member>
std::uintptr_t placeOf(Member member) {
    std::uintptr_t word = 0;
    std::memcpy(&word, &member, sizeof word);
    return (word - 1) / sizeof(void*);
}

/// A virtual destructor takes two places.
template <class... Members>
void expectInOrder(std::uintptr_t first, Members... members) {
    std::vector<std::uintptr_t> expected(sizeof...(members));
    std::iota(expected.begin(), expected.end(), first);
    EXPECT_EQ((std::vector<std::uintptr_t>{placeOf(members)...}), expected);
}

template <class Handler>
void expectEventsFirst() {
    expectInOrder(0, &Handler::onConnect, &Handler::onReConnect, &Handler::onDisConnect,
                  &Handler::onConnectLost);
}

template <class Handler>
void expectPackets(std::uintptr_t first) {
    expectInOrder(first, &Handler::onPacket, &Handler::onSendOver);
}

// Their protected operations within reach.
struct Net : RTNet {
    using RTNet::process;
};
struct Record : Client {
    using Client::onPacket;
    using Client::onSendOver;
};
struct Master : KorServer {
    using KorServer::onConnect;
    using KorServer::onConnectLost;
    using KorServer::onDisConnect;
    using KorServer::onReConnect;
};
struct Slave : KorClient {
    using KorClient::onConnect;
    using KorClient::onConnectLost;
    using KorClient::onDisConnect;
    using KorClient::onReConnect;
};
struct MasterLogic : KorLogicServer {
    using KorLogicServer::check_slave;
    using KorLogicServer::on_client_idle;
    using KorLogicServer::onConnect;
    using KorLogicServer::onConnectLost;
    using KorLogicServer::onDisConnect;
    using KorLogicServer::onReConnect;
    using KorLogicServer::remove_slave;
};
struct SlaveLogic : KorLogicClient {
    using KorLogicClient::clear_cache;
    using KorLogicClient::find_cache;
    using KorLogicClient::on_clear;
    using KorLogicClient::on_connect;
    using KorLogicClient::on_connect_lost;
    using KorLogicClient::on_disconnect;
    using KorLogicClient::on_reconnect;
    using KorLogicClient::process_cache;
    using KorLogicClient::process_data;
};

TEST(SlotOrder, ConnectionLayer) {
    expectInOrder(0, &RTUser::getAddr, &RTUser::getPing, &RTUser::getTimeOffset, &RTUser::setPacketHandler);
    expectEventsFirst<RTUserHandler>();
    expectPackets<RTPacketHandler>(0);
    expectInOrder(2, &RTNet::release, &Net::process, &RTNet::getUserHandler, &RTNet::setUserHandler,
                  &RTNet::getTimeoutTime, &RTNet::setTimeoutTime, &RTNet::getMtuResendTimeoutTime,
                  &RTNet::setMtuResendTimeoutTime, &RTNet::getMaxValidPingTime, &RTNet::setMaxValidPingTime);
    expectInOrder(2, &jStream::release, &jStream::read, &jStream::write, &jStream::isOpened);
    expectInOrder(2, &SocketBase::release, &SocketBase::read, &SocketBase::write, &SocketBase::isOpened);
    expectInOrder(2, &SocketUDP::release, &SocketUDP::read, &SocketUDP::write, &SocketUDP::isOpened);
}

TEST(SlotOrder, Templates) {
    using Handler = FunctionHandler<void, const RTAddr&>;
    expectInOrder(0, &Handler::setObject, &Handler::getID, &Handler::clone, &Handler::invoke);
    using Ints = jVector<int>;
    expectInOrder(2, static_cast<void (Ints::*)(const int*, int)>(&Ints::push_back),
                  static_cast<void (Ints::*)(const Ints&)>(&Ints::push_back),
                  static_cast<int* (Ints::*)(const int&)>(&Ints::push_back),
                  static_cast<int* (Ints::*)()>(&Ints::push_back), &Ints::reserve, &Ints::release,
                  &Ints::grow, &Ints::reallocate);
}

TEST(SlotOrder, Endpoints) {
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
    expectEventsFirst<KorServerHandler>();
    expectEventsFirst<Master>();
    expectInOrder(4, &KorServer::getBroadcastIP, &KorServer::getBroadcastPort, &KorServer::getPorts,
                  &KorServer::getFrameID, &KorServer::getWaitTime, &KorServer::getHandler,
                  &KorServer::setHandler);
    expectEventsFirst<Slave>();
    expectInOrder(4, &KorClient::getName, &KorClient::getCamNames,
                  static_cast<const jList<KorData>& (KorClient::*)() const>(&KorClient::getData),
                  &KorClient::setData, &KorClient::getWaitTime, &KorClient::isConnected);

    Slave slave;
    EXPECT_EQ(static_cast<void*>(static_cast<RTUserHandler*>(&slave)), &slave);
    EXPECT_EQ(reinterpret_cast<char*>(static_cast<RTPacketHandler*>(&slave)),
              reinterpret_cast<char*>(&slave) + sizeof(void*))
        << "the second table, in the order of RTPacketHandler";
}

TEST(SlotOrder, Logic) {
    using Init = bool (KorLogicServer::*)(const jString&, jVector<unsigned short>&, jVector<unsigned short>&,
                                          jVector<unsigned short>&);
    using InitOne = bool (KorLogicServer::*)(const jString&, unsigned short, unsigned short, unsigned short);
    using M = MasterLogic;
    expectInOrder(0, &M::onConnect, &M::onReConnect, &M::onDisConnect, &M::onConnectLost,
                  &M::getFrameInterval, &M::setFrameInterval, &M::getFrameTime, &M::setFrameTime,
                  &M::getFrameID, &M::setFrameID, &M::getSwapTime, &M::setSwapTime, &M::getWaitTime,
                  &M::setWaitTime);
    expectInOrder(16, static_cast<Init>(&M::init), static_cast<InitOne>(&M::init), &M::release, &M::update,
                  &M::wait, &M::swap, static_cast<bool (KorLogicServer::*)(const jString&)>(&M::isSlaveExist),
                  static_cast<bool (KorLogicServer::*)(const RTAddr&)>(&M::isSlaveExist), &M::getNumSlaves,
                  static_cast<M::Slave* (KorLogicServer::*)(const jString&)>(&M::getSlave),
                  static_cast<M::Slave* (KorLogicServer::*)(const RTAddr&)>(&M::getSlave),
                  static_cast<M::Slave* (KorLogicServer::*)(int)>(&M::getSlave), &M::clear, &M::remove_slave,
                  &M::check_slave, &M::on_client_idle);

    using S = SlaveLogic;
    expectInOrder(0, &S::getFrameDeadline, &S::getFrameID, &S::getFrameInterval, &S::setFrameInterval,
                  &S::getFrameDeadlineExpected, &S::setFrameDeadlineExpected, &S::getTimeCheckResult,
                  &S::setTimeCheckResult, &S::getUnstableError, &S::setUnstableError, &S::isInit,
                  &S::isShowLog, &S::setShowLog, &S::getExpectedVsyncime, &S::setExpectedVsyncime,
                  &S::getSwapBeginTime, &S::setSwapBeginTime, &S::getSwapEndTime, &S::setSwapEndTime,
                  &S::getSwapBeginTimeLast, &S::setSwapBeginTimeLast, &S::getSwapEndTimeLast,
                  &S::setSwapEndTimeLast);
    expectInOrder(25, &S::init, &S::wait, &S::getCmds, &S::getClient, &S::getNumCache, &S::clearState,
                  &S::release, &S::applyData, &S::swapBegin, &S::swapEnd, &S::process_data, &S::process_cache,
                  &S::clear_cache, &S::find_cache, &S::on_connect, &S::on_reconnect, &S::on_disconnect,
                  &S::on_connect_lost, &S::on_clear);
}

} // namespace

#endif
