#pragma once

#include "support/platform/FileDescriptor.h"
#include "support/platform/SocketAddress.h"

#include <cstdint>

namespace kor::detail {

/// Warms up a datagram's path through this host.
///
/// A processor that has slept for some milliseconds has gone cold: the first datagram then leaves 20 to 40
/// microseconds after the time stamp that it carries, the next ones 2. So the first one goes to ourselves,
/// over loopback. Belongs to one thread.
class SendWarmer {
public:
    /// False when the system gives no socket or has no loopback; warm() then does nothing.
    bool open();
    void close() { fd_.close(); }
    bool isOpen() const { return fd_.valid(); }

    void warm();
    std::uint64_t count() const { return count_; } ///< of warm-ups made

private:
    std::uint64_t count_ = 0;
    FileDescriptor fd_;
    SocketAddress self_;
};

} // namespace kor::detail
