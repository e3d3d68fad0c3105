#include <support/RTAddr.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>

namespace kor {

bool RTAddr::set(const jString& ip, std::uint16_t port) {
    const std::string_view text = ip;
    const char* next = text.data();
    const char* const end = text.data() + text.size();
    std::uint32_t address = 0;
    for (int part = 0; part != 4; ++part) {
        if (part != 0 && (next == end || *next++ != '.'))
            return false;
        unsigned value = 256;
        const auto [stop, error] = std::from_chars(next, end, value);
        if (error != std::errc{} || value > 255 || stop - next > 3)
            return false;
        address = address << 8 | value;
        next = stop;
    }
    if (next != end)
        return false;
    ip_ = address;
    port_ = port;
    return true;
}

jString RTAddr::formatString() const {
    std::array<char, 24> text;
    std::snprintf(text.data(), text.size(), "%u.%u.%u.%u:%u", ip_ >> 24, ip_ >> 16 & 255, ip_ >> 8 & 255,
                  ip_ & 255, unsigned{port_});
    return jString(text.data());
}

} // namespace kor
