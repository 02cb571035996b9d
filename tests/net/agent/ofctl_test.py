#!/usr/bin/env python3
"""The agent driven by ovs-ofctl, a program that nobody here wrote: what it shows, adds, changes and dumps.

Usage: ofctl_test.py BUILD-FOLDER [unittest arguments]. Skipped where ovs-ofctl is not installed.
"""
import os
import random
import select
import shutil
import subprocess
import sys
import unittest

import openflow as of
import switch
from switch import PORT_BASE

if shutil.which("ovs-ofctl") is None:
    print("skipped: ovs-ofctl is not installed (Debian package openvswitch-common)")
    sys.exit(77)
switch.enter_namespaces()  # before the arguments are taken apart: it runs the program again
BUILD = os.path.abspath(sys.argv.pop(1))
P1, P2, P3 = (PORT_BASE + i for i in range(1, 4))
FRAME = bytes.fromhex("02000000000b" "02000000000a" "0800") + b"\0" * 46


class Ofctl(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.switch = switch.Switch(BUILD, 3)

    @classmethod
    def tearDownClass(cls):
        assert cls.switch.stop() == 0

    def ofctl(self, command, *arguments, check=True):
        done = switch.run("ovs-ofctl", "-O", "OpenFlow10", command, f"unix:{self.switch.path}", *arguments,
                          check=False, timeout=60)
        if check:
            self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def setUp(self):
        self.ofctl("del-flows")

    def dump(self, *arguments):
        """The flows without what changes from moment to moment."""
        flows = []
        for line in self.ofctl("dump-flows", "--no-stats", "--no-names", *arguments).splitlines():
            if "reply" not in line:
                flows.append(line.strip())
        return sorted(flows)

    def test_modified_flows_have_the_cookie_that_was_given(self):
        self.ofctl("add-flow", f"cookie=5,priority=7,in_port={P1},actions=output:{P2}")
        self.ofctl("mod-flows", f"cookie=6,in_port={P1},actions=output:{P2}")
        self.assertEqual(self.dump(), [f"cookie=0x6, priority=7,in_port={P1} actions=output:{P2}"])
        self.ofctl("mod-flows", f"in_port={P1},actions=output:{P3}")  # "a default cookie value of 0 is used"
        self.assertEqual(self.dump(), [f"priority=7,in_port={P1} actions=output:{P3}"])
        self.ofctl("mod-flows", "--strict", f"cookie=7,priority=7,in_port={P1},actions=drop")
        self.assertEqual(self.dump(), [f"cookie=0x7, priority=7,in_port={P1} actions=drop"])

    def test_show(self):
        text = self.ofctl("show")
        self.assertIn("n_tables:1", text)
        self.assertIn("actions: output set_vlan_vid set_vlan_pcp strip_vlan\n", text)
        for i in (1, 2, 3):
            self.assertIn(f"{PORT_BASE + i}(s{i})", text)
        self.assertIn("Manufacturer: Korvane", self.ofctl("dump-desc"))
        self.assertIn("max_entries=1000", self.ofctl("dump-tables"))

    def test_a_thousand_flows_from_a_file(self):
        seed = int(os.environ.get("KR_TEST_SEED", "20260417"))
        chance = random.Random(seed)
        lines = []
        for i in range(1000):
            match = chance.choice((f"in_port={P1},dl_vlan={i}", f"dl_dst=02:00:00:00:{i >> 8:02x}:{i & 255:02x}",
                                   f"ip,nw_dst=10.{i >> 8}.{i & 255}.0/{chance.randint(24, 32)},nw_tos={i % 64 * 4}",
                                   f"tcp,nw_src=10.{i >> 8}.{i & 255}.7,tp_dst={i}",
                                   f"arp,nw_src=10.{i >> 8}.{i & 255}.7,arp_op=1",
                                   f"icmp,icmp_type=8,icmp_code=0,in_port={P2},dl_src=02:00:00:00:{i >> 8:02x}:{i & 255:02x}"))
            actions = chance.choice(("drop", f"output:{P2}", f"output:{P3},output:{P1},output:{P3}", "FLOOD", "ALL",
                                     "CONTROLLER:65535", f"mod_vlan_vid:{i},output:{P3}", f"strip_vlan,output:{P2}",
                                     f"mod_vlan_vid:{i},mod_vlan_pcp:{i % 8},FLOOD"))
            lines.append(f"priority={chance.randint(0, 65535)},cookie={i},idle_timeout={i + 1000},"
                         f"hard_timeout={i + 2000},{match},actions={actions}")
        path = os.path.join(self.switch.folder, "flows")
        with open(path, "w", encoding="ascii") as file:
            file.write("\n".join(lines))
        self.ofctl("add-flows", path)
        dumped = os.path.join(self.switch.folder, "dumped")
        with open(dumped, "w", encoding="ascii") as file:
            file.write("\n".join(self.dump()))
        # ovs-ofctl itself says whether two lists of flows are the same, cookies and time-outs included.
        done = switch.run("ovs-ofctl", "-O", "OpenFlow10", "diff-flows", path, dumped, check=False)
        self.assertEqual((done.returncode, done.stdout), (0, ""), f"seed {seed}")
        done = switch.run("ovs-ofctl", "-O", "OpenFlow10", "diff-flows", path, f"unix:{self.switch.path}", check=False)
        self.assertEqual((done.returncode, done.stdout), (0, ""), f"seed {seed}")
        self.assertIn("flow_count=1000", self.ofctl("dump-aggregate"))
        self.assertIn("OFPFMFC_TABLE_FULL", self.ofctl("add-flow", "dl_vlan=4000,actions=drop", check=False))

    def test_changes(self):
        self.ofctl("add-flow", f"priority=5,in_port={P1},actions=output:{P2}")
        self.ofctl("add-flow", f"priority=6,in_port={P2},actions=output:{P1},output:{P3}")
        self.ofctl("mod-flows", f"in_port={P1},actions=output:{P3}")
        self.assertEqual(self.dump(), [f"priority=5,in_port={P1} actions=output:{P3}",
                                       f"priority=6,in_port={P2} actions=output:{P1},output:{P3}"])
        self.assertEqual(self.dump(f"out_port={P1}"), [f"priority=6,in_port={P2} actions=output:{P1},output:{P3}"])
        self.ofctl("del-flows", f"out_port={P3},in_port={P2}")
        self.assertEqual(self.dump(), [f"priority=5,in_port={P1} actions=output:{P3}"])
        self.assertIn("OFPBAC", self.ofctl("add-flow", "actions=output:7", check=False).upper())

    def test_ports(self):
        self.ofctl("mod-port", str(P3), "noflood")
        self.assertRegex(self.ofctl("show"), rf"{P3}\(s3\).*\n\s+config:\s+NO_FLOOD")
        self.ofctl("mod-port", str(P3), "flood")
        self.assertRegex(self.ofctl("dump-ports", str(P1)), r"rx pkts=\d+, bytes=\d+, drop=\d+")
        self.assertIn("0 queues", self.ofctl("queue-stats"))

    def test_packet_out_and_monitor(self):
        self.ofctl("packet-out", f"in_port={P1},packet={FRAME.hex()},actions=output:{P2}")
        self.assertEqual(self.switch.cables[2].receive(), FRAME)
        watching = subprocess.Popen(["ovs-ofctl", "-O", "OpenFlow10", "monitor", f"unix:{self.switch.path}", "65535"],
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT, bufsize=0,
                                    env=dict(os.environ, OVS_RUNDIR=self.switch.folder))
        self.addCleanup(lambda: (watching.kill(), watching.wait(timeout=10), watching.stdout.close()))
        found = ""
        for _ in range(100):  # until it is there
            self.switch.cables[3].send(FRAME)
            if select.select([watching.stdout], [], [], 0.2)[0]:
                found += os.read(watching.stdout.fileno(), 1 << 16).decode()
                if "OFPT_PACKET_IN" in found:
                    break
        self.assertIn(f"in_port={P3}", found)


if __name__ == "__main__":
    unittest.main(verbosity=2)
