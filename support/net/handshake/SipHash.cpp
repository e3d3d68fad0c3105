#include "support/net/handshake/SipHash.h"

#include "support/net/wire/LittleEndian.h"

#include <bit>
#include <cstddef>

namespace kor::detail {

namespace {

class SipState {
public:
    explicit SipState(const SipKey& key)
        : v0_(key.low ^ 0x736f6d6570736575),
          v1_(key.high ^ 0x646f72616e646f6d),
          v2_(key.low ^ 0x6c7967656e657261),
          v3_(key.high ^ 0x7465646279746573) {}

    void addWord(std::uint64_t word) {
        v3_ ^= word;
        rounds(2);
        v0_ ^= word;
    }

    std::uint64_t finish() {
        v2_ ^= 0xFF;
        rounds(4);
        return v0_ ^ v1_ ^ v2_ ^ v3_;
    }

private:
    void rounds(int count) {
        for (int i = 0; i < count; ++i) {
            v0_ += v1_;
            v1_ = std::rotl(v1_, 13) ^ v0_;
            v0_ = std::rotl(v0_, 32);
            v2_ += v3_;
            v3_ = std::rotl(v3_, 16) ^ v2_;
            v0_ += v3_;
            v3_ = std::rotl(v3_, 21) ^ v0_;
            v2_ += v1_;
            v1_ = std::rotl(v1_, 17) ^ v2_;
            v2_ = std::rotl(v2_, 32);
        }
    }

    std::uint64_t v0_, v1_, v2_, v3_;
};

} // namespace

std::uint64_t sipHash24(const SipKey& key, std::span<const std::uint8_t> bytes) {
    SipState state(key);
    std::size_t done = 0;
    for (; bytes.size() - done >= 8; done += 8)
        state.addWord(load64(bytes.data() + done));
    std::uint64_t last = std::uint64_t{bytes.size()} << 56;
    for (int shift = 0; done < bytes.size(); ++done, shift += 8)
        last |= std::uint64_t{bytes[done]} << shift;
    state.addWord(last);
    return state.finish();
}

} // namespace kor::detail
