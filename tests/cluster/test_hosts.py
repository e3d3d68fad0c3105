"""Several hosts: network namespaces joined by a switch, with addresses and a broadcast address of their own."""

import unittest

from cluster import PROGRAMS, ClusterTest, Slave, main
from korprocess import Hosts, NotPermitted

SLAVES = 4
PORTS = (7100, 7200, 7300)  # every host has the whole range to itself


class OnHosts(ClusterTest):
    """Host 0 is the master's; slave i is on host i + 1."""

    def start(self, laws=(), ahead=0):
        try:
            self.hosts = Hosts(self.cluster, SLAVES + 1, bridged=not laws)
            namespaces = [self.hosts.of(host) for host in range(SLAVES + 1)]
            if ahead:
                namespaces[-1] = self.hosts.with_clock_ahead(SLAVES, ahead)
        except NotPermitted as reason:
            self.skipTest(f"namespaces are not permitted: {reason}")
        if laws:
            self.switch = self.hosts.start_switch(PROGRAMS / "kor-test-switch", *laws)
        self.cluster.start_master(
            "--payload", 5000, ports=[PORTS], broadcast=Hosts.BROADCAST, namespaces=namespaces[0]
        )
        for i in range(SLAVES):
            arguments = ["--announce-port", PORTS[0], "--phase", f"{0.2 * i:.1f}"]
            clock_ahead = ahead if i == SLAVES - 1 else 0
            self.cluster.slaves.append(Slave(self.cluster, f"slave{i}", arguments, namespaces[i + 1], clock_ahead))
        self.cluster.await_locked_anew()
        self.cluster.await_slaves(SLAVES)

    def test_master_and_four_slaves_lock_by_real_broadcast(self):
        self.start()
        for slave in self.cluster.slaves:
            self.assertIn(f"[{Hosts.address(0)}:{PORTS[2]}] recv broadcast", slave.process.log())
        self.cluster.finish_all()

    def test_host_that_is_cut_off_comes_back_and_the_others_do_not_notice(self):
        self.start()
        cluster, cut = self.cluster, self.cluster.slaves[2]
        for set_link in (self.hosts.set_port, self.hosts.set_interface):
            marks = cluster.marks()
            set_link(3, "down")
            cluster.await_slaves(SLAVES - 1)
            cluster.wait_until(lambda: not cut.reports.connected, "the loss of the master")
            cluster.await_locked_still(marks, without=cut)
            set_link(3, "up")
            cluster.wait_until(lambda: cut.locked_anew(marks[2]), "a new lock")
            cluster.await_slaves(SLAVES)
            cluster.await_locked_still(marks, without=cut)
        cluster.finish_all()

    def test_master_that_is_cut_off_finds_its_slaves_again(self):
        self.start()
        marks = self.cluster.marks()
        self.hosts.set_interface(0, "down")
        self.cluster.await_slaves(0)
        self.hosts.set_interface(0, "up")
        self.cluster.await_locked_anew(marks)
        self.cluster.await_slaves(SLAVES)
        self.cluster.finish_all()

    def test_slave_whose_clock_is_hours_ahead_locks_with_the_right_offset(self):
        self.start(ahead=5 * 3600)
        ahead = self.cluster.slaves[-1]
        zeros = [slave.reports.header["zero"] for slave in self.cluster.slaves]
        self.assertAlmostEqual(zeros[-1] - zeros[0], 5 * 3600, delta=600, msg="its clock is not ahead at all")
        self.cluster.wait_until(ahead.clock_within_bound, "a clock as good as it says")
        self.cluster.finish_all()

    def test_nothing_is_lost_or_doubled_by_a_switch_that_loses_doubles_and_reorders(self):
        self.start(laws=("--lost", 0.02, "--doubled", 0.01, "--late", 0.01, "--late-ms", 0, 2))
        marks = self.cluster.marks()
        counts = self.switch.output
        self.cluster.wait_until(lambda: counts.status["lost"] > 300, "three hundred lost frames")
        self.cluster.await_locked_still(marks)
        self.cluster.await_locked_still()
        self.assertGreater(counts.status["doubled"], 0)
        self.assertGreater(counts.status["late"], 0)
        self.cluster.finish_all()

    def test_clocks_are_as_good_as_they_say_where_every_datagram_is_late_by_chance(self):
        self.start(laws=("--delay-ms", 0.1, 0.4))
        for slave in self.cluster.slaves:
            self.cluster.wait_until(slave.clock_within_bound, "a clock as good as it says")
        self.cluster.finish_all()


if __name__ == "__main__":
    main()
