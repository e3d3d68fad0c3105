#pragma once

#include "../Orders.h"

#include <string>
#include <vector>

namespace kor::bench {

/// What a child process does: answers once when it is ready, then follows orders until there are none.
using Role = void (*)(const std::vector<double>& arguments, Orders& orders);

/// Null when there is no such role.
Role findRole(const std::string& name);

// "echo" returns every message and answers its port; "ping" is given a port, and the order "round COUNT"
// makes that many round trips and answers their p50 and p99 in microseconds.
void korEcho(const std::vector<double>& arguments, Orders& orders);
void korPing(const std::vector<double>& arguments, Orders& orders);
void udpEcho(const std::vector<double>& arguments, Orders& orders);
void udpPing(const std::vector<double>& arguments, Orders& orders);
void enetEcho(const std::vector<double>& arguments, Orders& orders);
void enetPing(const std::vector<double>& arguments, Orders& orders);

// "sink" answers its port; the order "take" answers the bytes that have come since the last one behind the
// first message, and the seconds from the first message to the last. "source" is given a port, and the order
// "run SECONDS" sends for that long as fast as it can.
void korSink(const std::vector<double>& arguments, Orders& orders);
void korSource(const std::vector<double>& arguments, Orders& orders);
void udpSink(const std::vector<double>& arguments, Orders& orders);
void udpSource(const std::vector<double>& arguments, Orders& orders);
void enetSink(const std::vector<double>& arguments, Orders& orders);
void enetSource(const std::vector<double>& arguments, Orders& orders);
void tcpSink(const std::vector<double>& arguments, Orders& orders);
void tcpSource(const std::vector<double>& arguments, Orders& orders);

// Single messages: the order "send COUNT BYTES" of the source sends them one after the other with pauses;
// "take" of the sink answers how long each took from the send to the last byte here, in milliseconds.
void korDelaySink(const std::vector<double>& arguments, Orders& orders);
void korDelaySource(const std::vector<double>& arguments, Orders& orders);
void tcpDelaySink(const std::vector<double>& arguments, Orders& orders);
void tcpDelaySource(const std::vector<double>& arguments, Orders& orders);

// A master with many peers answers its port. Orders: "users COUNT" waits until so many are connected; "usage"
// answers processor seconds, the time, and resident MiB; "ticks COUNT PER_SECOND BYTES" sends to everybody.
// A process that holds many peers is given the master's port and a count; "arrivals" answers count, first and
// last of each tick.
void korMaster(const std::vector<double>& arguments, Orders& orders);
void korPeerHost(const std::vector<double>& arguments, Orders& orders);
void udpMaster(const std::vector<double>& arguments, Orders& orders);
void udpPeerHost(const std::vector<double>& arguments, Orders& orders);

// Two ends that estimate each other's clock.
void korClock(const std::vector<double>& arguments, Orders& orders);

} // namespace kor::bench
