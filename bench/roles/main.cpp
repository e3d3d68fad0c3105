// The program that bench.py measures: `kor-bench-role ROLE [NUMBER]...`.

#include "Role.h"

#include <exception>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>

#include <unistd.h>

namespace kor::bench {

namespace {

std::map<std::string_view, Role::Play>& roles() {
    static std::map<std::string_view, Role::Play> all;
    return all;
}

/// A word and numbers behind it.
Order readOrder(const std::string& line) {
    std::istringstream text(line);
    Order order;
    text >> order.word;
    for (double number = 0; text >> number;)
        order.numbers.push_back(number);
    if (!text.eof())
        throw std::runtime_error("not numbers: " + line);
    return order;
}

void answer(const Numbers& numbers) {
    std::ostringstream line;
    line << std::setprecision(17);
    for (const double number : numbers)
        line << number << ' ';
    std::cout << line.str() << std::endl;
}

[[noreturn]] void fail(const std::exception& error) {
    std::cerr << error.what() << std::endl;
    ::_exit(1);
}

void play(const Order& order) {
    const auto role = roles().find(order.word);
    if (role == roles().end())
        throw std::runtime_error("no role '" + order.word + "'");
    role->second(order.numbers);
}

} // namespace

Role::Role(std::string_view name, Play play) {
    roles().emplace(name, play);
}

void followOrders(const Numbers& ready, const std::function<Numbers(const Order&)>& follow) {
    try {
        answer(ready);
        for (std::string line; std::getline(std::cin, line);)
            answer(follow(readOrder(line)));
    } catch (const std::exception& error) {
        fail(error);
    }
    ::_exit(0);
}

} // namespace kor::bench

int main(int argc, char** argv) {
    try {
        std::string words;
        for (int i = 1; i < argc; ++i)
            words.append(argv[i]).append(1, ' ');
        kor::bench::play(kor::bench::readOrder(words));
    } catch (const std::exception& error) {
        kor::bench::fail(error);
    }
}
