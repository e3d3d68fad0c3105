#pragma once

#include <support/RTNet.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

/// A peer that does the connection layer's handshake properly, because it is the connection layer, and then
/// sends whatever a test likes. In the test's own process.
class Intruder : private kor::RTUserHandler, private kor::RTPacketHandler {
public:
    /// Opens the layer on that port; 0 takes any free one.
    explicit Intruder(int port = 0);
    Intruder(const Intruder&) = delete;
    Intruder& operator=(const Intruder&) = delete;
    ~Intruder();

    /// Connects to a port of this machine and waits until the connection stands.
    bool connect(int port);

    /// Waits for somebody to connect.
    bool awaitPeer();

    /// Sends one packet. False when the layer refuses it.
    bool send(const std::vector<std::uint8_t>& bytes);

    /// Waits until everything sent has been delivered.
    bool awaitDelivery();

    /// Says goodbye and closes.
    void release();

    int port() const { return net_.getLocalPorts()[0]; }
    bool connected() const { return user_ != nullptr; }
    long long packetsReceived() const { return received_; }

private:
    void onConnect(const kor::RTAddr& addr, bool established) override;
    void onReConnect(const kor::RTAddr& addr) override;
    void onDisConnect(const kor::RTAddr& addr) override;
    void onConnectLost(const kor::RTAddr& addr) override;
    void onPacket(kor::RTUser* user, kor::Packet* packet) override;
    void onSendOver(kor::RTUser* user, kor::RS_SendPacketsQueue* send) override;

    kor::RTNet net_;
    std::atomic<kor::RTUser*> user_{nullptr};
    std::atomic<long long> received_{0};
    std::atomic<long long> delivered_{0};
    long long sent_ = 0;
};

/// Packets and parts of packets, right and wrong. Records are made byte by byte, so that they may lie.
class PacketBytes {
public:
    /// A record's head with that length, whatever follows.
    PacketBytes& head(int code, std::int32_t length, int version = 1);
    PacketBytes& integer(std::int32_t value);
    PacketBytes& real(double value);
    PacketBytes& text(const std::string& value);
    PacketBytes& zeros(std::size_t count);

    /// A good `Begin` or `End` record.
    PacketBytes& begin(std::int32_t frame) { return head(4, 10).integer(frame); }
    PacketBytes& end() { return head(5, 6); }

    operator std::vector<std::uint8_t>() const { return bytes_; }

    /// A slave's introduction, with a count of cameras that need not be true.
    static std::vector<std::uint8_t> introduction(const std::string& name, std::int32_t count,
                                                  const std::vector<std::string>& cameras);

private:
    std::vector<std::uint8_t> bytes_;
};
