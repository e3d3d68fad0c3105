#pragma once

#include <string>
#include <vector>

/// What the test program was called with, without its name and without the test framework's own flags.
const std::vector<std::string>& testArguments();
