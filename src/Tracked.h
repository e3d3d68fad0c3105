#pragma once

#include <support/jAllocator.h>
#include <support/memInfo.h>

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace kor::detail {

/// Makes an object in memory of the library's allocator, registered under the file and operation.
template <class T, class... Args>
T* makeTracked(const char* file, int line, const char* label, Args&&... args) {
    void* block = jAllocator::get()->localAlloc(sizeof(T));
    T* object = new (block) T{std::forward<Args>(args)...};
    memAddInfo(block, false, file, line, label, sizeof(T));
    return object;
}

/// Destroys and frees what `makeTracked` made, as that very class; null does nothing.
template <class T>
void freeTracked(T* tracked, const char* file, int line, const char* label) {
    using Object = std::remove_const_t<T>;
    if (Object* object = const_cast<Object*>(tracked)) {
        object->Object::~Object();
        memRemoveInfo(object, file, line, label);
        jAllocator::get()->localFree(object);
    }
}

/// Frees the bytes of a received packet; null does nothing.
inline void freeBytes(unsigned char*& bytes, const char* file, int line, const char* label) {
    if (bytes) {
        memRemoveInfo(bytes, file, line, label);
        jAllocator::get()->localFree(bytes);
        bytes = nullptr;
    }
}

/// Lets a standard container or smart pointer live in memory of the library's allocator.
template <class T>
struct TrackedAllocator {
    using value_type = T;

    TrackedAllocator() = default;
    template <class U>
    TrackedAllocator(const TrackedAllocator<U>&) {}

    T* allocate(std::size_t n) {
        void* block = jAllocator::get()->localAlloc(n * sizeof(T));
        memAddInfo(block, n > 1, "src/Tracked", __LINE__, "TrackedAllocator::allocate", n * sizeof(T));
        return static_cast<T*>(block);
    }
    void deallocate(T* block, std::size_t) {
        memRemoveInfo(block, "src/Tracked", __LINE__, "TrackedAllocator::deallocate");
        jAllocator::get()->localFree(block);
    }

    template <class U>
    bool operator==(const TrackedAllocator<U>&) const {
        return true;
    }
};

} // namespace kor::detail
