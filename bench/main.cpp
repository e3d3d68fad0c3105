#include "figures/Figures.h"
#include "LineTimes.h"
#include "roles/Roles.h"
#include "Table.h"

#include <support/jLog.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include <csignal>
#include <unistd.h>

namespace {

using namespace kor::bench;

int play(const std::string& name, const std::vector<double>& arguments) {
    const Role role = findRole(name);
    if (role == nullptr) {
        std::fprintf(stderr, "no role '%s'\n", name.c_str());
        return 2;
    }
    Orders orders;
    role(arguments, orders);
    std::fflush(nullptr);
    ::_exit(0); // some roles have threads that only the end of the process ends
}

void list() {
    for (const Figure& figure : figures())
        std::printf("%-14s %s\n", figure.name, figure.what);
}

void measure(const Figure& figure, Table& table) {
    const std::optional<LineTimes> before = figure.sideBySide ? measureLineTimes() : std::nullopt;
    figure.measure(table);
    const std::optional<LineTimes> after = before ? measureLineTimes() : std::nullopt;
    if (!after)
        return;
    const auto add = [&](const char* when, const LineTimes& times) {
        table.add(
            {std::string(figure.name) + ", " + when + ": memory line between two processors, vs own memory",
             times.fromOther, "ns", times.fromOwn});
    };
    add("before", *before);
    add("after", *after);
}

int measure(const std::vector<std::string>& only, const std::string& jsonFile) {
    Table table;
    int failed = 0;
    for (const Figure& figure : figures()) {
        if (!only.empty() && std::find(only.begin(), only.end(), figure.name) == only.end())
            continue;
        std::fprintf(stderr, "%s: %s\n", figure.name, figure.what);
        try {
            measure(figure, table);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: %s\n", figure.name, error.what());
            ++failed;
        }
    }
    table.print();
    if (!jsonFile.empty() && !table.writeJson(jsonFile)) {
        std::fprintf(stderr, "cannot write %s\n", jsonFile.c_str());
        return 1;
    }
    return failed == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    CLI::App app("Measures the connection layer beside bare UDP, TCP and ENet, all in one run.\n"
                 "The ratio is value / reference; what the reference is, the row's name tells after 'vs'.",
                 "bench");
    std::vector<std::string> names;
    for (const Figure& figure : figures())
        names.emplace_back(figure.name);
    std::vector<std::string> only;
    std::string jsonFile;
    bool wantList = false;
    std::string role;
    std::vector<double> arguments;
    app.add_option("--only", only, "measure this figure only; may be given more than once")
        ->check(CLI::IsMember(names))
        ->type_name("NAME");
    app.add_option("--json", jsonFile, "also write the table as a list of objects")->type_name("FILE");
    app.add_flag("--list", wantList, "name the figures and measure nothing");
    app.add_option("--role", role)->group("");
    app.add_option("arguments", arguments)->group("");
    CLI11_PARSE(app, argc, argv);
    if (wantList) {
        list();
        return 0;
    }
    try {
        return role.empty() ? measure(only, jsonFile) : play(role, arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", role.empty() ? "bench" : role.c_str(), error.what());
        std::fflush(nullptr);
        ::_exit(1);
    }
}
