#include "tests/unit/UdpSocketFixture.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_tun.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

namespace kor::detail {
namespace {

/// Runs on a thread of its own, so that what it forbids itself or leaves behind does not outlast it.
void onOwnThread(const std::function<void()>& body) {
    std::thread(body).join();
}

/// From now on the system does not know this call on this thread.
bool forbidCall(unsigned call) {
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{4, rules};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/// A network of this thread alone: loopback with the MTU of an Ethernet, and nothing else. False where not
/// permitted.
class OwnNetwork {
public:
    bool enter() {
        if (unshare(CLONE_NEWNET) != 0)
            return false;
        control_ = FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ifreq request = named("lo");
        request.ifr_mtu = 1500;
        return ioctl(control_.get(), SIOCSIFMTU, &request) == 0 && up("lo");
    }

    /// An interface on which nobody ever answers, with address 10.9.0.1/24.
    bool addSilentInterface() {
        tap_ = FileDescriptor(::open("/dev/net/tun", O_RDWR | O_CLOEXEC));
        ifreq request = named("silent");
        request.ifr_flags = IFF_TAP | IFF_NO_PI;
        if (!tap_.valid() || ioctl(tap_.get(), TUNSETIFF, &request) != 0)
            return false;
        return setAddress(SIOCSIFADDR, 0x0A090001) && setAddress(SIOCSIFNETMASK, 0xFFFFFF00) && up("silent");
    }

private:
    static ifreq named(const char* name) {
        ifreq request{};
        std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
        return request;
    }

    bool up(const char* name) {
        ifreq request = named(name);
        request.ifr_flags = IFF_UP;
        return ioctl(control_.get(), SIOCSIFFLAGS, &request) == 0;
    }

    bool setAddress(unsigned long what, std::uint32_t value) {
        ifreq request = named("silent");
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(value);
        std::memcpy(&request.ifr_addr, &address, sizeof address);
        return ioctl(control_.get(), what, &request) == 0;
    }

    FileDescriptor control_;
    FileDescriptor tap_;
};

class UdpSocketRefusals : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(sender.open(0, {})) << sender.error();
        ASSERT_TRUE(receiver.open(0, {})) << receiver.error();
    }

    void sendTrainAndCheck(std::size_t size, std::size_t segment) {
        const Bytes bytes = pattern(size);
        std::size_t sent = 0;
        ASSERT_EQ(sender.sendTrain(addressOf(receiver), bytes, segment, sent), SendResult::sent);
        EXPECT_EQ(sent, size);
        const std::vector<Bytes> pieces = cut(bytes, segment);
        EXPECT_EQ(receiveDatagrams(receiver, pieces.size()), pieces);
    }

