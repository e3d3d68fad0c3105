#pragma once

#include <cstdint>
#include <utility>

namespace kor::detail {

/// Sole owner of one packet's bytes, from the allocator and registered with its tracking.
class Block {
public:
    Block() = default;
    Block(Block&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    Block& operator=(Block&& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~Block() {
        if (data_ != nullptr)
            free();
    }

    /// A block of `size` bytes, not initialised; empty when the system has no memory for it.
    static Block allocate(std::uint32_t size);

    /// The same with a copy of `data` in it.
    static Block copyOf(const void* data, std::uint32_t size);

    unsigned char* data() const { return data_; }
    std::uint32_t size() const { return size_; }
    explicit operator bool() const { return data_ != nullptr; }

    /// Gives the bytes to the caller, who frees them: `memRemoveInfo`, then `jAllocator::localFree`.
    unsigned char* release();

    /// A larger block with the first `keep` bytes copied over. False, and as it was, when there is no memory.
    bool grow(std::uint32_t size, std::uint32_t keep);

private:
    void free();

    unsigned char* data_ = nullptr;
    std::uint32_t size_ = 0;
};

} // namespace kor::detail
