#include "trace/EventRing.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace kor::detail {

std::unique_ptr<EventRing> EventRing::make(std::size_t places) {
    std::unique_ptr<Place[]> memory(new (std::nothrow) Place[places]);
    return memory ? std::unique_ptr<EventRing>(new (std::nothrow) EventRing(std::move(memory), places))
                  : nullptr;
}

EventRing::EventRing(std::unique_ptr<Place[]> places, std::size_t count)
    : places_(std::move(places)), count_(count) {}

void EventRing::add(Event event, std::string_view text) {
    text = text.substr(0, kMaxTextBytes);
    event.textBytes = static_cast<std::uint16_t>(text.size());
    const std::size_t more = text.empty() ? 0 : (text.size() - 1) / kTextBytes;
    const std::uint64_t index = next_.fetch_add(1 + more, std::memory_order_relaxed);
    if (more != 0)
        continuations_.fetch_add(more, std::memory_order_relaxed);
    if (!put(index, event, text.substr(0, kTextBytes))) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    event.kind = EventKind::more;
    for (std::size_t i = 1; i <= more; ++i)
        if (!put(index + i, event, text.substr(i * kTextBytes, kTextBytes)))
            return;
}

bool EventRing::put(std::uint64_t index, const Event& event, std::string_view text) {
    Place& here = place(index);
    std::uint64_t before = here.state.load(std::memory_order_relaxed);
    do {
        if (before % 2 != 0 || before / 2 > index)
            return false;
    } while (!here.state.compare_exchange_weak(before, before | 1, std::memory_order_acquire,
                                               std::memory_order_relaxed));
    if (before > 2 * begin_.load(std::memory_order_relaxed) && here.event.kind != EventKind::more)
        overwritten_.fetch_add(1, std::memory_order_relaxed);
    here.event = event;
    text.copy(here.text, text.size());
    here.state.store(2 * (index + 1), std::memory_order_release);
    return true;
}

bool EventRing::take(std::uint64_t index, Event& event, char* text) {
    Place& here = place(index);
    std::uint64_t wanted = 2 * (index + 1);
    if (!here.state.compare_exchange_strong(wanted, wanted | 1, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
        return false;
    }
    event = here.event;
    std::memcpy(text, here.text, std::min<std::size_t>(event.textBytes, kTextBytes));
    here.state.store(wanted, std::memory_order_release);
    return true;
}

void EventRing::appendRemainder(std::uint64_t index, Entry& entry) {
    char text[kTextBytes] = {};
    while (entry.text.size() < entry.event.textBytes) {
        Event event;
        if (!take(++index, event, text) || event.kind != EventKind::more)
            return;
        entry.text.append(text, std::min<std::size_t>(entry.event.textBytes - entry.text.size(), kTextBytes));
    }
}

std::vector<EventRing::Entry> EventRing::entries() {
    const std::uint64_t end = next_.load(std::memory_order_acquire);
    std::uint64_t index = std::max(begin_.load(std::memory_order_relaxed), end > count_ ? end - count_ : 0);
    std::vector<Entry> result;
    result.reserve(static_cast<std::size_t>(end - index));
    char text[kTextBytes] = {};
    for (; index != end; ++index) {
        Entry entry;
        if (take(index, entry.event, text) && entry.event.kind != EventKind::more) {
            entry.text.assign(text, std::min<std::size_t>(entry.event.textBytes, kTextBytes));
            appendRemainder(index, entry);
            result.push_back(std::move(entry));
        }
    }
    return result;
}

EventRing::Counts EventRing::counts() const {
    const std::uint64_t places =
        next_.load(std::memory_order_relaxed) - begin_.load(std::memory_order_relaxed);
    return {places - std::min(places, continuations_.load(std::memory_order_relaxed)),
            overwritten_.load(std::memory_order_relaxed), dropped_.load(std::memory_order_relaxed)};
}

void EventRing::clear() {
    begin_.store(next_.load(std::memory_order_relaxed), std::memory_order_relaxed);
    overwritten_.store(0, std::memory_order_relaxed);
    dropped_.store(0, std::memory_order_relaxed);
    continuations_.store(0, std::memory_order_relaxed);
}

} // namespace kor::detail
