#include "trace/TraceWriter.h"

#include "trace/JsonText.h"
#include "trace/WholeFile.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <utility>

namespace kor::detail {

namespace {

constexpr std::size_t kFlushBytes = 64 * 1024;
constexpr std::int64_t kSecond = 1'000'000'000;

/// Times on the master's clock.
struct Timed {
    std::int64_t begin = 0; // ns
    std::int64_t end = 0;
    const EventRing::Entry* entry = nullptr;
};

class Arguments {
public:
    explicit Arguments(std::string& out) : out_(out) {}
    void number(const char* name, double value) { appendJsonNumber(key(name), value); }
    void microseconds(const char* name, std::int64_t value) { appendMicroseconds(key(name), value); }
    void text(const char* name, std::string_view value) { appendJsonString(key(name), value); }
    void close() { out_ += empty_ ? "" : "}"; }

private:
    std::string& key(const char* name) {
        out_ += empty_ ? ",\"args\":{\"" : ",\"";
        empty_ = false;
        out_ += name;
        out_ += "\":";
        return out_;
    }

    std::string& out_;
    bool empty_ = true;
};

const char* resultName(unsigned code) {
    static constexpr const char* kNames[] = {"none", "lerp", "hit", "over_hit", "old_frame"};
    return code < std::size(kNames) ? kNames[code] : "unknown";
}

/// What the process is, by what it did.
const char* roleOf(const Recording& recording) {
    for (const EventRing::Entry& entry : recording.entries) {
        if (entry.event.kind == EventKind::updated || entry.event.kind == EventKind::sent)
            return "master";
        if (entry.event.kind == EventKind::waited || entry.event.kind == EventKind::arrived)
            return "slave";
    }
    return "";
}

const char* levelName(unsigned code) {
    static constexpr const char* kNames[] = {"message", "warning", "error"};
    return code < std::size(kNames) ? kNames[code] : "unknown";
}

class TraceWriter {
public:
    TraceWriter(const Recording& recording, WholeFile& file)
        : recording_(recording), conversion_(recording.clock), file_(file) {}

    void write() {
        const std::vector<Timed> events = sorted();
        // Viewers drop what lies before zero, where a slave that was started first may begin.
        if (!events.empty() && events.front().begin < 0)
            zero_ = (events.front().begin - kSecond + 1) / kSecond * kSecond;
        head();
        names();
        for (const Timed& event : events) {
            write(event);
            if (out_.size() > kFlushBytes)
                flush();
        }
        out_ += "\n]}\n";
        flush();
    }

private:
    std::vector<Timed> sorted() const {
        std::vector<Timed> result;
        result.reserve(recording_.entries.size());
        for (const EventRing::Entry& entry : recording_.entries)
            result.push_back({conversion_(entry.event.begin), conversion_(entry.event.end), &entry});
        // What encloses others comes before them.
        std::stable_sort(result.begin(), result.end(), [](const Timed& a, const Timed& b) {
            return a.begin != b.begin ? a.begin < b.begin : a.end > b.end;
        });
        return result;
    }

    void flush() {
        file_.write(out_);
        out_.clear();
    }

    void head() {
        out_ += "{\"otherData\":{\"format\":\"kor-trace 1\",\"process\":";
        appendJsonString(out_, recording_.process);
        out_ += ",\"id\":";
        appendJsonString(out_, recording_.id);
        out_ += ",\"role\":";
        appendJsonString(out_, roleOf(recording_));
        out_ += ",\"clock\":";
        out_ += conversion_.known() ? "\"master\"" : "\"own\"";
        out_ += ",\"clock_bound_us\":";
        appendJsonNumber(out_, conversion_.worstBound() * 1e6);
        out_ += ",\"zero_us\":";
        appendMicroseconds(out_, zero_);
        out_ += ",\"recorded\":" + std::to_string(recording_.counts.recorded);
        out_ += ",\"overwritten\":" + std::to_string(recording_.counts.overwritten);
        out_ += ",\"dropped\":" + std::to_string(recording_.counts.dropped);
        out_ += "},\n\"displayTimeUnit\":\"ms\",\n\"traceEvents\":[\n";
    }

    void metadata(const char* what, std::uint32_t thread, std::string_view name) {
        out_ += "{\"ph\":\"M\",\"pid\":1,\"tid\":" + std::to_string(thread) + ",\"name\":\"" + what +
                "\",\"args\":{\"name\":";
        appendJsonString(out_, name);
        out_ += "}}";
    }

