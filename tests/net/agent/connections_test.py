#!/usr/bin/env python3
"""How controllers and the agent find, trust, watch and slow down each other.

Usage: connections_test.py BUILD-FOLDER [unittest arguments]
"""
import json
import os
import re
import resource
import select
import signal
import socket
import ssl
import stat
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import openflow as of
import switch
from switch import PORT_BASE

switch.enter_namespaces()  # before the arguments are taken apart: it runs the program again
BUILD = os.path.abspath(sys.argv.pop(1))
DAEMON = f"{BUILD}/agent/krsdn-ofagentd"
P1, P2 = PORT_BASE + 1, PORT_BASE + 2
FRAME = b"\xff" * 6 + b"\2\0\0\0\0\1\x08\0" + b"\0" * 1400


def listener():
    listening = socket.create_server(("127.0.0.1", 0))
    listening.settimeout(30)
    return listening, listening.getsockname()[1]


# A sanitizer keeps what was given back for a while, and a shadow of everything.
SLACK = 1 if switch.is_plain(BUILD) else 16


def memory(pid):
    """What the process holds of its own, in KiB."""
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return int(re.search(r"RssAnon:\s+(\d+)", file.read()).group(1))


class WithSwitch(unittest.TestCase):
    def run_switch(self, *arguments, count=2, **more):
        self.switch = switch.Switch(BUILD, count, arguments, **more)
        self.addCleanup(lambda: self.assertEqual(self.switch.stop(), 0))
        return self.switch

    def ask(self, command):
        told = subprocess.run([f"{BUILD}/agent/ctl/krsdnctl", "--socket", self.switch.ctl, "--json", command],
                              stdout=subprocess.PIPE, check=True)
        return json.loads(told.stdout)

    def counters(self):
        return {one["name"]: one["count"] for one in self.ask("counters")}

    def messages_received(self):
        return sum(one["messages_received"] for one in self.ask("show")["controllers"])


class Sockets(WithSwitch):
    def test_a_lost_controller_is_found_again(self):
        listening, port = listener()
        self.run_switch(f"tcp:127.0.0.1:{port}")
        for _ in range(3):
            controller = of.Controller(listening.accept()[0])
            self.assertEqual(len(controller.features()["ports"]), 2)
            controller.close()
        listening.close()

    def test_a_controller_may_come_later(self):
        listening, port = listener()
        listening.close()
        self.run_switch(f"tcp:127.0.0.1:{port}")
        listening = socket.create_server(("127.0.0.1", port), reuse_port=False)
        listening.settimeout(30)
        controller = of.Controller(listening.accept()[0])
        self.assertEqual(controller.barrier(), {})
        controller.close()
        listening.close()

    def test_tries_come_further_apart_to_the_limit(self):
        listening, port = listener()
        listening.close()
        self.run_switch("--log", "debug", f"tcp:127.0.0.1:{port}", count=1)
        delays = []
        while len(delays) < 6:
            self.assertIsNone(self.switch.cables[1].receive(0.5))  # nobody sends
            delays = re.findall(r"trying again in (.*) s\n", self.switch.log_text())
        self.assertEqual(delays[:6], ["0.5", "1.0", "2.0", "4.0", "8.0", "8.0"])

    def test_listening_is_on_loopback_and_on_any_free_port(self):
        self.run_switch("ptcp:0")
        port = int(re.search(r"listening on ptcp:(\d+):127\.0\.0\.1\n", self.switch.log_text()).group(1))
        controller = of.Controller(socket.create_connection(("127.0.0.1", port)))
        self.assertEqual(controller.barrier(), {})
        controller.close()

    def test_a_unix_socket_is_private_and_goes_with_the_daemon(self):
        folder = tempfile.mkdtemp(prefix="krsdn-agent-test-")
        path = os.path.join(folder, "controller")
        stale = socket.socket(socket.AF_UNIX)
        stale.bind(path)
        stale.close()
        mine = os.path.join(folder, "listening")
        listening = socket.socket(socket.AF_UNIX)
        listening.bind(mine)
        listening.listen()
        listening.settimeout(30)
        own = switch.Switch(BUILD, 1, (f"punix:{path}", f"unix:{mine}"))
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        controller = of.Controller(listening.accept()[0])
        self.assertEqual(controller.barrier(), {})
        self.assertEqual(own.stop(), 0)
        self.assertFalse(os.path.exists(path))
        listening.close()
        os.unlink(mine)
        os.rmdir(folder)

    def test_a_silent_controller_is_given_up_and_one_that_answers_is_not(self):
        self.run_switch("--probe-interval", "1")
        silent = self.switch.controller()
        alive = self.switch.controller()
        thread = threading.Thread(target=lambda: self.assertRaises(TimeoutError, alive.wait, of.BARRIER_REPLY))
        alive.timeout = 5
        thread.start()  # answers echo requests while it waits for what does not come
        select.select([silent.socket], [], [], 10)
        self.assertEqual(silent.socket.recv(8)[1], of.ECHO_REQUEST)
        silent.socket.settimeout(10)
        self.assertEqual(silent.socket.recv(8), b"")
        thread.join()
        self.assertEqual(alive.barrier(), {})

    def test_who_pauses_before_it_reads_is_asked_before_it_is_given_up(self):
        self.run_switch("--probe-interval", "0.5")
        slow = self.switch.controller()
        slow.send(b"".join(of.flow_mod(match=of.match(dl_vlan=i), actions=[of.output(P2)] * 20) for i in range(1000)))
        self.assertEqual(slow.barrier(), {})
        count = 20
        slow.send(of.stats_request(1, of.match() + struct.pack("!BxH", 0xff, of.NONE)) * count)
        self.assertIsNone(self.switch.cables[1].receive(2))  # much longer than it may be silent
        while count > 0:
            kind, _, body = slow.receive()
            count -= kind == of.STATS_REPLY and not struct.unpack("!H", body[2:4])[0] & 1
        slow.timeout = 2
        self.assertRaises(TimeoutError, slow.wait, of.BARRIER_REPLY)  # answers echo requests meanwhile
        self.assertEqual(slow.barrier(), {})

    def test_what_is_sent_at_once_is_answered_before_the_end(self):
        self.run_switch()
        rude = self.switch.controller(greet=False)
        rude.send(of.message(99))
        rude.socket.shutdown(socket.SHUT_WR)
        self.assertEqual(rude.receive()[0], of.HELLO)


