// kor-trace-merge: joins the recordings of all processes to one file with one time line.

#include "Journeys.h"
#include "trace/WholeFile.h"
#include "TraceInput.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

using nlohmann::json;

constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr std::size_t kFlushBytes = 1 << 16;
constexpr double kSecond = 1e6; // µs

int fail(const std::string& text) {
    std::fprintf(stderr, "kor-trace-merge: %s\n", text.c_str());
    return kExitFailed;
}

bool readAll(const std::vector<std::string>& paths, std::vector<TraceInput>& inputs) {
    std::map<std::string, std::string> seen; // id to path
    bool sound = true;
    for (const std::string& path : paths) {
        TraceInput input{};
        std::string error;
        if (!readTrace(path, input, error)) {
            fail(std::string(path).append(" ").append(error));
            sound = false;
            continue;
        }
        const auto [twin, fresh] = seen.try_emplace(input.id, path);
        if (!fresh) {
            fail(twin->second + " and " + path + " are of the same process");
            sound = false;
        }
        inputs.push_back(std::move(input));
    }
    return sound;
}

void warn(const std::vector<TraceInput>& inputs) {
    for (const TraceInput& input : inputs) {
        if (input.role == "slave" && !input.onMasterClock) {
            std::fprintf(
                stderr, "kor-trace-merge: warning: %s never knew the master's clock, its times are its own\n",
                input.path.c_str());
        }
        if (input.overwritten > 0) {
            std::fprintf(stderr,
                         "kor-trace-merge: warning: %s lacks the oldest %.0f events, its buffer was full\n",
                         input.path.c_str(), input.overwritten);
        }
    }
}

json metadata(std::size_t pid, const char* what, json arguments) {
    return {{"ph", "M"}, {"pid", pid}, {"tid", 0}, {"name", what}, {"args", std::move(arguments)}};
}

class Merge {
public:
    explicit Merge(std::vector<TraceInput> inputs) {
        // Masters on top, the others by name.
        std::stable_sort(inputs.begin(), inputs.end(), [](const TraceInput& a, const TraceInput& b) {
            return std::pair(a.role != "master", a.process) < std::pair(b.role != "master", b.process);
        });
        for (TraceInput& input : inputs)
            take(input);
        startAtZero();
        sort();
        for (json& event : journeys(events_))
            events_.push_back(std::move(event));
        sort();
    }

    bool write(const std::string& path, std::string& error) const {
        kor::detail::WholeFile file;
        bool written = file.open(path);
        if (written) {
            write(file);
            written = file.finish();
        }
        error = file.error();
        return written;
    }

    void describe(const std::string& path) const {
        std::printf("%s: %zu events of %zu processes\n", path.c_str(), events_.size(), processes_.size());
    }

private:
    void take(TraceInput& input) {
        const std::size_t pid = processes_.size() + 1;
        processes_.push_back({{"pid", pid}, {"process", input.process}, {"overwritten", input.overwritten}});
        metadata_.push_back(metadata(pid, "process_sort_index", {{"sort_index", pid}}));
        for (json& event : input.events) {
            event["pid"] = pid;
            if (event["ph"] == "M") {
                metadata_.push_back(std::move(event));
                continue;
            }
            event["ts"] = event["ts"].get<double>() + input.zero;
            events_.push_back(std::move(event));
        }
    }

    /// Viewers drop what lies before zero, where a slave that was started before its master may begin.
    void startAtZero() {
        double first = 0;
        for (const json& event : events_)
            first = std::min(first, event["ts"].get<double>());
        zero_ = std::floor(first / kSecond) * kSecond;
        if (zero_ == 0)
            return;
        for (json& event : events_)
            event["ts"] = event["ts"].get<double>() - zero_;
    }

    void sort() {
        std::stable_sort(events_.begin(), events_.end(), [](const json& a, const json& b) {
            return a["ts"].get<double>() < b["ts"].get<double>();
        });
    }

    void write(kor::detail::WholeFile& file) const {
        const json about = {{"format", "kor-trace merged 1"}, {"zero_us", zero_}, {"processes", processes_}};
        const auto text = [](const json& value) {
            return value.dump(-1, ' ', false, json::error_handler_t::replace);
        };
        std::string out =
            "{\"otherData\":" + text(about) + ",\n\"displayTimeUnit\":\"ms\",\n\"traceEvents\":[";
        const char* separator = "\n";
        for (const auto* list : {&metadata_, &events_}) {
            for (const json& event : *list) {
                out += std::exchange(separator, ",\n");
                out += text(event);
                if (out.size() > kFlushBytes) {
                    file.write(out);
                    out.clear();
                }
            }
        }
        out += "\n]}\n";
        file.write(out);
    }

    std::vector<json> metadata_;
    std::vector<json> events_;
    json processes_ = json::array();
    double zero_ = 0; // µs of the master's clock
};

int merge(const std::vector<std::string>& paths, const std::string& output) {
    for (const std::string& path : paths) {
        std::error_code ignored;
        if (std::filesystem::equivalent(path, output, ignored))
            return fail(path + " is to be joined and to be written to");
    }
    std::vector<TraceInput> inputs;
    if (!readAll(paths, inputs))
        return kExitFailed;
    warn(inputs);
    const Merge merged(std::move(inputs));
    std::string error;
    if (!merged.write(output, error))
        return fail("cannot write " + output + ": " + error);
    merged.describe(output);
    return kExitDone;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Joins the traces of all processes of a cluster to one file for Perfetto.\n"
                 "The time line is the master's clock, which every process's file is written in.");
    app.footer("Exit status: 0 done, 1 a file cannot be read or written or is no trace, 2 bad arguments.");
    std::vector<std::string> inputs;
    std::string output;
    app.add_option("-o,--output", output, "the file to write")->required()->type_name("FILE");
    app.add_option("files", inputs, "what each process has written")->required()->type_name("FILE");
    try {
        app.parse(argc, argv);
        return merge(inputs, output);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitDone : kExitUsage;
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
