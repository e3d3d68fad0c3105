#pragma once

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

/// The options that say where a master announces itself and where slaves find it.
template <class Options>
void addNetworkOptions(CLI::App& app, Options& options) {
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
