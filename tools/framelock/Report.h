#pragma once

#include <nlohmann/json.hpp>

#include <fstream>
#include <string>

/// A file of JSON lines that tells another program, while this one runs, what happens in it.
///
/// The first line is a header, then come samples and one status a second, at the end one line "end". Lines
/// are written a few times a second, in one go. For one thread.
class Report {
public:
    /// Without a file every call does nothing.
    Report() = default;

    /// False, and a message on standard error, when the file cannot be written; without a path it is as if
    /// there were none. A pipe that this process inherited is named /dev/fd/N.
    bool open(const std::string& path);

    bool isOpen() const { return file_.is_open(); }

    /// Adds a line. Each begins with "type".
    void add(const nlohmann::ordered_json& line);

    /// Writes what was added, if that is due at `now` (seconds) or enough has gathered. False when the reader
    /// is gone or the disk is full; nothing is written from then on.
    bool flushIfDue(double now);

    /// The same at once.
    bool flush();

private:
    std::ofstream file_;
    std::string pending_;
    double flushedAt_ = 0;
    bool failed_ = false;
};
