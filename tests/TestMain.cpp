#include "TestArguments.h"

#include <support/memInfo.h>

#include <gtest/gtest.h>

#include <cstdio>

namespace {
std::vector<std::string>& arguments() {
    static std::vector<std::string> all;
    return all;
}
} // namespace

const std::vector<std::string>& testArguments() {
    return arguments();
}

/// Runs the tests and fails the program, with a list, when blocks are still live at its end.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    arguments().assign(argv + 1, argv + argc);
    const int result = RUN_ALL_TESTS();
    const kor::MemReport report = kor::memReport();
    if (report.liveBlocks == 0)
        return result;
    std::fprintf(stderr, "%llu blocks with %llu bytes are still live:\n",
                 static_cast<unsigned long long>(report.liveBlocks),
                 static_cast<unsigned long long>(report.liveBytes));
    for (const kor::MemReportEntry& entry : report.entries) {
        std::fprintf(stderr, "  %llu blocks, %llu bytes: %s:%d %s%s\n",
                     static_cast<unsigned long long>(entry.blocks),
                     static_cast<unsigned long long>(entry.bytes), entry.file, entry.line, entry.label,
                     entry.isArray ? " (array)" : "");
    }
    return 1;
}
