#include "support/net/driver/TrainSender.h"
#include "tests/unit/UdpSocketFixture.h"

#include "support/net/wire/Datagram.h"

#include <support/jTimer.h>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace kor::detail {
namespace {

class TrainSenderStamps : public ::testing::Test {
protected:
    TrainSenderStamps() {
        sockets_.push_back(std::make_unique<UdpSocket>());
        EXPECT_TRUE(sockets_.front()->open(0, {}));
        EXPECT_TRUE(receiver_.open(0, {}));
    }

    /// Sends one datagram with a stamp from long ago; returns the stamp that arrives.
    Nanoseconds stampThatArrives(TrainSender& sender, bool mayRestamp) {
        std::vector<std::uint8_t> bytes(200);
        DatagramWriter writer(bytes, 1, true, 2);
        writer.addTime({kLongAgo, true, 3, 4});
        writer.addPing();
        bytes.resize(writer.finish());
        const SocketAddress to = addressOf(receiver_);
        EXPECT_TRUE(sender.send(
            {0, RTAddr(to.ip, to.port), bytes, bytes.size(), mayRestamp ? writer.stampAt() : 0, 1}));
        EXPECT_TRUE(sender.flush());
        EXPECT_EQ(receiveSome(receiver_, batch_), 1u) << "nothing of a warm-up reaches a peer";
        DecodedDatagram datagram;
        EXPECT_EQ(decodeDatagram(batch_[0].bytes, datagram), DecodeError::none);
        if (!datagram.time)
            return 0;
        EXPECT_EQ(datagram.time->echoSent, 3);
        EXPECT_EQ(datagram.time->echoReceived, 4);
        return datagram.time->sent;
    }

    static constexpr Nanoseconds kLongAgo = -1000;
    std::vector<std::unique_ptr<UdpSocket>> sockets_;
    UdpSocket receiver_;
    ReceiveBatch batch_;
};

TEST_F(TrainSenderStamps, ArePutInWhenTheDatagramLeaves) {
    for (const bool warm : {false, true}) {
        TrainSender sender(sockets_, {true, warm});
        EXPECT_EQ(sender.warmer().isOpen(), warm);
        for (int sleep = 0; sleep != 3; ++sleep) {
            sender.afterSleep();
            const Nanoseconds before = clockNow();
            const Nanoseconds stamp = stampThatArrives(sender, true);
            EXPECT_GE(stamp, before);
            EXPECT_LE(stamp, clockNow());
        }
        EXPECT_EQ(sender.warmer().count(), warm ? 3u : 0u);
        stampThatArrives(sender, true);
        EXPECT_EQ(stampThatArrives(sender, false), kLongAgo);
        EXPECT_EQ(sender.warmer().count(), warm ? 3u : 0u) << "only after a sleep";
    }
}

} // namespace
} // namespace kor::detail
