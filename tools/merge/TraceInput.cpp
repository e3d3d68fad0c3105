#include "TraceInput.h"

#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

namespace {

using nlohmann::json;

/// No trace is that large: what is, is something else, and may have no end.
constexpr std::size_t kMaxFile = std::size_t{1} << 30;
constexpr std::size_t kChunk = std::size_t{1} << 20;

bool readFile(const std::string& path, std::string& content, std::string& error) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        error = "is a directory";
        return false;
    }
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    const std::uintmax_t size = std::filesystem::file_size(path, ignored);
    bool tooLarge = !ignored && size > kMaxFile;
    content.clear();
    while (file && !tooLarge) {
        const std::size_t have = content.size();
        content.resize(have + kChunk);
        file.read(content.data() + have, static_cast<std::streamsize>(kChunk));
        content.resize(have + static_cast<std::size_t>(file.gcount()));
        tooLarge = content.size() > kMaxFile;
    }
    if (tooLarge) {
        error = "is larger than any trace";
        return false;
    }
    if (!file.is_open() || file.bad()) {
        error = errno != 0 ? std::strerror(errno) : "cannot be read";
        return false;
    }
    if (content.empty()) {
        error = "is empty";
        return false;
    }
    return true;
}

/// Deeper ones than any trace has would overrun the stack when they are written again.
constexpr int kDeepest = 64;

struct TooDeep {};

json parse(const std::string& content) {
    return json::parse(content, [](int depth, json::parse_event_t, const json&) {
        if (depth > kDeepest)
            throw TooDeep();
        return true;
    });
}

const json* find(const json& object, const char* key) {
    const auto found = object.is_object() ? object.find(key) : object.end();
    return object.is_object() && found != object.end() ? &*found : nullptr;
}

std::string textAt(const json& object, const char* key) {
    const json* value = find(object, key);
    return value && value->is_string() ? value->get<std::string>() : std::string();
}

double numberAt(const json& object, const char* key) {
    const json* value = find(object, key);
    return value && value->is_number() ? value->get<double>() : 0;
}

/// What is wrong with an event, or null.
const char* faultOf(const json& event) {
    if (textAt(event, "ph").size() != 1)
        return "has no phase";
    const json* thread = find(event, "tid");
    if (!thread || !thread->is_number_integer())
        return "has no thread";
    const json* name = find(event, "name");
    if (!name || !name->is_string())
        return "has no name";
    if (textAt(event, "ph") == "M")
        return nullptr;
    const json* time = find(event, "ts");
    if (!time || !time->is_number() || std::abs(time->get<double>()) > 1e18)
        return "has no time";
    if (textAt(event, "ph") == "X" && !(find(event, "dur") && find(event, "dur")->is_number()))
        return "has no duration";
    return nullptr;
}

} // namespace

bool readTrace(const std::string& path, TraceInput& input, std::string& error) {
    std::string content;
    if (!readFile(path, content, error))
        return false;
    json file;
    try {
        file = parse(content);
    } catch (const TooDeep&) {
        error = "is no trace: it is nested too deeply";
        return false;
    } catch (const json::exception& failure) {
        error = std::string("is no JSON, or not all of it is there: ") + failure.what();
        return false;
    }
    const json* about = find(file, "otherData");
    const std::string format = about ? textAt(*about, "format") : std::string();
    if (format == "kor-trace merged 1") {
        error = "has been merged already; name the files that it was made of";
        return false;
    }
    json* events = file.is_object() && file.contains("traceEvents") ? &file["traceEvents"] : nullptr;
    if (format != "kor-trace 1" || textAt(*about, "id").empty() || !events || !events->is_array()) {
        error = "is no trace of a process that uses Kor";
        return false;
    }
    for (std::size_t i = 0; i < events->size(); ++i) {
        if (const char* fault = faultOf((*events)[i])) {
            error = "is damaged: event " + std::to_string(i) + " " + fault;
            return false;
        }
    }
    input = {path,
             textAt(*about, "process"),
             textAt(*about, "id"),
             textAt(*about, "role"),
             textAt(*about, "clock") == "master",
             numberAt(*about, "zero_us"),
             numberAt(*about, "overwritten"),
             std::move(*events)};
    return true;
}
