#pragma once

#include "support/Tracked.h"
#include "tests/unit/EndpointFixture.h"

#include <kor/KorLogicClient.h>

#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

/// A slave on a connection whose clock the test sets, so that every position is exact.
namespace kor::testing_support {

/// "600*1" is frame 600 with weight 1.
inline std::string applied(int frame, double weight) {
    char text[64];
    std::snprintf(text, sizeof(text), "%d*%g", frame, weight);
    return text;
}

struct Slave : KorLogicClient {
    std::vector<std::string> calls;
    std::function<void(KorData*)> atApply;
    std::vector<WAIT_RESULT> scripted; ///< results of wait instead of the real one, last first
    int clears = 0;

    using KorLogicClient::cache;
    using KorLogicClient::clear_cache;
    using KorLogicClient::client;
    using KorLogicClient::find_cache;
    using KorLogicClient::on_connect_lost;
    using KorLogicClient::on_reconnect;
    using KorLogicClient::process_cache;
    using KorLogicClient::process_data;

    void applyData(KorData* block, double weight) override {
        calls.push_back(applied(block->frameID, weight));
        if (atApply)
            atApply(block);
    }
    void on_clear() override { ++clears; }
    WAIT_RESULT wait(double timeout) override {
        if (scripted.empty())
            return KorLogicClient::wait(timeout);
        const WAIT_RESULT result = scripted.back();
        scripted.pop_back();
        return result;
    }
    std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }
};

struct SlaveFrames : testing::Test {
    LogRecorder log;
    FakeUser user{RTAddr(0x0A000001, 7000)};
    Slave slave;

    SlaveFrames() {
        slave.client = detail::makeTracked<KorClient>("test", __LINE__, "SlaveFrames");
        detail::KorClientAccess::setUser(*slave.client, &user);
        user.offset = 0;
        slave.setFrameInterval(0.5); // so that positions are exact
    }
    void receive(std::string_view bytes) { deliver(*slave.client, &user, bytes); }
    void receiveFrames(std::initializer_list<int> frames) {
        for (const int frame : frames)
            receive(frameOf(frame));
    }
    KorLogicClient::WAIT_RESULT waitAt(double position) {
        slave.setFrameDeadlineExpected(position * 0.5);
        return slave.wait(0);
    }
    /// Makes the next wait one that follows an applied frame.
    void run() {
        receiveFrames({1});
        waitAt(1);
        receiveFrames({2});
        waitAt(2);
        slave.clear_cache();
        slave.takeCalls();
        log.clear();
        user.takeSent();
    }
    int received() { return slave.client->getData().count; }
};

} // namespace kor::testing_support