    void names() {
        metadata("process_name", 0, recording_.process);
        std::map<std::uint32_t, std::string> threads = recording_.threadNames;
        for (const EventRing::Entry& entry : recording_.entries)
            threads.try_emplace(entry.event.thread, "thread " + std::to_string(entry.event.thread));
        for (const auto& [thread, name] : threads) {
            out_ += ",\n";
            metadata("thread_name", thread, name);
        }
    }

    /// Opens an event and leaves it open for its arguments.
    void open(const Timed& event, char phase, const char* category, std::string_view name) {
        out_ += ",\n{\"ph\":\"";
        out_ += phase;
        out_ += "\",\"pid\":1,\"tid\":" + std::to_string(event.entry->event.thread) + ",\"ts\":";
        appendMicroseconds(out_, event.begin - zero_);
        if (phase == 'X') {
            out_ += ",\"dur\":";
            appendMicroseconds(out_, std::max<std::int64_t>(event.end - event.begin, 0));
        } else if (phase == 'i') {
            out_ += ",\"s\":\"t\"";
        }
        out_ += ",\"cat\":\"";
        out_ += category;
        out_ += "\",\"name\":";
        appendJsonString(out_, name);
    }

    void close(Arguments& arguments) {
        arguments.close();
        out_ += '}';
    }

    void plain(const Timed& event, char phase, const char* category, std::string_view name) {
        open(event, phase, category, name);
        out_ += '}';
    }

    void value(const Timed& timed, std::string_view name, double number) {
        Arguments arguments(out_);
        if (std::isfinite(number))
            open(timed, 'C', "value", name);
        else
            open(timed, 'i', "value", std::string(name) + " is not finite");
        arguments.number("value", number);
        close(arguments);
    }

    void frame(const Timed& timed, const char* name, const char* second) {
        const Event& event = timed.entry->event;
        Arguments arguments(out_);
        open(timed, 'X', "frame", name);
        arguments.number("frame", event.first);
        if (second)
            arguments.number(second, event.second);
        close(arguments);
    }

    void waited(const Timed& timed) {
        const Event& event = timed.entry->event;
        const std::string result = resultName(event.code);
        Arguments arguments(out_);
        open(timed, 'X', "wait", "wait " + result);
        arguments.text("result", result);
        arguments.number("position", event.first);
        if (std::abs(event.second) < 1e9) {
            arguments.microseconds("vsync_in_us",
                                   conversion_(std::llround(event.second * 1e9)) - timed.begin);
        }
        close(arguments);
    }

    void line(const Timed& timed, const char* category, std::string_view name, const char* key,
              std::string_view text) {
        Arguments arguments(out_);
        open(timed, 'i', category, name);
        arguments.text(key, text);
        close(arguments);
    }

    void write(const Timed& timed) {
        const Event& event = timed.entry->event;
        const std::string_view text = timed.entry->text;
        switch (event.kind) {
        case EventKind::span:
            return plain(timed, 'X', "application", text);
        case EventKind::presented:
            return plain(timed, 'X', "kor", "present");
        case EventKind::instant:
            return plain(timed, 'i', "application", text);
        case EventKind::value:
            return value(timed, text, event.first);
        case EventKind::clock:
            value(timed, "clock offset ms", event.first);
            value(timed, "clock bound us", event.second * 1000);
            return value(timed, "ping us", static_cast<double>(event.third) * 1000);
        case EventKind::sent:
            return frame(timed, "frame sent", "bytes");
        case EventKind::arrived:
            return frame(timed, "block arrived", "bytes");
        case EventKind::applied:
            return frame(timed, "block applied", "weight");
        case EventKind::updated:
            return frame(timed, "update", nullptr);
        case EventKind::waited:
            return waited(timed);
        case EventKind::connection:
            return line(timed, "connection", text.substr(0, text.find('\n')), "peer",
                        text.substr(std::min(text.find('\n'), text.size() - 1) + 1));
        case EventKind::log:
            return line(timed, "log", text, "level", levelName(event.code));
        case EventKind::more:
            return;
        }
    }

    const Recording& recording_;
    ClockConversion conversion_;
    WholeFile& file_;
    std::string out_;
    std::int64_t zero_ = 0; // master's time, in ns, that the file calls zero
};

} // namespace

bool writeTrace(const Recording& recording, const std::string& path, std::string& error) {
    WholeFile file;
    bool written = file.open(path);
    if (written) {
        TraceWriter(recording, file).write();
        written = file.finish();
    }
    error = file.error();
    return written;
}

} // namespace kor::detail
