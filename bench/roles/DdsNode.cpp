#include "DdsNode.h"

#include "SystemTime.h"

#include <array>
#include <stdexcept>

#include <unistd.h>

namespace kor::bench {

namespace {

constexpr double kPatienceSeconds = 60;
constexpr int kHeadersBytes = 100; // of a datagram around a fragment

int checked(int result, const char* what) {
    if (result < 0)
        throw std::runtime_error(std::string("CycloneDDS, ") + what + ": " + dds_strretcode(-result));
    return result;
}

std::string configuration(double tag, const DdsNode::Options& options) {
    const auto bytes = [](int size) { return std::to_string(size) + " B"; };
    return "<Domain><General><Interfaces><NetworkInterface name='lo' multicast='true'/></Interfaces>"
           "<AllowMulticast>" +
           std::string(options.multicast ? "true" : "spdp") + "</AllowMulticast><MaxMessageSize>" +
           bytes(options.payload) + "</MaxMessageSize><FragmentSize>" +
           bytes(options.payload - kHeadersBytes) +
           "</FragmentSize></General><Discovery><ParticipantIndex>none</ParticipantIndex><Tag>kor" +
           std::to_string(static_cast<long>(tag)) +
           "</Tag></Discovery><Internal><SocketReceiveBufferSize max='8 MiB'/>"
           "<Watermarks><WhcHigh>7 MiB</WhcHigh><WhcHighInit>7 MiB</WhcHighInit>"
           "<WhcLow>6 MiB</WhcLow><WhcAdaptive>false</WhcAdaptive></Watermarks></Internal></Domain>";
}

template <typename Done>
void await(Done done) {
    for (const std::int64_t end = timeIn(kPatienceSeconds); !done(); sleepUntil(timeIn(0.002)))
        if (systemNow() > end)
            throw std::runtime_error("CycloneDDS: nobody has come for a minute");
}

} // namespace

DdsNode::DdsNode(double tag, const Options& options) : qos_(dds_create_qos()) {
    checked(dds_create_domain(0, configuration(tag, options).c_str()), "domain");
    participant_ = checked(dds_create_participant(0, nullptr, nullptr), "participant");
    dds_qset_reliability(qos_, DDS_RELIABILITY_RELIABLE, DDS_INFINITY);
    dds_qset_history(qos_, DDS_HISTORY_KEEP_ALL, 0);
}

double DdsNode::newTag() {
    return ::getpid();
}

dds_entity_t DdsNode::topic(const std::string& name) {
    return checked(dds_create_topic(participant_, &kor_bench_Message_desc, name.c_str(), qos_, nullptr),
                   "topic");
}

dds_entity_t DdsNode::writer(const std::string& topicName) {
    return checked(dds_create_writer(participant_, topic(topicName), qos_, nullptr), "writer");
}

dds_entity_t DdsNode::makeReader(const std::string& topicName, dds_listener_t* listener) {
    return checked(dds_create_reader(participant_, topic(topicName), qos_, listener), "reader");
}

dds_entity_t DdsNode::reader(const std::string& topicName) {
    return makeReader(topicName, nullptr);
}

dds_entity_t DdsNode::reader(const std::string& topicName,
                             std::function<void(std::span<const std::uint8_t>)> take) {
    take_ = std::move(take);
    dds_listener_t* const listener = dds_create_listener(this);
    dds_lset_data_available(listener, [](dds_entity_t reader, void* node) {
        takeAll(reader, static_cast<DdsNode*>(node)->take_);
    });
    const dds_entity_t result = makeReader(topicName, listener);
    dds_delete_listener(listener);
    return result;
}

void DdsNode::awaitReaders(dds_entity_t writer, double count) {
    await([&] {
        dds_publication_matched_status_t status{};
        checked(dds_get_publication_matched_status(writer, &status), "status");
        return status.current_count >= count;
    });
}

void DdsNode::awaitWriter(dds_entity_t reader) {
    await([&] {
        dds_subscription_matched_status_t status{};
        checked(dds_get_subscription_matched_status(reader, &status), "status");
        return status.current_count > 0;
    });
}

void DdsNode::write(dds_entity_t writer, std::span<const std::uint8_t> bytes) {
    kor_bench_Message message{};
    message.bytes._buffer = const_cast<std::uint8_t*>(bytes.data()); // which it only reads
    message.bytes._length = message.bytes._maximum = static_cast<std::uint32_t>(bytes.size());
    checked(dds_write(writer, &message), "write");
}

void DdsNode::awaitDelivery(dds_entity_t writer) {
    checked(dds_wait_for_acks(writer, DDS_SECS(static_cast<dds_duration_t>(kPatienceSeconds))), "delivery");
}

std::size_t DdsNode::takeAll(dds_entity_t reader,
                             const std::function<void(std::span<const std::uint8_t>)>& take) {
    std::array<void*, 16> samples{};
    std::array<dds_sample_info_t, 16> infos;
    std::size_t taken = 0;
    for (;;) {
        const int count =
            checked(dds_take(reader, samples.data(), infos.data(), samples.size(), samples.size()), "take");
        for (int i = 0; i != count; ++i) {
            if (!infos[static_cast<std::size_t>(i)].valid_data)
                continue;
            const auto& bytes =
                static_cast<const kor_bench_Message*>(samples[static_cast<std::size_t>(i)])->bytes;
            take({bytes._buffer, bytes._length});
            ++taken;
        }
        if (count <= 0)
            return taken;
        dds_return_loan(reader, samples.data(), count);
    }
}

} // namespace kor::bench
