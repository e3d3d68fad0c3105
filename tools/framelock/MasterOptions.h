#pragma once

#include "Options.h"

/// Arguments of kor-master; `--help` describes them.
struct MasterOptions : RunOptions, MasterNetwork {
    int payload = 0;
    double spinMs = 0;
    unsigned int timeoutMs = 2000;
    std::string trace;
};

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
int parseMasterOptions(int argc, char** argv, MasterOptions& options);
