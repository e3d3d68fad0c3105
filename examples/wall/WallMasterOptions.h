#pragma once

#include <string>
#include <vector>

/// Arguments of kor-wall-master; `--help` describes them.
struct WallMasterOptions {
    std::vector<int> wall = {960, 240};
    std::string broadcast = "127.255.255.255";
    std::vector<unsigned short> announcePorts = {7100, 7101, 7102};
    std::vector<unsigned short> bindPorts = {7200, 7201, 7202};
    std::vector<unsigned short> dataPorts = {7300, 7301, 7302};
    double rate = 60;
    int lead = 2;
    double seconds = 0;
    std::string report;
    bool commands = false;
    bool verbose = false;
    bool quiet = false;
};

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
int parseWallMasterOptions(int argc, char** argv, WallMasterOptions& options);
