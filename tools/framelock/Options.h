#pragma once

#include <string>
#include <vector>

/// Arguments that all these programs take.
struct RunOptions {
    double rate = 60;
    double seconds = 0;
    std::string report;
    bool verbose = false;
    bool quiet = false;
};

/// Where a master announces itself and where slaves find it; as many ports of each kind.
struct MasterNetwork {
    std::string broadcast = "127.255.255.255";
    std::vector<unsigned short> announcePorts = {7100};
    std::vector<unsigned short> bindPorts = {7200};
    std::vector<unsigned short> dataPorts = {7300};
    int lead = 2;
};

/// What a slave is known by, where it listens, and how long before a refresh it must know what to draw.
struct SlaveBasics {
    std::string name = "node-a";
    int announcePort = 7100;
    int port = 0;
    double marginMs = 9;
};
