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

/// Parses the arguments. Returns -1 to go on, else the exit status; help or the error have been printed.
inline int parse(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitDone : kExitUsage;
    }
    return -1;
}
