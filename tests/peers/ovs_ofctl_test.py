#!/usr/bin/env python3
"""ovs-ofctl drives the switch: what it adds is what it dumps, in its own words, and frames go where it says.

Usage: ovs_ofctl_test.py BUILD-FOLDER CAPTURE-FILE [unittest arguments]
"""
import os
import re
import subprocess
import sys
import time
import unittest

import lab

lab.need(ovs_ofctl="openvswitch-common", tcpdump="tcpdump", ip="iproute2", ping="iputils-ping", socat="socat")
lab.enter_namespaces()  # before the arguments are taken apart: it runs the program again
BUILD, CAPTURE = (os.path.abspath(path) for path in (sys.argv.pop(1), sys.argv.pop(1)))
TCP = f"tcp:127.0.0.1:{lab.CONTROLLER_PORT}"
SOCKET = f"{lab.FOLDER}/openflow"
P1, P2, P3, P4 = (lab.PORT_BASE + i for i in range(1, 5))
TABLE_SIZE = 1000

# One of each kind: all twelve fields, all actions that one rule can do, lists with a port twice, cookies, time-outs.
FLOWS = f"""
priority=1,actions=CONTROLLER:128
priority=2,in_port={P1},actions=output:{P2}
priority=3,in_port={P2},dl_src=02:00:00:00:00:02,dl_dst=02:00:00:00:00:01,actions=output:{P1}
priority=4,dl_vlan=5,dl_vlan_pcp=3,actions=strip_vlan,output:{P3}
priority=5,dl_vlan=0xffff,actions=mod_vlan_vid:7,output:{P4}
priority=6,dl_vlan=9,actions=mod_vlan_pcp:6,output:{P4}
priority=7,dl_type=0x88cc,actions=CONTROLLER:65535
priority=8,arp,arp_spa=10.0.0.0/24,arp_tpa=10.0.0.1,arp_op=1,actions=FLOOD
priority=9,ip,nw_src=10.0.0.0/8,nw_dst=192.168.4.0/22,nw_tos=32,actions=ALL
priority=10,icmp,icmp_type=8,icmp_code=0,actions=drop
priority=11,tcp,nw_src=10.1.2.3,tp_src=1024,tp_dst=80,cookie=0x123456789abcdef0,actions=output:{P1},output:{P2}
priority=11,udp,tp_dst=53,actions=output:{P3},output:{P1},output:{P3},output:{P2},output:{P4}
priority=12,in_port={P4},arp,actions=IN_PORT
priority=32768,ip,nw_proto=89,idle_timeout=600,hard_timeout=1200,cookie=1,actions=output:{P2}
priority=65535,in_port={P3},dl_src=02:00:00:00:00:03,dl_dst=02:00:00:00:00:01,dl_vlan=100,dl_vlan_pcp=1,tcp,\
nw_src=10.0.0.3,nw_dst=10.0.0.1,nw_tos=4,tp_src=7,tp_dst=9,cookie=0xffff,actions=output:{P1}
"""

# What the hardware has no action for, or what names a port that does not exist, and the error that says so.
REFUSED = (
    (f"actions=mod_nw_dst:10.0.0.9,output:{P1}", "OFPBAC_BAD_TYPE"),
    (f"actions=mod_dl_src:02:00:00:00:00:09,output:{P1}", "OFPBAC_BAD_TYPE"),
    (f"actions=enqueue:{P1}:1", "OFPBAC_"),
    ("actions=NORMAL", "OFPBAC_BAD_OUT_PORT"),
    (f"actions=output:{lab.PORT_BASE + 77}", "OFPBAC_BAD_OUT_PORT"),
)


def many(count, first=0):
    """Half exact in all twelve fields (to this program those have the highest priority), half with prefixes."""
    rows = []
    for i in range(first, first + count):
        port, address = P1 + i % 4, f"10.{i >> 8}.{i & 255}"
        exact = (f"in_port={port},dl_vlan=0xffff,dl_src=02:00:00:00:{i >> 8:02x}:{i & 255:02x},"
                 f"dl_dst=02:00:00:00:00:01,tcp,nw_tos=0,nw_src={address}.1,nw_dst=10.0.0.1,tp_src={i + 1},tp_dst=80")
        matched = f"priority=65535,{exact}" if i % 2 else f"priority={1 + i * 7 % 60000},ip,nw_src={address}.0/24"
        rows.append(f"cookie={i + 1},{matched},actions=output:{P1 + (i + 1) % 4}")
    return "\n".join(rows) + "\n"


