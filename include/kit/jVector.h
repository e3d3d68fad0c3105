#pragma once

#include "../support/Export.h"
#include "../support/jAllocator.h"
#include "../support/memInfo.h"
#include "TypeLabel.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>

namespace kor {

/// A growable array.
///
/// The storage always holds `capacity` constructed elements; those beyond `count` are default-constructed or
/// stale. Elements enter the storage by assignment, so T is default-constructible and assignable. The members
/// are public: after `reserve(n, false)` an owner may fill slots of `data` and set `count` itself. Not
/// thread-safe.
template <class T>
class KOR_API jVector {
public:
    bool released = false;     ///< the destructor has freed the storage
    std::int32_t count = 0;    ///< elements in use
    std::int32_t capacity = 0; ///< elements in the storage
    T* data = nullptr;         ///< the storage, null while there is none

    jVector() = default;
    /// Holds copies of the items in order.
    jVector(std::initializer_list<T> items) { appendItems(items.begin(), static_cast<int>(items.size())); }
    /// @{
    /// Copies the elements in use. Storage that is large enough is kept.
    jVector(const jVector& other) { assign(other); }
    jVector& operator=(const jVector& other) {
        assign(other);
        return *this;
    }
    /// @}

    virtual ~jVector() {
        if (!released) {
            freeStorage(releaseLabel());
            released = true;
        }
    }

    /// Appends n items in order; they may be elements of this vector.
    virtual void push_back(const T* items, int n) { appendItems(items, n); }

    /// Appends the elements that the other vector holds at the call, in order; it may be this one.
    virtual void push_back(const jVector& other) {
        const std::int32_t n = other.count;
        for (std::int32_t i = 0; i < n; ++i)
            append(other.data[i]);
    }

    /// Appends one item, which may be an element of this vector. The result points to the new element until
    /// the next change of the storage.
    virtual T* push_back(const T& item) { return append(item); }

    /// Appends a default value.
    virtual T* push_back() {
        static const T kDefault{};
        return append(kDefault);
    }

    /// Makes room for n elements in one step. `keep` false also empties the vector; an n below 1, or one that
    /// there is room for, does only that.
    virtual void reserve(int n, bool keep) {
        if (n < 1 || capacity >= n) {
            if (!keep)
                count = 0;
            return;
        }
        if (keep) {
            moveTo(n, reserveLabel());
            return;
        }
        freeStorage(reserveLabel());
        data = makeStorage(n, reserveLabel());
        capacity = n;
    }

    /// Frees the storage; the vector is empty and may be used again.
    virtual void release() { freeStorage(releaseLabel()); }

    /// Makes room for more elements: 10 at first, then twice as many each time.
    virtual void grow() {
        constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
        if (capacity == kMax)
            detail::allocationFailed(sizeof(T) * (std::size_t{kMax} + 1));
        const std::int32_t doubled = capacity <= kMax / 2 ? 2 * capacity : kMax;
        reallocate(capacity > 0 ? doubled : 10);
    }

    /// Moves the elements into new storage of n slots, but never of fewer than `count`.
    virtual void reallocate(int n) { moveTo(std::max(n, count), reallocateLabel()); }

    /// @{
    /// Element access without a bounds check.
    T& operator[](int index) { return data[index]; }
    const T& operator[](int index) const { return data[index]; }
    /// @}

    /// Number of elements in use.
    int size() const { return count; }
    /// True when no element is in use.
    bool empty() const { return count == 0; }
    /// @{
    /// From the first element up to behind the last; null without storage. Valid until the storage changes.
    T* begin() { return data; }
    T* end() { return data + count; }
    const T* begin() const { return data; }
    const T* end() const { return data + count; }
    /// @}

private:
    static_assert(alignof(T) <= alignof(std::max_align_t), "the allocator aligns for fundamental types only");

    static constexpr const char* kFile = "include/kit/jVector";

    static const char* reserveLabel() {
        static const LabelText label("jVector<", TypeLabel<T>::text(), ">::reserve");
        return label.c_str();
    }
    static const char* reallocateLabel() {
        static const LabelText label("jVector<", TypeLabel<T>::text(), ">::reallocate");
        return label.c_str();
    }
    static const char* releaseLabel() {
        static const LabelText label("jVector<", TypeLabel<T>::text(), ">::release");
        return label.c_str();
    }

    bool holds(const T* item) const {
        return !std::less<const T*>()(item, data) && std::less<const T*>()(item, data + count);
    }

    T* append(const T& item) {
        if (count < capacity) {
            data[count] = item;
        } else if (const T* source = std::addressof(item); holds(source)) {
            const std::ptrdiff_t index = source - data;
            grow();
            data[count] = data[index];
        } else {
            grow();
            data[count] = item;
        }
        return data + count++;
    }

    void appendItems(const T* items, int n) {
        const bool own = holds(items);
        const std::ptrdiff_t first = own ? items - data : 0;
        for (int i = 0; i < n; ++i)
            append(own ? data[first + i] : items[i]);
    }

    void assign(const jVector& other) {
        if (this == &other)
            return;
        count = 0;
        if (other.count > 0) {
            reserve(other.count, false);
            push_back(other);
        }
    }

    static T* makeStorage(std::int32_t n, const char* label) {
        const std::size_t bytes = static_cast<std::size_t>(n) * sizeof(T);
        T* storage = static_cast<T*>(jAllocator::get()->localAlloc(bytes));
        std::uninitialized_default_construct_n(storage, n);
        memAddInfo(storage, true, kFile, __LINE__, label, bytes);
        return storage;
    }

    static void destroyStorage(T* storage, std::int32_t n, const char* label) {
        std::destroy_n(storage, n);
        memRemoveInfo(storage, kFile, __LINE__, label);
        jAllocator::get()->localFree(storage);
    }

    void moveTo(std::int32_t n, const char* label) {
        T* storage = makeStorage(n, label);
        if (data) {
            std::copy_n(data, count, storage);
            destroyStorage(data, capacity, label);
        }
        data = storage;
        capacity = n;
    }

    void freeStorage(const char* label) {
        if (data)
            destroyStorage(data, capacity, label);
        data = nullptr;
        count = 0;
        capacity = 0;
    }
};

} // namespace kor
