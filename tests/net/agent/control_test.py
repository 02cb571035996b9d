#!/usr/bin/env python3
"""The agent's control socket and krsdnctl: each command against a running agent, as text and as JSON, what goes wrong,
and clients that mean no good.

Usage: control_test.py BUILD-FOLDER [unittest arguments]
"""
import json
import os
import random
import signal
import socket
import stat
import struct
import subprocess
import sys
import unittest

import openflow as of
import switch
from switch import PORT_BASE

switch.enter_namespaces()
BUILD = os.path.abspath(sys.argv.pop(1))
P1, P2, P3 = (PORT_BASE + i for i in range(1, 4))
KRSDNCTL = f"{BUILD}/agent/ctl/krsdnctl"
A, B = of.mac("02:00:00:00:00:0a"), of.mac("02:00:00:00:00:0b")
FRAME = B + A + b"\x08\x00" + bytes.fromhex("450000140000000040060000") + b"\x0a\0\0\1\x0a\0\0\2" + b"\0" * 26


class Client:
    """A client of the socket that says what it likes."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(20)
        self.socket.connect(path)
        self.file = self.socket.makefile("rb")

    def close(self):
        self.file.close()
        self.socket.close()

    def say(self, text):
        self.socket.sendall(text)

    def line(self):
        text = self.file.readline()
        return json.loads(text) if text else None

    def answer(self, request):
        """The records, and the last line."""
        self.say((request if isinstance(request, bytes) else json.dumps(request).encode()) + b"\n")
        records = []
        while "end" not in (record := self.line()):
            records.append(record)
        return records, record


class ControlTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.switch = switch.Switch(BUILD, 3)

    @classmethod
    def tearDownClass(cls):
        log = cls.switch.log_text()
        status = cls.switch.stop()
        assert status == 0, (status, log)
        assert not os.path.exists(cls.switch.ctl), "the socket is still there"

    def setUp(self):
        self.c = self.switch.controller()
        self.assertIsNone(self.c.do(of.flow_mod(of.DELETE)))
        self.clients = []
        self.processes = []

    def tearDown(self):
        for process in self.processes:
            process.kill()
            process.communicate()
        for one in self.clients:
            one.close()
        for controller in self.switch.controllers:
            controller.close()
        self.switch.controllers.clear()

    def client(self):
        self.clients.append(Client(self.switch.ctl))
        return self.clients[-1]

    def ctl(self, *words, status=0, **more):
        """What krsdnctl prints on standard output; with another status than 0 what it prints on standard error."""
        done = subprocess.run([KRSDNCTL, "--socket", self.switch.ctl, *words], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=30, check=False, **more)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done.stderr if status >= 2 or (status and not done.stdout) else done.stdout

    def json(self, *words, status=0):
        return json.loads(self.ctl("--json", *words, status=status))

    def start(self, *words):
        """krsdnctl in the background."""
        self.processes.append(subprocess.Popen([KRSDNCTL, "--socket", self.switch.ctl, *words],
                                               stdout=subprocess.PIPE, stderr=subprocess.PIPE))
        return self.processes[-1]

    def add(self, **fields):
        self.assertIsNone(self.c.do(of.flow_mod(**fields)))

    def add_three(self):
        self.add(match=of.match(in_port=P1, dl_type=0x800, nw_proto=6, tp_dst=80), actions=[of.output(P2)],
                 priority=300, cookie=7)
        self.add(match=of.match(dl_type=0x800, nw_src="10.0.0.0/8"), actions=[of.output(P2), of.output(P3)],
                 priority=200, idle=30, flags=of.SEND_FLOW_REM)
        self.add(match=of.match(), actions=[of.output(of.CONTROLLER, 99)], priority=1)


class Commands(ControlTest):
    def test_show(self):
        self.add_three()
        told = self.json("show")
        self.assertEqual((told["pid"], told["ports"], told["platform"]),
                         (self.switch.process.pid, 3, "software platform"))
        table = told["table"]
        self.assertEqual((table["name"], table["size"], table["flows"], table["rules"], table["counters_used"],
                          table["groups"]), ("12 tuple ACL", 1000, 3, 3, 3, 1))
        self.assertEqual(int(told["datapath_id"], 16), self.c.features()["dpid"])
        self.assertEqual([one["state"] for one in told["controllers"]], ["connected"])
        text = self.ctl("show")
        self.assertIn('table           "12 tuple ACL": 3 flows, 3 of 1000 rules\n', text)
        self.assertIn(told["datapath_id"], text)
        self.assertRegex(text, r"\nCONTROLLER +STATE .*\npunix:\S+ #\d+ +connected ")

    def test_ports(self):
        ports = self.json("ports")
        self.assertEqual([(one["port"], one["name"], one["link"]) for one in ports],
                         [(P1, "s1", "up"), (P2, "s2", "up"), (P3, "s3", "up")])
        address = self.c.features()["ports"][0]
        self.assertEqual(ports[0]["address"], ":".join(f"{byte:02x}" for byte in address["hw_addr"]))
        before = ports[1]["rx_packets"]
        self.switch.cables[2].send(FRAME)
        self.c.packet_in()
        self.assertEqual(self.json("ports")[1]["rx_packets"], before + 1)
        self.assertIsNone(self.c.do(of.port_mod(P3, self.c.features()["ports"][2]["hw_addr"], of.NO_FLOOD, of.NO_FLOOD)))
        self.assertEqual(self.json("ports")[2]["config"], "no-flood")
        self.assertRegex(self.ctl("ports"), r"(?m)^ PORT  NAME  LINK .* CONFIG\n32769  s1    up .*-\n(.*\n)32771.* no-flood$")
        self.assertIsNone(self.c.do(of.port_mod(P3, self.c.features()["ports"][2]["hw_addr"], 0, of.NO_FLOOD)))

    def test_flows(self):
        self.assertEqual(self.json("flows"), [])
        self.add_three()
        self.switch.cables[1].send(FRAME)
        self.assertEqual(self.switch.cables[2].receive(), FRAME)
        flows = self.json("flows")
        self.assertEqual([(one["priority"], one["match"], one["actions"]) for one in flows],
                         [(300, f"tcp,in_port={P1},tp_dst=80", f"output:{P2}"),
                          (200, "ip,nw_src=10.0.0.0/8", f"output:{P2},output:{P3}"), (1, "", "CONTROLLER:99")])
        self.assertEqual([one["rule_action"] for one in flows], ["forward", "group", "trap"])
        self.assertEqual((flows[0]["cookie"], flows[1]["idle_timeout"], flows[1]["send_flow_removed"]), ("0x7", 30, True))
        self.assertEqual([one["packets"] for one in flows], [0, 1, 0])
        self.assertEqual([one["hit_packets"] for one in flows], [0, 1, 0])
        self.assertEqual([one["hit"] for one in flows], [False, True, False])
        offsets = [one["offset"] for one in flows]
        self.assertEqual(offsets, sorted(offsets))  # where they lie is the order in which they match
        lines = self.ctl("flows").splitlines()
        self.assertEqual(len({line.index(word) for line, word in zip(lines, ("MATCH", "tcp,", "ip,", "any"))}), 1)
        self.assertEqual([line.split()[6] for line in lines[1:]], ["never", lines[2].split()[6], "never"])

    def test_flows_without_a_counter_say_so(self):
        self.c.send(b"".join(of.flow_mod(match=of.match(in_port=P1, dl_vlan=i), actions=[of.output(P2)])
                             for i in range(130)))
        self.assertEqual(self.c.barrier(), {})
        flows = self.json("flows")
        self.assertEqual(sum(one["counter"] for one in flows), 128)
        self.assertEqual({(one["counter"], one["packets"]) for one in flows}, {(True, 0), (False, None)})
        self.assertEqual(self.json("show")["table"]["counters_used"], 128)
        self.assertEqual(self.ctl("flows").count(" (0) "), 2)

    def test_groups(self):
        self.assertEqual(self.json("groups"), [])
        self.add_three()
        self.add(match=of.match(dl_vlan=5), actions=[of.output(P3), of.output(P2)])
        (group,) = self.json("groups")
        self.assertEqual((group["ports"], group["rules"]), ([P2, P3], 2))
        self.assertEqual(self.ctl("groups").split()[3:], [str(group["group"]), "2", f"{P2},{P3}"])

    def test_counters(self):
        def counts():
            return {(one["group"], one["name"]): one["count"] for one in self.json("counters")}
        before = counts()
        self.add(match=of.match(in_port=P1), actions=[])
        for _ in range(5):
            self.switch.cables[1].send(FRAME)  # dropped by the rule
        self.switch.cables[2].send(FRAME)  # misses, and is behind the others: one thread forwards
        self.c.packet_in()
        after = counts()
        changed = {name: after[name] - before[name] for name in after if after[name] != before[name]}
        self.assertEqual(changed, {("packets", "frames from the switch"): 1,
                                   ("platform", "dropped: discarded by a rule"): 5})
        self.assertEqual(len([name for group, name in after if group == "platform"]), 15)
        self.assertRegex(self.ctl("counters"), rf"(?m)^packets +{after['packets', 'frames from the switch']}  frames from the switch$")

    def test_lost_events_are_counted(self):
        self.add(match=of.match(dl_vlan=7), flags=of.SEND_FLOW_REM, hard=1)
        name = "told to no controller: none was connected"
        before = next(one["count"] for one in self.json("counters") if one["name"] == name)
        self.c.close()
        while self.json("flows"):
            pass
        self.assertEqual(next(one["count"] for one in self.json("counters") if one["name"] == name), before + 1)

    def test_audit(self):
        self.add_three()
        told = self.json("audit")
        self.assertEqual((told["findings"], told["flows"], told["rules"], told["groups"], told["platform"],
                          told["disagreements"]), (0, 3, 3, 1, "software platform", []))
        self.assertTrue(self.ctl("audit").endswith("\nthey agree\n"))

    def test_audit_of_a_full_table_that_was_stirred(self):
        for i in range(4):
            self.c.send(b"".join(of.flow_mod(match=of.match(dl_vlan=n), actions=[of.output(P1 + n % 3)],
                                             priority=n * 7919 % 5003) for n in range(1000)))
            self.assertEqual(self.c.barrier(), {})
            self.c.send(b"".join(of.flow_mod(of.DELETE, match=of.match(dl_vlan=n)) for n in range(i, 1000, 3)))
            self.assertEqual(self.c.barrier(), {})
            told = self.json("audit")
            self.assertEqual((told["findings"], told["flows"]), (0, len(self.c.flows())), told)

    def test_trace(self):
        self.add_three()
        told = self.json("trace", "in_port=s1,tcp,nw_src=10.1.1.1,tp_dst=81")
        self.assertEqual([(one["verdict"], one["reason"]) for one in told["flows"]],
                         [("differs", "tp_dst is 81, not 80"), ("taken", ""), ("hidden", "")])
        self.assertEqual(told["taken"]["priority"], 200)
        self.assertEqual(told["flows"][1]["offset"], self.json("flows")[1]["offset"])
        # The same packet as a frame, and what it really does.
        told = self.json("trace", f"in_port={P2}", f"frame={FRAME.hex()}")
        self.assertEqual([one["verdict"] for one in told["flows"]], ["differs", "taken", "hidden"])
        self.assertEqual(told["flows"][0]["reason"], f"in_port is {P2}, not {P1}; tp_dst is 0, not 80")
        self.switch.cables[2].send(FRAME)
        self.assertEqual(self.switch.cables[3].receive(), FRAME)
        text = self.ctl("trace", "in_port=s1,arp")
        self.assertRegex(text, r"(?m)^ *\d+ +300 +differs +.* actions=output:\d+ +dl_type is 0x0806, not 0x0800; nw_proto")
        self.assertTrue(text.endswith("\nthe flow that is taken: CONTROLLER:99\n"), text)

    def test_trace_says_what_no_flow_decides(self):
        self.assertIn("no flow matches: to the controller", self.ctl("trace", "in_port=s1"))
        switch.run("ip", "link", "set", "p1", "down")
        self.c.port_status(of.PORT_MODIFIED)
        self.assertIn("the link of port 32769 is down", self.ctl("trace", f"in_port={P1}"))
        switch.run("ip", "link", "set", "p1", "up")
        self.c.port_status(of.PORT_MODIFIED)
        self.switch.wait_for_link(self.c, 1)
        self.assertIn("there is no port 5", self.ctl("trace", "in_port=5"))
        self.c.close()
        while self.json("show")["controllers"]:
            pass
        self.assertIn("no controller is connected: dropped", self.ctl("trace", "in_port=s1"))

    def test_trace_refuses_what_is_no_packet(self):
        for packet, message in (("tcp", "in_port is missing"), ("in_port=s9", 'no port "s9"'),
                                ("in_port=1,foo=3", 'no field "foo"'), ("in_port=1,nw_src=10.0.0", "nw_src: an IPv4"),
                                ("in_port=1,frame=0102", "14 to 10240 bytes"), ("in_port=70000", "in_port: a number"),
                                ("in_port=1,sctp", '"sctp" is neither')):
            self.assertIn(message, self.ctl("trace", packet, status=1))

    def test_log(self):
        levels = {one["module"]: one["level"] for one in self.json("log")}
        self.assertEqual(levels["agent"], "notice")
        self.assertEqual({levels[name] for name in levels if name != "agent"}, {"warning"})
        self.assertEqual(len(levels), 9)
        line = "debug: HAL_EVENTS_API: "

        def receive():
            self.switch.cables[1].send(FRAME)
            self.c.packet_in()
        receive()
        self.assertNotIn(line, self.switch.log_text())
        self.assertRegex(self.ctl("log", "HAL_EVENTS_API", "debug"), r"(?m)^HAL_EVENTS_API +debug$")
        receive()
        self.assertIn(line, self.switch.log_text())
        self.ctl("log", "HAL_EVENTS_API", "warning")
        count = self.switch.log_text().count(line)
        receive()
        self.assertEqual(self.switch.log_text().count(line), count)
        self.assertIn("none of error", self.ctl("log", "FPT", "loud", status=1))
        self.assertIn("no module", self.ctl("log", "NOBODY", "debug", status=1))
        self.assertIn("a module and a level", self.ctl("log", "FPT", status=2))

    def test_events(self):
        process = self.start("--json", "--count", "5", "events")
        self.until_watched()
        self.add(match=of.match(dl_vlan=9), actions=[of.output(P2)], cookie=3)
        self.assertIsNone(self.c.do(of.flow_mod(of.MODIFY, match=of.match(dl_vlan=9), actions=[])))
        self.assertIsNone(self.c.do(of.flow_mod(of.DELETE)))
        late = self.switch.controller()
        late.features()
        late.close()
        told = [json.loads(line) for line in process.communicate(timeout=20)[0].splitlines()]
        self.assertEqual(process.returncode, 0)
        self.assertEqual([(one["event"], one["what"], one.get("detail")) for one in told],
                         [("flow", "added", None), ("flow", "modified", None), ("flow", "removed", "deleted"),
                          ("controller", "connected", None), ("controller", "lost", "closed by the peer")])
        self.assertEqual(told[0]["subject"], f"priority=32768,dl_vlan=9 actions=output:{P2}")

    def test_events_as_text_follow_live(self):
        process = self.start("events")
        self.until_watched()
        switch.run("ip", "link", "set", "p2", "down")
        line = process.stdout.readline().decode()
        self.assertRegex(line, rf"^\d\d:\d\d:\d\d\.\d\d\d  port        changed       {P2} s2 \(link down\)\n$")
        switch.run("ip", "link", "set", "p2", "up")
        self.assertIn("(link up)", process.stdout.readline().decode())
        self.switch.wait_for_link(self.c, 2)
        process.send_signal(signal.SIGINT)
        process.wait(timeout=20)

    def until_watched(self):
        """Until the stream is open: nothing that happens from now on is missed."""
        while self.json("show")["streams"] == 0:
            pass


class Capture(ControlTest):
    def parse(self, data):
        magic, _, _, _, _, _, link = struct.unpack("=IHHiIII", data[:24])
        self.assertEqual((magic, link), (0xa1b2c3d4, 1))
        frames, at = [], 24
        while at < len(data):
            _, _, size, length = struct.unpack("=IIII", data[at:at + 16])
            self.assertEqual(size, length)
            frames.append(data[at + 16:at + 16 + size])
            at += 16 + size
        return frames

    def begun(self, process):
        """Reads the header, which is written when the capture has begun."""
        head = b""
        while len(head) < 24:
            head += os.read(process.stdout.fileno(), 24 - len(head))
        return head

    def test_of_the_interface(self):
        self.add(match=of.match(in_port=P1), actions=[of.output(P2)])
        process = self.start("--count", "1", "capture", "s2", "ether", "src", "02:00:00:00:00:0a", "and", "tcp")
        head = self.begun(process)
        self.switch.cables[1].send(b"\xff" * 12 + b"\x88\xb5" + b"\0" * 46)  # not for the filter
        self.switch.cables[1].send(FRAME)
        rest, errors = process.communicate(timeout=20)
        self.assertEqual((process.returncode, errors), (0, b""))
        self.assertEqual(self.parse(head + rest), [FRAME])

    def test_of_what_passes_through_the_daemon(self):
        process = self.start("--agent", "--count", "2", "capture", str(P1))
        head = self.begun(process)
        while self.json("show")["streams"] == 0:
            pass
        self.switch.cables[1].send(FRAME)
        self.c.packet_in()
        out = B + A + b"\x88\xb5" + b"out".ljust(46, b"\0")
        self.c.send(of.packet_out([of.output(P1)], out))
        rest, errors = process.communicate(timeout=20)
        self.assertEqual((process.returncode, errors), (0, b""))
        self.assertEqual(self.parse(head + rest), [FRAME, out])

    def test_ends_in_good_order(self):
        for more in ([], ["--agent"]):
            process = self.start(*more, "capture", "s1")
            head = self.begun(process)
            process.send_signal(signal.SIGTERM)
            rest, errors = process.communicate(timeout=20)
            self.assertEqual((process.returncode, self.parse(head + rest), errors), (0, [], b""), more)

    def test_what_cannot_be_captured(self):
        self.assertIn('no port "s7"', self.ctl("capture", "s7", status=1))
        self.assertIn("filter: ", self.ctl("capture", "s1", "no", "such", "filter", status=2))
        self.assertIn("takes no filter", self.ctl("--agent", "capture", "s1", "tcp", status=2))
        self.assertIn("in this network namespace", self.ctl_elsewhere("capture", "s1"))

    def ctl_elsewhere(self, *words):
        done = subprocess.run(["unshare", "--net", KRSDNCTL, "--socket", self.switch.ctl, *words],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=30, check=False)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        return done.stderr


class CommandLine(ControlTest):
    def test_completion_knows_the_ports(self):
        script = ". $1/agent/doc/completion.bash; PATH=$2:$PATH; COMP_WORDS=(krsdnctl -s $3 capture s)" \
                 "; COMP_CWORD=4; _krsdnctl; echo ${COMPREPLY[@]}"
        source = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))
        done = switch.run("bash", "-c", script, "bash", source, os.path.dirname(KRSDNCTL), self.switch.ctl)
        self.assertEqual(done.stdout.split(), ["s1", "s2", "s3"])

    def test_help(self):
        text = self.ctl("--help")
        for command in ("show", "ports", "flows", "groups", "counters", "audit", "trace", "log", "capture", "events"):
            self.assertRegex(text, rf"(?m)^  {command} ")
            self.assertTrue(self.ctl("help", command).startswith(f"usage: krsdnctl [OPTION]... {command}"))
        self.assertLessEqual(max(map(len, text.splitlines())), 120)
        self.assertRegex(self.ctl("--version"), r"^krsdnctl \d+\.\d+\.\d+\n$")

    def test_wrong_usage(self):
        for words in ([], ["nonsense"], ["show", "more"], ["trace"], ["--nonsense", "show"], ["--count"],
                      ["--count", "0", "events"], ["--count", "-1", "events"], ["help", "nonsense"]):
            self.assertIn("--help explains", self.ctl(*words, status=2), words)

    def test_nobody_answers(self):
        for path in ("/nowhere/control", os.path.join(self.switch.folder, "ports.conf"), "x" * 200):
            done = subprocess.run([KRSDNCTL, "-s", path, "show"], stderr=subprocess.PIPE, text=True, check=False)
            self.assertEqual(done.returncode, 3)
            self.assertIn(f"no daemon answers:\n  {path}: ", done.stderr)

    def test_the_socket_may_come_from_the_environment(self):
        done = subprocess.run([KRSDNCTL, "--json", "show"], stdout=subprocess.PIPE, check=True,
                              env=dict(os.environ, KRSDN_CONTROL=self.switch.ctl))
        self.assertEqual(json.loads(done.stdout)["control_socket"], self.switch.ctl)

    def test_a_full_standard_output_is_no_success(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run([KRSDNCTL, "-s", self.switch.ctl, "flows"], stdout=full, stderr=subprocess.PIPE,
                                  check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"standard output", done.stderr)


class Hostile(ControlTest):
    def refused(self, request, client=None):
        records, end = (client or self.client()).answer(request)
        self.assertEqual((records, end["end"]), ([], "error"))
        return end["message"]

    def test_what_is_no_request_is_refused_and_the_connection_stays(self):
        client = self.client()
        for request in (b"", b"{", b"\xff\xfe", b"[]", b"7", b'"show"', b"null", b"{}", b'{"command":7}',
                        b'{"command":"nonsense"}', b'{"command":"trace"}', b'{"command":"trace","packet":{}}',
                        b'{"command":"capture"}', b'{"command":"capture","port":-1}',
                        b'{"command":"capture","port":1e99}', b'{"command":"capture","port":99999999999}',
                        b'{"command":"log","module":"FPT"}', b'{"command":"log","module":7,"level":"debug"}',
                        b'{"command":"show"}{', b'{"command":"\xff"}', b'\0{"command":"show"}',
                        b'{"command":"trace","packet":"in_port=1,frame=' + b"0" * 30000 + b'"}'):
            self.assertTrue(self.refused(request, client), request)
        self.assertEqual(len(client.answer({"command": "show"})[0]), 1)

    def test_deep_and_long_requests(self):
        self.assertTrue(self.refused(b'{"command":' + b"[" * 30000))
        self.assertTrue(self.refused(b'{"command":' + b"[" * 30000 + b"]" * 30000 + b"}"))
        client = self.client()
        self.assertIn("at most 65536 bytes", self.refused(b"x" * 66000, client))
        self.assertIsNone(client.line())  # closed
        client = self.client()
        try:
            for _ in range(100):  # without an end
                client.say(b"x" * 10000)
        except (BrokenPipeError, ConnectionResetError):
            pass
        self.assertEqual(client.line()["end"], "error")

    def test_damaged_requests(self):
        """Requests that are almost right, changed in random places: each has an answer, and the daemon goes on."""
        seed = int(os.environ.get("KR_TEST_SEED", random.randrange(1 << 32)))
        print(f"seed {seed}")
        chance = random.Random(seed)
        requests = [b'{"command":"show"}', b'{"command":"flows"}', b'{"command":"log","module":"FPT","level":"warning"}',
                    b'{"command":"trace","packet":"in_port=32769,tcp,nw_src=10.0.0.1,tp_dst=80,dl_vlan=3"}',
                    b'{"command":"trace","packet":"in_port=1,frame=' + FRAME.hex().encode() + b'"}',
                    b'{"command":"capture","port":7}', b'{"command":"audit"}']
        client = self.client()
        for _ in range(2000):
            request = bytearray(chance.choice(requests))
            for _ in range(chance.randint(1, 4)):
                at = chance.randrange(len(request))
                request[at:at + chance.randint(0, 2)] = chance.choice(
                    [b"", bytes([chance.randrange(256)]), bytes([request[at]]) * 3, b'"', b"=", b",", b"\\u0000", b"9" * 30])
                request = request or bytearray(b"x")
            client.answer(bytes(request.replace(b"\n", b" ")))
        self.assertEqual(self.json("audit")["findings"], 0)

    def test_requests_in_pieces_and_many_at_once(self):
        client = self.client()
        for byte in b'{"command":"groups"}':
            client.say(bytes([byte]))
        self.assertEqual(client.answer(b""), ([], {"end": "ok"}))
        client.say(b'{"command":"ports"}\n' * 300)
        for _ in range(300):
            self.assertEqual([sorted(client.line())[0] for _ in range(3)], ["address"] * 3)
            self.assertEqual(client.line(), {"end": "ok"})

    def test_an_answer_comes_whole_when_the_client_ends_its_side(self):
        client = self.client()
        client.say(b'{"command":"ports"}\n{"command":"show"}\n{"unfinished"')
        client.socket.shutdown(socket.SHUT_WR)
        lines = client.file.read().splitlines()
        self.assertEqual(len(lines), 6)
        self.assertEqual(json.loads(lines[-1]), {"end": "ok"})

    def memory(self):
        with open(f"/proc/{self.switch.process.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def test_who_does_not_read_costs_little(self):
        self.c.send(b"".join(of.flow_mod(match=of.match(dl_vlan=i), actions=[of.output(P1)] * 100) for i in range(500)))
        self.assertEqual(self.c.barrier(), {})
        reader = self.client()
        expected = reader.answer({"command": "flows"})[0]
        self.assertGreater(len(json.dumps(expected)), 500_000)
        before = self.memory()
        lazy = [self.client() for _ in range(8)]
        for one in lazy:
            for _ in range(50):
                one.say(b'{"command":"flows"}\n')
        self.assertEqual(len(reader.answer({"command": "flows"})[0]), 500)
        self.assertEqual(self.c.barrier(), {})
        if switch.is_plain(BUILD):
            self.assertLess(self.memory() - before, 24 << 20)  # one copy of the flows each
        self.assertEqual([one["match"] for one in lazy[3].answer(b"")[0]], [one["match"] for one in expected])

    def test_a_stream_that_is_not_read_loses_events_and_says_so(self):
        lazy = self.client()
        lazy.say(b'{"command":"events"}\n')
        self.assertEqual(lazy.line(), {"stream": "open"})
        count = 0
        while not self.lost():
            self.c.send(b"".join(of.flow_mod(match=of.match(dl_vlan=i)) for i in range(1000)) + of.flow_mod(of.DELETE))
            self.assertEqual(self.c.barrier(), {})
            count += 2000
            self.assertLess(count, 100_000)
        told = []
        lazy.socket.settimeout(0.5)
        try:
            while True:
                told.append(lazy.line())
        except TimeoutError:
            pass
        # It may have been told of some already, when there was room for a moment.
        lost = self.lost()
        self.assertEqual(sum(one["event"] == "flow" for one in told), count - lost)
        lost -= sum(one["count"] for one in told if one["event"] == "lost")
        lazy.socket.settimeout(20)
        lazy.file = lazy.socket.makefile("rb")
        self.add(match=of.match(dl_vlan=1))
        if lost > 0:
            self.assertEqual(lazy.line(), {"event": "lost", "count": lost})
        self.assertEqual(lazy.line()["event"], "flow")

    def lost(self):
        if not hasattr(self, "lost_base"):
            self.lost_base = 0
            self.lost_base = self.lost()
        return next(one["count"] for one in self.json("counters")
                    if one["name"].startswith("not told to a client")) - self.lost_base

    def test_too_many_clients_are_told(self):
        for _ in range(16):
            self.client().answer({"command": "groups"})
        late = self.client()
        self.assertEqual(late.line(), {"end": "error", "message": "there are 16 clients already"})
        self.assertIsNone(late.line())
        self.clients[0].close()
        while not self.gets_in():
            pass  # until the daemon has seen that one is gone

    def gets_in(self):
        try:
            return self.client().answer({"command": "groups"})[1] == {"end": "ok"}
        except (BrokenPipeError, ConnectionResetError):
            return False


class End(unittest.TestCase):
    def test_the_daemon_ends_while_somebody_watches(self):
        ended = switch.Switch(BUILD, 2)
        controller = ended.controller()
        watching = [Client(ended.ctl) for _ in range(3)]
        for one, request in zip(watching, ({"command": "events"}, {"command": "capture", "port": P1}, {"command": "show"})):
            one.say(json.dumps(request).encode() + b"\n")
            self.assertIsNotNone(one.line())
        self.assertIsNone(controller.do(of.flow_mod(actions=[of.output(P1), of.output(P2)])))
        self.assertEqual(watching[0].line()["what"], "added")
        self.assertEqual(ended.stop(), 0)
        for one in watching:
            one.close()


class Platforms(unittest.TestCase):
    """What is said where the platform can't be looked into, or says something else than the agent."""

    def begin(self, *arguments):
        self.switch = switch.Switch(BUILD, 3, arguments)
        self.addCleanup(self.switch.stop)
        controller = self.switch.controller()
        for flow in ({"match": of.match(in_port=P1), "priority": 300, "actions": [of.output(P2)]},
                     {"match": of.match(in_port=P2), "priority": 200, "actions": [of.output(P1)]},
                     {"match": of.match(), "priority": 1, "actions": []}):
            self.assertIsNone(controller.do(of.flow_mod(**flow)))

    def ctl(self, *words):
        return subprocess.run([KRSDNCTL, "-s", self.switch.ctl, *words], stdout=subprocess.PIPE, text=True, check=False)

    def test_without_an_inspector(self):
        self.begin("--inspector", "none")
        told = json.loads(self.ctl("--json", "audit").stdout)
        self.assertEqual((told["findings"], told["rules"], told["platform"]), (0, 3, None))
        done = self.ctl("audit")
        self.assertEqual(done.returncode, 0)
        self.assertIn("flows database and resource manager: not available on this platform", done.stdout)
        self.assertIn("platform        cannot be looked into\n", self.ctl("show").stdout)
        flows = json.loads(self.ctl("--json", "flows").stdout)
        self.assertEqual({(one["offset"], one["hit_packets"]) for one in flows}, {(None, None)})
        self.assertRegex(self.ctl("flows").stdout, r"(?m)^ +-  +300 ")
        self.assertNotIn("platform", self.ctl("counters").stdout)
        self.assertIn(f"output:{P2}", self.ctl("trace", f"in_port={P1}").stdout)

    def test_disagreements_are_found(self):
        self.begin("--inspector", f"{BUILD}/tests/net/agent/fake_inspector_lying.so")
        done = self.ctl("--json", "audit")
        self.assertEqual(done.returncode, 1)
        told = json.loads(done.stdout)
        self.assertEqual((told["findings"], told["flows"], told["platform"]), (6, 3, "fake"))
        self.assertEqual({(one["rule"], one["finding"]) for one in told["disagreements"]},
                         {(1, "offset 5: is not what it was"), (None, "offset 8: is a stranger"),
                          (2, "has another priority in the library's flows database"),
                          (2, "should have a counter and has none"),
                          (3, "is not in the library's flows database"),
                          (77, "is in the library's flows database, and belongs to no flow")})
        text = self.ctl("audit").stdout
        self.assertIn("rule 3 is not in the library's flows database\n", text)
        self.assertTrue(text.endswith("6 disagreements\n"))
        self.assertEqual([one["offset"] for one in json.loads(self.ctl("--json", "flows").stdout)], [5, 6, None])
        self.assertIn("platform     42  dropped: for fun\n", self.ctl("counters").stdout)

    def test_an_inspector_that_cannot_be_used(self):
        for name, why in (("fake_inspector_old.so", "another version"), ("nothing.so", "nothing.so")):
            refused = subprocess.run([f"{BUILD}/agent/krsdn-ofagentd", "--control", "none", "--inspector",
                                      f"{BUILD}/tests/net/agent/{name}", "punix:/dev/null/x"], stderr=subprocess.PIPE,
                                     text=True, timeout=30, check=False)
            self.assertEqual(refused.returncode, 1)
            self.assertIn(why, refused.stderr)


