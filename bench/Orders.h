#pragma once

#include <string>
#include <vector>

namespace kor::bench {

/// Numbers in a line of text, exact to the last bit.
std::string formatNumber(double number);
/// The same with a space before each.
std::string formatNumbers(const std::vector<double>& numbers);
/// Throws std::runtime_error when there is something else in the line.
std::vector<double> parseNumbers(const std::string& line);

struct Order {
    std::string word;
    std::vector<double> numbers;
};

/// The child's end of what Child speaks: orders on standard input, answers on standard output.
class Orders {
public:
    /// Waits for the next order. False when there will be none: the role is to end.
    bool next(Order& order);
    void answer(const std::vector<double>& numbers);
};

} // namespace kor::bench
