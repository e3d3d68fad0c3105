// A master with many peers: its processor time and memory.

#include "KorNode.h"
#include "Roles.h"
#include "SystemTime.h"

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace kor::bench {

namespace {

/// Resident memory of this process in MiB.
double residentMebibytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:"))
            return std::stod(line.substr(6)) / 1024;
    return 0;
}

/// One packet to everybody, `count` times, `perSecond` in a second. The packet begins with the tick's number.
void tick(const std::vector<RTUser*>& users, int count, double perSecond, std::size_t bytes) {
    std::vector<char> packet(bytes, 'f');
    const std::int64_t start = systemNow();
    for (std::int32_t n = 0; n != count; ++n) {
        sleepUntil(start + static_cast<std::int64_t>(1e9 * n / perSecond));
        std::memcpy(packet.data(), &n, sizeof n);
        for (RTUser* const user : users)
            user->sendAsyn(packet.data(), static_cast<int>(packet.size()));
    }
}

} // namespace

void korMaster(const std::vector<double>&, Orders& orders) {
    KorNode node;
    std::vector<RTUser*> users;
    orders.answer({static_cast<double>(node.port())});
    for (Order order; orders.next(order);) {
        if (order.word == "users") {
            users = node.users(static_cast<std::size_t>(order.numbers.at(0)));
        } else if (order.word == "ticks") {
            tick(users, static_cast<int>(order.numbers.at(0)), order.numbers.at(1),
                 static_cast<std::size_t>(order.numbers.at(2)));
        }
        orders.answer({processorSeconds(), static_cast<double>(systemNow()) * 1e-9, residentMebibytes()});
    }
}

} // namespace kor::bench
