#include <support/jLog.h>
#include <support/profile.h>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace kor;

namespace {

class LogAndProfile : public testing::Test {
protected:
    void TearDown() override {
        jLog::setHandler({});
        setProfileHandler({});
    }
};

TEST_F(LogAndProfile, LinesGoToTheHandlerWhole) {
    std::vector<std::pair<LogLevel, std::string>> lines;
    jLog::setHandler([&lines](LogLevel level, const char* text) { lines.emplace_back(level, text); });
    for (const int length : {0, 511, 512, 513, 100000}) {
        jLog::warning("%s|%d", std::string(static_cast<std::size_t>(length), 'x').c_str(), length);
        EXPECT_EQ(lines.back().second,
                  std::string(static_cast<std::size_t>(length), 'x') + "|" + std::to_string(length));
    }
    EXPECT_EQ(lines.back().first, LogLevel::warning);
    jLog::message("100%%");
    EXPECT_EQ(lines.back(), (std::pair{LogLevel::message, std::string("100%")}));
    jLog::error("%s", "%s%n");
    EXPECT_EQ(lines.back(), (std::pair{LogLevel::error, std::string("%s%n")}));
}

TEST_F(LogAndProfile, StandardErrorCarriesTimeAndLevelAndNoControls) {
    testing::internal::CaptureStderr();
    jLog::error("port %d", 7000);
    jLog::message("%s", "hello");
    jLog::message("%s", "\x1b[2Jn\xc3\xa9\n");
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.front(), '[');
    EXPECT_NE(text.find("] error: port 7000\n["), std::string::npos) << text;
    EXPECT_NE(text.find("] message: hello\n"), std::string::npos) << text;
    EXPECT_NE(text.find("] message: \\x1b[2Jn\xc3\xa9\\x0a\n"), std::string::npos) << text;
}

TEST_F(LogAndProfile, AHandlerMayLogReplaceItselfAndThrow) {
    int calls = 0;
    jLog::setHandler([&calls](LogLevel, const char*) {
        ++calls;
        jLog::warning("from inside");
        jLog::setHandler([](LogLevel, const char*) { throw std::runtime_error("handler"); });
    });
    testing::internal::CaptureStderr();
    jLog::message("one");
    jLog::message("two");
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(text.find("message: one"), std::string::npos);
    EXPECT_NE(text.find("warning: from inside"), std::string::npos);
    EXPECT_NE(text.find("message: two"), std::string::npos);
}

TEST_F(LogAndProfile, HandlersMayBeReplacedWhileThreadsUseThem) {
    std::atomic<int> lines{0};
    std::atomic<int> values{0};
    std::atomic<bool> stop{false};
    const auto count = [&lines](LogLevel, const char*) { ++lines; };
    const auto measure = [&values](const char*, float, const vec4&) { ++values; };
    jLog::setHandler(count);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            const jString label("label");
            for (int round = 0; round < 2000; ++round) {
                jLog::message("%d", round);
                profileName(1, label, vec4_one);
            }
        });
    }
    std::thread replacer([&] {
        while (!stop) {
            jLog::setHandler(count);
            setProfileHandler(measure);
            setProfileHandler({});
        }
    });
    for (std::thread& thread : threads)
        thread.join();
    stop = true;
    replacer.join();
    EXPECT_EQ(lines, 4000);
    EXPECT_LE(values, 4000);
}

TEST_F(LogAndProfile, ProfilerValuesReachTheHandler) {
    std::string got;
    vec4 shade;
    setProfileHandler([&](const char* label, float value, const vec4& colour) {
        got = label + std::to_string(value);
        shade = colour;
        setProfileHandler({});
        throw std::runtime_error("profiler");
    });
    profileName(2.5F, "wait", vec4_red);
    EXPECT_EQ(got, "wait2.500000");
    EXPECT_EQ(shade, (vec4{1, 0, 0, 1}));
    profileName(9, "fps", vec4_yellow);
    EXPECT_EQ(got, "wait2.500000");
}

} // namespace
