#pragma once

#include "trace/ClockHistory.h"
#include "trace/EventRing.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kor::detail {

/// All that goes into a file.
struct Recording {
    std::string process;
    std::string id; // of this one recording, so that a file is not joined with itself
    std::vector<EventRing::Entry> entries;
    std::map<std::uint32_t, std::string> threadNames;
    std::vector<ClockHistory::Sample> clock;
    EventRing::Counts counts;
};

/// Writes a recording as a file in the Chrome trace event format (JSON object form), events in the order of
/// their time. False when that fails; `error` says why. Throws `std::bad_alloc`.
bool writeTrace(const Recording& recording, const std::string& path, std::string& error);

} // namespace kor::detail
