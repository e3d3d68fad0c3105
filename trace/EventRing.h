#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kor::detail {

enum class EventKind : std::uint8_t {
    span,
    instant,
    value,   // first: number
    clock,   // first, second, third: offset, bound, ping in ms
    sent,    // first: frame, second: bytes
    arrived, // as sent
    applied, // first: frame, second: weight
    waited,  // code: result, first: position, second: vsync in s
    presented,
    updated,    // first: frame
    connection, // text: what happened; LF; the peer
    log,        // code: level
    more        // the continuation of the text of the event before
};

/// What was recorded, but for its text.
struct Event {
    std::int64_t begin = 0; // ns of the own clock
    std::int64_t end = 0;
    double first = 0;
    double second = 0;
    float third = 0;
    std::uint32_t thread = 0;
    EventKind kind = EventKind::span;
    std::uint8_t code = 0;
    std::uint16_t textBytes = 0;
};

/// The newest events of all threads, in places of 128 bytes.
///
/// Nobody ever waits: an event goes to the next place of a common count, which is taken with one exchange and
/// given back with one store. A place that another thread is just using is left to that one, and the event is
/// dropped and counted; it takes a full turn of the ring, or a reader, for two to meet. All operations but
/// `clear` may be called from any thread.
class EventRing {
public:
    static constexpr std::size_t kPlaceBytes = 128;
    static constexpr std::size_t kMaxTextBytes = 1000;

    struct Counts {
        std::uint64_t recorded = 0;
        std::uint64_t overwritten = 0;
        std::uint64_t dropped = 0;
    };

    struct Entry {
        Event event;
        std::string text;
    };

    /// Null when there is no memory for `places`, which must be at least 16.
    static std::unique_ptr<EventRing> make(std::size_t places);

    /// Takes an event in. Text over `kMaxTextBytes` is cut.
    void add(Event event, std::string_view text);

    /// What is there now, in the order in which it was recorded. Throws `std::bad_alloc`.
    std::vector<Entry> entries();

    Counts counts() const;

    /// Forgets everything. One caller at a time.
    void clear();

private:
    static constexpr std::size_t kTextBytes = 72;

    struct alignas(kPlaceBytes) Place {
        // Twice the index of what is here, counted from 1; odd while somebody uses the place.
        std::atomic<std::uint64_t> state{0};
        Event event;
        char text[kTextBytes];
    };
    static_assert(sizeof(Place) == kPlaceBytes);

    EventRing(std::unique_ptr<Place[]> places, std::size_t count);

    Place& place(std::uint64_t index) { return places_[static_cast<std::size_t>(index % count_)]; }
    bool put(std::uint64_t index, const Event& event, std::string_view text);
    bool take(std::uint64_t index, Event& event, char* text);
    void appendRemainder(std::uint64_t index, Entry& entry);

    std::unique_ptr<Place[]> places_;
    std::size_t count_;
    std::atomic<std::uint64_t> begin_{0}; // index before which everything has been forgotten
    alignas(64) std::atomic<std::uint64_t> next_{0};
    alignas(64) std::atomic<std::uint64_t> overwritten_{0};
    std::atomic<std::uint64_t> dropped_{0};
    std::atomic<std::uint64_t> continuations_{0};
};

} // namespace kor::detail
