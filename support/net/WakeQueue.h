#pragma once

#include "support/net/Time.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace kor::detail {

/// Items ordered by the time at which they want to be woken: a binary heap in which every item knows its
/// place, so that a change of its time costs a few swaps. T has members `Nanoseconds wake` and `std::size_t
/// wakeIndex`. Not owned.
template <typename T>
class WakeQueue {
public:
    bool empty() const { return heap_.empty(); }
    T* first() const { return heap_.front(); }
    Nanoseconds nextWake() const { return heap_.empty() ? kNever : heap_.front()->wake; }

    void insert(T* item) {
        heap_.push_back(item);
        place(heap_.size() - 1, item);
        up(item->wakeIndex);
    }

    void update(T* item, Nanoseconds wake) {
        const bool earlier = wake < item->wake;
        item->wake = wake;
        if (earlier)
            up(item->wakeIndex);
        else
            down(item->wakeIndex);
    }

    void remove(T* item) {
        const std::size_t hole = item->wakeIndex;
        T* last = heap_.back();
        heap_.pop_back();
        if (last == item)
            return;
        place(hole, last);
        up(hole);
        down(last->wakeIndex);
    }

private:
    void place(std::size_t index, T* item) {
        heap_[index] = item;
        item->wakeIndex = index;
    }

    void up(std::size_t index) {
        T* item = heap_[index];
        while (index != 0 && item->wake < heap_[(index - 1) / 2]->wake) {
            place(index, heap_[(index - 1) / 2]);
            index = (index - 1) / 2;
        }
        place(index, item);
    }

    void down(std::size_t index) {
        T* item = heap_[index];
        while (true) {
            std::size_t child = 2 * index + 1;
            if (child >= heap_.size())
                break;
            if (child + 1 < heap_.size() && heap_[child + 1]->wake < heap_[child]->wake)
                ++child;
            if (item->wake <= heap_[child]->wake)
                break;
            place(index, heap_[child]);
            index = child;
        }
        place(index, item);
    }

    std::vector<T*> heap_;
};

} // namespace kor::detail
