#pragma once

#include <support/RTHandlers.h>
#include <support/RTNet.h>
#include <support/RTUser.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// What the tests of the connection layer on real sockets share.
namespace kor::testing_support {

/// What happened on one side, readable from the test's thread.
class Recorder : public RTUserHandler, public RTPacketHandler {
public:
    explicit Recorder(RTNet& net) : net_(net) {}

    void onConnect(const RTAddr& addr, bool established) override {
        RTUser* peer = established ? net_.getUserByAddr(addr) : nullptr;
        if (peer != nullptr)
            peer->setPacketHandler(this);
        note(established ? (peer != nullptr ? "connect" : "connect without user") : "failed",
             [&] { user = peer; });
    }
    void onReConnect(const RTAddr&) override {
        note("reconnect", [&] { user = nullptr; });
    }
    void onDisConnect(const RTAddr&) override {
        note("disconnect", [&] { user = nullptr; });
    }
    void onConnectLost(const RTAddr&) override {
        note("lost", [&] { user = nullptr; });
    }
    void onPacket(RTUser* from, Packet* packet) override {
        if (packetHook)
            packetHook(from, packet);
        note("", [&] {
            if (keepsPackets)
                packets.emplace_back(reinterpret_cast<const char*>(packet->data), packet->size);
        });
    }
    void onSendOver(RTUser* to, RS_SendPacketsQueue* send) override {
        if (noticeHook)
            noticeHook(to);
        note("", [&] {
            if (keepsPackets)
                notices.push_back(send->id);
        });
    }

    template <typename Condition>
    bool await(Condition condition, std::chrono::seconds limit = std::chrono::seconds(60)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, condition);
    }
    bool awaitEvents(std::vector<std::string> expected) {
        await([&] { return events.size() >= expected.size(); });
        const std::lock_guard lock(mutex_);
        EXPECT_EQ(events, expected);
        return events == expected;
    }

    /// `user`, while it may change.
    RTUser* connection() {
        const std::lock_guard lock(mutex_);
        return user;
    }
    /// The packets so far, while more may come.
    std::vector<std::string> heard() {
        const std::lock_guard lock(mutex_);
        return packets;
    }

    std::vector<std::string> events;
    std::vector<std::string> packets;
    std::vector<std::uint64_t> notices;
    RTUser* user = nullptr;   ///< the newest connection
    bool keepsPackets = true; ///< and notices; else they go to the hook alone
    std::function<void(RTUser*, Packet*)> packetHook;
    std::function<void(RTUser*)> noticeHook;

private:
    template <typename Change>
    void note(const char* event, Change change) {
        {
            const std::lock_guard lock(mutex_);
            change();
            if (*event != '\0')
                events.emplace_back(event);
        }
        changed_.notify_all();
    }

    RTNet& net_;
    std::mutex mutex_;
    std::condition_variable changed_;
};

/// A connection layer and nothing above it: takes everybody in and writes down what happens.
struct Side {
    RTNet net;
    Recorder recorder{net};

    bool open(unsigned short port = 0) {
        net.setUserHandler(&recorder);
        return net.init(port);
    }
    unsigned short port() { return net.getLocalPorts().data[0]; }
    ~Side() { net.release(); }
};

/// The same bytes for the same seed.
inline std::string text(std::size_t size, unsigned seed) {
    std::string result(size, '\0');
    for (char& c : result) {
        seed = seed * 1664525u + 1013904223u;
        c = static_cast<char>(seed >> 24);
    }
    return result;
}

} // namespace kor::testing_support
