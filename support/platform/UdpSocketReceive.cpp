#include "support/platform/SocketSystem.h"
#include "support/platform/UdpSocket.h"

#include <netinet/udp.h>

#include <support/jTimer.h>

#include <array>

namespace kor::detail {

struct ReceiveBatch::Headers : TrackedNew<"support/platform/ReceiveBatch", "ReceiveBatch::ReceiveBatch"> {
    static constexpr std::size_t kControlBytes = 128;

    struct alignas(cmsghdr) Control {
        std::array<char, kControlBytes> bytes;
    };

    std::array<mmsghdr, kSlots> messages;
    std::array<iovec, kSlots> vectors;
    std::array<sockaddr_in, kSlots> names;
    std::array<Control, kSlots> controls;
    std::size_t changed = kSlots; ///< so many of the first headers are not ready to receive

    template <class BytesAt>
    void resetChanged(BytesAt bytesAt) {
        for (std::size_t i = 0; i < changed; ++i)
            reset(i, bytesAt(i));
    }

    /// Makes a slot's header ready to receive; the kernel changes the lengths in it when it fills the slot.
    void reset(std::size_t i, std::uint8_t* bytes) {
        vectors[i] = {bytes, kSlotBytes};
        messages[i] = {};
        msghdr& header = messages[i].msg_hdr;
        header.msg_name = &names[i];
        header.msg_namelen = sizeof names[i];
        header.msg_iov = &vectors[i];
        header.msg_iovlen = 1;
        header.msg_control = controls[i].bytes.data();
        header.msg_controllen = kControlBytes;
    }
};

ReceiveBatch::ReceiveBatch()
    : slots_(new Slots), // left unset, so that pages are touched only by use
      headers_(std::make_unique<Headers>()),
      count_(kSlots) {
    reset();
}

void ReceiveBatch::reset() {
    for (; count_ > 0; --count_)
        headers_->reset(count_ - 1, slot(count_ - 1));
}

ReceiveBatch::~ReceiveBatch() = default;

std::size_t UdpSocket::receive(ReceiveBatch& batch, std::size_t maxRuns) {
    batch.reset();
    const std::size_t received =
        features_.batchReceive ? receiveMany(batch, maxRuns) : receiveOneByOne(batch, maxRuns);
    batch.count_ = received;
    if (received == 0)
        return 0;
    stamps_.update(readClockPair());
    for (std::size_t i = 0; i < received; ++i)
        describe(batch, i);
    return received;
}

std::size_t UdpSocket::receiveMany(ReceiveBatch& batch, std::size_t maxRuns) {
    const int received = retried(counters_.systemCallsReceive, [&] {
        return ::recvmmsg(fd(), batch.headers_->messages.data(), static_cast<unsigned>(maxRuns), MSG_DONTWAIT,
                          nullptr);
    });
    batch.headers_->changed = received > 0 ? static_cast<std::size_t>(received) : 0;
    if (received >= 0)
        return static_cast<std::size_t>(received);
    if (errno != ENOSYS && errno != EPERM)
        return 0;
    features_.batchReceive = false;
    return receiveOneByOne(batch, maxRuns);
}

std::size_t UdpSocket::receiveOneByOne(ReceiveBatch& batch, std::size_t maxRuns) {
    std::size_t count = 0;
    for (; count < maxRuns; ++count) {
        mmsghdr& message = batch.headers_->messages[count];
        const auto length = retried(counters_.systemCallsReceive,
                                    [&] { return ::recvmsg(fd(), &message.msg_hdr, MSG_DONTWAIT); });
        if (length < 0)
            break;
        message.msg_len = static_cast<unsigned>(length);
    }
    batch.headers_->changed = ReceiveBatch::kSlots;
    return count;
}

/// Fills in the run of one slot from what the kernel left in the slot's header.
void UdpSocket::describe(ReceiveBatch& batch, std::size_t i) {
    mmsghdr& message = batch.headers_->messages[i];
    const std::size_t length = message.msg_len;
    ReceivedRun& run = batch.runs_[i];
    run.from = fromSystem(batch.headers_->names[i]);
    run.bytes = {batch.slot(i), length};
    run.segmentSize = length;
    run.arrival = stamps_.now();
    run.stamped = false;
    for (cmsghdr* control = CMSG_FIRSTHDR(&message.msg_hdr); control != nullptr;
         control = CMSG_NXTHDR(&message.msg_hdr, control)) {
        if (control->cmsg_level == SOL_SOCKET && control->cmsg_type == SCM_TIMESTAMPNS) {
            run.arrival = stamps_.arrival(stampOf(control));
            run.stamped = stamps_.trusts(stampOf(control));
        } else if (control->cmsg_level == IPPROTO_UDP && control->cmsg_type == UDP_GRO) {
            int size = 0;
            std::memcpy(&size, CMSG_DATA(control), sizeof size);
            if (size > 0 && static_cast<std::size_t>(size) < length)
                run.segmentSize = static_cast<std::size_t>(size);
        }
    }
}

} // namespace kor::detail
