#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// Nanoseconds of the system's clock, the one that the kernel stamps frames with.
std::int64_t systemTime();

/// An Ethernet frame behind the header in which the kernel says what is left to do for its checksums.
struct Frame {
    std::vector<std::uint8_t> bytes;
    std::int64_t arrival = 0;

    std::uint64_t target() const { return address(0); }
    std::uint64_t source() const { return address(6); }

private:
    std::uint64_t address(std::size_t offset) const;
};

/// All frames of one network interface. Throws std::system_error when it cannot be opened.
class FrameSocket {
public:
    explicit FrameSocket(const std::string& interface);
    FrameSocket(FrameSocket&& other) noexcept;
    FrameSocket(const FrameSocket&) = delete;
    ~FrameSocket();

    int fd() const { return fd_; }

    /// The next frame that the interface has received; empty while there is none.
    std::optional<Frame> receive();
    /// Lost when the interface takes no more.
    void send(std::span<const std::uint8_t> bytes);

private:
    int fd_;
};
