// A master and a slave in one process, over loopback broadcast, both recorded. That a frame can be followed
// from one to the other is looked at in the tests of the demo.

#include "tests/trace/TraceFile.h"
#include "tests/unit/EndpointFixture.h"

#include <kor/kor.h>
#include <kor/trace.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>

namespace {

using namespace kor;
using namespace kor::testing_support;

struct Master : KorLogicServer {
    explicit Master(Trace& ownTrace) : trace(ownTrace) {
        setFrameID(static_cast<int>(jTimer::getTimeSecond() / getFrameInterval()));
    }
    void update() override {
        const int frame = getFrameID() + 3;
        char bytes[16];
        BufferWriter writer(bytes, sizeof bytes);
        KorCoderBase::codeBegin(writer, frame);
        KorCoderBase::codeEnd(writer);
        const double begin = jTimer::getTimeSecond();
        if (server->send(writer.getData(), writer.tell()))
            trace.frameSent(frame, writer.tell(), begin, jTimer::getTimeSecond());
    }
    Trace& trace;
};

struct Slave : KorLogicClient {
    void applyData(KorData* block, double weight) override { block->applied = weight == 1.0; }
    WAIT_RESULT wait(double timeout) override {
        const WAIT_RESULT result = KorLogicClient::wait(timeout);
        ++results[result];
        return result;
    }
    std::map<WAIT_RESULT, std::size_t> results;
};

TEST(Adapters, RecordWhatTheLogicDoes) {
    LogRecorder log;
    ScratchFolder folder;
    Trace masterTrace;
    Trace slaveTrace;
    {
        TracedMaster<Master> master(masterTrace, masterTrace);
        TracedSlave<Slave> slave(slaveTrace);
        ASSERT_TRUE(masterTrace.begin({.process = "master", .log = false, .profiler = false}));
        ASSERT_TRUE(slaveTrace.begin({.process = "slave"}));
        unsigned short port = 0;
        do {
            port = freePort();
        } while (!slave.init(port, 0, "slave", {"camera"}));
        ASSERT_TRUE(master.init("127.255.255.255", port, 0, 0));
        std::atomic<bool> stop{false};
        std::thread frames([&] {
            while (!stop)
                master.swap();
        });
        while (slave.results[KorLogicClient::WAIT_LERP] < 20) {
            slave.swapBegin(true);
            jKit::sleep(5);
            slave.swapEnd(true);
        }
        stop = true;
        frames.join();
        EXPECT_TRUE(slaveTrace.write(folder.file("slave.json")));
        EXPECT_TRUE(masterTrace.write(folder.file("master.json")));

        const nlohmann::json file = traceOf(folder.file("slave.json"));
        for (const auto& [result, name] : {std::pair{KorLogicClient::WAIT_LERP, "wait lerp"},
                                           {KorLogicClient::WAIT_HIT, "wait hit"},
                                           {KorLogicClient::WAIT_OVER_HIT, "wait over_hit"},
                                           {KorLogicClient::WAIT_NONE, "wait none"}}) {
            EXPECT_EQ(eventsOf(file, "X", name).size(), slave.results[result]) << name;
        }
        EXPECT_EQ(eventsOf(file, "X", "swapEnd").size(), eventsOf(file, "X", "present").size());
        EXPECT_EQ(eventsOf(file, "C", "wait_net").size(), eventsOf(file, "X", "swapEnd").size());
        EXPECT_EQ(eventsOf(file, "i", "master connected").size(), 1U);
        EXPECT_EQ(file["otherData"]["clock"], "master");
    }
    // Destroyed while blocks may have been arriving; what was recorded can still be written.
    EXPECT_TRUE(slaveTrace.write(folder.file("slave.json")));

    const nlohmann::json master = traceOf(folder.file("master.json"));
    EXPECT_GE(eventsOf(master, "X", "update").size(), eventsOf(master, "X", "frame sent").size());
    EXPECT_GT(eventsOf(master, "X", "frame sent").size(), 0U);
    EXPECT_EQ(eventsOf(master, "i", "slave connected").size(), 1U);
}

} // namespace
