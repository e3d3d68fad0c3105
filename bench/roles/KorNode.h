#pragma once

#include "Role.h"

#include <support/NetOptions.h>
#include <support/RTHandlers.h>
#include <support/RTNet.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace kor::bench {

/// One connection layer in a role. The two hooks are set before the first connection and run on the layer's
/// thread. Throws std::runtime_error when a port or a peer cannot be had.
class KorNode final : RTUserHandler, RTPacketHandler {
public:
    explicit KorNode(const NetOptions& options = {}) {
        net_.setOptions(options);
        net_.setUserHandler(this);
        if (!net_.init(0))
            throw std::runtime_error("no port for the connection layer");
    }
    ~KorNode() { net_.release(); }

    std::function<void(RTUser&, Packet&)> onPacketHook;
    std::function<void(RTUser&)> onSendOverHook;

    double port() { return net_.getLocalPorts().data[0]; }

    /// Connects to a port of this machine and waits until the connection stands.
    RTUser& connect(double port) {
        net_.connect(jString("127.0.0.1"), static_cast<unsigned short>(port), 1000, 10);
        return *users(1).front();
    }

    /// Waits until that many peers are connected, and returns them.
    std::vector<RTUser*> users(double count) {
        await([&] { return static_cast<double>(users_.size()) >= count; });
        const std::lock_guard lock(mutex_);
        return users_;
    }

    /// Waits until `done()`, which is asked under the mutex after each change(). Throws after a minute.
    template <typename Done>
    void await(Done done) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::minutes(1), done))
            throw std::runtime_error("nothing has come for a minute");
    }
    template <typename Change>
    void change(Change how) {
        {
            const std::lock_guard lock(mutex_);
            how();
        }
        changed_.notify_one();
    }

private:
    void onConnect(const RTAddr& addr, bool established) override {
        RTUser* const user = established ? net_.getUserByAddr(addr) : nullptr;
        if (user == nullptr)
            return;
        user->setPacketHandler(this);
        change([&] { users_.push_back(user); });
    }
    void onReConnect(const RTAddr&) override {}
    void onDisConnect(const RTAddr& addr) override { gone(addr); }
    void onConnectLost(const RTAddr& addr) override { gone(addr); }
    void onPacket(RTUser* user, Packet* packet) override {
        if (onPacketHook)
            onPacketHook(*user, *packet);
    }
    void onSendOver(RTUser* user, RS_SendPacketsQueue*) override {
        if (onSendOverHook)
            onSendOverHook(*user);
    }
    void gone(const RTAddr& addr) {
        change([&] { std::erase_if(users_, [&](const RTUser* user) { return user->getAddr() == addr; }); });
    }

    RTNet net_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<RTUser*> users_;
};

/// A role's first two arguments: the largest payload of a datagram, and whether to use kernel offloads.
inline NetOptions optionsOf(const Numbers& arguments) {
    NetOptions options;
    options.maxDatagramPayload = static_cast<std::uint32_t>(arguments.at(0));
    options.segmentationOffload = options.receiveOffload = arguments.at(1) != 0;
    return options;
}

} // namespace kor::bench
