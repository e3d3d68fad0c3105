#include "MasterOptions.h"

#include "Arguments.h"

#include <cstdio>

namespace {

void describe(CLI::App& app, MasterOptions& options) {
    app.description("Master of a frame-locked cluster: animates a scene and sends it to all slaves.");
    app.footer(
        "On one machine every slave needs an announcement port of its own, so give lists:\n"
        "  kor-master --announce-ports 7100,7101 --bind-ports 7200,7201 --data-ports 7300,7301\n"
        "On several machines one port of each kind does; --broadcast is the network's broadcast address:\n"
        "  kor-master --broadcast 192.168.1.255\n\n"
        "Exit status: 0 done, 1 fault while running, 2 bad arguments, 3 a port cannot be opened.");
    addNetworkOptions(app, options);
    app.add_option("--rate", options.rate, "frames per second; the slaves' must be the same")
        ->check(numberIn(1.0, 1000.0))
        ->capture_default_str();
    app.add_option("--lead", options.lead, "frames that data is sent ahead of its frame")
        ->check(numberIn(0, 120))
        ->capture_default_str();
    app.add_option("--payload", options.payload, "additional bytes per frame")
        ->check(numberIn(0, 32 << 20))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "end after so many seconds; 0: when stopped")
        ->check(numberIn(0.0, 1e9))
        ->capture_default_str();
    app.add_option("--report", options.report, "write JSON lines about every frame to this file");
    app.add_option("--trace", options.trace,
                   "record what happens to every frame and write it to this file at the end");
    app.add_flag("--verbose", options.verbose, "show the library's messages, not only warnings and errors");
    app.add_flag("--quiet", options.quiet, "print no status");
}

bool sameLength(const MasterOptions& options) {
    if (options.announcePorts.size() == options.bindPorts.size() &&
        options.bindPorts.size() == options.dataPorts.size()) {
        return true;
    }
    std::fprintf(stderr, "--announce-ports, --bind-ports and --data-ports must have as many ports each\n");
    return false;
}

} // namespace

int parseMasterOptions(int argc, char** argv, MasterOptions& options) {
    CLI::App app;
    describe(app, options);
    const int status = parse(app, argc, argv);
    return status < 0 && !sameLength(options) ? kExitUsage : status;
}