class Tls(WithSwitch):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="krsdn-agent-test-")
        for authority in ("ca", "other"):
            cls.openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", f"/CN={authority}",
                        "-keyout", f"{authority}.key", "-out", f"{authority}.pem")
        for name, authority in (("switch", "ca"), ("controller", "ca"), ("stranger", "other")):
            cls.openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={name}", "-keyout", f"{name}.key",
                        "-out", f"{name}.req")
            cls.openssl("x509", "-req", "-in", f"{name}.req", "-CA", f"{authority}.pem", "-CAkey", f"{authority}.key",
                        "-CAcreateserial", "-days", "2", "-out", f"{name}.pem")

    @classmethod
    def tearDownClass(cls):
        switch.run("rm", "-r", cls.folder)

    @classmethod
    def openssl(cls, *arguments):
        switch.run("openssl", *arguments, cwd=cls.folder)

    def file(self, name):
        return os.path.join(self.folder, name)

    def options(self):
        return ("--private-key", self.file("switch.key"), "--certificate", self.file("switch.pem"), "--ca-cert",
                self.file("ca.pem"))

    def context(self, name, server):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER if server else ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname = False
        context.verify_mode = ssl.CERT_REQUIRED
        context.load_verify_locations(self.file("ca.pem"))
        if name:
            context.load_cert_chain(self.file(f"{name}.pem"), self.file(f"{name}.key"))
        return context

    def test_listening(self):
        self.run_switch(*self.options(), "pssl:0")
        port = int(re.search(r"listening on pssl:(\d+)", self.switch.log_text()).group(1))
        connect = lambda: socket.create_connection(("127.0.0.1", port), timeout=20)
        for name in (None, "stranger"):
            with self.assertRaises((ssl.SSLError, ConnectionError, of.Closed)):
                of.Controller(self.context(name, False).wrap_socket(connect()))
        with self.assertRaises((ssl.SSLError, ConnectionError, of.Closed)):
            of.Controller(connect())  # no TLS at all
        controller = of.Controller(self.context("controller", False).wrap_socket(connect()))
        self.assertEqual(len(controller.features()["ports"]), 2)
        # More than one TLS record, both ways.
        flow = lambda i: of.flow_mod(match=of.match(dl_vlan=i), actions=[of.output(P2)])
        controller.send(b"".join(flow(i) for i in range(900)))
        self.assertEqual(controller.barrier(), {})
        self.assertEqual(len(controller.flows()), 900)
        controller.send(of.message(of.ECHO_REQUEST, b"e" * 60000, 1))
        self.assertEqual(controller.receive(), (of.ECHO_REPLY, 1, b"e" * 60000))
        controller.close()

    def test_connecting(self):
        listening, port = listener()
        self.run_switch(*self.options(), f"ssl:127.0.0.1:{port}")
        with self.assertRaises((ssl.SSLError, ConnectionError, of.Closed)):
            of.Controller(self.context("stranger", True).wrap_socket(listening.accept()[0], server_side=True))
        controller = of.Controller(self.context("controller", True).wrap_socket(listening.accept()[0],
                                                                               server_side=True))
        self.assertEqual(controller.barrier(), {})
        self.assertIn("connected as controller", self.switch.log_text())
        controller.close()
        listening.close()


