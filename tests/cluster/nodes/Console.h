#pragma once

#include <support/jTimer.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

/// One line that a node reports: a type and fields, separated by tabs, such as "status\tframe=12\tslaves=3".
class ReportLine {
public:
    explicit ReportLine(std::string_view type) : text_(type) {}

    ReportLine& add(std::string_view key, std::string_view value);
    ReportLine& add(std::string_view key, long long value);
    ReportLine& add(std::string_view key, double value);

    const std::string& text() const { return text_; }

private:
    std::string text_;
};

/// The pipes between a node and the test that runs it: commands come in on standard input, one a line,
/// reports go out on standard output. For one thread, but for the log.
class Console {
public:
    /// Takes "key=value" arguments and sends the library's log out as reports of type "log".
    Console(int argc, char** argv);
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;
    ~Console();

    std::string argument(const std::string& key, const std::string& otherwise) const;
    double number(const std::string& key, double otherwise) const;

    /// Commands that have come since the last call, each split at its blanks. The end of the input, which is
    /// also the end of the test, counts as "quit".
    std::vector<std::vector<std::string>> commands();

    /// Writes a line that must not be lost.
    static void report(const ReportLine& line);

    /// Writes the line unless the pipe is full: for lines that a later one makes up for.
    static void reportIfRoom(const ReportLine& line);

private:
    std::map<std::string, std::string> arguments_;
    std::string input_;
    bool ended_ = false;
};

/// Errors and warnings that the library has logged so far.
long long loggedErrors();
long long loggedWarnings();

/// Adds what every node reports: log counts and resident memory.
void addProcess(ReportLine& line);

/// Makes `jTimer` run ahead of the system's clock by so many seconds. Call it before anything else.
void shiftClock(double seconds);

/// What the system's steady clock showed when `jTimer` stood at zero, the shift included.
double clockZero();

/// Reports what is still allocated; the exit status of a node that has ended.
int reportEnd();

/// The main function of a node of that kind: opens it, steps it and does as told until told to quit, and
/// reports its status ten times a second. The exit status.
template <class Node>
int runNode(int argc, char** argv) {
    Console console(argc, argv);
    shiftClock(console.number("clock_hours", 0) * 3600);
    {
        Node node(console);
        node.open();
        double statusDue = 0;
        for (bool quit = false; !quit;) {
            for (const auto& command : console.commands()) {
                if (command[0] == "quit") {
                    quit = true;
                } else if (command[0] == "release") {
                    node.close();
                    Console::report(ReportLine("released"));
                } else if (command[0] == "init") {
                    node.open();
                } else {
                    node.obey(command);
                }
            }
            node.step();
            if (const double now = kor::jTimer::getTimeSecond(); now >= statusDue) {
                statusDue = now + 0.1;
                node.reportStatus();
            }
        }
        node.close();
    }
    return reportEnd();
}
