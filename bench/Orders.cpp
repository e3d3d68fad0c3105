#include "Orders.h"

#include <cstdio>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace kor::bench {

std::string formatNumber(double number) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", number);
    return text;
}

std::string formatNumbers(const std::vector<double>& numbers) {
    std::string line;
    for (const double number : numbers)
        line.append(1, ' ').append(formatNumber(number));
    return line;
}

std::vector<double> parseNumbers(const std::string& line) {
    std::istringstream stream(line);
    std::vector<double> numbers;
    for (double number = 0; stream >> number;)
        numbers.push_back(number);
    if (!stream.eof())
        throw std::runtime_error("not numbers: " + line);
    return numbers;
}

bool Orders::next(Order& order) {
    std::string line;
    if (!std::getline(std::cin, line))
        return false;
    const std::size_t space = line.find(' ');
    order.word = line.substr(0, space);
    order.numbers = space == std::string::npos ? std::vector<double>{} : parseNumbers(line.substr(space));
    return true;
}

void Orders::answer(const std::vector<double>& numbers) {
    std::cout << formatNumbers(numbers) << std::endl;
}

} // namespace kor::bench
