#include "WallMasterOptions.h"

#include "Arguments.h"
#include "WallMaster.h"

namespace {

void describe(CLI::App& app, WallMasterOptions& options) {
    app.description("Master of a wall of windows: computes the scene that the kor-wall-slaves draw.");
    app.footer(std::string("Commands, one a line, with --commands:\n") + kWallCommands +
               "\nExit status: 0 done, 1 fault while running, 2 bad arguments, 3 a port cannot be opened.");
    app.add_option("--wall", options.wall, "width and height of all pictures together, pixels")
        ->delimiter(',')
        ->expected(2)
        ->check(numberIn(16, 1 << 16))
        ->capture_default_str();
    app.add_flag("--commands", options.commands, "take commands from standard input");
    addMasterOptions(app, options);
    addRunOptions(app, options, "; the slaves' must be the same", "stopped", "what happens");
}

} // namespace

int parseWallMasterOptions(int argc, char** argv, WallMasterOptions& options) {
    CLI::App app;
    describe(app, options);
    const int status = parse(app, argc, argv);
    return status < 0 && !sameLength(options) ? kExitUsage : status;
}