class Size(WithSwitch):
    def test_a_thousand_flows_fit_into_ten_megabytes(self):
        if not switch.is_plain(BUILD):
            self.skipTest("this build carries more than the daemon")
        self.run_switch()
        controller = self.switch.controller()
        for flow in (lambda i: of.match(dl_src=of.mac(f"02:00:00:00:{i >> 8:02x}:{i & 255:02x}"), in_port=P1),
                     lambda i: of.match(dl_type=0x800, nw_src=f"10.{i >> 8}.{i & 255}.0/24")):
            controller.send(b"".join(of.flow_mod(match=flow(i), actions=[of.output(P2)], priority=i) for i in range(1000)))
            self.assertEqual(controller.barrier(), {})
            self.assertEqual(len(controller.flows()), 1000)
            with open(f"/proc/{self.switch.process.pid}/status", encoding="ascii") as file:
                resident = int(re.search(r"VmRSS:\s+(\d+) kB", file.read()).group(1))
            print(f"resident with 1000 flows: {resident} KiB")
            self.assertLessEqual(resident, 10 * 1000)
            self.assertIsNone(controller.do(of.flow_mod(of.DELETE)))


class Life(WithSwitch):
    def test_signals_are_blocked_in_every_thread(self):
        """The library waits with select, which no signal may interrupt; they come through a descriptor."""
        self.run_switch(count=1)
        tasks = f"/proc/{self.switch.process.pid}/task"
        threads = os.listdir(tasks)
        self.assertGreater(len(threads), 1)
        for thread in threads:
            with open(f"{tasks}/{thread}/status", encoding="ascii") as file:
                blocked = int(re.search(r"SigBlk:\s+(\w+)", file.read()).group(1), 16)
            for one in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM, signal.SIGPIPE):
                self.assertTrue(blocked >> (one - 1) & 1, (thread, one))

    def test_it_ends_well_whenever_it_is_interrupted(self):
        """By Ctrl-C, also twice, from the first moment at which it has taken the signals over."""
        folder = tempfile.mkdtemp(prefix="krsdn-agent-test-")
        switch.run("ip", "link", "add", "i1", "type", "veth", "peer", "name", "i2")
        with open(os.path.join(folder, "ports.conf"), "w", encoding="ascii") as file:
            file.write("[ports]\ni1 = 1\n")
        runtime = os.path.join(folder, "runtime")
        os.mkdir(runtime)
        for signals, wait_for in (([signal.SIGINT], "listening on"), ([signal.SIGINT] * 2, "port 32769 is i1"),
                                  ([signal.SIGTERM, signal.SIGINT], "port 32769 is i1")):
            running = subprocess.Popen(
                [DAEMON, "--connector", f"{BUILD}/plugins/connector/connector.so", "--port-plugin",
                 f"{BUILD}/plugins/fpt_linux/fpt_linux.so", "--connector-config", f"{folder}/ports.conf",
                 f"punix:{folder}/openflow"], stderr=subprocess.PIPE, text=True,
                env=dict(os.environ, RUNTIME_DIRECTORY=runtime))
            said = ""
            while wait_for not in said:
                line = running.stderr.readline()
                self.assertTrue(line, said)
                said += line
            for one in signals:
                running.send_signal(one)
            said += running.communicate(timeout=30)[1]
            self.assertEqual((running.returncode, os.listdir(runtime), sorted(os.listdir(folder))),
                             (0, [], ["ports.conf", "runtime"]), said)
            self.assertNotIn("error", said)
        switch.run("ip", "link", "del", "i1")
        switch.run("rm", "-r", folder)

    def test_without_ports_there_is_no_datapath_id_to_keep(self):
        self.run_switch(count=0)
        controller = self.switch.controller()
        self.assertEqual((controller.features()["dpid"], controller.features()["ports"]), (0, []))
        switch.run("ip", "link", "add", "n1", "type", "veth", "peer", "name", "n2")
        self.assertTrue(self.switch.ask_connector("add n1 1").startswith("ok"))
        _, port = controller.port_status(of.PORT_ADDED)
        for _ in range(2):  # and once it is told, it stays
            self.assertEqual(controller.features()["dpid"], int.from_bytes(port["hw_addr"], "big"))
            if self.switch.ask_connector("remove n1") == "ok":
                controller.port_status(of.PORT_DELETED)
        switch.run("ip", "link", "del", "n1")

    def test_the_datapath_id_is_the_lowest_address_and_is_remembered(self):
        addresses = ["02:00:00:00:00:0a", "02:00:00:00:00:03", "02:00:00:00:00:07"]

        def start(addresses, *arguments, **environment):
            own = switch.Switch(BUILD, len(addresses), arguments, environment, addresses=addresses)
            told = own.controller().features()["dpid"]
            self.assertEqual(own.stop(), 0)
            return told, own

        with tempfile.TemporaryDirectory(prefix="krsdn-agent-test-") as state:
            self.assertEqual(start(addresses)[0], 0x020000000003)
            self.assertEqual(start(addresses[::-1])[0], 0x020000000003)
            self.assertEqual(start(addresses, "--datapath-id", "ab", STATE_DIRECTORY=state)[0], 0xab)
            self.assertEqual(os.listdir(state), [])
            self.assertEqual(start(addresses[::2], STATE_DIRECTORY=f"{state}:/other")[0], 0x020000000007)
            self.assertEqual(os.listdir(state), ["datapath-id"])
            self.assertEqual(start(addresses, STATE_DIRECTORY=state)[0], 0x020000000007)  # one more port
            self.assertEqual(start(addresses, "--datapath-id", "ab", STATE_DIRECTORY=state)[0], 0xab)
            for text in ("", "7\n", "00000200000000070\n", "000002000000000x\n", "0000000000000000\n"):
                with open(f"{state}/datapath-id", "w", encoding="ascii") as file:
                    file.write(text)
                self.assertEqual(start(addresses[:1], STATE_DIRECTORY=state)[0], 0x02000000000a)
                with open(f"{state}/datapath-id", encoding="ascii") as file:
                    self.assertEqual(file.read(), "000002000000000a\n")
        self.assertEqual(start(addresses[:1], STATE_DIRECTORY="/nowhere")[0], 0x02000000000a)

    def test_after_a_failure_of_the_library_everything_is_compared(self):
        self.run_switch(count=1)
        controller = self.switch.controller()
        self.assertIsNone(controller.do(of.flow_mod(priority=1)))
        self.assertEqual(self.switch.ask_connector("stop"), "ok")  # takes the rule with it
        self.assertEqual(controller.do(of.flow_mod(priority=2)), of.FLOW_EPERM)
        while (told := re.search(r"failure of the library .*: (.*)\n", self.switch.log_text())) is None:
            controller.barrier()
        self.assertRegex(told.group(1), "1 flows, 1 rules, [1-9][0-9]* disagreements")
        self.assertRegex(self.switch.log_text(), "error: rule 1 can't be read back")
        self.assertEqual(self.switch.ask_connector("start"), "ok")


