#pragma once

#include "Options.h"

#include <vector>

/// Arguments of kor-wall-master; `--help` describes them.
struct WallMasterOptions : RunOptions, MasterNetwork {
    WallMasterOptions() {
        announcePorts = {7100, 7101, 7102};
        bindPorts = {7200, 7201, 7202};
        dataPorts = {7300, 7301, 7302};
    }
    std::vector<int> wall = {960, 240};
    bool commands = false;
};

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
int parseWallMasterOptions(int argc, char** argv, WallMasterOptions& options);
