"""A master and its slaves on this machine: test_cluster.py [CLASS]"""

import os
import random
import signal
import socket
import unittest

from cluster import BROADCAST, SANITIZED, ClusterTest, main, resident_kib
from peer import Peer, announcement, introduction

ROOM_KIB = 48 << 10  # that a process may grow by in a test
LESS = 4 if SANITIZED else 1


class Lock(ClusterTest):
    """They find each other, lock, and what travels arrives."""

    def test_three_slaves_show_the_masters_frames_and_report_back(self):
        cluster = self.cluster
        cluster.start_slaves(3)
        cluster.start_master()
        cluster.await_locked_anew()
        cluster.await_slaves(3)
        self.assertEqual(cluster.master.reports.names(), {slave.name for slave in cluster.slaves})
        for slave in cluster.slaves:
            cluster.wait_until(slave.clock_within_bound, f"a clock of {slave.name} as good as it says")

        def all_reported():
            return all(slave["reported_position"] >= 0 for slave in cluster.master.reports.status["slaves"])

        cluster.wait_until(all_reported, "a report of each slave")
        cluster.finish_all()

    def test_frames_of_sixteen_million_bytes(self):
        self.cluster.start_master("--payload", (16 << 20) // LESS**2, "--rate", 2)
        self.cluster.start_slaves(2, "--rate", 2)
        self.cluster.await_locked_anew()
        self.cluster.await_locked_still()
        self.cluster.finish_all()

    def test_holds_on_a_busy_machine(self):
        for _ in range(2 * os.cpu_count()):
            self.cluster.start("hog", ["sh", "-c", "while :; do :; done"])
        self.lock(8, "--spin", 0)
        self.cluster.await_locked_still()
        self.assertEqual([slave.reports.connections for slave in self.cluster.slaves], [1] * 8)
        self.cluster.finish_all()


class Survival(ClusterTest):
    """Slaves and masters that die, stop for a while, and come back."""

    def test_killed_slave_is_forgotten_and_the_others_do_not_notice(self):
        self.lock(3)
        cluster, killed = self.cluster, self.cluster.slaves[1]
        cluster.await_slaves(3)
        marks = cluster.marks()
        killed.process.kill()
        cluster.await_slaves(2)
        self.assertNotIn(killed.name, cluster.master.reports.names())
        cluster.await_locked_still(marks, without=killed)
        killed.start()
        cluster.wait_until(killed.locked_anew, "a new lock")
        cluster.await_slaves(3)
        self.assertEqual([slave.reports.connections for slave in cluster.slaves], [1, 1, 1])
        cluster.finish_all()

    def test_slave_stopped_for_a_second_keeps_its_connection_and_loses_nothing(self):
        # Nothing is lost before the timeout; a minute of it, since a busy machine stops processes for long, too.
        self.cluster.start_master("--timeout", 60000)
        self.cluster.start_slaves(2, "--timeout", 60000)
        self.cluster.await_locked_anew()
        for _ in range(2):
            marks = self.cluster.marks()
            self.cluster.stop_for(self.cluster.slaves[0].process, 1)
            self.cluster.await_locked_still(marks)
        self.cluster.finish_all()

    def test_stopped_master_is_found_again(self):
        self.lock(2)
        marks = self.cluster.marks()
        self.cluster.stop_for(self.cluster.master, 4)
        self.cluster.await_locked_anew(marks)
        self.cluster.await_slaves(2)
        self.cluster.finish_all()

    def test_slaves_lock_again_on_a_master_that_was_killed_and_started_again(self):
        self.lock(3)
        for _ in range(2):
            marks = self.cluster.marks()
            self.cluster.master.kill()
            self.cluster.start_master()
            self.cluster.await_locked_anew(marks)
            self.cluster.await_slaves(3)
        self.cluster.finish_all()

    def test_second_master_on_the_same_ports_waits_for_its_turn(self):
        self.lock(2)
        cluster = self.cluster
        marks = cluster.marks()
        second = cluster.launch_master()
        cluster.wait_for_end([second])
        self.assertEqual(second.status, 3, second.log())
        cluster.await_locked_still(marks)
        cluster.await_locked_still()
        marks = cluster.marks()
        cluster.master.kill()
        cluster.start_master()
        cluster.await_locked_anew(marks)
        cluster.finish_all()

    def test_dead_masters_last_announcement_is_never_taken(self):
        """The slave shuts its ears while it has a master, and what was sent meanwhile must not reach it afterwards."""
        cluster = self.cluster
        cluster.start_master(ports=cluster.ports[:1])
        cluster.start_slaves(1)
        cluster.await_locked_anew()
        (slave,) = cluster.slaves

        def heard():
            return [line for line in slave.process.log().splitlines() if line.endswith("recv broadcast")]

        self.assertEqual(len(heard()), 1)
        marks = cluster.marks()
        announced = cluster.master.reports.count["update"]
        cluster.wait_until(lambda: cluster.master.reports.count["update"] > announced + 60, "more announcements")
        cluster.master.kill()
        cluster.wait_until(lambda: not slave.reports.connected, "the loss of the master")
        # A master with other ports is the first that it hears after that.
        (announce, _, _), (_, bind, data) = cluster.ports[:2]
        cluster.start_master(ports=[(announce, bind, data)])
        cluster.await_locked_anew(marks)
        self.assertEqual(len(heard()), 2, heard())
        self.assertIn(f":{data}]", heard()[1])
        cluster.finish_all()


class Release(ClusterTest):
    """Processes that leave and come back while traffic runs."""

    PAYLOAD = ("--payload", 20000 if SANITIZED else 300000)

    def setUp(self):
        super().setUp()
        self.lock(3, *self.PAYLOAD)

    def test_slave_leaves_while_frames_pour_in(self):
        staying, leaving, _ = self.cluster.slaves
        for _ in range(3):
            mark = staying.mark()
            self.cluster.finish_slave(leaving)
            leaving.start()
            self.cluster.wait_until(leaving.locked_anew, "a new lock")
            self.cluster.wait_until(lambda: staying.locked_still(mark), "the other's going on")
        self.cluster.finish_all()

    def test_master_leaves_while_its_slaves_answer(self):
        for _ in range(3):
            marks = self.cluster.marks()
            self.cluster.finish(self.cluster.master)
            self.cluster.start_master(*self.PAYLOAD)
            self.cluster.await_locked_anew(marks)
        self.cluster.finish_all()

    def test_everybody_leaves_at_once(self):
        for process in self.cluster.processes:
            process.signal(signal.SIGTERM)
        self.cluster.finish_all()


class Intruders(ClusterTest):
    """Peers that mean harm to processes that show frames: random bytes, and such as speak the protocol and lie.

    What single bytes of theirs do is looked at elsewhere.
    """

    def lock_one(self, *arguments):
        self.cluster.start_master("--payload", 20000)
        self.cluster.start_slaves(1, *arguments)
        self.cluster.await_locked_anew()
        self.marks = self.cluster.marks()
        self.resident = resident_kib(self.cluster.master)

    def expect_undisturbed(self):
        self.cluster.await_locked_still(self.marks)
        self.cluster.await_locked_still()
        self.cluster.wait_until(self.cluster.slaves[0].clock_within_bound, "a clock as good as it says")
        if not SANITIZED:
            self.assertLess(resident_kib(self.cluster.master), self.resident + ROOM_KIB)
        self.cluster.finish_all()

    def test_random_bytes_on_every_port_while_frames_flow(self):
        (own, nobodys) = self.cluster.claim_ports(2)
        self.lock_one("--port", own)
        chance = random.Random(11)
        noise = chance.randbytes(1 << 20)
        announce, bind, data = self.cluster.ports[0]
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
            stranger.setblocking(False)

            def throw(port, datagram):
                try:
                    stranger.sendto(datagram, ("127.0.0.1", port))
                except BlockingIOError:
                    pass  # lost, as datagrams are

            for i in range(8000 // LESS):
                for port in (data, bind, announce, own):
                    begin = chance.randrange(len(noise) // 2)
                    throw(port, noise[begin : begin + 1 + chance.randrange(chance.choice((16, 100, 1500, 65507)))])
                throw(announce, announcement(nobodys))
                if i % 50 == 0:
                    self.cluster.pump(0.001)

        def noticed():
            return min(p.reports.status.get("malformed", 0) for p in (self.cluster.master, self.cluster.slaves[0].process))

        self.cluster.wait_until(lambda: noticed() > 1000 // LESS, "a thousand malformed datagrams")
        self.expect_undisturbed()

    def test_peers_that_lie_and_flood_and_go(self):
        self.lock_one()
        chance = random.Random(12)
        for i in range(5):
            peer = Peer(self.cluster, self.cluster.ports[0][2])
            peer.send(introduction("guest", ["one"], 2_000_000_000 if i % 2 else None))
            self.cluster.wait_until(lambda: "guest" in self.cluster.master.reports.names(), "a guest")
            for n in range(100):  # names that are replaced faster than anybody reads them
                peer.send(introduction(str(n), ["one"]))
            for n in range(1, 1000 // LESS):  # reports that are none
                peer.send(chance.randbytes(1 + n % 200))
            peer.await_consumed()
            self.assertGreater(peer.pieces_heard, 0, "it is sent frames like everybody")
            peer.begin(60 << 20)
            peer.go()
        self.cluster.await_slaves(1)
        self.expect_undisturbed()


if __name__ == "__main__":
    main()
