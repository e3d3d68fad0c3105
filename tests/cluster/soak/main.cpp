// cluster-soak: a master and slaves under random kills, stops, joins and restarts, for as long as one likes.

#include "Soak.h"

#include <CLI/CLI.hpp>

#include <cstdio>

int main(int argc, char** argv) {
    SoakOptions options;
    CLI::App app("Runs a master and slaves on this machine while they are killed, stopped, restarted and "
                 "joined at random.\nExit status 0 when none got stuck, leaked or lost anything.");
    app.add_option("--minutes", options.minutes, "how long, in minutes")
        ->check(CLI::Range(0.01, 1e5))
        ->capture_default_str();
    app.add_option("--seed", options.seed, "seed of what happens")->capture_default_str();
    app.add_option("--slaves", options.slaves, "slaves at most")
        ->check(CLI::Range(1, 18))
        ->capture_default_str();
    app.add_flag("--verbose", options.verbose, "print what happens");
    CLI11_PARSE(app, argc, argv);

    std::printf("soak of %g minutes with at most %d slaves, seed %u\n", options.minutes, options.slaves,
                options.seed);
    std::fflush(stdout);
    const Summary summary = Soak(options).run();
    std::fputs(summary.text().c_str(), stdout);
    return summary.faults.empty() ? 0 : 1;
}
