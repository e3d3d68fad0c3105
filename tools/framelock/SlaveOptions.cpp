#include "SlaveOptions.h"

#include "Arguments.h"

#include <kor/KorClient.h>

#include <cstdio>
#include <string>

namespace {

void describe(CLI::App& app, SlaveOptions& options) {
    app.description(
        "Slave of a frame-locked cluster: finds the master by its announcement and shows its scene.");
    app.footer("On several machines, with the master's defaults:\n"
               "  kor-slave --name node-b --camera right\n\n"
               "Exit status: 0 done, 1 fault while running, 2 bad arguments, 3 a port cannot be opened.");
    addSlaveOptions(app, options);
    app.add_option("--camera", options.cameras,
                   "cameras that this slave renders, comma-separated or repeated")
        ->delimiter(',')
        ->capture_default_str();
    app.add_option("--refresh", options.refresh, "refresh rate of the display, Hz")
        ->check(numberIn(1.0, 1000.0))
        ->capture_default_str();
    app.add_option("--phase", options.phase, "where in the refresh interval the display refreshes, 0 to 1")
        ->check(numberIn(0.0, 1.0))
        ->capture_default_str();
    app.add_option("--draw", options.drawMs, "time that drawing takes, ms")
        ->check(numberIn(0.0, 1000.0))
        ->capture_default_str();
    addTimeoutOption(app, options.timeoutMs);
    addRunOptions(app, options, " that the master counts in", "stopped", "every wait");
    addTraceOption(app, options.trace);
}

// The slave introduces itself to the master in one record of this size; the library would refuse, too.
bool fitsIntroduction(const SlaveOptions& options) {
    constexpr std::size_t kLimit = kor::KorClient::kMaxIntroductionBytes;
    std::size_t size = 10 + options.name.size() + 1;
    for (const std::string& camera : options.cameras)
        size += camera.size() + 1;
    if (size > kLimit) {
        std::fprintf(stderr, "--name and --camera are too long: together they take %zu bytes of %zu\n", size,
                     kLimit);
    }
    return size <= kLimit;
}

} // namespace

int parseSlaveOptions(int argc, char** argv, SlaveOptions& options) {
    CLI::App app;
    describe(app, options);
    const int status = parse(app, argc, argv);
    return status < 0 && !fitsIntroduction(options) ? kExitUsage : status;
}
