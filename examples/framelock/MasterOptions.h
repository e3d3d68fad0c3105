#pragma once

#include <string>
#include <vector>

/// Arguments of kor-master; `--help` describes them.
struct MasterOptions {
    std::string broadcast = "127.255.255.255";
    std::vector<unsigned short> announcePorts = {7100};
    std::vector<unsigned short> bindPorts = {7200};
    std::vector<unsigned short> dataPorts = {7300};
    double rate = 60;
    int lead = 2;
    int payload = 0;
    double seconds = 0;
    std::string report;
    std::string trace;
    bool verbose = false;
    bool quiet = false;
};

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
int parseMasterOptions(int argc, char** argv, MasterOptions& options);
