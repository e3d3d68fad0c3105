#pragma once

#include <string>
#include <vector>

/// Lines from standard input, taken without waiting for them.
class CommandInput {
public:
    /// The whole lines that have come since the last call, without their ends.
    std::vector<std::string> take();

private:
    std::string pending_;  // what has come of the next line
    bool tooLong_ = false; // the line that is coming; its beginning has been taken
    bool ended_ = false;
};
