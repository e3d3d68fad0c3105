#pragma once

#include "support/Time.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace kor::detail {

/// Items ordered by the time at which they want to be woken: a binary heap in which every item knows its
/// place, so that a change of its time costs a few swaps. The times lie in the heap itself: to compare them
/// touches no other item. T has a member `std::size_t wakeIndex`. Not owned.
template <typename T>
class WakeQueue {
public:
    bool empty() const { return heap_.empty(); }
    T* first() const { return heap_.front().item; }
    Nanoseconds nextWake() const { return heap_.empty() ? kNever : heap_.front().wake; }

    void insert(T* item, Nanoseconds wake) {
        heap_.push_back({wake, item});
        siftUp(heap_.size() - 1);
    }

    void update(T* item, Nanoseconds wake) {
        Entry& entry = heap_[item->wakeIndex];
        const bool earlier = wake < entry.wake;
        entry.wake = wake;
        if (earlier)
            siftUp(item->wakeIndex);
        else
            siftDown(item->wakeIndex);
    }

    /// Moves the item to an earlier time; a later one changes nothing.
    void advance(T* item, Nanoseconds wake) {
        if (wake < heap_[item->wakeIndex].wake)
            update(item, wake);
    }

    void remove(T* item) {
        const std::size_t hole = item->wakeIndex;
        const Entry last = heap_.back();
        heap_.pop_back();
        if (last.item == item)
            return;
        heap_[hole] = last;
        siftUp(hole);
        siftDown(last.item->wakeIndex);
    }

private:
    struct Entry {
        Nanoseconds wake;
        T* item;
    };

    void place(std::size_t index, const Entry& entry) {
        heap_[index] = entry;
        entry.item->wakeIndex = index;
    }

    void siftUp(std::size_t index) {
        const Entry entry = heap_[index];
        for (; index != 0 && entry.wake < heap_[(index - 1) / 2].wake; index = (index - 1) / 2)
            place(index, heap_[(index - 1) / 2]);
        place(index, entry);
    }

    void siftDown(std::size_t index) {
        const Entry entry = heap_[index];
        for (std::size_t child = 2 * index + 1; child < heap_.size(); child = 2 * index + 1) {
            if (child + 1 < heap_.size() && heap_[child + 1].wake < heap_[child].wake)
                ++child;
            if (entry.wake <= heap_[child].wake)
                break;
            place(index, heap_[child]);
            index = child;
        }
        place(index, entry);
    }

    std::vector<Entry> heap_;
};

} // namespace kor::detail