class Place(unittest.TestCase):
    """Where the socket is, and what was there before."""

    def tearDown(self):
        self.switch.stop()

    def test_mode(self):
        self.switch = switch.Switch(BUILD, 1)
        mode = os.stat(self.switch.ctl).st_mode
        self.assertTrue(stat.S_ISSOCK(mode))
        self.assertEqual(stat.S_IMODE(mode), 0o600)
        if os.getuid() == 0 and self.can_change_user():
            done = subprocess.run(["setpriv", "--reuid=65534", "--clear-groups", KRSDNCTL, "-s", self.switch.ctl, "show"],
                                  stderr=subprocess.PIPE, text=True, check=False)
            self.assertEqual(done.returncode, 3, done.stderr)

    def test_two_capabilities_are_enough(self):
        """As the service runs it: a user of its own, who may open ports and set their state."""
        rights = "+net_raw,+net_admin"
        user = ["setpriv", "--reuid=65534", "--clear-groups", f"--inh-caps={rights}", f"--ambient-caps={rights}",
                "--bounding-set=-all," + rights, "--no-new-privs"]
        program = f"{BUILD}/agent/krsdn-ofagentd"
        if subprocess.run([*user, "test", "-x", program], stderr=subprocess.DEVNULL, check=False).returncode != 0:
            self.switch = switch.Switch(BUILD, 1)
            self.skipTest("there is no other user here, or it may not read the build")
        self.switch = switch.Switch(BUILD, 2, prefix=user, environment={"RUNTIME_DIRECTORY": ""})
        with open(f"/proc/{self.switch.process.pid}/status", encoding="ascii") as file:
            status = dict(line.split(":", 1) for line in file)
        self.assertEqual((status["Uid"].split()[1], int(status["CapEff"], 16)), ("65534", 1 << 12 | 1 << 13))
        controller = self.switch.controller()
        port = controller.features()["ports"][0]
        self.assertIsNone(controller.do(of.port_mod(P1, port["hw_addr"], of.PORT_DOWN, of.PORT_DOWN)))
        self.assertIn("state DOWN", switch.run("ip", "link", "show", "s1").stdout)
        self.assertTrue(self.answers(self.switch.ctl))  # root may ask, too

    def can_change_user(self):
        return subprocess.run(["setpriv", "--reuid=65534", "--clear-groups", "true"], stderr=subprocess.DEVNULL,
                              check=False).returncode == 0

    def test_a_stale_socket_is_replaced_and_a_living_one_is_not(self):
        self.switch = switch.Switch(BUILD, 1)
        command = [f"{BUILD}/agent/krsdn-ofagentd", "--connector", f"{BUILD}/plugins/connector/connector.so",
                   "--port-plugin", f"{BUILD}/plugins/fpt_linux/fpt_linux.so", "--control"]
        refused = subprocess.run([*command, self.switch.ctl, "punix:/dev/null/x"], stderr=subprocess.PIPE, text=True,
                                 timeout=30, check=False)
        self.assertEqual(refused.returncode, 1)
        self.assertIn(f"{self.switch.ctl}: Address already in use", refused.stderr)
        self.assertTrue(self.answers(self.switch.ctl))

        stale = os.path.join(self.switch.folder, "stale")
        dead = socket.socket(socket.AF_UNIX)
        dead.bind(stale)
        dead.close()
        again = subprocess.run([*command, stale, "punix:/dev/null/x"], stderr=subprocess.PIPE, text=True, timeout=30,
                               check=False)
        self.assertIn(f"krsdnctl is answered on {stale}", again.stderr)
        self.assertFalse(os.path.exists(stale))  # it went with the daemon, which had no place for OpenFlow

        file = os.path.join(self.switch.folder, "file")
        with open(file, "w", encoding="ascii") as kept:
            kept.write("kept")
        refused = subprocess.run([*command, file, "punix:/dev/null/x"], stderr=subprocess.PIPE, text=True, timeout=30,
                                 check=False)
        self.assertEqual(refused.returncode, 1)
        with open(file, encoding="ascii") as kept:
            self.assertEqual(kept.read(), "kept")

    def test_the_usual_place(self):
        folder = os.path.join("/tmp", f"krsdn-place-{os.getpid()}")
        os.mkdir(folder)
        try:
            self.switch = switch.Switch(BUILD, 1, environment={"RUNTIME_DIRECTORY": folder + ":/other"}, usual_control=True)
            self.assertTrue(self.answers(folder + "/control"))
            done = subprocess.run([KRSDNCTL, "--json", "show"], stdout=subprocess.PIPE, check=True,
                                  env=dict(os.environ, RUNTIME_DIRECTORY=folder))
            self.assertEqual(json.loads(done.stdout)["control_socket"], folder + "/control")
            # Another daemon has its socket beside it.
            ports = os.path.join(self.switch.folder, "later.conf")
            with open(ports, "w", encoding="ascii") as file:
                file.write("[ports]\nlater = 1\n")
            second = subprocess.Popen([f"{BUILD}/agent/krsdn-ofagentd", "--connector-config", ports, f"punix:{folder}/of"],
                                      env=dict(os.environ, RUNTIME_DIRECTORY=folder), stderr=subprocess.DEVNULL)
            while not os.path.exists(f"{folder}/control.{second.pid}"):
                self.assertIsNone(second.poll())
            while not self.answers(f"{folder}/control.{second.pid}"):
                pass
            second.terminate()
            self.assertEqual(second.wait(timeout=30), 0)
            self.assertEqual(os.listdir(folder), ["control"])
        finally:
            self.switch.stop()
            os.rmdir(folder)
            self.switch = switch.Switch(BUILD, 1)

    def answers(self, path):
        return subprocess.run([KRSDNCTL, "-s", path, "show"], stdout=subprocess.DEVNULL, check=False).returncode == 0


if __name__ == "__main__":
    unittest.main()
