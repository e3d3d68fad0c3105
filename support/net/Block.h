#pragma once

#include <cstdint>

namespace kor::detail {

/// Sole owner of one packet's bytes, from the allocator and registered with its tracking.
class Block {
public:
    Block() = default;
    Block(Block&& other) noexcept;
    Block& operator=(Block&& other) noexcept;
    ~Block();

    /// A block of `size` bytes, not initialised; empty when the system has no memory for it.
    static Block allocate(std::uint32_t size);

    unsigned char* data() const { return data_; }
    std::uint32_t size() const { return size_; }
    explicit operator bool() const { return data_ != nullptr; }

    /// Gives the bytes to the caller, who frees them: `memRemoveInfo`, then `jAllocator::localFree`.
    unsigned char* release();

    /// A larger block with the first `keep` bytes copied over. False, and as it was, when there is no memory.
    bool grow(std::uint32_t size, std::uint32_t keep);

private:
    unsigned char* data_ = nullptr;
    std::uint32_t size_ = 0;
};

} // namespace kor::detail
