#include "KorNode.h"

#include <algorithm>
#include <stdexcept>

namespace kor::bench {

KorNode::KorNode(const NetOptions& options) {
    net_.setOptions(options);
    net_.setUserHandler(this);
    if (!net_.init(0))
        throw std::runtime_error("no port for the connection layer");
}

RTUser& KorNode::connect(unsigned short port) {
    net_.connect(jString("127.0.0.1"), port, 1000, 10);
    return *users(1).front();
}

std::vector<RTUser*> KorNode::users(std::size_t count) {
    std::vector<RTUser*> result;
    if (!await([&] { return users_.size() >= count; }))
        throw std::runtime_error("peers do not come");
    const std::lock_guard lock(mutex_);
    return users_;
}

void KorNode::onConnect(const RTAddr& addr, bool established) {
    RTUser* const user = established ? net_.getUserByAddr(addr) : nullptr;
    if (user == nullptr)
        return;
    user->setPacketHandler(this);
    change([&] { users_.push_back(user); });
}

void KorNode::gone(const RTAddr& addr) {
    change([&] { std::erase_if(users_, [&](const RTUser* user) { return user->getAddr() == addr; }); });
}

void KorNode::onPacket(RTUser* user, Packet* packet) {
    if (onPacketHook)
        onPacketHook(*user, *packet);
}

void KorNode::onSendOver(RTUser* user, RS_SendPacketsQueue*) {
    if (onSendOverHook)
        onSendOverHook(*user);
}

NetOptions optionsOf(double payload, double offloads) {
    NetOptions options;
    options.maxDatagramPayload = static_cast<std::uint32_t>(payload);
    options.segmentationOffload = options.receiveOffload = offloads != 0;
    return options;
}

} // namespace kor::bench
