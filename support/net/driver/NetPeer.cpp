#include "support/net/driver/NetPeer.h"

#include "support/net/driver/NetDriver.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kor::detail {

std::uint64_t NetPeer::enqueue(const void* data, int size) {
    if (data == nullptr || size < 1 || static_cast<std::uint32_t>(size) > maxPacketBytes_)
        return RTUser::kRefused;
    const auto bytes = static_cast<std::uint32_t>(size);
    if (!takes(bytes))
        return RTUser::kRefused; // before the work of copying
    Block block = Block::copyOf(data, bytes);
    if (!block)
        return RTUser::kRefused;

    std::uint64_t id = 0;
    bool wake = false;
    try {
        const std::lock_guard lock(sendMutex_);
        if (!takes(bytes))
            return RTUser::kRefused;
        // What may want memory comes first, so that being refused some leaves all as it was.
        undelivered_.makeRoom();
        if (outbox_.size() == outbox_.capacity())
            outbox_.reserve(std::max<std::size_t>(8, 2 * outbox_.size()));
        if (outbox_.empty())
            wake = driver_.noteOutbox(serial_); // whoever looks at once waits for our lock
        outbox_.push_back(std::move(block));
        queuedBytes_ += bytes;
        id = undelivered_.end();
        undelivered_.push(bytes);
    } catch (const std::bad_alloc&) {
        return RTUser::kRefused;
    }
    if (wake)
        driver_.wake();
    return id;
}

void NetPeer::takeOutbox(std::vector<Block>& blocks) {
    blocks.clear();
    const std::lock_guard lock(sendMutex_);
    std::swap(blocks, outbox_);
}

std::uint64_t NetPeer::delivered() {
    const std::lock_guard lock(sendMutex_);
    if (undelivered_.empty())
        return RTUser::kRefused;
    const std::uint64_t id = undelivered_.begin();
    queuedBytes_ -= undelivered_.front();
    undelivered_.pop();
    return id;
}

void NetPeer::close() {
    std::vector<Block> unsent;
    const std::lock_guard lock(sendMutex_);
    open_ = false;
    std::swap(unsent, outbox_);
}

void NetPeer::publish(const ClockEstimate& clock, Nanoseconds roundTrip) {
    const std::lock_guard lock(measureMutex_);
    clock_ = clock;
    roundTrip_ = roundTrip;
}

ClockEstimate NetPeer::clock() const {
    const std::lock_guard lock(measureMutex_);
    return clock_;
}

Nanoseconds NetPeer::roundTrip() const {
    const std::lock_guard lock(measureMutex_);
    return roundTrip_;
}

} // namespace kor::detail
