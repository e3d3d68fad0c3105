#include "MasterOptions.h"

#include "Arguments.h"

namespace {

void describe(CLI::App& app, MasterOptions& options) {
    app.description("Master of a frame-locked cluster: animates a scene and sends it to all slaves.");
    app.footer(
        "On one machine every slave needs an announcement port of its own, so give lists:\n"
        "  kor-master --announce-ports 7100,7101 --bind-ports 7200,7201 --data-ports 7300,7301\n"
        "On several machines one port of each kind does; --broadcast is the network's broadcast address:\n"
        "  kor-master --broadcast 192.168.1.255\n\n"
        "Exit status: 0 done, 1 fault while running, 2 bad arguments, 3 a port cannot be opened.");
    addMasterOptions(app, options);
    app.add_option("--payload", options.payload, "additional bytes per frame")
        ->check(numberIn(0, 32 << 20))
        ->capture_default_str();
    app.add_option("--spin", options.spinMs,
                   "sleep until so many ms before each frame, and spin only then; 0: spin all the time")
        ->check(numberIn(0.0, 1000.0))
        ->capture_default_str();
    addTimeoutOption(app, options.timeoutMs);
    addRunOptions(app, options, "; the slaves' must be the same", "stopped", "every frame");
    addTraceOption(app, options.trace);
}

} // namespace

int parseMasterOptions(int argc, char** argv, MasterOptions& options) {
    CLI::App app;
    describe(app, options);
    const int status = parse(app, argc, argv);
    return status < 0 && !sameLength(options) ? kExitUsage : status;
}
