#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kor::simulation {

/// The broken promises that a simulated world has seen; the first few are kept in words.
class Faults {
public:
    static constexpr std::size_t kKept = 8;

    void add(std::string text) {
        if (texts_.size() < kKept)
            texts_.push_back(std::move(text));
        ++count_;
    }
    bool none() const { return count_ == 0; }
    std::size_t count() const { return count_; }

    /// All of them, one a line.
    std::string text() const {
        std::string all;
        for (const std::string& one : texts_)
            all += one + "\n";
        if (count_ > texts_.size())
            all += "and " + std::to_string(count_ - texts_.size()) + " more\n";
        return all;
    }

private:
    std::vector<std::string> texts_;
    std::size_t count_ = 0;
};

} // namespace kor::simulation
