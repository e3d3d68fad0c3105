#pragma once

#include <support/NetOptions.h>
#include <support/RTHandlers.h>
#include <support/RTNet.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

namespace kor::bench {

/// One connection layer in a role. The two hooks are set before the first connection and run on the layer's
/// thread. Throws std::runtime_error when a port or a peer cannot be had.
class KorNode final : RTUserHandler, RTPacketHandler {
public:
    explicit KorNode(const NetOptions& options = {});
    KorNode(const KorNode&) = delete;
    KorNode& operator=(const KorNode&) = delete;
    ~KorNode() { net_.release(); }

    std::function<void(RTUser&, Packet&)> onPacketHook;
    std::function<void(RTUser&)> onSendOverHook;

    unsigned short port() { return net_.getLocalPorts().data[0]; }

    /// Connects to a port of this machine and waits until the connection stands.
    RTUser& connect(unsigned short port);

    /// Waits until that many peers are connected, and returns them.
    std::vector<RTUser*> users(std::size_t count);

    /// Waits until `done()`, which is asked under the mutex after each change(). False after a minute.
    template <typename Done>
    bool await(Done done) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::minutes(1), done);
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
    void onConnect(const RTAddr& addr, bool established) override;
    void onReConnect(const RTAddr&) override {}
    void onDisConnect(const RTAddr& addr) override { gone(addr); }
    void onConnectLost(const RTAddr& addr) override { gone(addr); }
    void onPacket(RTUser* user, Packet* packet) override;
    void onSendOver(RTUser* user, RS_SendPacketsQueue* send) override;
    void gone(const RTAddr& addr);

    RTNet net_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<RTUser*> users_;
};

/// The options that the first two arguments of a role choose: the largest datagram payload, and whether the
/// kernel's offloads are used.
NetOptions optionsOf(double payload, double offloads);

} // namespace kor::bench
