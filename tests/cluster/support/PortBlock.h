#pragma once

/// Ports of this machine that no other test run uses, for as long as the object lives.
///
/// A run claims a block by listening on the TCP port of the block's first number; the UDP ports of the same
/// numbers are its own then. They lie below the range from which the system takes ports by itself.
class PortBlock {
public:
    static constexpr int kSize = 80;

    /// Aborts the test program when no block is left.
    PortBlock();
    PortBlock(const PortBlock&) = delete;
    PortBlock& operator=(const PortBlock&) = delete;
    ~PortBlock();

    /// The UDP port of that index, 0 to kSize - 1.
    int operator[](int index) const { return first_ + index; }

private:
    bool claim(int first);

    int first_ = 0;
    int claim_ = -1;
};
