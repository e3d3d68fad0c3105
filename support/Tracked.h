#pragma once

#include "support/BlockHeader.h"

#include <support/jAllocator.h>
#include <support/memInfo.h>

#include <algorithm>
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

/// A string literal as an argument of a template.
template <std::size_t kLength>
struct SourceText {
    consteval SourceText(const char (&literal)[kLength]) { std::copy_n(literal, kLength, text); }
    char text[kLength];
};

/// Memory of the library's allocator, registered under the file and operation without a line; throws
/// `std::bad_alloc` when the system has none.
template <SourceText kFile, SourceText kLabel>
void* allocateTracked(std::size_t size, bool isArray) {
    void* const block = allocateOrThrow(size);
    memAddInfo(block, isArray, kFile.text, 0, kLabel.text, size);
    return block;
}

/// Frees what `allocateTracked` gave; null does nothing.
template <SourceText kFile, SourceText kLabel>
void releaseTracked(void* block) {
    if (block == nullptr)
        return;
    memRemoveInfo(block, kFile.text, 0, kLabel.text);
    jAllocator::get()->localFree(block);
}

/// Base of a class whose objects come from the library's allocator when they are made by `new`.
template <SourceText kFile, SourceText kLabel>
struct TrackedNew {
    static void* operator new(std::size_t size) { return allocateTracked<kFile, kLabel>(size, false); }
    static void operator delete(void* block) { releaseTracked<kFile, kLabel>(block); }
};

/// Lets a standard container or shared pointer live in memory of the library's allocator.
template <class T, SourceText kFile, SourceText kLabel>
struct TrackedAllocator {
    using value_type = T;
    template <class U>
    struct rebind {
        using other = TrackedAllocator<U, kFile, kLabel>;
    };

    TrackedAllocator() = default;
    template <class U>
    TrackedAllocator(const TrackedAllocator<U, kFile, kLabel>&) {}

    T* allocate(std::size_t n) {
        return static_cast<T*>(allocateTracked<kFile, kLabel>(n * sizeof(T), n > 1));
    }
    void deallocate(T* block, std::size_t) { releaseTracked<kFile, kLabel>(block); }

    template <class U>
    bool operator==(const TrackedAllocator<U, kFile, kLabel>&) const {
        return true;
    }
};

} // namespace kor::detail
