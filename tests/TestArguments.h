#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

/// What the test program was called with, without its name and without the test framework's own flags.
const std::vector<std::string>& testArguments();

inline bool hasFlag(const std::string& flag) {
    return std::ranges::find(testArguments(), flag) != testArguments().end();
}

/// The number that follows that flag.
inline std::uint64_t numberAfter(const std::string& flag, std::uint64_t otherwise) {
    const auto found = std::ranges::find(testArguments(), flag);
    return found == testArguments().end() || found + 1 == testArguments().end()
               ? otherwise
               : std::strtoull((found + 1)->c_str(), nullptr, 10);
}
