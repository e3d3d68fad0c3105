#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kor::bench {

using Numbers = std::vector<double>;

/// A line on standard input: a word, and numbers behind it.
struct Order {
    std::string word;
    Numbers numbers;
};

/// What a process of this program does, under the name by which it is started. Defined as a constant in the
/// file that implements it.
class Role {
public:
    /// Prepares the measurement from the numbers on the command line, and calls followOrders. May throw.
    using Play = void (*)(const Numbers& arguments);

    Role(std::string_view name, Play play);
};

/// Answers `ready` with a line on standard output, and so each order with what `follow` returns for it. At
/// the end of the orders, and when `follow` throws, ends the process with all its threads, so that whatever
/// they use may live on the stack of the caller.
[[noreturn]] void followOrders(const Numbers& ready, const std::function<Numbers(const Order&)>& follow = {});

} // namespace kor::bench
