#include "WallMasterOptions.h"

#include "Arguments.h"
#include "WallMaster.h"

#include <cstdio>

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
    app.add_option("--rate", options.rate, "frames per second; the slaves' must be the same")
        ->check(numberIn(1.0, 1000.0))
        ->capture_default_str();
    app.add_option("--lead", options.lead, "frames that data is sent ahead of its frame")
        ->check(numberIn(0, 120))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "end after so many seconds; 0: when stopped")
        ->check(numberIn(0.0, 1e9))
        ->capture_default_str();
    app.add_flag("--commands", options.commands, "take commands from standard input");
    app.add_option("--report", options.report, "write JSON lines about what happens to this file");
    app.add_flag("--verbose", options.verbose, "show the library's messages, not only warnings and errors");
    app.add_flag("--quiet", options.quiet, "print no status");
    addNetworkOptions(app, options);
}

} // namespace

int parseWallMasterOptions(int argc, char** argv, WallMasterOptions& options) {
    CLI::App app;
    describe(app, options);
    const int status = parse(app, argc, argv);
    if (status < 0 && (options.announcePorts.size() != options.bindPorts.size() ||
                       options.bindPorts.size() != options.dataPorts.size())) {
        std::fprintf(stderr,
                     "--announce-ports, --bind-ports and --data-ports must have as many ports each\n");
        return kExitUsage;
    }
    return status;
}
