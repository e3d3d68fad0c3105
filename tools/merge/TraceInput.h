#pragma once

#include <nlohmann/json.hpp>

#include <string>

/// The recording of one process, as `kor::Trace` writes it.
struct TraceInput {
    std::string path;
    std::string process;
    std::string id;
    std::string role;       ///< "master", "slave" or empty
    bool onMasterClock;     ///< false: on its own, which is right for the master only
    double zero = 0;        ///< µs of the clock that the file calls zero
    double overwritten = 0; ///< events that are missing at its beginning
    nlohmann::json events;  ///< an array; every event is sound, as far as joining needs it
};

/// Reads a file. False when it is not what it should be; `error` then says what is wrong with it.
bool readTrace(const std::string& path, TraceInput& input, std::string& error);
