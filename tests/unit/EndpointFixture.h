#pragma once

#include "support/net/delivery/Block.h"
#include "support/net/driver/NetDriver.h"
#include "support/net/driver/NetPeer.h"

#include <kor/KorClient.h>
#include <kor/KorCoders.h>
#include <kor/Record.h>
#include <support/BufferWriter.h>
#include <support/jLog.h>
#include <support/jTimer.h>
#include <support/profile.h>
#include <support/RTUser.h>
#include <support/SocketUDP.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

/// What the tests of the endpoints and of the logic share.
namespace kor::testing_support {

/// Takes the log while it lives.
class LogRecorder {
public:
    LogRecorder() {
        jLog::setHandler([store = store_](LogLevel level, const char* text) {
            static const char* const kNames[] = {"message: ", "warning: ", "error: "};
            const std::lock_guard lock(store->mutex);
            store->lines.push_back(std::string(kNames[static_cast<int>(level)]) + text);
        });
    }
    ~LogRecorder() { jLog::setHandler({}); }

    /// Lines as "level: text", in order.
    std::vector<std::string> lines() const {
        const std::lock_guard lock(store_->mutex);
        return store_->lines;
    }
    std::ptrdiff_t count(const std::string& line) const {
        const std::vector<std::string> all = lines();
        return std::count(all.begin(), all.end(), line);
    }
    std::ptrdiff_t countWith(std::string_view part) const {
        const std::vector<std::string> all = lines();
        return std::count_if(all.begin(), all.end(),
                             [&](const std::string& line) { return line.find(part) != std::string::npos; });
    }
    void clear() {
        const std::lock_guard lock(store_->mutex);
        store_->lines.clear();
    }

private:
    struct Store {
        std::mutex mutex;
        std::vector<std::string> lines;
    };
    std::shared_ptr<Store> store_ = std::make_shared<Store>(); // a replaced handler may run a little longer
};

/// Takes the profiler's values while it lives.
struct Profile {
    std::vector<std::string> labels;
    std::vector<float> values;
    std::map<std::string, float> last; ///< by label

    Profile() {
        setProfileHandler([this](const char* label, float value, const vec4&) {
            labels.emplace_back(label);
            values.push_back(value);
            last[label] = value;
        });
    }
    ~Profile() { setProfileHandler({}); }
};

inline const RTAddr kA(0x0A000001, 1);
inline const RTAddr kB(0x0A000002, 2);
inline const RTAddr kC(0x0A000003, 3);

struct FakePeer {
    static constexpr std::uint64_t kQueueLimit = 1 << 20;

    explicit FakePeer(const RTAddr& addr)
        : peer(std::make_shared<detail::NetPeer>(driver, addr, 1, kQueueLimit, kQueueLimit)) {}

    detail::NetDriver driver;
    std::shared_ptr<detail::NetPeer> peer;
};

/// A connection without a network: queues what is sent, has whatever clock the test gives it.
class FakeUser : private FakePeer, public RTUser {
public:
    using FakePeer::kQueueLimit;

    explicit FakeUser(const RTAddr& addr) : FakePeer(addr), RTUser(peer) {}

    double getTimeOffset() const override { return offset; }
    void setPacketHandler(RTPacketHandler* handler) override { handlers.push_back(handler); }

    /// Packets sent since the last call.
    std::vector<std::string> takeSent() {
        std::vector<detail::Block> blocks;
        peer->takeOutbox(blocks);
        std::vector<std::string> packets;
        for (const detail::Block& block : blocks)
            packets.emplace_back(reinterpret_cast<const char*>(block.data()), block.size());
        return packets;
    }

