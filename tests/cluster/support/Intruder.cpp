#include "Intruder.h"

#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <cstring>

Intruder::Intruder(int port) {
    net_.setUserHandler(this);
    if (!net_.init(static_cast<unsigned short>(port))) {
        ADD_FAILURE() << "port " << port << " cannot be opened";
    }
}

Intruder::~Intruder() {
    net_.release();
}

bool Intruder::connect(int port) {
    net_.connect(kor::jString("127.0.0.1"), static_cast<unsigned short>(port), 1000, 10);
    return awaitPeer();
}

bool Intruder::awaitPeer() {
    return ChildProcess::await([&] { return connected(); });
}

bool Intruder::send(const std::vector<std::uint8_t>& bytes) {
    kor::RTUser* user = user_;
    if (!user || user->sendAsyn(bytes.data(), static_cast<int>(bytes.size())) == kor::RTUser::kRefused) {
        return false;
    }
    ++sent_;
    return true;
}

bool Intruder::awaitDelivery() {
    return ChildProcess::await([&] { return delivered_ == sent_ || !connected(); });
}

void Intruder::release() {
    net_.release();
    user_ = nullptr;
}

void Intruder::onConnect(const kor::RTAddr& addr, bool established) {
    kor::RTUser* user = established ? net_.getUserByAddr(addr) : nullptr;
    if (user) {
        user->setPacketHandler(this);
    }
    user_ = user;
}

void Intruder::onReConnect(const kor::RTAddr&) {
    user_ = nullptr;
}

void Intruder::onDisConnect(const kor::RTAddr&) {
    user_ = nullptr;
}

void Intruder::onConnectLost(const kor::RTAddr&) {
    user_ = nullptr;
}

void Intruder::onPacket(kor::RTUser*, kor::Packet*) {
    ++received_;
}

void Intruder::onSendOver(kor::RTUser*, kor::RS_SendPacketsQueue*) {
    ++delivered_;
}

PacketBytes& PacketBytes::head(int code, std::int32_t length, int version) {
    bytes_.push_back(static_cast<std::uint8_t>(code));
    integer(length);
    bytes_.push_back(static_cast<std::uint8_t>(version));
    return *this;
}

PacketBytes& PacketBytes::integer(std::int32_t value) {
    const auto bits = static_cast<std::uint32_t>(value);
    for (unsigned shift = 0; shift < 32; shift += 8) {
        bytes_.push_back(static_cast<std::uint8_t>(bits >> shift));
    }
    return *this;
}

PacketBytes& PacketBytes::real(double value) {
    std::uint8_t bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    bytes_.insert(bytes_.end(), bytes, bytes + sizeof value);
    return *this;
}

PacketBytes& PacketBytes::text(const std::string& value) {
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    bytes_.push_back(0);
    return *this;
}

PacketBytes& PacketBytes::zeros(std::size_t count) {
    bytes_.resize(bytes_.size() + count, 0);
    return *this;
}

std::vector<std::uint8_t> PacketBytes::introduction(const std::string& name, std::int32_t count,
                                                    const std::vector<std::string>& cameras) {
    PacketBytes names;
    names.text(name).integer(count);
    for (const std::string& camera : cameras) {
        names.text(camera);
    }
    PacketBytes packet;
    packet.head(1, static_cast<std::int32_t>(6 + names.bytes_.size()));
    packet.bytes_.insert(packet.bytes_.end(), names.bytes_.begin(), names.bytes_.end());
    return packet;
}
