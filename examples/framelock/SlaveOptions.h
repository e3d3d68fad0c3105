#pragma once

#include <string>
#include <vector>

/// Arguments of kor-slave; `--help` describes them.
struct SlaveOptions {
    std::string name = "node-a";
    std::vector<std::string> cameras = {"center"};
    int announcePort = 7100;
    int port = 0;
    double rate = 60;
    double refresh = 60;
    double phase = 0;
    double marginMs = 9;
    double drawMs = 3;
    double seconds = 0;
    std::string report;
    std::string trace;
    bool verbose = false;
    bool quiet = false;
};

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
int parseSlaveOptions(int argc, char** argv, SlaveOptions& options);
