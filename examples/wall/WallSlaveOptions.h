#pragma once

#include "Camera.h"
#include "Options.h"

#include <optional>
#include <string>
#include <vector>

/// Arguments of kor-wall-slave; `--help` describes them.
struct WallSlaveOptions : RunOptions, SlaveBasics {
    std::vector<Camera> cameras;
    double refresh = 0;
    double phase = 0;
    std::optional<glm::ivec2> window; ///< where it goes
    std::optional<glm::ivec2> size;   ///< of the window; as large as what the cameras cover, unless given
    bool fullScreen = false;
    std::string pictures = ".";
};

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
int parseWallSlaveOptions(int argc, char** argv, WallSlaveOptions& options);
