"""A master and slaves to whom things happen at random: they are killed, stopped, told to leave and started again.

Every now and then all are left in peace, and then every slave must show the right frames within a time. The first slave
is stopped at most, and the master stays in the last part of the run, so that both grow old enough to tell whether
memory leaks. The exit status is 0 when nobody got stuck, leaked or lost anything.
"""

import argparse
import random
import signal
import socket
import sys
import time
from collections import Counter

from cluster import SANITIZED, Cluster, Slave, resident_kib
from korprocess import ProcessError

PEACE_EVERY_SECONDS = 12
SETTLED_SECONDS = 15  # after which a process has taken the memory that it needs
ROOM_KIB = 32 << 10  # that it may grow by from then on: frames of changing size leave the heap in holes
MASTER_STAYS_FROM = 0.6  # of the run
STUCK_SECONDS = 90  # without a lock, although nothing happens
PAYLOADS = (0, 200, 5000, 20000 if SANITIZED else 100000)
RUBBISH_BYTES = (16, 100, 1500, 65507)


class Soak:
    def __init__(self, cluster, options):
        self.cluster = cluster
        self.options = options
        self.chance = random.Random(options.seed)
        self.begin = time.monotonic()
        self.done = Counter()  # what happened, and how often
        self.stopped = {}  # processes, and when they are to go on
        self.young = {}  # processes, and their memory and age when they had settled
        self.growth = (0, "nobody")
        self.slowest_lock = 0
        self.slots = [None] * options.slaves

    def elapsed(self):
        return time.monotonic() - self.begin

    def note(self, what, who=""):
        self.done[what] += 1
        if self.options.verbose:
            print(f"{self.elapsed():8.2f}  {what} {who}", flush=True)

    def run(self):
        self.start_master()
        for index in range(len(self.slots)):
            self.join(index)
        end = self.options.minutes * 60
        action, peace = 3.0, min(PEACE_EVERY_SECONDS, end / 3)
        while self.elapsed() < end:
            self.cluster.pump_for(0.02)
            self.resume(time.monotonic())
            if self.elapsed() >= peace:
                self.leave_in_peace()
                peace = self.elapsed() + PEACE_EVERY_SECONDS
            elif self.elapsed() >= action:
                self.act()
                action = self.elapsed() + self.chance.uniform(0.05, 1.5)
        self.leave_in_peace()
        self.cluster.slaves = [slave for slave in self.slots if slave]
        self.cluster.finish_all()

    def act(self):
        choice = self.chance.randrange(21)
        index = self.chance.randrange(1, len(self.slots)) if len(self.slots) > 1 else 0
        slave = self.slots[index]
        if choice < 4:
            self.act_on_master()
        elif choice < 5:
            self.throw_rubbish()
        elif choice < 10:
            anyone = self.chance.choice([slave for slave in self.slots if slave])
            self.stop(anyone.process, self.chance.choice((1.5, 5)))
        elif index == 0:
            pass
        elif slave is None:
            self.join(index)
        elif choice < 16:
            self.note("kill", slave.name)
            slave.process.kill()
            self.slots[index] = None
        else:
            self.note("leave", slave.name)
            slave.process.signal(signal.SIGCONT)
            self.cluster.finish_slave(slave)
            self.slots[index] = None

    def act_on_master(self):
        master = self.cluster.master
        if self.chance.randrange(3) == 0:
            self.stop(master, 3)
        elif self.elapsed() < self.options.minutes * 60 * MASTER_STAYS_FROM:
            if self.chance.randrange(2) == 0:
                self.note("kill", "master")
                master.kill()
            else:
                self.note("leave", "master")
                master.signal(signal.SIGCONT)
                self.cluster.finish(master)
            self.start_master()

    def start_master(self):
        payload = self.chance.choice(PAYLOADS)
        self.note("start", f"master with {payload} bytes")
        self.cluster.start_master("--payload", payload)

    def join(self, index):
        self.note("join", f"slave{index}")
        place = ["--announce-port", self.cluster.ports[index][0], "--phase", f"{self.chance.random():.3f}"]
        # A trace grows for minutes, so the slave whose memory is watched has none.
        self.slots[index] = Slave(self.cluster, f"slave{index}", place, traced=index > 0)

    def stop(self, process, most_seconds):
        if self.stopped.get(process, 0) < time.monotonic():
            self.note("stop", process.name)
            self.stopped[process] = time.monotonic() + self.chance.uniform(0.1, most_seconds)
            process.signal(signal.SIGSTOP)

    def resume(self, now):
        for process in [process for process, due in self.stopped.items() if due <= now]:
            process.signal(signal.SIGCONT)
            del self.stopped[process]

    def throw_rubbish(self):
        self.note("rubbish")
        ports = [port for ports in self.cluster.ports for port in ports]
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
            for _ in range(300):
                size = self.chance.randrange(1, self.chance.choice(RUBBISH_BYTES))
                stranger.sendto(self.chance.randbytes(size), ("127.0.0.1", self.chance.choice(ports)))

    def leave_in_peace(self):
        self.resume(float("inf"))
        begin = time.monotonic()
        slaves = [slave for slave in self.slots if slave]
        lerps = {slave: slave.reports.lerps for slave in slaves}

        def all_locked():
            return all(slave.locked_still((slave.reports.connections, lerps[slave])) for slave in slaves)

        self.cluster.wait_until(all_locked, "a lock of every slave that is left in peace", STUCK_SECONDS)
        self.slowest_lock = max(self.slowest_lock, time.monotonic() - begin)
        self.note("peace", f"for {len(slaves)} slaves, all locked")
        for process in (self.cluster.master, self.slots[0].process):
            self.check_memory(process)

    def check_memory(self, process):
        age = time.monotonic() - process.started
        if SANITIZED or age < SETTLED_SECONDS:
            return
        resident = resident_kib(process)
        young, since = self.young.setdefault(process, (resident, age))
        who = f"{process.name}, from {young} to {resident} KiB in {age - since:.0f} s"
        self.growth = max(self.growth, (resident - young, who))
        assert resident - young < ROOM_KIB, f"memory grows: {who}"

    def summary(self):
        happened = ", ".join(f"{what} {count}" for what, count in sorted(self.done.items()))
        return (
            f"happened: {happened}\n"
            f"locks:    all after {self.slowest_lock:.2f} s of peace at most\n"
            f"memory:   greatest growth {self.growth[0]} KiB ({self.growth[1]})"
        )


def main():
    parser = argparse.ArgumentParser(prog="script/soak", description=__doc__.split("\n\n")[0])
    parser.add_argument("--minutes", type=float, default=10, help="how long (10)")
    parser.add_argument("--seed", type=int, default=1, help="of what happens (1)")
    parser.add_argument("--slaves", type=int, choices=range(1, 19), metavar="N", default=6, help="at most, 1 to 18 (6)")
    parser.add_argument("--verbose", action="store_true", help="print what happens")
    options = parser.parse_args()
    print(f"soak of {options.minutes:g} minutes with at most {options.slaves} slaves, seed {options.seed}", flush=True)
    with Cluster(options.slaves) as cluster:
        soak = Soak(cluster, options)
        fault = None
        try:
            soak.run()
        except (ProcessError, AssertionError) as error:
            fault = error
    print(soak.summary())
    print(f"result:   FAILED\n{fault}" if fault else "result:   ok")
    return 1 if fault else 0


if __name__ == "__main__":
    sys.exit(main())
