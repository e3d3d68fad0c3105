#include "tests/trace/TraceFile.h"

#include <kor/trace.h>
#include <support/jLog.h>
#include <support/profile.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

namespace {

using namespace kor;
using namespace kor::testing_support;

class TraceTest : public testing::Test {
protected:
    TraceTest() {
        jLog::setHandler([this](LogLevel, const char* text) { lines.emplace_back(text); });
        setProfileHandler([this](const char*, float value, const vec4&) { values.push_back(value); });
    }
    ~TraceTest() override {
        jLog::setHandler({});
        setProfileHandler({});
    }
    nlohmann::json written() {
        EXPECT_TRUE(trace.write(folder.file("trace.json")));
        return traceOf(folder.file("trace.json"));
    }

    ScratchFolder folder;
    std::vector<std::string> lines;
    std::vector<float> values;
    Trace trace;
};

TEST_F(TraceTest, TakesLogAndProfilerInAndPassesThemOn) {
    const jString label("gpu");
    jLog::message("before");
    ASSERT_TRUE(trace.begin({.process = "left"}));
    EXPECT_FALSE(trace.begin({.process = "again"}));
    jLog::warning("port %d", 7);
    profileName(2.5f, label, vec4_red);
    profileName(INFINITY, label, vec4_red);
    trace.end();
    EXPECT_FALSE(trace.isRecording());
    jLog::message("after");
    profileName(1, label, vec4_red);

    EXPECT_EQ(lines, (std::vector<std::string>{"before", "port 7", "after"}));
    EXPECT_EQ(values, (std::vector<float>{2.5f, INFINITY, 1}));
    const nlohmann::json file = written();
    EXPECT_EQ(file["otherData"]["process"], "left");
    EXPECT_EQ(file["otherData"]["recorded"], 3);
    const auto logged = eventsOf(file, "i", "port 7");
    ASSERT_EQ(logged.size(), 1U);
    EXPECT_EQ(logged[0]["args"]["level"], "warning");
    ASSERT_EQ(eventsOf(file, "C", "gpu").size(), 1U);
    EXPECT_EQ(eventsOf(file, "C", "gpu")[0]["args"]["value"], 2.5);
    EXPECT_EQ(eventsOf(file, "i", "gpu is not finite")[0]["args"]["value"], "inf");
}

TEST_F(TraceTest, LeavesHandlersThatWereSetMeanwhile) {
    ASSERT_TRUE(trace.begin({}));
    int other = 0;
    jLog::setHandler([&](LogLevel, const char*) { ++other; });
    trace.end();
    jLog::message("line");
    EXPECT_EQ(other, 1);
    EXPECT_TRUE(lines.empty());

    ASSERT_TRUE(trace.begin({.log = false}));
    jLog::message("not taken in");
    EXPECT_EQ(trace.counts().recorded, 0U);
    EXPECT_EQ(other, 2);
}

TEST_F(TraceTest, WithoutAHandlerLinesStillGoToStandardError) {
    jLog::setHandler({});
    ASSERT_TRUE(trace.begin({}));
    testing::internal::CaptureStderr();
    jLog::error("one %s", "%s");
    trace.end();
    jLog::warning("two");
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find("error: one %s\n"), std::string::npos) << text;
    EXPECT_NE(text.find("warning: two\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("one"), text.rfind("one")) << text;
}

TEST_F(TraceTest, TimesAreTheMastersAlsoFromBeforeTheyWereKnown) {
    ASSERT_TRUE(trace.begin({}));
    trace.clock(-1e9, 0, 0);
    trace.span("early", 1, 2);
    trace.clock(10'000, 0.25, 0.1);
    trace.waited(KorLogicClient::WAIT_LERP, 12.5, 3.25, 3, 3.125);
    const nlohmann::json file = written();
    EXPECT_EQ(file["otherData"]["clock"], "master");
    EXPECT_EQ(file["otherData"]["clock_bound_us"], 250);
    EXPECT_EQ(file["otherData"]["role"], "slave");
    EXPECT_EQ(eventsOf(file, "X", "early")[0]["ts"], 11e6);
    EXPECT_EQ(eventsOf(file, "X", "early")[0]["dur"], 1e6);
    const nlohmann::json wait = eventsOf(file, "X", "wait lerp")[0];
    EXPECT_EQ(wait["ts"], 13e6);
    EXPECT_EQ(wait["args"],
              nlohmann::json({{"result", "lerp"}, {"position", 12.5}, {"vsync_in_us", 0.25e6}}));

    // A slave that began before its master: the file moves its zero by whole seconds.
    trace.clock(-5500, 0, 0);
    const nlohmann::json moved = written();
    const double zero = moved["otherData"]["zero_us"];
    EXPECT_EQ(std::fmod(zero, 1e6), 0);
    EXPECT_EQ(eventsOf(moved, "X", "early")[0]["ts"], -4.5e6 - zero);
    for (const nlohmann::json& event : moved["traceEvents"])
        EXPECT_GE(event.value("ts", 0.0), 0);
}

TEST_F(TraceTest, HostileTextAndNumbersGiveSoundJson) {
    ASSERT_TRUE(trace.begin({.process = "\xFF\"\\\n"}));
    jLog::error("%s", "\xC3(\x01\x80 \"]}");
    trace.instant("\xE2\x82");
    trace.connection("", "");
    trace.nameThread("\"\xFE");
    trace.value("\n", NAN);
    trace.clock(INFINITY, NAN, INFINITY);
    trace.span("upside down", 5, 1);
    trace.span("nowhere", NAN, INFINITY);
    trace.frameSent(-1, 1LL << 60, -1e300, 1e300);
    trace.waited(static_cast<KorLogicClient::WAIT_RESULT>(7), NAN, INFINITY, 0, 0);
    const nlohmann::json file = written();
    EXPECT_EQ(file["otherData"]["process"], "\uFFFD\"\\\n");
    for (const nlohmann::json& event : eventsOf(file, "X")) {
        EXPECT_GE(event["dur"], 0);
        EXPECT_GE(event["ts"], 0);
    }
    EXPECT_EQ(eventsOf(file, "X", "wait unknown").size(), 1U);
}

TEST_F(TraceTest, EventsAreInOrderAndOuterOnesComeFirst) {
    ASSERT_TRUE(trace.begin({}));
    trace.span("inner", 1, 2);
    trace.span("outer", 1, 3);
    trace.span("first", 0.5, 0.75);
    std::thread other([this] { trace.span("other thread", 0.25, 4); });
    other.join();
    const auto spans = eventsOf(written(), "X");
    std::vector<std::string> names;
    for (const auto& event : spans)
        names.push_back(event["name"]);
    EXPECT_EQ(names, (std::vector<std::string>{"other thread", "first", "outer", "inner"}));
    EXPECT_NE(spans[0]["tid"], spans[1]["tid"]);
}

TEST_F(TraceTest, BeginForgetsAndWriteMayBeRepeated) {
    ScratchFolder empty;
    EXPECT_FALSE(trace.write(empty.file("trace.json")));
    EXPECT_EQ(empty.files(), 0);
    ASSERT_TRUE(trace.begin({}));
    trace.instant("one");
    EXPECT_EQ(written()["otherData"]["id"], written()["otherData"]["id"]);
    const auto first = written()["otherData"]["id"];
    trace.end();
    trace.instant("not recorded");
    ASSERT_TRUE(trace.begin({}));
    trace.instant("two");
    EXPECT_NE(written()["otherData"]["id"], first);
    EXPECT_EQ(eventsOf(written(), "i").size(), 1U);
    EXPECT_EQ(eventsOf(written(), "i", "two").size(), 1U);
}

TEST_F(TraceTest, AFileThatCannotBeWrittenIsAnErrorAndLeavesWhatWasThere) {
    ASSERT_TRUE(trace.begin({}));
    for (int i = 0; i < 1000; ++i)
        trace.instant("event");
    EXPECT_FALSE(trace.write("/nowhere/trace.json"));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "the trace cannot be written to /nowhere/trace.json: No such file or directory");
    EXPECT_FALSE(trace.write(folder.file("")));
    EXPECT_FALSE(trace.write("/dev/full"));
    EXPECT_EQ(lines.back(), "the trace cannot be written to /dev/full: No space left on device");
    EXPECT_EQ(folder.files(), 0);

    written();
    std::filesystem::create_symlink(folder.file("trace.json"), folder.file("link"));
    EXPECT_TRUE(trace.write(folder.file("link")));
    EXPECT_TRUE(std::filesystem::is_symlink(folder.file("link")));
    EXPECT_EQ(folder.files(), 2);
}

TEST_F(TraceTest, ThreadsRecordWhileAnotherOneStartsEndsAndWrites) {
    setProfileHandler({}); // the fixture's is for one thread
    Trace small(1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            const jString label("value");
            while (!stop) {
                small.nameThread("worker");
                small.value("value", 1);
                small.clock(1, 1, 1);
                TraceSpan span(small, "span");
                profileName(1, label, vec4_red);
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(small.begin({}));
        EXPECT_TRUE(small.write(folder.file("trace.json")));
        EXPECT_LE(traceOf(folder.file("trace.json"))["traceEvents"].size(), 512U * 3 + 4);
        small.end();
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace
