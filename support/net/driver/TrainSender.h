#pragma once

#include "support/net/connection/Endpoint.h"
#include "support/platform/SendWarmer.h"
#include "support/platform/UdpSocket.h"
#include "support/Tracked.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

namespace kor::detail {

/// Puts an endpoint's datagrams on the sockets: runs as trains, single ones to many peers in batches, stamped
/// ones at once and with the time of that moment. What a full socket does not take is kept and goes first
/// when there is room again. Belongs to one thread at a time.
class TrainSender final : public DatagramSink {
public:
    struct Options {
        bool batch = true; ///< gather single datagrams
        bool warm = true;  ///< warm up before stamped ones
    };
    TrainSender(std::vector<std::unique_ptr<UdpSocket>>& sockets, const Options& options);

    /// Nothing has been sent or received for some milliseconds.
    void afterSleep() { cold_ = warmer_.isOpen(); }
    const SendWarmer& warmer() const { return warmer_; }

    bool send(const OutgoingDatagrams& outgoing) override;

    /// Sends what waits for company. False when a socket is full.
    bool flush();

    /// Tries again what a full socket did not take. True when nothing waits any more.
    bool retry();

    bool blocked() const { return !waiting_.empty(); }
    /// The socket that was full; meaningful while blocked().
    std::size_t blockedSocket() const { return waiting_.front().socket; }

    struct TooBig {
        std::uint64_t serial = 0;
        std::size_t size = 0;
    };
    /// Datagrams refused as too large since the last call.
    std::vector<TooBig> takeTooBig();

private:
    static constexpr std::size_t kBatch = 64;
    static constexpr std::size_t kBatchBytes = 2048; ///< larger datagrams gain nothing from company

    struct Waiting {
        std::size_t socket = 0;
        RTAddr to;
        std::size_t segment = 0;
        std::size_t stampAt = 0;
        std::uint64_t serial = 0;
        std::vector<std::uint8_t> bytes;
    };

    using Arena = std::vector<std::uint8_t, TrackedAllocator<std::uint8_t, "support/net/driver/TrainSender",
                                                             "TrainSender::TrainSender">>;

    std::uint8_t* slotAt(std::size_t index) { return arena_.data() + index * kBatchBytes; }
    bool sendNow(const OutgoingDatagrams& outgoing);
    void stamp(const OutgoingDatagrams& outgoing);
    void keep(const OutgoingDatagrams& outgoing, std::size_t from);

    std::vector<std::unique_ptr<UdpSocket>>& sockets_;
    bool batch_;
    SendWarmer warmer_;
    bool cold_ = false;
    std::deque<Waiting> waiting_;
    std::vector<TooBig> tooBig_;
    Arena arena_ = Arena(kBatch * kBatchBytes);
    std::vector<OutDatagram> gathered_;
    std::vector<std::uint64_t> gatheredSerials_;
    std::size_t gatheredSocket_ = 0;
};

} // namespace kor::detail
