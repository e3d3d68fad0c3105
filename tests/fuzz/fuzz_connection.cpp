#include "simulator/Pair.h"
#include "support/net/wire/DatagramFormat.h"
#include "support/net/wire/LittleEndian.h"

#include <support/memInfo.h>

#include <FuzzedDataProvider.h>

#include <cstdlib>
#include <vector>

// A connection with real traffic on it, fed with hostile datagrams that carry the right connection id and
// checksum, from the right address. Its own are lost, and come again late and changed.

namespace {

using namespace kor::simulation;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kMaxPacket = 256u << 10;
constexpr std::uint32_t kReceiveLimit = 512u << 10;
constexpr std::size_t kKept = 1024; // of the datagrams sent, to be sent again

void require(bool condition) {
    if (!condition)
        std::abort();
}

HostModel bounded() {
    HostModel model;
    model.announcedSocketBuffer = model.socketBuffer = 1u << 20;
    model.maxPacketBytes = kMaxPacket;
    model.receiveLimitBytes = kReceiveLimit;
    model.maxDatagramPayload = 4052;
    model.maxPeers = 4;
    return model;
}

class Attack {
public:
    explicit Attack(FuzzedDataProvider& input) : input_(input), pair_({}, bounded(), bounded()) {
        require(pair_.master.connections() == 1 && pair_.slave.connections() == 1);
        pair_.world.onSent = [this](const SentDatagram& sent) {
            if (sent_.size() < kKept)
                sent_.push_back(sent);
        };
    }

    void run() {
        while (input_.remaining_bytes() != 0) {
            const bool forward = input_.ConsumeBool();
            step(forward ? pair_.master : pair_.slave, forward ? pair_.slave : pair_.master);
            pair_.world.runFor(input_.ConsumeIntegralInRange<Nanoseconds>(0, 50 * kMillisecond));
            check(pair_.master, pair_.slave);
            check(pair_.slave, pair_.master);
        }
    }

private:
    void step(Host& from, Host& to) {
        switch (input_.ConsumeIntegralInRange(0, 7)) {
        case 0:
            if (const kor::detail::Connection* connection = from.connectionTo(to))
                pair_.world.inject(to, from.addr(), forged(connection->config()));
            break;
        case 1:
            if (!sent_.empty()) {
                Bytes bytes = any().bytes;
                bytes[input_.ConsumeIntegralInRange<std::size_t>(0, bytes.size() - 1)] =
                    input_.ConsumeIntegral<std::uint8_t>();
                kor::detail::writeChecksum(bytes);
                pair_.world.inject(to, from.addr(), bytes);
            }
            break;
        case 2:
            pair_.world.path(from, to).loss = input_.ConsumeIntegralInRange(0, 4) / 4.0;
            break;
        case 3:
            if (!sent_.empty())
                pair_.world.inject(to, from.addr(), any().bytes);
            break;
        case 4:
            if (from.running() && input_.ConsumeBool())
                from.kill();
            else if (!from.running())
                from.start();
            from.connect(to);
            break;
        default:
            from.send(to, input_.ConsumeIntegralInRange<std::uint32_t>(1, 20'000));
            break;
        }
    }

    const SentDatagram& any() {
        return sent_[input_.ConsumeIntegralInRange<std::size_t>(0, sent_.size() - 1)];
    }

    /// A data datagram of any frames, valid as far as the header goes.
    Bytes forged(const kor::detail::ConnectionConfig& config) {
        Bytes bytes(kor::detail::kHeaderBytes);
        bytes[4] = input_.ConsumeBool() ? static_cast<std::uint8_t>(kor::detail::DatagramKind::data)
                                        : input_.ConsumeIntegral<std::uint8_t>();
        bytes[5] = kor::detail::kProtocolVersion;
        bytes[6] = config.initiator ? 1 : 0;
        kor::detail::store64(bytes.data() + 8, config.connectionId);
        const Bytes frames =
            input_.ConsumeBytes<std::uint8_t>(input_.ConsumeIntegralInRange<std::size_t>(0, 200));
        bytes.insert(bytes.end(), frames.begin(), frames.end());
        kor::detail::writeChecksum(bytes);
        return bytes;
    }

    static void check(const Host& host, const Host& other) {
        if (const kor::detail::Connection* connection = host.connectionTo(other)) {
            require(connection->heldBytes() <= kReceiveLimit + kMaxPacket);
            require(connection->sentLog().recorded() <= 65536);
            connection->statistics(host.clock());
        }
    }

    FuzzedDataProvider& input_;
    Pair pair_;
    std::vector<SentDatagram> sent_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    Attack(input).run();
    require(kor::memReport().liveBlocks == 0);
    return 0;
}
