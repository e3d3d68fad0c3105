#pragma once

#include "Options.h"
#include "Program.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

/// Accepts numbers from `low` to `high`. Unlike CLI::Range it refuses "nan".
inline CLI::Validator numberIn(double low, double high) {
    char range[64];
    std::snprintf(range, sizeof range, "%.10g to %.10g", low, high);
    return {[low, high, range = std::string(range)](std::string& text) {
                double value = 0;
                const bool fits = CLI::detail::lexical_cast(text, value) && value >= low && value <= high;
                return fits ? std::string() : "'" + text + "' is not a number from " + range;
            },
            range};
}

/// The options of every program. The texts: what is counted, when it ends by itself, what is reported.
inline void addRunOptions(CLI::App& app, RunOptions& options, const std::string& rate, const std::string& end,
                          const std::string& reported) {
    app.add_option("--rate", options.rate, "frames per second" + rate)
        ->check(numberIn(1.0, 1000.0))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "end after so many seconds; 0: when " + end)
        ->check(numberIn(0.0, 1e9))
        ->capture_default_str();
    app.add_option("--report", options.report, "write JSON lines about " + reported + " to this file");
    app.add_flag("--verbose", options.verbose, "show the library's messages, not only warnings and errors");
    app.add_flag("--quiet", options.quiet, "print no status");
}

/// Where a recording of all frames goes.
inline void addTraceOption(CLI::App& app, std::string& file) {
    app.add_option("--trace", file,
                   "record what happens to every frame and write it to this file at the end");
}

/// When a connection counts as lost.
inline void addTimeoutOption(CLI::App& app, unsigned int& milliseconds) {
    app.add_option("--timeout", milliseconds, "silence after which a connection is given up, ms")
        ->check(numberIn(1, 1e9))
        ->capture_default_str();
}

/// The options of every master.
inline void addMasterOptions(CLI::App& app, MasterNetwork& options) {
    const auto port = numberIn(1, 65535);
    app.add_option("--broadcast", options.broadcast, "address to announce the master at; contains .255")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    app.add_option("--announce-ports", options.announcePorts, "ports that slaves listen on, comma-separated")
        ->delimiter(',')
        ->check(port)
        ->capture_default_str();
    app.add_option("--bind-ports", options.bindPorts, "own ports to announce from, one per announcement port")
        ->delimiter(',')
        ->check(port)
        ->capture_default_str();
    app.add_option("--data-ports", options.dataPorts,
                   "own ports that slaves connect to, one per announcement port")
        ->delimiter(',')
        ->check(port)
        ->capture_default_str();
    app.add_option("--lead", options.lead, "frames that data is sent ahead of its frame")
        ->check(numberIn(0, 120))
        ->capture_default_str();
}

/// Whether a master has as many ports of each kind; the error has been printed.
inline bool sameLength(const MasterNetwork& options) {
    if (options.announcePorts.size() == options.bindPorts.size() &&
        options.bindPorts.size() == options.dataPorts.size()) {
        return true;
    }
    std::fprintf(stderr, "--announce-ports, --bind-ports and --data-ports must have as many ports each\n");
    return false;
}

/// The options of every slave.
inline void addSlaveOptions(CLI::App& app, SlaveBasics& options) {
    app.add_option("--name", options.name, "name that the master knows this slave by")->capture_default_str();
    app.add_option("--announce-port", options.announcePort, "port on which the master announces itself")
        ->check(numberIn(1, 65535))
        ->capture_default_str();
    app.add_option("--port", options.port, "own port; 0: any free one")
        ->check(numberIn(0, 65535))
        ->capture_default_str();
    app.add_option("--margin", options.marginMs, "safety margin before the vertical sync, ms")
        ->check(numberIn(0.0, 1000.0))
        ->capture_default_str();
}

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
inline int parse(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitDone : kExitUsage;
    }
    return -1;
}
