#include "Captures.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

constexpr std::size_t kFramesKept = 16;
constexpr std::size_t kMaxPending = 16;

int earlierOf(double position) {
    return static_cast<int>(std::floor(position));
}

int laterOf(double position) {
    return static_cast<int>(std::ceil(position));
}

// What comes from the network may be anything.
bool isSound(const CaptureOrder& order) {
    return order.position >= 0 && order.position < 2e9;
}

} // namespace

void Captures::keep(const WallFrame& frame) {
    frames_.try_emplace(frame.id, frame.scene);
    if (frames_.size() > kFramesKept)
        frames_.erase(frames_.begin());
    if (frame.order.number > lastNumber_ && isSound(frame.order)) {
        lastNumber_ = frame.order.number;
        take(frame.order, frame.mode);
    }
    blendExact();
}

void Captures::take(const CaptureOrder& order, const WallMode& mode) {
    const int oldest = frames_.begin()->first;
    if (earlierOf(order.position) < oldest) {
        complain(order, "frame " + std::to_string(earlierOf(order.position)) +
                            " is long past; the oldest one kept is " + std::to_string(oldest));
    } else if (pending_.size() == kMaxPending) {
        complain(order, "too many captures wait for their frames");
    } else {
        pending_.push_back({order, mode.lock && mode.interpolation});
    }
}

void Captures::clear() {
    for (const Pending& pending : pending_)
        complain(pending.order, "the master went away");
    pending_.clear();
    exact_.clear();
    frames_.clear();
    lastNumber_ = 0;
}

// At once, because a slave that was held up takes in many frames in one go and keeps only the last.
void Captures::blendExact() {
    for (Pending& pending : pending_) {
        const double position = pending.order.position;
        if (!pending.exact || frames_.rbegin()->first < laterOf(position))
            continue;
        pending.exact = false;
        const auto earlier = frames_.find(earlierOf(position));
        const auto later = frames_.find(laterOf(position));
        if (earlier == frames_.end() || later == frames_.end()) {
            complain(pending.order, "a frame around " + std::to_string(position) + " never came");
            continue;
        }
        Exact exact{pending.order, earlier->first, later->first, position - earlier->first, earlier->second};
        blend(exact.scene, later->second, exact.weight);
        exact_.push_back(std::move(exact));
    }
    dropDone();
}

std::vector<Captures::Exact> Captures::takeExact() {
    return std::exchange(exact_, {});
}

std::optional<CaptureOrder> Captures::nextShown(double position) {
    for (Pending& pending : pending_) {
        if (pending.shown && position >= pending.order.position) {
            pending.shown = false;
            const CaptureOrder order = pending.order;
            dropDone();
            return order;
        }
    }
    return std::nullopt;
}

std::vector<std::string> Captures::takeComplaints() {
    return std::exchange(complaints_, {});
}

void Captures::complain(const CaptureOrder& order, const std::string& reason) {
    complaints_.push_back("capture " + std::to_string(order.number) + ": " + reason);
}

void Captures::dropDone() {
    std::erase_if(pending_, [](const Pending& pending) { return !pending.exact && !pending.shown; });
}
