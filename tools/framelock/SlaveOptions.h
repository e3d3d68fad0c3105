#pragma once

#include "Options.h"

/// Arguments of kor-slave; `--help` describes them.
struct SlaveOptions : RunOptions, SlaveBasics {
    std::vector<std::string> cameras = {"center"};
    double refresh = 60;
    double phase = 0;
    double drawMs = 3;
    unsigned int timeoutMs = 2000;
    std::string trace;
};

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
int parseSlaveOptions(int argc, char** argv, SlaveOptions& options);
