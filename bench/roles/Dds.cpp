// Round trips, bulk data and fan-out through CycloneDDS, each end a process and a participant of its own.

#include "Arrivals.h"
#include "DdsNode.h"
#include "FanOut.h"
#include "Role.h"

#include <support/jTimer.h>

#include <array>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>

namespace kor::bench {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kPacketBytes = 1u << 20;
constexpr std::array<std::uint8_t, 64> kMessage{};
constexpr dds_duration_t kRetry = DDS_MSECS(100);

/// Round trips; answers are taken from a listener or, woken by a wait set, by the application's thread.
class Pinger {
public:
    Pinger(double fromThread, double tag) : node_(tag), writer_(node_.writer("ping")) {
        if (fromThread != 0) {
            reader_ = node_.reader("pong");
            waitSet_ = dds_create_waitset(DDS_CYCLONEDDS_HANDLE);
            dds_set_status_mask(reader_, DDS_DATA_AVAILABLE_STATUS);
            dds_waitset_attach(waitSet_, reader_, 0);
        } else {
            reader_ = node_.reader("pong", [this](Bytes) { answered(); });
        }
        DdsNode::awaitReaders(writer_, 1);
        DdsNode::awaitWriter(reader_);
    }

    Numbers round(std::size_t count) { return waitSet_ != 0 ? fromThread(count) : fromListener(count); }

private:
    void send() {
        sent_ = systemNow();
        DdsNode::write(writer_, kMessage);
    }
    double passed() const { return static_cast<double>(systemNow() - sent_) * 1e-3; }

    // The first message may leave before the other end has found our reader; it is sent again.

    Numbers fromThread(std::size_t count) {
        Numbers samples;
        while (samples.size() != count) {
            send();
            while (dds_waitset_wait(waitSet_, nullptr, 0, kRetry) == 0)
                send();
            DdsNode::takeAll(reader_, [](Bytes) {});
            samples.push_back(passed());
        }
        return samples;
    }

    Numbers fromListener(std::size_t count) {
        std::unique_lock lock(mutex_);
        samples_.clear();
        samples_.reserve(count);
        count_ = count;
        lock.unlock();
        send();
        lock.lock();
        while (!changed_.wait_for(lock, std::chrono::seconds(1), [&] { return samples_.size() == count_; }))
            if (samples_.empty())
                send();
        return samples_;
    }

    void answered() {
        const double microseconds = passed();
        {
            const std::lock_guard lock(mutex_);
            if (samples_.size() == count_)
                return;
            samples_.push_back(microseconds);
            if (samples_.size() == count_) {
                changed_.notify_one();
                return;
            }
        }
        send();
    }

    DdsNode node_;
    dds_entity_t writer_;
    dds_entity_t reader_ = 0;
    dds_entity_t waitSet_ = 0;
    std::int64_t sent_ = 0;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t count_ = 0;
    Numbers samples_;
};

const Role kEcho("dds-echo", [](const Numbers&) {
    const double tag = DdsNode::newTag();
    DdsNode node(tag);
    const dds_entity_t writer = node.writer("pong");
    node.reader("ping", [writer](Bytes bytes) { DdsNode::write(writer, bytes); });
    followOrders({tag});
});

// Its first setting tells whether answers are taken by the application's thread.
const Role kPing("dds-ping", [](const Numbers& arguments) {
    Pinger pinger(arguments.at(0), arguments.at(1));
    followOrders(
        {}, [&](const Order& order) { return pinger.round(static_cast<std::size_t>(order.numbers.at(0))); });
});

// Sink and source are given the payload of a datagram.

const Role kSink("dds-sink", [](const Numbers& arguments) {
    const double tag = DdsNode::newTag();
    Meter meter;
    DdsNode node(tag, {static_cast<int>(arguments.at(0))});
    node.reader("bulk", [&](Bytes bytes) { meter.arrived(bytes.size()); });
    followOrders({tag}, [&](const Order&) { return meter.take(); });
});

const Role kSource("dds-source", [](const Numbers& arguments) {
    DdsNode node(arguments.at(1), {static_cast<int>(arguments.at(0))});
    const dds_entity_t writer = node.writer("bulk");
    DdsNode::awaitReaders(writer, 1);
    const std::vector<std::uint8_t> packet(kPacketBytes, 'd');
    followOrders({}, [&](const Order& order) {
        for (const std::int64_t end = timeIn(order.numbers.at(0)); systemNow() < end;)
            DdsNode::write(writer, packet);
        DdsNode::awaitDelivery(writer);
        return Numbers{};
    });
});

// Master and readers are told whether to use multicast; the orders are those of "kor-master".

const Role kMaster("dds-master", [](const Numbers& arguments) {
    const double tag = DdsNode::newTag();
    DdsNode node(tag, {1472, arguments.at(0) != 0});
    const dds_entity_t writer = node.writer("ticks");
    followOrders({tag}, [&](const Order& order) {
        if (order.word == "users")
            DdsNode::awaitReaders(writer, order.numbers.at(0));
        if (order.word == "ticks")
            sendTicks(order,
                      [&](const std::vector<std::uint8_t>& packet) { DdsNode::write(writer, packet); });
        return usage();
    });
});

const Role kReader("dds-reader", [](const Numbers& arguments) {
    TickArrivals arrivals;
    DdsNode node(arguments.at(1), {1472, arguments.at(0) != 0});
    node.reader("ticks", [&](Bytes packet) { arrivals.note(packet, detail::clockNow()); });
    followOrders({}, [&](const Order&) { return arrivals.take(); });
});

} // namespace

} // namespace kor::bench