def canonical(text):
    """A dump's or a request's flows, each as one line in one order, so that two texts can be compared."""
    flows = []
    for line in text.splitlines():
        line = re.sub(r"^.*OFPT_FLOW_MOD.*?: ADD ?|\b(n_packets|n_bytes|duration|idle_age|table)=[^ ,]*,? ?", "", line)
        if " actions=" not in line:
            continue
        words, actions = line.strip().split(" actions=")
        words = re.sub(r"\b(cookie|idle|hard):", r"\1=", words).replace("idle=", "idle_timeout=")
        words = words.replace("hard=", "hard_timeout=").replace(",", " ").split()
        words = [word for word in words if word not in ("cookie=0x0", "table=0")]
        flows.append(" ".join(sorted(words)) + " actions=" + actions)
    return sorted(flows)


class OfctlTest(unittest.TestCase):
    """One switch with four hosts for all cases; each begins with an empty table."""
    where = TCP

    @classmethod
    def setUpClass(cls):
        if not hasattr(OfctlTest, "agent"):
            OfctlTest.hosts = [lab.Host(i) for i in range(1, 5)]
            OfctlTest.capture = lab.Capture(CAPTURE)
            OfctlTest.agent = lab.Agent(BUILD, cls.hosts, f"ptcp:{lab.CONTROLLER_PORT}", f"punix:{SOCKET}")

    def setUp(self):
        self.of("del-flows")

    def of(self, command, *arguments, where=None, fails=False):
        words = ["ovs-ofctl", "-O", "OpenFlow10", f"--timeout={lab.PATIENCE}", *command.split(), where or self.where]
        done = subprocess.run([*words, *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              check=False)
        self.assertEqual(done.returncode != 0 or "OFPT_ERROR" in done.stdout, fails, f"{words}: {done.stdout}")
        return done.stdout

    def file(self, name, text):
        path = os.path.join(lab.FOLDER, name)
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        return path

    def asked(self, path):
        """What a file of flows means, in the program's own words."""
        return canonical(lab.run("ovs-ofctl", "-O", "OpenFlow10", "-F", "OpenFlow10", "parse-flows", path))

    def dumped(self, *which):
        return canonical(self.of("dump-flows", *which))

    def flow_count(self):
        return int(re.search(r"flow_count=(\d+)", self.of("dump-aggregate"))[1])

    def packet_count(self, which):
        return int(re.search(r"packet_count=(\d+)", self.of("dump-aggregate", which))[1])


class Flows(OfctlTest):
    def test_show_names_the_switch_and_its_ports(self):
        said = self.of("show")
        self.assertIn("dpid:00000000000000a1", said)
        self.assertIn("actions: output set_vlan_vid set_vlan_pcp strip_vlan\n", said)
        self.assertEqual(re.findall(r"^ (\d+)\((.*?)\): addr:", said, re.M),
                         [(str(lab.PORT_BASE + i), f"s1-eth{i}") for i in range(1, 5)])
        for host in self.hosts:
            address = re.search(r"link/ether ([0-9a-f:]+) ", lab.run("ip", "-o", "link", "show", "dev", host.port))[1]
            self.assertIn(f"({host.port}): addr:{address}\n", said)
        self.assertIn("max_entries=1000", self.of("dump-tables"))
        self.assertIn("Korvane", self.of("dump-desc"))
        self.assertEqual(self.of("ping").count("bytes from"), 10)
        self.of("probe")
        self.assertIn("0 queues", self.of("queue-stats"))
        self.assertNotIn("queue ", self.of("queue-get-config", str(P1)))

    def test_what_is_added_is_dumped(self):
        path = self.file("flows", FLOWS)
        wanted = self.asked(path)
        self.assertEqual(len(wanted), FLOWS.count("actions="))
        for flow in FLOWS.split():
            self.of("add-flow", flow)
        self.assertEqual(self.dumped(), wanted)
        self.of("diff-flows", path)  # and by its own comparison
        self.assertEqual(self.flow_count(), len(wanted))
        self.of("del-flows")
        self.of("add-flows", path)
        self.assertEqual(self.dumped(), wanted)

    def test_what_is_refused_changes_nothing(self):
        self.of("add-flow", f"priority=2,in_port={P1},actions=output:{P2}")
        before = self.dumped()
        for flow, error in REFUSED:
            self.assertIn(error, self.of("add-flow", f"priority=9,udp,{flow}", fails=True))
            self.assertIn(error, self.of("mod-flows", flow, fails=True))
            self.assertEqual(self.dumped(), before, flow)

    def test_flows_are_modified(self):
        self.of("add-flows", self.file("flows", f"""
            priority=5,cookie=1,in_port={P1},ip,actions=output:{P2}
            priority=6,cookie=2,in_port={P1},arp,actions=output:{P2}
            priority=6,cookie=3,in_port={P2},arp,actions=output:{P1}"""))
        self.of("mod-flows", f"cookie=8,in_port={P1},actions=output:{P3},output:{P4}")
        self.of("mod-flows --strict", f"cookie=9,priority=6,in_port={P2},arp,actions=FLOOD")
        self.of("mod-flows --strict", f"priority=7,cookie=4,in_port={P2},arp,actions=drop")  # none such: it is added
        self.assertEqual(self.dumped(), self.asked(self.file("wanted", f"""
            priority=5,cookie=8,in_port={P1},ip,actions=output:{P3},output:{P4}
            priority=6,cookie=8,in_port={P1},arp,actions=output:{P3},output:{P4}
            priority=6,cookie=9,in_port={P2},arp,actions=FLOOD
            priority=7,cookie=4,in_port={P2},arp,actions=drop""")))

    def test_flows_are_deleted(self):
        kept = f"priority=5,in_port={P1},ip,actions=output:{P2}\n"
        self.of("add-flows", self.file("flows", kept + f"""
            priority=6,in_port={P2},ip,actions=output:{P1}
            priority=7,in_port={P2},arp,actions=output:{P1},output:{P3}
            priority=8,in_port={P3},arp,actions=output:{P4}
            priority=9,in_port={P3},arp,actions=output:{P4}"""))
        for which, count in ((f"out_port={P3}", 4), (f"in_port={P2}", 3)):
            self.of("del-flows", which)
            self.assertEqual(self.flow_count(), count, which)
        self.of("del-flows --strict", f"priority=8,in_port={P3}")  # not the same match
        self.assertEqual(self.flow_count(), 3)
        self.of("del-flows --strict", f"priority=8,in_port={P3},arp")
        self.assertEqual(self.flow_count(), 2)
        self.of("del-flows", "arp")
        self.assertEqual(self.dumped(), self.asked(self.file("wanted", kept)))

    def test_an_exact_flow_keeps_its_priority(self):
        flow = many(2).splitlines()[1].replace("65535", "77")
        self.of("add-flow", flow)
        self.assertIn("priority=77,tcp,", self.of("dump-flows"))
        self.of("del-flows --strict", flow.replace("cookie=2,", "").partition(",actions")[0])
        self.assertEqual(self.flow_count(), 0)

    def test_part_of_the_table_is_dumped(self):
        self.of("add-flows", self.file("flows", FLOWS))
        self.assertEqual([flow for flow in self.dumped() if "priority=4" in flow], self.dumped("dl_vlan=5"))
        self.assertEqual(len(self.dumped(f"out_port={P4}")), FLOWS.count(f"output:{P4}"))

    def test_a_thousand_flows_from_a_file(self):
        path = self.file("flows", many(TABLE_SIZE))
        wanted = self.asked(path)
        self.assertEqual(len(set(wanted)), TABLE_SIZE)
        self.of("add-flows", path)
        self.assertEqual(self.flow_count(), TABLE_SIZE)
        self.assertEqual(self.dumped(), wanted)
        self.assertIn("OFPFMFC_TABLE_FULL", self.of("add-flow", many(1, TABLE_SIZE).strip(), fails=True))
        self.assertEqual(self.dumped(), wanted)
        self.of("del-flows", "tcp")
        self.assertEqual(self.dumped(), [flow for flow in wanted if " tcp " not in flow])
        self.of("replace-flows", path)  # the half that is missing comes back
        self.assertEqual(self.dumped(), wanted)

    def test_the_same_over_a_unix_socket(self):
        path = self.file("flows", FLOWS)
        self.of("add-flows", path, where=f"unix:{SOCKET}")
        self.of("diff-flows", path)
        self.assertEqual(canonical(self.of("dump-flows", where=f"unix:{SOCKET}")), self.asked(path))
        self.assertIn("dpid:00000000000000a1", self.of("show", where=f"unix:{SOCKET}"))


class Frames(OfctlTest):
    def test_counters_of_ports_and_flows(self):
        one, other = self.hosts[:2]

        def rx(port):
            return int(re.search(rf"port +{port}: rx pkts=(\d+)", self.of("dump-ports"))[1])
        self.of("add-flow", f"priority=5,arp,in_port={P1},actions=output:{P2}")
        self.of("add-flow", f"priority=5,arp,in_port={P2},actions=output:{P1}")
        self.of("add-flow", f"priority=5,icmp,in_port={P1},actions=output:{P2}")
        self.of("add-flow", f"priority=5,icmp,in_port={P2},actions=output:{P1}")
        before = rx(P1)
        one.ping(other, 10)
        self.assertEqual(self.packet_count(f"icmp,in_port={P1}"), 10)
        self.assertEqual(self.packet_count("icmp"), 20)
        self.assertGreaterEqual(rx(P1) - before, 10)
        self.assertEqual(self.of("dump-ports", str(P1)).count("rx pkts"), 1)

    def test_frames_are_sent_out(self):
        wires = {lab.PORT_BASE + i: host.wire() for i, host in enumerate(self.hosts, 1)}
        frame = bytes.fromhex("02000000000202000000000988b5") + os.urandom(50)

        def arrives(*ports):
            for port in ports:
                end = time.monotonic() + lab.PATIENCE
                while wires[port].recv(2048) != frame:
                    self.assertLess(time.monotonic(), end)

        def sent(actions, in_port="NONE"):
            self.of("packet-out", f"in_port={in_port},packet={frame.hex()},actions={actions}")
        sent(f"output:{P2}")
        arrives(P2)
        sent(f"output:{P2},output:{P4}")
        arrives(P2, P4)
        sent("FLOOD", P1)
        arrives(P2, P3, P4)
        self.of("add-flow", f"in_port={P1},dl_type=0x88b5,actions=output:{P3}")
        sent("TABLE", P1)
        arrives(P3)
        for wire in wires.values():
            wire.setblocking(False)
            self.assertRaises(BlockingIOError, wire.recv, 2048)  # nothing that nobody asked for
            wire.close()
        refused = self.of("packet-out", f"in_port=NONE,packet={frame.hex()},actions=output:{lab.PORT_BASE + 9}",
                          fails=True)
        self.assertIn("OFPBAC_BAD_OUT_PORT", refused)

    def test_a_monitor_sees_what_happens(self):
        watcher = lab.Process("monitor", "ovs-ofctl", "-O", "OpenFlow10", "monitor", TCP, "64")
        one = self.hosts[0]
        frame = bytes.fromhex("02000000000902000000000188b5") + bytes(86)
        wire = one.wire()

        def frame_comes():  # there is no flow for it; again and again, because nobody tells when the monitor listens
            wire.send(frame)
            return f"total_len=100 in_port={P1} (via no_match) data_len=64 buffer=0x" in watcher.log()
        lab.wait_until(frame_comes, watcher.log)
        self.of("add-flow", "dl_type=0x88b5,actions=CONTROLLER:80")
        wire.send(frame)
        watcher.wait_for(f"total_len=100 in_port={P1} (via action) data_len=80 buffer=0x")
        wire.close()
        self.of("del-flows")
        self.of("add-flow", f"send_flow_rem,cookie=0x77,priority=9,in_port={P3},actions=drop")
        self.of("del-flows")
        watcher.wait_for(f"OFPT_FLOW_REMOVED (xid=0x0): priority=9,in_port={P3} reason=delete cookie:0x77")
        self.of("add-flow", f"send_flow_rem,hard_timeout=1,priority=8,in_port={P3},actions=drop")
        watcher.wait_for(f"priority=8,in_port={P3} reason=hard")
        lab.run("ip", "-n", one.name, "link", "set", "eth0", "down")
        watcher.wait_for("OFPT_PORT_STATUS (xid=0x0): MOD:")
        watcher.wait_for("state:      LINK_DOWN")
        lab.run("ip", "-n", one.name, "link", "set", "eth0", "up")
        watcher.wait_for("OFPT_PORT_STATUS (xid=0x0): MOD:", 2)
        watcher.wait_for("OFPT_ECHO_REQUEST (xid=0x0): 0 bytes of payload")  # the agent asks who has been silent
        self.assertNotIn("decode error", watcher.log())
        watcher.stop()

    def test_a_port_is_changed(self):
        for given, shown in (("no-flood", "NO_FLOOD"), ("no-receive", "NO_RECV"), ("no-forward", "NO_FWD"),
                             ("no-packet-in", "NO_PACKET_IN"), ("down", "PORT_DOWN")):
            self.of("mod-port", str(P2), given)
            self.assertIn(f"config:     {shown}\n", self.of("show"), given)
            self.of("mod-port", str(P2), given[3:] if given.startswith("no-") else "up")
            self.assertNotIn(shown, self.of("show"), given)
        self.of("mod-port", str(lab.PORT_BASE + 50), "no-flood", fails=True)


def tearDownModule():
    """The capture is complete, and the daemon ends well."""
    OfctlTest.capture.finish()
    status = OfctlTest.agent.stop()
    assert status == 0, OfctlTest.agent.log()


if __name__ == "__main__":
    unittest.main(verbosity=2)