    double offset = -1e9;
    std::vector<RTPacketHandler*> handlers; ///< every one that was set
};

/// Hands a packet to a handler as the connection layer does: frees the bytes unless the handler has taken
/// them.
inline void deliver(RTPacketHandler& handler, RTUser* user, detail::Block block) {
    Packet packet{block.size(), block.data(), true};
    handler.onPacket(user, &packet);
    if (!packet.owned)
        block.release();
}
inline void deliver(RTPacketHandler& handler, RTUser* user, std::string_view bytes) {
    detail::Block block = detail::Block::allocate(static_cast<std::uint32_t>(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), block.data());
    deliver(handler, user, std::move(block));
}

/// What the given function writes into a buffer.
template <class Write>
std::string written(Write write) {
    std::vector<char> buffer(1 << 16);
    BufferWriter writer(buffer.data(), static_cast<int>(buffer.size()));
    write(writer);
    return std::string(buffer.data(), static_cast<std::size_t>(writer.tell()));
}

inline std::string beginRecordOf(int frame) {
    return written([&](BufferWriter& writer) { KorCoderBase::codeBegin(writer, frame); });
}
inline std::string endRecordOf() {
    return written([](BufferWriter& writer) { KorCoderBase::codeEnd(writer); });
}
inline std::string slaveTimeOf(double time, double position) {
    return written(
        [&](BufferWriter& writer) { KorCoderBase::codeSlaveTimeInServer(writer, time, position); });
}
inline std::string applicationRecordOf(signed char code, int payload) {
    return written([&](BufferWriter& writer) {
        const int start = beginRecord(writer, code);
        for (int i = 0; i < payload; ++i)
            writer.writeUChar(0xA5);
        endRecord(writer, start);
    });
}
/// The head of a record that claims that length, whatever follows.
inline std::string headOf(int length) {
    return written([&](BufferWriter& writer) {
        writer.writeChar(9);
        writer.writeInt(length);
        writer.writeUChar(1);
    });
}
inline std::string frameOf(int frame) {
    return beginRecordOf(frame) + applicationRecordOf(9, 12) + endRecordOf();
}
inline std::string reportOf(int frame, double time, double position) {
    return beginRecordOf(frame) + slaveTimeOf(time, position) + endRecordOf();
}
inline std::string introductionOf(const char* name, const std::vector<std::string>& cameras, int claimed) {
    return written([&](BufferWriter& writer) {
        const int start = beginRecord(writer, 1);
        writer.writeString(name);
        writer.writeInt(claimed);
        for (const std::string& camera : cameras)
            writer.writeString(camera.c_str());
        endRecord(writer, start);
    });
}
inline std::string introductionOf(const char* name, const std::vector<std::string>& cameras) {
    return introductionOf(name, cameras, static_cast<int>(cameras.size()));
}
inline std::string broadcastOf(int port) {
    return written([&](BufferWriter& writer) { KorMsg::codeBroadcast(writer, port, 0); });
}

/// The same bytes every time, and different for every seed.
inline std::string rubbish(std::size_t size, std::uint64_t seed) {
    std::string bytes(size + sizeof(seed), '\0');
    for (std::size_t at = 0; at < size; at += sizeof(seed)) {
        seed = (seed + 1) * 6364136223846793005u;
        seed ^= seed >> 29;
        std::memcpy(bytes.data() + at, &seed, sizeof(seed));
    }
    bytes.resize(size);
    return bytes;
}

/// Replaces the clock while it lives. Every reading lets it go on by `step`.
class TestClock {
public:
    explicit TestClock(double seconds) {
        set(seconds);
        step = 0;
        detail::setClockSource([] { return now.fetch_add(step); });
    }
    ~TestClock() { detail::setClockSource(nullptr); }

    void set(double seconds) { now = static_cast<std::int64_t>(seconds * 1e9); }
    void setStep(double seconds) { step = static_cast<std::int64_t>(seconds * 1e9); }

private:
    static inline std::atomic<std::int64_t> now{0};
    static inline std::atomic<std::int64_t> step{0};
};

/// A UDP port that nobody uses at the moment.
inline unsigned short freePort() {
    SocketUDP socket;
    EXPECT_TRUE(socket.create() && socket.bind(0));
    return static_cast<unsigned short>(socket.getLocalPort());
}

/// Repeats a step until the condition holds; false after a minute and more.
template <class Step, class Condition>
bool driveUntil(Step step, Condition condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        step();
        std::this_thread::yield();
    }
    return true;
}

} // namespace kor::testing_support

namespace kor::detail {

/// Gives a slave endpoint a connection that no network has made.
struct KorClientAccess {
    static void setUser(KorClient& client, RTUser* user) {
        client.user = user;
        client.connected = user != nullptr;
    }
};

} // namespace kor::detail