class Connector(unittest.TestCase):
    def test_its_controllers_come_and_go_with_its_list(self):
        folder = tempfile.mkdtemp(prefix="krsdn-agent-test-")
        self.addCleanup(switch.run, "rm", "-r", folder)
        config = os.path.join(folder, "ports.conf")

        def name(*ports):
            lines = [f"controller{i} = 127.0.0.1:{port}\n" for i, port in enumerate(ports, 1)]
            with open(config + ".new", "w", encoding="ascii") as file:
                file.write("".join(["[agent]\n", *lines] if lines else ["# nothing\n"]))
            os.rename(config + ".new", config)

        def known(*ports):
            deadline = time.monotonic() + 20
            told = None
            while told != sorted(f"tcp:127.0.0.1:{port}" for port in ports):
                self.assertLess(time.monotonic(), deadline, (told, ports))
                shown = subprocess.run([f"{BUILD}/agent/ctl/krsdnctl", "--socket", f"{folder}/control", "--json", "show"],
                                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
                told = sorted(one["endpoint"] for one in json.loads(shown.stdout)["controllers"]) if shown.stdout else None

        (first, a), (second, b), (nobody, c) = listener(), listener(), listener()
        nobody.close()
        name(a, b)
        running = subprocess.Popen(
            [DAEMON, "--connector", f"{BUILD}/plugins/connector/connector.so", "--port-plugin",
             f"{BUILD}/plugins/fpt_linux/fpt_linux.so", "--connector-config", config, "--connector-control",
             f"{folder}/connector", "--control", f"{folder}/control"], stderr=subprocess.DEVNULL)
        try:
            one, two = of.Controller(first.accept()[0]), of.Controller(second.accept()[0])
            known(a, b)
            name(b, c)  # one is left; of the others one stays, at another place of the list, and one does not answer
            self.assertRaises(of.Closed, one.receive)
            known(b, c)
            self.assertEqual(two.barrier(), {})
            name(b, b)
            known(b)
            name(a)
            self.assertRaises(of.Closed, two.receive)
            again = of.Controller(first.accept()[0])
            known(a)
            name()
            self.assertRaises(of.Closed, again.receive)
            known()
            self.assertFalse(select.select([first, second], [], [], 1.5)[0])  # nobody is tried any more
        finally:
            running.terminate()
            self.assertEqual(running.wait(timeout=30), 0)
            first.close()
            second.close()

    def test_what_was_given_is_not_touched(self):
        listening, port = listener()
        with tempfile.TemporaryDirectory(prefix="krsdn-agent-test-") as folder:
            config = os.path.join(folder, "ports.conf")
            with open(config, "w", encoding="ascii") as file:
                file.write(f"[agent]\ncontroller1 = 127.0.0.1:{port}\n")
            running = subprocess.Popen(
                [DAEMON, "--connector", f"{BUILD}/plugins/connector/connector.so", "--port-plugin",
                 f"{BUILD}/plugins/fpt_linux/fpt_linux.so", "--connector-config", config, "--connector-control",
                 f"{folder}/connector", "--control", "none", f"tcp:127.0.0.1:{port}"], stderr=subprocess.DEVNULL)
            try:
                one = of.Controller(listening.accept()[0])
                os.unlink(config)
                with open(config, "w", encoding="ascii") as file:
                    file.write("[agent]\ndatapath_id = 7\n")
                asked = socket.socket(socket.AF_UNIX)
                asked.connect(f"{folder}/connector")
                asked.sendall(b"reload\n")
                self.assertEqual(asked.recv(256)[:2], b"ok")
                asked.close()
                self.assertEqual(one.barrier(), {})
                self.assertFalse(select.select([listening], [], [], 0.5)[0])  # and it is the only connection
                self.assertEqual(one.barrier(), {})
            finally:
                running.terminate()
                self.assertEqual(running.wait(timeout=30), 0)
                listening.close()


class BackPressure(WithSwitch):
    def test_a_controller_that_does_not_read_is_not_read(self):
        self.run_switch("--probe-interval", "0")
        flow = lambda i: of.flow_mod(match=of.match(dl_vlan=i), actions=[of.output(P2)] * 20)
        stuck = self.switch.controller()
        stuck.send(b"".join(flow(i) for i in range(1000)))
        self.assertEqual(stuck.barrier(), {})
        before = memory(self.switch.process.pid)
        request = of.stats_request(1, of.match() + struct.pack("!BxH", 0xff, of.NONE))
        stuck.socket.settimeout(0)
        count, part = 0, b""
        while select.select([], [stuck.socket], [], 2)[1]:  # until the agent has stopped to read
            sent = stuck.socket.send(part or request)
            part = (part or request)[sent:]
            count += not part
            self.assertLess(count, 100000)
        other = self.switch.controller()
        self.assertEqual(other.barrier(), {})
        self.assertLess(memory(self.switch.process.pid), before + 4096 * SLACK)
        # Once it reads again, nothing was lost.
        stuck.socket.settimeout(20)
        if part:
            thread = threading.Thread(target=lambda: stuck.socket.sendall(part))
            thread.start()
            count += 1
        last = 0
        while last < count:
            kind, _, body = stuck.receive()
            self.assertEqual(kind, of.STATS_REPLY)
            last += not struct.unpack("!H", body[2:4])[0] & 1
        if part:
            thread.join()
        self.assertEqual(stuck.barrier(), {})

    def test_packet_ins_for_who_does_not_read_are_dropped(self):
        self.run_switch("--probe-interval", "0")
        stuck = self.switch.controller()  # reads nothing
        reading = self.switch.controller()
        for one in self.switch.controllers:
            one.send(of.message(of.SET_CONFIG, struct.pack("!HH", 0, 0xffff)))
            self.assertEqual(one.barrier(), {})
        before = memory(self.switch.process.pid)
        for i in range(3000):  # one after the other: 4 MB, none of which gets lost on the way
            self.switch.cables[1].send(FRAME)
            try:
                self.assertEqual(reading.packet_in()["data"], FRAME)
            except TimeoutError:
                self.fail(f"frame {i} got lost:\n" + self.switch.log_text())
        self.assertEqual(reading.barrier(), {})
        self.assertLess(memory(self.switch.process.pid), before + 2048 * SLACK)
        dropped = self.counters()["packet-ins dropped: a controller did not read"]
        self.assertGreater(dropped, 1000)
        # Few of those that wait are in front of an answer.
        heard = self.messages_received()
        stuck.send(of.message(of.BARRIER_REQUEST, xid=1))
        while self.messages_received() == heard:
            pass
        passed = 0
        while (got := stuck.receive())[0] == of.PACKET_IN:
            passed += 1
        self.assertEqual(got[0], of.BARRIER_REPLY)
        self.assertLess(passed * len(FRAME), 256 * 1024)
        for _ in range(200):  # and it does not read again
            self.switch.cables[1].send(FRAME)
            reading.packet_in()
        deadline = time.monotonic() + 20
        stuck.close()
        while (lost := self.counters()["packet-ins lost with a controller's connection"]) == 0:
            self.assertLess(time.monotonic(), deadline)
        self.assertGreater(lost, 10)

    def test_who_does_not_read_what_must_be_told_is_left(self):
        self.run_switch("--probe-interval", "0")
        stuck = self.switch.controller()
        reading = self.switch.controller()
        flow = lambda i: of.flow_mod(match=of.match(dl_vlan=i), flags=of.SEND_FLOW_REM)
        rounds = 0
        while "does not read" not in self.switch.log_text():
            reading.send(b"".join(flow(i) for i in range(1000)) + of.flow_mod(of.DELETE))
            self.assertEqual(reading.barrier(), {})
            self.assertEqual(sum(kept[0] == of.FLOW_REMOVED for kept in reading.queue), 1000)
            reading.queue.clear()
            rounds += 1
            self.assertLess(rounds, 200)
        self.assertGreater(rounds, 20)
        # What it was not told is counted: all that it does not find in its socket.
        taken = 0
        with self.assertRaises(of.Closed):
            while True:
                taken += stuck.receive()[0] == of.FLOW_REMOVED
        lost = self.counters()["lost with a controller's connection: it had not taken them"]
        self.assertGreater(lost, 4 * 1024 * 1024 // 88 - 1)
        self.assertLessEqual(taken + lost, 1000 * rounds)
        self.assertGreater(taken + lost, 1000 * (rounds - 1))

    def test_requests_are_served_during_a_flood(self):
        self.run_switch("--probe-interval", "0")
        controller = self.switch.controller()
        ended = threading.Event()

        def flood():
            while not ended.is_set():
                for _ in range(100):
                    self.switch.cables[1].send(FRAME)

        thread = threading.Thread(target=flood)
        thread.start()
        try:
            for i in range(50):
                self.assertEqual(controller.do(of.flow_mod(match=of.match(dl_vlan=i), actions=[of.output(P2)])), None)
                controller.queue.clear()
            self.assertEqual(len(controller.flows()), 50)
        finally:
            ended.set()
            thread.join()


class Hostile(WithSwitch):
    def test_who_does_not_greet_is_left_whatever_else_it_says(self):
        self.run_switch("--probe-interval", "0", count=1)
        good = self.switch.controller()
        silent, trickling = (self.switch.controller(greet=False) for _ in range(2))
        for one in (silent, trickling):
            self.assertEqual(one.receive()[0], of.HELLO)
        hello = of.message(of.HELLO, b"\0" * 1000)
        deadline = time.monotonic() + 40
        open_ones = {silent.socket, trickling.socket}
        while open_ones:
            self.assertLess(time.monotonic(), deadline, open_ones)
            for one in select.select(list(open_ones), [], [], 0.5)[0]:
                try:
                    self.assertEqual(one.recv(64), b"")
                except ConnectionResetError:
                    pass  # the last of what it said was not read any more
                open_ones.discard(one)
            if trickling.socket in open_ones:
                try:
                    trickling.send(hello[:1])
                    hello = hello[1:]
                except BrokenPipeError:
                    pass  # it is left just now
        self.assertEqual(good.barrier(), {})
        self.assertEqual(self.switch.log_text().count("no HELLO in time"), 2)

    def test_who_does_not_take_the_last_message_is_left(self):
        self.run_switch("--probe-interval", "0", count=1)
        good, bad = self.switch.controller(), self.switch.controller()
        echo = of.message(of.ECHO_REQUEST, b"e" * 50000)
        bad.send(echo * 5 + of.message(of.HELLO, version=0))  # more answers than the kernel takes, then the end
        with self.assertRaises(TimeoutError):
            bad.timeout = 0.5
            while True:
                bad.send(echo)  # it is not read any more
        deadline = time.monotonic() + 40
        while "does not take the last message" not in self.switch.log_text():
            self.assertLess(time.monotonic(), deadline)
            self.assertEqual(good.barrier(), {})

    def test_who_asks_for_much_at_once_does_not_hold_up_others(self):
        self.run_switch()
        greedy, other = self.switch.controller(), self.switch.controller()
        greedy.send(b"".join(of.flow_mod(match=of.match(dl_vlan=i), actions=[of.output(P1)]) for i in range(1000)))
        self.assertEqual(greedy.barrier(), {})
        change = b"".join(of.flow_mod(of.MODIFY, actions=[of.output(port)]) for port in (P2, P1))
        greedy.send(change * 30 + of.message(of.BARRIER_REQUEST))  # sixty times a thousand rules
        self.assertEqual(other.barrier(), {})
        self.assertFalse(select.select([greedy.socket], [], [], 0)[0], "the other's turn came only after all of it")
        greedy.timeout = 200
        greedy.wait(of.BARRIER_REPLY)

    def test_what_is_wrong_again_and_again_does_not_fill_the_log(self):
        self.run_switch(count=1)
        one = self.switch.controller()
        for _ in range(20):
            one.send(of.message(99) * 500 + of.message(of.ERROR, b"\0" * 4) * 500)
            self.assertEqual(sum(one.receive()[0] == of.ERROR for _ in range(500)), 500)
        for _ in range(200):
            one_more = socket.socket(socket.AF_UNIX)
            one_more.connect(self.switch.path)
            one_more.close()
        self.assertEqual(one.barrier(), {})
        self.assertLess(self.switch.log_text().count("\n"), 200)
        time.sleep(1.1)  # a line is due again
        one.send(of.message(99))
        self.assertEqual(len(one.barrier()), 1)
        self.assertRegex(self.switch.log_text(), r"\d{4,} lines like the next one were left out\n.*message of type 99")

    def test_without_descriptors_it_waits_and_goes_on(self):
        self.run_switch(count=1)
        pid = self.switch.process.pid
        first = self.switch.controller()
        highest = max(int(name) for name in os.listdir(f"/proc/{pid}/fd"))
        limits = resource.prlimit(pid, resource.RLIMIT_NOFILE)
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (highest + 3, limits[1]))
        waiting = [self.switch.controller(greet=False) for _ in range(8)]
        asking = [socket.socket(socket.AF_UNIX) for _ in range(2)]
        for one in asking:
            one.connect(self.switch.ctl)
        self.assertEqual(first.barrier(), {})

        def used():  # processor time, in ticks
            with open(f"/proc/{pid}/stat", encoding="ascii") as file:
                return sum(map(int, file.read().rsplit(")", 1)[1].split()[11:13]))
        before, began = used(), time.monotonic()
        self.assertFalse(select.select([first.socket], [], [], 2)[0])
        share = (used() - before) / os.sysconf("SC_CLK_TCK") / (time.monotonic() - began)
        self.assertLess(share, 0.15, "it looks again and again")
        self.assertIn("Too many open files", self.switch.log_text())
        resource.prlimit(pid, resource.RLIMIT_NOFILE, limits)
        for one in waiting:
            self.assertEqual(one.receive()[0], of.HELLO)
        self.counters()  # krsdnctl is answered again, too
        for one in asking:
            one.close()


class CommandLine(unittest.TestCase):
    def fails(self, *arguments):
        done = subprocess.run([DAEMON, *arguments], capture_output=True, text=True, check=False, timeout=20)
        self.assertEqual(done.returncode, 2, done.stderr)
        return done.stderr

    def test_mistakes_are_named(self):
        for arguments, expected in ((["tcp:somewhere"], "tcp:somewhere: an IP address is expected"),
                                    (["udp:1.2.3.4"], '"udp" is none of tcp'),
                                    (["--probe-interval", "x"], "--probe-interval x: seconds"),
                                    (["--listen", "tcp:1.2.3.4"], "ptcp:, pssl: or punix: is expected"),
                                    (["--nonsense"], "unknown option --nonsense"), (["--log"], "--log takes a value"),
                                    (["--probe-interval", "nan"], "--probe-interval nan: seconds"),
                                    (["--probe-interval", "0.0999"], "0.0999: seconds are expected: 0.1 to 3600, or 0"),
                                    (["pssl:"], "need --private-key"), (["-f", "/no/file"], "/no/file: No such file"),
                                    (["-f", "/tmp"], "/tmp: Is a directory")):
            self.assertIn(expected, self.fails(*arguments))

    def test_mistakes_in_a_file_have_a_line(self):
        with tempfile.NamedTemporaryFile("w", suffix=".conf") as file:
            for text, expected in (("# a comment\n\nlisten = ptcp:70000\n", ":3: listen: a port"),
                                   ("log = notice\nprobe-interval = 1e-9\n",
                                    ":2: probe-interval: seconds are expected: 0.1 to 3600, or 0 for never"),
                                   ("log = notice\nspeed = 3\n", ':2: unknown setting "speed"'),
                                   ("log = notice\nlog notice\n", ":2: a line"),
                                   ("[part]\nlog = notice\n", ":2: there are no sections"),
                                   # The rest of a long line would be a setting of its own.
                                   ("log = notice\ndescription = " + "x" * 185 + "log = debug\n", ":2: a line of at most"),
                                   ("log = notice\nlog notice\ndescription = " + "x" * 300, ":2: a line \"name")):
                file.seek(0)
                file.truncate()
                file.write(text)
                file.flush()
                self.assertIn(file.name + expected, self.fails("--config", file.name))

    def test_help_and_version(self):
        text = subprocess.run([DAEMON, "--help"], capture_output=True, text=True, check=True).stdout
        for word in ("ptcp:", "--controller", "--ca-cert", "Examples:"):
            self.assertIn(word, text)
        version = subprocess.run([DAEMON, "-V"], capture_output=True, text=True, check=True).stdout
        self.assertRegex(version, r"^krsdn-ofagentd \d+\.\d+\.\d+\n$")

    def test_a_daemon_that_cannot_start_says_why(self):
        done = subprocess.run([DAEMON, "--connector", "/no/connector.so", "ptcp:0"], capture_output=True, text=True,
                              check=False, timeout=20)
        self.assertEqual(done.returncode, 1)
        self.assertIn("kr_sdn_hal_init failed", done.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
