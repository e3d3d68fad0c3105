#pragma once

#include "Options.h"
#include "Report.h"

#include <kor/KorLogicClient.h>
#include <support/RTNet.h>

#include <cstdint>

/// What the programs share: ending on a signal, what of the log is shown, exit status.

enum ExitStatus : int {
    kExitDone = 0,
    kExitFailed = 1,     ///< a fault while running
    kExitUsage = 2,      ///< bad arguments
    kExitPortsInUse = 3, ///< a port cannot be opened
};

/// To be called first. Lets SIGINT, SIGTERM and SIGHUP ask the program to end, and makes writing to a closed
/// pipe or beyond the size that files may have an error instead of a death. Shows the library's log on
/// standard error: warnings and errors, with `verbose` messages too; a warning or error repeated word for
/// word is shown once per second at most, with the number of times. Opens the report; false when that cannot
/// be.
bool beginProgram(const RunOptions& options, Report& report);

/// To be called last, when nothing of the library is left. Adds to the line `end` what is still allocated,
/// and writes the report. The exit status: that of the run so far, unless the report cannot be written.
int finishProgram(Report& report, nlohmann::ordered_json& end, int status);

/// True once a signal has come.
bool stopRequested();

/// Errors logged since the program began.
int loggedErrors();

/// What a slave's wait has found, as reports call it.
const char* resultName(kor::KorLogicClient::WAIT_RESULT result);

/// Datagrams that were dropped because of what they held.
std::uint64_t malformedDatagrams(kor::RTNet& net);
