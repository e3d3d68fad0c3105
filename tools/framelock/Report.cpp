#include "Report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr double kFlushInterval = 0.25; // seconds
constexpr std::size_t kFlushBytes = 32 * 1024;

} // namespace

bool Report::open(const std::string& path) {
    if (path.empty())
        return true;
    file_.open(path, std::ios::binary | std::ios::trunc);
    if (!file_) {
        std::fprintf(stderr, "cannot write the report to %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

void Report::add(const nlohmann::ordered_json& line) {
    if (!file_.is_open() || failed_)
        return;
    // A name from the command line may hold any bytes; JSON takes only UTF-8.
    pending_ += line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    pending_ += '\n';
}

bool Report::flushIfDue(double now) {
    if (now - flushedAt_ < kFlushInterval && pending_.size() < kFlushBytes)
        return !failed_;
    flushedAt_ = now;
    return flush();
}

bool Report::flush() {
    if (file_.is_open() && !failed_ && !pending_.empty()) {
        file_.write(pending_.data(), static_cast<std::streamsize>(pending_.size()));
        file_.flush();
        pending_.clear();
        if (!file_) {
            failed_ = true;
            std::fprintf(stderr, "the report can no longer be written; ending\n");
        }
    }
    return !failed_;
}
