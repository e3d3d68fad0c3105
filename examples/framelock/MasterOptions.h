#pragma once

#include "Options.h"

/// Arguments of kor-master; `--help` describes them.
struct MasterOptions : RunOptions, MasterNetwork {
    int payload = 0;
    std::string trace;
};

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
int parseMasterOptions(int argc, char** argv, MasterOptions& options);
