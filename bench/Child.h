#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kor::bench {

/// Another process of this program, in one of the roles of Roles.h. It is told orders and answers each with a
/// line of numbers.
///
/// It ends with this object, and with this process however that ends. Throws std::runtime_error when the
/// child dies or does not answer in time. Belongs to the main thread.
class Child {
public:
    explicit Child(const std::string& role, const std::vector<double>& arguments = {});
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    void tell(const std::string& order, const std::vector<double>& numbers = {});
    std::vector<double> hear(std::chrono::seconds limit = std::chrono::seconds(60));
    std::vector<double> ask(const std::string& order, const std::vector<double>& numbers = {},
                            std::chrono::seconds limit = std::chrono::seconds(60));

private:
    [[noreturn]] void fail(const std::string& what) const;

    std::string role_;
    pid_t pid_ = -1;
    int toChild_ = -1;
    int fromChild_ = -1;
    std::string received_;
};

} // namespace kor::bench
