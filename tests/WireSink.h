#pragma once

#include "support/net/Endpoint.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace kor::testing_support {

/// Keeps the single datagrams of what an endpoint sends, up to a limit.
class WireSink : public detail::DatagramSink {
public:
    bool send(const detail::Outgoing& outgoing) override {
        for (std::size_t at = 0; at < outgoing.bytes.size(); at += outgoing.segment) {
            const auto part =
                outgoing.bytes.subspan(at, std::min(outgoing.segment, outgoing.bytes.size() - at));
            if (wire.size() < kMost)
                wire.emplace_back(part.begin(), part.end());
        }
        return true;
    }

    std::deque<std::vector<std::uint8_t>> wire; ///< oldest first

private:
    static constexpr std::size_t kMost = 1024;
};

} // namespace kor::testing_support
