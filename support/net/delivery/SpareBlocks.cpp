#include "support/net/delivery/SpareBlocks.h"

#include <support/jAllocator.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <mutex>

namespace kor::detail {

namespace {

constexpr std::uint32_t kMinBytes = 64u << 10; // smaller ones stay with the allocator
constexpr std::uint64_t kMaxBytes = 16u << 20;
constexpr std::size_t kMax = 32;

struct Spare {
    void* block = nullptr;
    std::uint32_t capacity = 0;
};

constinit std::mutex mutex;
constinit std::array<Spare, kMax> spares{}; ///< oldest first
constinit std::size_t count = 0;
constinit std::uint64_t bytes = 0;

void remove(std::size_t index) {
    bytes -= spares[index].capacity;
    std::copy(spares.begin() + index + 1, spares.begin() + count, spares.begin() + index);
    --count;
}

} // namespace

std::uint32_t blockCapacity(std::uint32_t size) {
    if (size < kMinBytes || size > kMaxBytes)
        return size;
    const auto step = static_cast<unsigned>(std::bit_width(size)) - 4U; // an eighth of the power of two below
    return (((size - 1) >> step) + 1) << step;
}

void* takeSpareBlock(std::uint32_t size) {
    if (size < kMinBytes || size > kMaxBytes)
        return nullptr;
    const std::uint32_t capacity = blockCapacity(size);
    const std::lock_guard lock(mutex);
    for (std::size_t i = count; i != 0; --i)
        if (spares[i - 1].capacity == capacity) {
            void* const block = spares[i - 1].block;
            remove(i - 1);
            return block;
        }
    return nullptr;
}

void keepSpareBlock(void* block, std::uint32_t size) {
    const std::uint32_t capacity = blockCapacity(size);
    if (size < kMinBytes || capacity > kMaxBytes) {
        jAllocator::get()->localFree(block);
        return;
    }
    std::array<void*, kMax> old;
    std::size_t oldCount = 0;
    {
        const std::lock_guard lock(mutex);
        while (count == kMax || bytes + capacity > kMaxBytes) {
            old[oldCount++] = spares.front().block;
            remove(0);
        }
        spares[count++] = {block, capacity};
        bytes += capacity;
    }
    for (std::size_t i = 0; i != oldCount; ++i)
        jAllocator::get()->localFree(old[i]);
}

} // namespace kor::detail
