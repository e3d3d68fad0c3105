#pragma once

#include "Camera.h"

#include <optional>
#include <string>
#include <vector>

/// Arguments of kor-wall-slave; `--help` describes them.
struct WallSlaveOptions {
    std::string name = "node-a";
    std::vector<Camera> cameras;
    int announcePort = 7100;
    int port = 0;
    double rate = 60;
    double refresh = 0;
    double phase = 0;
    double marginMs = 9;
    std::optional<glm::ivec2> window; ///< where it goes
    std::optional<glm::ivec2> size;   ///< of the window; as large as what the cameras cover, unless given
    bool fullScreen = false;
    double seconds = 0;
    std::string pictures = ".";
    std::string report;
    bool verbose = false;
    bool quiet = false;
};

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
int parseWallSlaveOptions(int argc, char** argv, WallSlaveOptions& options);