    UdpSocket sender;
    UdpSocket receiver;
};

TEST_F(UdpSocketRefusals, SegmentationIsGivenUpForGood) {
    if (!sender.features().segmentationOffload)
        GTEST_SKIP() << "this kernel offers no segmentation";
    // Without a checksum the kernel refuses to segment.
    const int on = 1;
    ASSERT_EQ(setsockopt(sender.fd(), SOL_SOCKET, SO_NO_CHECK, &on, sizeof on), 0);
    sendTrainAndCheck(20'500, 1000);
    EXPECT_FALSE(sender.features().segmentationOffload);
    EXPECT_TRUE(sender.features().batchSend);
    EXPECT_EQ(sender.counters().systemCallsSend, 3u); // refused, one alone, the others in one batch
    sendTrainAndCheck(20'500, 1000);
    EXPECT_EQ(sender.counters().systemCallsSend, 4u);
}

TEST_F(UdpSocketRefusals, BatchCallsAreGivenUpForGood) {
    onOwnThread([&] {
        if (!forbidCall(SYS_sendmmsg) || !forbidCall(SYS_recvmmsg))
            GTEST_SKIP() << "system calls cannot be forbidden here";
        UdpSocketOptions options;
        options.segmentationOffload = false;
        ASSERT_TRUE(sender.open(0, options));
        EXPECT_TRUE(sender.features().batchSend && receiver.features().batchReceive);
        sendTrainAndCheck(20'500, 1000);
        EXPECT_FALSE(sender.features().batchSend || receiver.features().batchReceive);
        EXPECT_EQ(sender.counters().systemCallsSend, 1u + 21u);
        sendTrainAndCheck(20'500, 1000);
        EXPECT_EQ(sender.counters().systemCallsSend, 1u + 2 * 21u);
    });
}

TEST_F(UdpSocketRefusals, DatagramsOverTheInterfaceAreTooBigAndNeverCut) {
    onOwnThread([&] {
        OwnNetwork network;
        if (!network.enter())
            GTEST_SKIP() << "no network of our own is permitted here: " << std::strerror(errno);
        ASSERT_TRUE(sender.open(0, {})) << sender.error();
        ASSERT_TRUE(receiver.open(0, {})) << receiver.error();
        const bool offload = sender.features().segmentationOffload;
        constexpr std::size_t kFits = 1500 - 28;
        const SocketAddress to = addressOf(receiver);
        const Bytes bytes = pattern(4 * kFits);

        EXPECT_EQ(sender.send(to, std::span(bytes).first(kFits)), SendResult::sent);
        EXPECT_EQ(sender.send(to, std::span(bytes).first(kFits + 1)), SendResult::tooBig);
        EXPECT_EQ(receiveDatagrams(receiver, 1)[0].size(), kFits);

        std::size_t sent = 1;
        EXPECT_EQ(sender.sendTrain(to, bytes, kFits + 1, sent), SendResult::tooBig);
        EXPECT_EQ(sent, 0u);
        EXPECT_EQ(sender.features().segmentationOffload, offload); // not the offload's fault
        sendTrainAndCheck(bytes.size(), kFits);
        EXPECT_EQ(sender.features().segmentationOffload, offload);
    });
}

TEST_F(UdpSocketRefusals, NoRouteFails) {
    onOwnThread([&] {
        OwnNetwork network;
        if (!network.enter())
            GTEST_SKIP() << "no network of our own is permitted here: " << std::strerror(errno);
        ASSERT_TRUE(sender.open(0, {})) << sender.error();
        const Bytes bytes = pattern(3000);
        std::size_t sent = 1;
        EXPECT_EQ(sender.send({0x0A090002, 7000}, bytes), SendResult::failed);
        EXPECT_EQ(sender.sendTrain({0x0A090002, 7000}, bytes, 1000, sent), SendResult::failed);
        EXPECT_EQ(sent, 0u);
    });
}

TEST_F(UdpSocketRefusals, AFullSendBufferBlocks) {
    onOwnThread([&] {
        OwnNetwork network;
        if (!network.enter() || !network.addSilentInterface())
            GTEST_SKIP() << "no interface of our own is permitted here: " << std::strerror(errno);
        UdpSocketOptions options;
        options.sendBufferBytes = 20'000;
        ASSERT_TRUE(sender.open(0, options)) << sender.error();
        ASSERT_TRUE(receiver.open(0, {})) << receiver.error();
        // Datagrams wait in the buffer for a hardware address that nobody gives.
        const SocketAddress silent{0x0A090002, 7000};
        const Bytes bytes = pattern(100'000);
        std::size_t sent = 0;
        EXPECT_EQ(sender.sendTrain(silent, bytes, 1000, sent), SendResult::blocked);
        EXPECT_LT(sent, bytes.size());
        EXPECT_EQ(sent % 1000, 0u);

        // The system gives the waiting datagrams up after some seconds, and the poller tells.
        Poller poller;
        const std::size_t index = poller.add(sender.fd());
        poller.setWantWrite(index, true);
        const Nanoseconds deadline = clockNow() + kPatience;
        do
            poller.wait(deadline);
        while (!poller.writable(index) && clockNow() < deadline);
        EXPECT_TRUE(poller.writable(index));
        sendTrainAndCheck(3000, 1000);
    });
}

} // namespace
} // namespace kor::detail
