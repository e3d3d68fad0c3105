#pragma once

#include "Role.h"

#include "Message.h"

#include <dds/dds.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace kor::bench {

/// One participant of CycloneDDS in a role, on this machine's loopback. Writers and readers are reliable and
/// keep all. Throws std::runtime_error when CycloneDDS refuses something.
class DdsNode {
public:
    struct Options {
        int payload = 1472;     ///< of the largest datagram
        bool multicast = false; ///< for data too, not for discovery alone
    };

    /// Participants find each other by the tag, which the first of them makes of its process id.
    explicit DdsNode(double tag) : DdsNode(tag, Options{}) {}
    DdsNode(double tag, const Options& options);

    static double newTag();

    dds_entity_t writer(const std::string& topic);
    /// `take` runs on CycloneDDS's receiving thread, for each message. One reader a node.
    dds_entity_t reader(const std::string& topic, std::function<void(std::span<const std::uint8_t>)> take);
    /// For a thread that waits for messages with `await` and takes them.
    dds_entity_t reader(const std::string& topic);

    /// Waits until that many readers have been found.
    static void awaitReaders(dds_entity_t writer, double count);
    static void awaitWriter(dds_entity_t reader);
    /// Blocks while 8 MiB are not acknowledged.
    static void write(dds_entity_t writer, std::span<const std::uint8_t> bytes);
    static void awaitDelivery(dds_entity_t writer);
    /// Calls `take` for each message that has come. Returns their number.
    static std::size_t takeAll(dds_entity_t reader,
                               const std::function<void(std::span<const std::uint8_t>)>& take);

private:
    dds_entity_t topic(const std::string& name);
    dds_entity_t makeReader(const std::string& topicName, dds_listener_t* listener);

    dds_entity_t participant_;
    dds_qos_t* qos_;
    std::function<void(std::span<const std::uint8_t>)> take_;
};

} // namespace kor::bench
