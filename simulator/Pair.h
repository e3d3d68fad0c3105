#pragma once

#include "World.h"

namespace kor::simulation {

/// A world of two, which most questions need: a slave that is connected to its master.
///
///     Pair pair;
///     pair.master.send(pair.slave, 1000);
///     pair.drive();
///
/// Forward is from the master to the slave.
struct Pair {
    explicit Pair(const WorldModel& model = {}, const HostModel& ofMaster = {}, const HostModel& ofSlave = {})
        : world(model), master(world.addHost(ofMaster)), slave(world.addHost(ofSlave)) {
        slave.connect(master);
        world.runUntil([this] { return slave.connectionTo(master) && slave.connections() == 1; }, kSecond);
    }

    /// Runs until nothing is left to do; a fault when that does not come.
    void drive() { world.settle(); }

    PathModel& forward() { return world.path(master, slave); }
    PathModel& backward() { return world.path(slave, master); }

    World world;
    Host& master;
    Host& slave;
};

} // namespace kor::simulation
