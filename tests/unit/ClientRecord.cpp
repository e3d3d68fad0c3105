// The master's record of one slave: introductions, received packets, sends.

#include "tests/unit/EndpointFixture.h"

#include <kor/Client.h>
#include <support/memInfo.h>

#include <gmock/gmock.h>

namespace {

using namespace kor;
using namespace kor::testing_support;
using testing::ElementsAre;

std::vector<std::string> camerasOf(const Client& client) {
    std::vector<std::string> names;
    for (const jString& name : client.getCamNames())
        names.emplace_back(name.c_str());
    return names;
}

struct ClientRecord : testing::Test {
    LogRecorder log;
    FakeUser user{RTAddr(0x0A000005, 7000)};
    Client client;

    ClientRecord() { client.setUser(&user); }
    ~ClientRecord() override {
        client.release();
        client.clearData();
    }

    RTPacketHandler& handler() { return client; }
    void receive(std::string_view bytes) { deliver(client, &user, bytes); }
    void finish(std::int64_t id) {
        RS_SendPacketsQueue finished{static_cast<std::uint64_t>(id)};
        handler().onSendOver(&user, &finished);
    }
    std::string printed(std::string_view bytes) {
        testing::internal::CaptureStdout();
        receive(bytes);
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(ClientRecord, StartsWithoutIntroduction) {
    const Client fresh;
    EXPECT_FALSE(fresh.isInit());
    EXPECT_FALSE(fresh.isSendOver());
    EXPECT_TRUE(fresh.getName().empty());
    EXPECT_TRUE(fresh.getCamNames().empty());
    EXPECT_EQ(fresh.getUser(), nullptr);
    EXPECT_EQ(fresh.getPacketID(), -1);
    EXPECT_EQ(Client(fresh).getState(), KOR_CLIENT_STATE_ACTIVE);
    EXPECT_EQ(fresh.getIDCheck(), -1.0);
    EXPECT_EQ(fresh.getTimeCheck(), 0.0);
}

TEST_F(ClientRecord, TakesInAnIntroduction) {
    client.setState(KOR_CLIENT_STATE_INACTIVE);
    EXPECT_EQ(printed(introductionOf("node-a", {"left", "right"})), "CamNum:2\nleft\nright\n");
    EXPECT_TRUE(client.isInit());
    EXPECT_STREQ(client.getName().c_str(), "node-a");
    EXPECT_THAT(camerasOf(client), ElementsAre("left", "right"));
    EXPECT_EQ(client.getState(), KOR_CLIENT_STATE_ACTIVE);
    EXPECT_TRUE(client.getData().empty());
    EXPECT_THAT(log.lines(), ElementsAre("message: [10.0.0.5:7000] init, name:node-a"));
}

TEST_F(ClientRecord, TakesALaterIntroductionInPlaceOfTheFirst) {
    receive(introductionOf("node-a", {"left", "right"}));
    const jString& oldName = client.getName();
    const jVector<jString>& oldCameras = client.getCamNames();
    EXPECT_EQ(printed(introductionOf("node-b", {"centre"})), "CamNum:1\ncentre\n");
    EXPECT_STREQ(client.getName().c_str(), "node-b");
    EXPECT_THAT(camerasOf(client), ElementsAre("centre"));
    EXPECT_STREQ(oldName.c_str(), "node-a") << "a reference must outlive the change";
    EXPECT_EQ(oldCameras.count, 2);
}

TEST_F(ClientRecord, TakesNoMoreNamesThanThePacketHolds) {
    EXPECT_EQ(printed(introductionOf("greedy", {"left", "right"}, 2'000'000'000)),
              "CamNum:2000000000\nleft\nright\n");
    EXPECT_EQ(client.getCamNames().count, 2);
    EXPECT_LE(client.getCamNames().capacity, 16);
    EXPECT_EQ(printed(introductionOf("none", {}, -5)), "CamNum:-5\n");
    EXPECT_TRUE(client.getCamNames().empty());
    EXPECT_EQ(printed(introductionOf("empty", {"", "b"})), "CamNum:2\n\nb\n");
    EXPECT_THAT(camerasOf(client), ElementsAre("", "b"));
}

TEST_F(ClientRecord, SurvivesEveryTruncationOfAnIntroduction) {
    const std::string whole = introductionOf("node-a", {"left", "right"});
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        Client record;
        deliver(record, &user, whole.substr(0, size));
        EXPECT_EQ(record.isInit(), size >= 6) << size;
        EXPECT_EQ(record.getData().count, size > 0 && size < 6 ? 1 : 0) << size;
        EXPECT_LE(record.getCamNames().count, 2) << size;
        record.clearData();
    }
}

TEST_F(ClientRecord, TakesTheNewestOfAnyNumberOfIntroductions) {
    const std::size_t before = memReport().liveBlocks;
    for (int i = 0; i < 100; ++i)
        receive(introductionOf(("name" + std::to_string(i)).c_str(), {}));
    EXPECT_STREQ(client.getName().c_str(), "name99");
    EXPECT_LE(memReport().liveBlocks, before + 1) << "those that nobody has read are gone";
}

TEST_F(ClientRecord, RefusesAnIntroductionOfOver64KiB) {
    receive(introductionOf("node-a", {}));
    log.clear();
    for (int i = 0; i < 2; ++i)
        receive(introductionOf("b", {}) + std::string(64 << 10, 'x'));
    EXPECT_STREQ(client.getName().c_str(), "node-a");
    EXPECT_TRUE(client.getData().empty()) << "never frame data";
    EXPECT_EQ(client.getRefusedIntroductions(), 2u);
    EXPECT_THAT(log.lines(), ElementsAre("warning: [10.0.0.5:7000] introduction of 65548 bytes refused, at "
                                         "most 65536 are taken in"));
}

TEST_F(ClientRecord, QueuesOtherPackets) {
    const std::string first = frameOf(7);
    receive(first);
    receive("x");
    receive("");
    ASSERT_EQ(client.getData().count, 2);
    const KorData& entry = client.getData()[0];
    EXPECT_EQ(std::string(reinterpret_cast<char*>(entry.data), static_cast<std::size_t>(entry.size)), first);
    EXPECT_EQ(entry.frameID, 0);
    EXPECT_FALSE(entry.applied);
    EXPECT_EQ(client.getData()[1].size, 1);
    client.clearData();
    EXPECT_TRUE(client.getData().empty());
}

TEST_F(ClientRecord, DropsPacketsThatFindNoRoom) {
    for (int i = 0; i < 100'000; ++i)
        receive("x");
    EXPECT_EQ(client.getDroppedPackets(), 0u) << "small ones have room, however many";
    client.clearData();

    client.setMaxQueuedBytes(10'000);
    for (int i = 0; i < 100; ++i)
        receive("x");
    EXPECT_EQ(client.getData().count, 77) << "each takes 129 bytes";
    receive(std::string(9000, 'x'));
    EXPECT_EQ(client.getDroppedPackets(), 24u);
    EXPECT_EQ(log.countWith("packets are dropped"), 1) << "one warning for each time without room";
    client.clearData();
    receive(std::string(9000, 'x'));
    receive(std::string(9000, 'x'));
    EXPECT_EQ(client.getData().count, 1);
    EXPECT_EQ(log.countWith("packets are dropped"), 2);
}

TEST_F(ClientRecord, FollowsASendToItsDelivery) {
    const std::string bytes(100, 'x');
    ASSERT_TRUE(client.send(bytes.data(), 100));
    ASSERT_TRUE(client.send(bytes.data(), 100));
    const std::int64_t id = client.getPacketID();
    EXPECT_THAT(user.takeSent(), ElementsAre(bytes, bytes));
    EXPECT_FALSE(client.isSendOver());

    finish(id - 1);
    EXPECT_EQ(client.getPacketID(), id);
    EXPECT_FALSE(client.isSendOver());
    finish(id);
    EXPECT_EQ(client.getPacketID(), -1);
    EXPECT_TRUE(client.isSendOver());
    client.setSendOver(false);
    finish(-1);
    EXPECT_FALSE(client.isSendOver());
}

TEST_F(ClientRecord, RefusesBadSends) {
    client.setPacketID(42);
    client.setSendOver(true);
    EXPECT_FALSE(client.send(nullptr, 10));
    EXPECT_FALSE(client.send("x", 0));
    EXPECT_FALSE(client.send("x", -1));
    EXPECT_EQ(client.getPacketID(), 42);
    EXPECT_TRUE(client.isSendOver());

    const std::string tooMuch(FakeUser::kQueueLimit + 1, 'x');
    EXPECT_FALSE(client.send(tooMuch.data(), static_cast<int>(tooMuch.size())))
        << "refused by the connection";
    EXPECT_EQ(client.getPacketID(), -1);
    EXPECT_FALSE(client.isSendOver());

    client.release();
    EXPECT_FALSE(client.send("x", 1));
}

TEST_F(ClientRecord, AttachesAndDetaches) {
    EXPECT_EQ(client.getAddr(), user.getAddr());
    client.setUser(&user);
    EXPECT_THAT(user.handlers, ElementsAre(&handler()));
    FakeUser other(RTAddr(0x0A000006, 7000));
    client.setUser(&other);
    EXPECT_THAT(user.handlers, ElementsAre(&handler(), nullptr));
    EXPECT_THAT(other.handlers, ElementsAre(&handler()));
    EXPECT_EQ(client.getAddr(), other.getAddr());
    client.release();
    client.release();
    EXPECT_THAT(other.handlers, ElementsAre(&handler(), nullptr));
    EXPECT_EQ(client.getUser(), nullptr);
    EXPECT_EQ(client.getAddr(), other.getAddr()) << "the address stays";
}

TEST_F(ClientRecord, CopiesShareThePackets) {
    receive(introductionOf("node-a", {"left"}));
    receive("packet");
    Client copy(client);
    client.setName("node-b");
    EXPECT_STREQ(copy.getName().c_str(), "node-a");
    EXPECT_EQ(copy.getUser(), &user);
    ASSERT_EQ(copy.getData().count, 1);
    EXPECT_EQ(copy.getData()[0].data, client.getData()[0].data);
    copy = client;
    EXPECT_STREQ(copy.getName().c_str(), "node-b");
    EXPECT_THAT(camerasOf(copy), ElementsAre("left"));
    copy.setData({}); // or it would free the bytes of the original
}

} // namespace
