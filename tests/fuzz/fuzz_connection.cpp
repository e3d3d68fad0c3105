#include "support/net/Crc32c.h"
#include "support/net/Endpoint.h"
#include "support/net/LittleEndian.h"
#include "tests/WireSink.h"

#include <support/memInfo.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <vector>

// A connection with real traffic on it, fed with hostile datagrams that carry the right connection id and
// check sum, from the right address; the way also loses, doubles, reorders and corrupts. Time is virtual.

namespace {

using namespace kor;
using namespace kor::detail;

constexpr std::uint32_t kMaxPacket = 256u << 10;
constexpr std::uint32_t kReceiveLimit = 512u << 10;

void require(bool condition) {
    if (!condition)
        std::abort();
}

struct Side final : testing_support::WireSink {
    Side(const RTAddr& own, std::uint64_t seed) : addr(own), endpoint(config(seed), 0) {}

    static EndpointConfig config(std::uint64_t seed) {
        EndpointConfig result;
        result.mine = {kMaxPacket, kReceiveLimit, 1u << 20, 4052};
        result.cookieSecret = {seed, seed};
        result.random = [seed]() mutable {
            return seed = seed * 6364136223846793005u + 1442695040888963407u;
        };
        result.maxPeers = 4;
        return result;
    }
    void poll(Nanoseconds now) {
        endpoint.poll(now, buffer, *this, 8);
        while (!endpoint.events().empty()) {
            NetEvent event = std::move(endpoint.events().front());
            endpoint.events().pop();
            if (event.kind == NetEvent::Kind::connected)
                serial = event.serial;
            if (event.kind != NetEvent::Kind::packet)
                continue;
            require(event.bytes.size() >= 1 && event.bytes.size() <= kMaxPacket);
            endpoint.handedUp(event.serial, event.bytes.size(), now);
        }
        if (const Connection* connection = endpoint.find(serial)) {
            require(connection->heldBytes() <= kReceiveLimit + kMaxPacket);
            require(connection->sentLog().recorded() <= 65536);
            connection->statistics(now);
        }
    }

    RTAddr addr;
    Endpoint endpoint;
    std::uint64_t serial = 0;
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(64 << 10);
};

void fixChecksum(std::vector<std::uint8_t>& bytes) {
    if (bytes.size() >= kHeaderBytes)
        store32(bytes.data(), crc32c(std::span<const std::uint8_t>(bytes).subspan(4)));
}

/// A data datagram of any frames, valid as far as the header goes.
std::vector<std::uint8_t> forge(FuzzedDataProvider& input, std::uint64_t connectionId, bool fromInitiator) {
    std::vector<std::uint8_t> bytes(kHeaderBytes);
    bytes[4] = input.ConsumeBool() ? static_cast<std::uint8_t>(DatagramKind::data)
                                   : input.ConsumeIntegral<std::uint8_t>();
    bytes[5] = kProtocolVersion;
    bytes[6] = fromInitiator ? 1 : 0;
    store64(bytes.data() + 8, connectionId);
    const std::vector<std::uint8_t> rest =
        input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(0, 200));
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    fixChecksum(bytes);
    return bytes;
}

void step(FuzzedDataProvider& input, Side& from, Side& to, Nanoseconds now) {
    const Connection* connection = from.endpoint.find(from.serial);
    switch (input.ConsumeIntegralInRange(0, 7)) {
    case 0: // hostile
        if (connection != nullptr) {
            const std::vector<std::uint8_t> bytes =
                forge(input, connection->config().connectionId, connection->config().initiator);
            to.endpoint.onDatagram(0, from.addr, bytes, now);
        }
        break;
    case 1: // corrupted, with a check sum that fits
        if (!from.wire.empty()) {
            std::vector<std::uint8_t> bytes = from.wire.front();
            bytes[input.ConsumeIntegralInRange<std::size_t>(0, bytes.size() - 1)] =
                input.ConsumeIntegral<std::uint8_t>();
            fixChecksum(bytes);
            to.endpoint.onDatagram(0, from.addr, bytes, now);
        }
        break;
    case 2: // lost
        if (!from.wire.empty())
            from.wire.pop_front();
        break;
    case 3: // doubled
        if (!from.wire.empty())
            from.wire.push_back(from.wire.front());
        break;
    case 4: { // traffic
        Block block = Block::allocate(input.ConsumeIntegralInRange<std::uint32_t>(1, 20000));
        std::fill(block.data(), block.data() + block.size(), std::uint8_t{0x5A});
        from.endpoint.send(from.serial, std::move(block));
        break;
    }
    default: // delivered
        for (std::size_t n = input.ConsumeIntegralInRange<std::size_t>(1, 16); n != 0 && !from.wire.empty();
             --n) {
            to.endpoint.onDatagram(0, from.addr, from.wire.front(), now);
            from.wire.pop_front();
        }
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    {
        Nanoseconds now = 0;
        Side a(RTAddr(0x0A000001, 1000), 1);
        Side b(RTAddr(0x0A000002, 2000), 2);
        a.endpoint.connect(b.addr, kSecond, 3, now);
        for (int i = 0; i != 8; ++i) { // the handshake goes through, so that there is something to attack
            now += 100 * kMicrosecond;
            a.poll(now);
            b.poll(now);
            for (Side* from : {&a, &b}) {
                Side& to = from == &a ? b : a;
                for (; !from->wire.empty(); from->wire.pop_front())
                    to.endpoint.onDatagram(0, from->addr, from->wire.front(), now);
            }
        }
        require(a.serial != 0 && b.serial != 0);
        while (input.remaining_bytes() != 0) {
            const bool forward = input.ConsumeBool();
            step(input, forward ? a : b, forward ? b : a, now);
            now += input.ConsumeIntegralInRange<Nanoseconds>(0, 50 * kMillisecond);
            a.poll(now);
            b.poll(now);
        }
    }
    if (memReport().liveBlocks != 0)
        std::abort();
    return 0;
}
