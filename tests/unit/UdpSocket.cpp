#include "tests/unit/UdpSocketFixture.h"

#include <gmock/gmock.h>

#include <string>
#include <tuple>

namespace kor::detail {
namespace {

using testing::ElementsAreArray;

enum class SendWay { offload, batch, loop };
enum class ReceiveWay { offload, batch, loop };

class UdpSocketWays : public testing::TestWithParam<std::tuple<SendWay, ReceiveWay>> {
protected:
    void SetUp() override {
        UdpSocketOptions sending = plainOptions();
        sending.segmentationOffload = std::get<0>(GetParam()) == SendWay::offload;
        sending.batchSend = std::get<0>(GetParam()) != SendWay::loop;
        UdpSocketOptions receiving = plainOptions();
        receiving.receiveOffload = std::get<1>(GetParam()) == ReceiveWay::offload;
        receiving.batchReceive = std::get<1>(GetParam()) != ReceiveWay::loop;
        ASSERT_TRUE(sender.open(0, sending)) << sender.error();
        ASSERT_TRUE(receiver.open(0, receiving)) << receiver.error();
    }

    UdpSocket sender;
    UdpSocket receiver;
};

TEST_P(UdpSocketWays, TrainArrivesWholeAndInOrder) {
    constexpr std::size_t kSegment = 1200;
    const Bytes bytes = pattern(70 * kSegment + 17); // more than one offloaded run, and a short tail
    std::size_t sent = 0;
    ASSERT_EQ(sender.sendTrain(addressOf(receiver), bytes, kSegment, sent), SendResult::sent);
    EXPECT_EQ(sent, bytes.size());
    EXPECT_THAT(receiveDatagrams(receiver, 71), ElementsAreArray(cut(bytes, kSegment)));

    const std::uint64_t calls = sender.counters().systemCallsSend;
    switch (std::get<0>(GetParam())) {
    case SendWay::offload:
        EXPECT_EQ(calls, sender.features().segmentationOffload ? 2u : 2u + 71u);
        break;
    case SendWay::batch:
        EXPECT_EQ(calls, 2u);
        break;
    case SendWay::loop:
        EXPECT_EQ(calls, 71u);
        break;
    }
}

TEST_P(UdpSocketWays, TrainsOfEverySizeArrive) {
    // Single datagrams, exact multiples, tiny segments over the kernel's limit of segments, the largest
    // datagrams.
    const std::vector<std::pair<std::size_t, std::size_t>> cases = {
        {1, 1},   {1400, 1400},   {2800, 1400},   {2801, 1400},
        {150, 1}, {65507, 65507}, {80000, 40000}, {65507, 32754}};
    for (const auto& [size, segment] : cases) {
        SCOPED_TRACE(std::to_string(size) + " bytes in segments of " + std::to_string(segment));
        const Bytes bytes = pattern(size, static_cast<std::uint32_t>(size));
        std::size_t sent = 0;
        ASSERT_EQ(sender.sendTrain(addressOf(receiver), bytes, segment, sent), SendResult::sent);
        EXPECT_EQ(sent, size);
        const std::vector<Bytes> pieces = cut(bytes, segment);
        EXPECT_EQ(receiveDatagrams(receiver, pieces.size()), pieces);
    }
}

TEST_P(UdpSocketWays, BatchGoesToManyPeers) {
    UdpSocket second;
    ASSERT_TRUE(second.open(0, plainOptions())) << second.error();
    const Bytes bytes = pattern(100);
    std::vector<OutDatagram> datagrams;
    for (std::size_t i = 0; i < 70; ++i)
        datagrams.push_back({addressOf(i % 2 == 0 ? receiver : second), std::span(bytes).first(i + 1)});
    std::size_t sent = 0;
    ASSERT_EQ(sender.sendBatch(datagrams, sent), SendResult::sent);
    EXPECT_EQ(sent, datagrams.size());

    const auto even = receiveDatagrams(receiver, 35);
    const auto odd = receiveDatagrams(second, 35);
    for (std::size_t i = 0; i < 70; ++i)
        EXPECT_EQ((i % 2 == 0 ? even : odd)[i / 2].size(), i + 1);
}

TEST_P(UdpSocketWays, BatchStopsAtTheDatagramThatCannotLeave) {
    const Bytes tooBig(UdpSocket::kMaxDatagramBytes + 1);
    const std::span<const std::uint8_t> small = std::span(tooBig).first(10);
    const SocketAddress broadcast{0xFFFFFFFF, 9}; // forbidden on this socket
    const SocketAddress peer = addressOf(receiver);
    const std::vector<OutDatagram> datagrams = {
        {peer, small}, {peer, tooBig}, {broadcast, small}, {peer, small}};

    std::size_t sent = 0;
    EXPECT_EQ(sender.sendBatch(datagrams, sent), SendResult::tooBig);
    EXPECT_EQ(sent, 1u);
    EXPECT_EQ(sender.sendBatch(std::span(datagrams).subspan(2), sent), SendResult::failed);
    EXPECT_EQ(sent, 0u);
    EXPECT_EQ(sender.sendBatch(std::span(datagrams).subspan(3), sent), SendResult::sent);
    EXPECT_EQ(sent, 1u);
    EXPECT_EQ(receiveDatagrams(receiver, 2).size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(All, UdpSocketWays,
                         testing::Combine(testing::Values(SendWay::offload, SendWay::batch, SendWay::loop),
                                          testing::Values(ReceiveWay::offload, ReceiveWay::batch,
                                                          ReceiveWay::loop)));

class UdpSocketPair : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(sender.open(0, {})) << sender.error();
        ASSERT_TRUE(receiver.open(0, {})) << receiver.error();
    }

    UdpSocket sender;
    UdpSocket receiver;
    ReceiveBatch batch;
};

TEST_F(UdpSocketPair, JoinedDatagramsAreToldApart) {
    if (!sender.features().segmentationOffload || !receiver.features().receiveOffload)
        GTEST_SKIP() << "this kernel offers no offload";
    const Bytes bytes = pattern(10 * 1000 + 1);
    std::size_t sent = 0;
    ASSERT_EQ(sender.sendTrain(addressOf(receiver), bytes, 1000, sent), SendResult::sent);
    ASSERT_EQ(receiveSome(receiver, batch), 1u);
    EXPECT_EQ(batch[0].from, addressOf(sender));
    EXPECT_EQ(batch[0].segmentSize, 1000u);
    EXPECT_EQ(batch[0].datagramCount(), 11u);
    EXPECT_EQ(batch[0].datagram(10).size(), 1u);
    EXPECT_THAT(batch[0].bytes, ElementsAreArray(bytes));
    EXPECT_EQ(receiver.counters().systemCallsReceive, receiver.features().batchReceive ? 1u : 2u);
}

TEST_F(UdpSocketPair, SingleAndEmptyDatagrams) {
    ASSERT_EQ(sender.send(addressOf(receiver), {}), SendResult::sent);
    ASSERT_EQ(receiveSome(receiver, batch), 1u);
    EXPECT_TRUE(batch[0].bytes.empty());
    EXPECT_EQ(batch[0].datagramCount(), 1u);
    EXPECT_TRUE(batch[0].datagram(0).empty());

    const Bytes bytes = pattern(UdpSocket::kMaxDatagramBytes);
    ASSERT_EQ(sender.send(addressOf(receiver), bytes), SendResult::sent);
    ASSERT_EQ(receiveSome(receiver, batch), 1u);
    EXPECT_EQ(batch[0].from, addressOf(sender));
    EXPECT_EQ(batch[0].datagramCount(), 1u);
    EXPECT_THAT(batch[0].bytes, ElementsAreArray(bytes));
}

TEST_F(UdpSocketPair, ReceivesNothingAtOnceWhenNothingWaits) {
    EXPECT_EQ(receiver.receive(batch), 0u);
    ASSERT_EQ(sender.send(addressOf(receiver), {}), SendResult::sent);
    ASSERT_EQ(receiveSome(receiver, batch), 1u);
    EXPECT_EQ(receiver.receive(batch), 0u);
    EXPECT_EQ(batch.size(), 0u);
}

TEST_F(UdpSocketPair, RefusesBadTrains) {
    const Bytes bytes(UdpSocket::kMaxDatagramBytes + 1);
    std::size_t sent = 1;
    EXPECT_EQ(sender.sendTrain(addressOf(receiver), bytes, 0, sent), SendResult::tooBig);
    EXPECT_EQ(sent, 0u);
    EXPECT_EQ(sender.sendTrain(addressOf(receiver), bytes, bytes.size(), sent), SendResult::tooBig);
    EXPECT_EQ(sent, 0u);
    EXPECT_EQ(sender.sendTrain(addressOf(receiver), {}, 1000, sent), SendResult::sent);
    EXPECT_EQ(sent, 0u);
    EXPECT_EQ(sender.sendTrain({0xFFFFFFFF, 9}, std::span(bytes).first(3000), 1000, sent),
              SendResult::failed);
    EXPECT_EQ(sent, 0u);
    EXPECT_EQ(receiver.receive(batch), 0u);
}

TEST_F(UdpSocketPair, SendingToNobodyDoesNotDisturb) {
    UdpSocket gone;
    ASSERT_TRUE(gone.open(0, {}));
    const SocketAddress nobody = addressOf(gone);
    gone.close();
    const Bytes bytes = pattern(10);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(sender.send(nobody, bytes), SendResult::sent);
        EXPECT_EQ(sender.send(addressOf(receiver), bytes), SendResult::sent);
    }
    EXPECT_EQ(receiveDatagrams(receiver, 20).size(), 20u);
}

TEST(UdpSocketOpen, TakenPortIsRefusedWithAReason) {
    UdpSocket first;
    ASSERT_TRUE(first.open(0, {})) << first.error();
    EXPECT_NE(first.localPort(), 0);
    UdpSocket second;
    EXPECT_FALSE(second.open(first.localPort(), {}));
    EXPECT_FALSE(second.error().empty());
    EXPECT_FALSE(second.isOpen());
    EXPECT_EQ(second.localPort(), 0);

    // The one that has it still works, and opening again closes the first port.
    const std::uint16_t port = first.localPort();
    ASSERT_TRUE(first.open(0, {})) << first.error();
    EXPECT_NE(first.localPort(), port);
    EXPECT_TRUE(first.error().empty());
}

TEST(UdpSocketOpen, TellsWhatIsInUse) {
    UdpSocket socket;
    ASSERT_TRUE(socket.open(0, plainOptions()));
    const UdpSocketFeatures plain = socket.features();
    EXPECT_FALSE(plain.segmentationOffload || plain.receiveOffload || plain.batchSend || plain.batchReceive ||
                 plain.kernelTimeStamps);
    EXPECT_GT(plain.receiveBufferBytes, 0u);

    UdpSocketOptions small;
    small.receiveBufferBytes = 100'000;
    small.sendBufferBytes = 50'000;
    ASSERT_TRUE(socket.open(0, small));
    EXPECT_EQ(socket.features().receiveBufferBytes, 100'000u);
    EXPECT_EQ(socket.features().sendBufferBytes, 50'000u);
    EXPECT_TRUE(socket.features().batchSend && socket.features().batchReceive);
    socket.close();
    EXPECT_FALSE(socket.isOpen());
    EXPECT_FALSE(socket.features().batchSend);
}

TEST(UdpSocketDrops, EveryDatagramIsReceivedOrCounted) {
    UdpSocket sender;
    UdpSocket receiver;
    UdpSocketOptions small;
    small.receiveBufferBytes = 20'000;
    ASSERT_TRUE(sender.open(0, {}));
    ASSERT_TRUE(receiver.open(0, small));
    const Bytes bytes = pattern(1000);
    constexpr std::uint64_t kSent = 200;
    for (std::uint64_t i = 0; i < kSent; ++i)
        ASSERT_EQ(sender.send(addressOf(receiver), bytes), SendResult::sent);

    ReceiveBatch batch;
    std::uint64_t received = 0;
    while (receiver.receive(batch) != 0)
        received += batch.size();
    EXPECT_GT(received, 0u);
    EXPECT_LT(received, kSent);
    EXPECT_EQ(received + receiver.counters().kernelDrops, kSent);
}

} // namespace
} // namespace kor::detail
