#pragma once

#include "support/Tracked.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

namespace kor::detail {

/// A queue whose elements keep an absolute index: the first element ever pushed has index `first`, and
/// popping does not renumber. Grows by doubling and never shrinks, so that a steady flow allocates nothing.
template <typename T>
class Ring {
public:
    explicit Ring(std::uint64_t first = 0) : begin_(first), end_(first) {}

    std::uint64_t begin() const { return begin_; }
    std::uint64_t end() const { return end_; } ///< one past the newest index
    std::size_t size() const { return static_cast<std::size_t>(end_ - begin_); }
    bool empty() const { return begin_ == end_; }
    bool contains(std::uint64_t index) const { return index - begin_ < end_ - begin_; }

    T& operator[](std::uint64_t index) { return slots_[slotOf(index, capacity_)]; }
    const T& operator[](std::uint64_t index) const { return slots_[slotOf(index, capacity_)]; }
    T& front() { return (*this)[begin_]; }
    const T& front() const { return (*this)[begin_]; }
    T& back() { return (*this)[end_ - 1]; }

    /// The next push() needs no memory.
    void makeRoom() {
        if (size() == capacity_)
            grow();
    }

    void push(T value) {
        makeRoom();
        (*this)[end_++] = std::move(value);
    }

    void pop() {
        if constexpr (!std::is_trivially_destructible_v<T>)
            front() = T{};
        ++begin_;
    }

private:
    using Slots = std::vector<T, TrackedAllocator<T, "support/net/delivery/Ring", "Ring::grow">>;

    static std::size_t slotOf(std::uint64_t index, std::size_t capacity) {
        return static_cast<std::size_t>(index) & (capacity - 1);
    }

    void grow() {
        const std::size_t capacity = capacity_ == 0 ? 8 : capacity_ * 2;
        Slots slots(capacity);
        for (std::uint64_t i = begin_; i != end_; ++i)
            slots[slotOf(i, capacity)] = std::move((*this)[i]);
        slots_ = std::move(slots);
        capacity_ = capacity;
    }

    Slots slots_;
    std::size_t capacity_ = 0;
    std::uint64_t begin_;
    std::uint64_t end_;
};

} // namespace kor::detail
