#!/usr/bin/env python3
"""Everything at once on the agent, for as long as one likes: flows come, expire and go, ports flap, come and are removed,
controllers connect, vanish and stop reading, and traffic runs. At the end the agent, the library and the hardware agree
rule by rule, and memory and descriptors are where they were.

Usage: soak.py BUILD-FOLDER [SECONDS]      10 unless given; KR_TEST_SEED chooses another sequence
"""
import json
import os
import random
import socket
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import openflow as of  # noqa: E402
import switch as lab  # noqa: E402

PORTS = 4
DEAF_MAX = 3
SAMPLES_PER_RUN = 40
LOOKS = 25
SEND_FAILED = "Failed sending packet from SDN HAL, SDK error (Internal error)"  # out of a port whose link is down
MEMORY_SLACK = 512  # KiB: queues that are full at one sample and empty at the next


class Soak:
    def __init__(self, build, seconds, seed):
        self.build, self.seconds = build, seconds
        self.random = random.Random(seed)
        self.switch = lab.Switch(build, PORTS)
        self.readers, self.deaf = [], []
        self.down, self.removed = set(), set()
        self.tally = dict.fromkeys(
            ("flow_mods", "refused", "packet_outs", "frames", "flaps", "removals", "connections", "vanished"), 0)
        self.samples = []  # (resident KiB, descriptors, threads)

    # ---- looking at the daemon -------------------------------------------------------------------------------------

    def sample(self):
        process = self.switch.process.pid
        with open(f"/proc/{process}/status", encoding="ascii") as file:
            fields = dict(line.split(":", 1) for line in file)
        return (int(fields["VmRSS"].split()[0]), len(os.listdir(f"/proc/{process}/fd")), int(fields["Threads"]))

    def resting(self):
        """A sample without the connections that have just gone: those are put away in the loop's next turns, and a tool's
        answer takes several. Each of them only adds to the descriptors, so the fewest of many looks is what stays."""
        looks = []
        for _ in range(LOOKS):
            self.audit()
            looks.append(self.sample())
        return min(looks, key=lambda look: look[1])

    def ask(self, *command):
        done = subprocess.run([f"{self.build}/agent/ctl/krsdnctl", "--socket", self.switch.ctl, "--json", *command],
                              check=False, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)
        assert done.returncode == 0, (command, done)
        return json.loads(done.stdout)

    def audit(self):
        """Agent, flows database, resource manager and read-back agree; what there is of each."""
        summary = self.ask("audit")
        assert summary["disagreements"] == [] and summary["platform"], summary
        return summary

    # ---- what happens ----------------------------------------------------------------------------------------------

    def port(self):
        return lab.PORT_BASE + self.random.randint(1, PORTS)

    def station(self):
        return bytes((2, 0, 0, 0, 0, self.random.randint(1, 60)))

    def some_match(self):
        fields = {"dl_dst": self.station()}
        if self.random.random() < 0.3:
            fields["in_port"] = self.port()
        if self.random.random() < 0.3:
            fields |= {"dl_type": 0x0800, "nw_dst": f"10.0.{self.random.randint(0, 9)}.0/24"}
        return of.match(**fields)

    def some_actions(self):
        return self.random.choice((
            lambda: [of.output(self.port())], lambda: [of.output(self.port()), of.output(self.port())],
            lambda: [of.output(of.FLOOD)], lambda: [of.output(of.CONTROLLER, 64)], lambda: [],
            lambda: [of.set_vlan_vid(self.random.randint(1, 9)), of.output(self.port())]))()

    def flow_mods(self):
        """A batch, mostly of flows that expire soon; some are refused, which is as it should be."""
        one = self.reader()
        batch = b""
        for _ in range(self.random.choice((1, 5, 50, 200))):
            command = self.random.choice((of.ADD,) * 6 + (of.MODIFY, of.MODIFY_STRICT, of.DELETE, of.DELETE_STRICT))
            batch += of.flow_mod(command, self.some_match(), self.some_actions(), priority=self.random.randint(1, 400),
                                 idle=self.random.randint(0, 2), hard=self.random.randint(0, 3),
                                 flags=self.random.choice((0, of.SEND_FLOW_REM)))
            self.tally["flow_mods"] += 1
        one.send(batch)
        self.tally["refused"] += len(one.barrier())

    def statistics(self):
        one = self.reader()
        count = one.aggregate()[2]
        assert count <= 1000, count
        one.flows()

    def packet_out(self):
        self.reader().send(of.packet_out([of.output(self.random.choice((self.port(), of.FLOOD, of.TABLE)))],
                                         self.station() + self.station() + b"\xaa\xaa" + bytes(50)))
        self.tally["packet_outs"] += 1

    def traffic(self):
        cable = self.switch.cables[self.random.randint(1, PORTS)]
        for _ in range(self.random.choice((1, 20, 300))):
            try:
                cable.send(self.station() + self.station() + b"\xaa\xaa" + bytes(self.random.randint(46, 1000)))
            except OSError:  # its link is down
                break
            self.tally["frames"] += 1

    def flap(self):
        number = self.random.randint(1, PORTS)
        name = self.random.choice((f"s{number}", f"p{number}"))
        if name in self.down:
            self.down.remove(name)
        else:
            self.down.add(name)
        lab.run("ip", "link", "set", name, "down" if name in self.down else "up")
        self.tally["flaps"] += 1

    def remove_or_add(self):
        number = self.random.randint(1, PORTS)
        if number in self.removed:
            self.removed.remove(number)
            answer = self.switch.ask_connector(f"add s{number} {number}")
        else:
            self.removed.add(number)
            answer = self.switch.ask_connector(f"remove s{number}")
        assert answer.startswith("ok"), answer
        self.tally["removals"] += 1

    def connect(self):
        if len(self.readers) < 4:
            self.readers.append(self.switch.controller())
            self.tally["connections"] += 1

    def vanish(self):
        if self.readers:
            self.readers.pop(self.random.randrange(len(self.readers))).close()
            self.tally["vanished"] += 1

    def stop_reading(self):
        """One that asks for much and never reads; after a while it is gone as well."""
        if len(self.deaf) == DEAF_MAX:
            self.deaf.pop(0).close()
        connected = socket.socket(socket.AF_UNIX)
        connected.connect(self.switch.path)
        connected.setblocking(False)
        try:
            connected.send(of.message(of.HELLO) + of.stats_request(1, of.match() + b"\xff\0\xff\xff") * 200)
        except BlockingIOError:
            pass
        self.deaf.append(connected)
        self.tally["connections"] += 1

    def half_a_message(self):
        connected = socket.socket(socket.AF_UNIX)
        connected.connect(self.switch.path)
        connected.sendall(of.message(of.HELLO) + of.flow_mod()[:self.random.randint(1, 71)])
        connected.close()
        self.tally["connections"] += 1
        self.tally["vanished"] += 1

    def reader(self):
        if not self.readers:
            self.connect()
        return self.random.choice(self.readers)

    def read_everything(self):
        """A reader's own queue must not become the leak."""
        for one in self.readers:
            one.barrier()
            one.queue.clear()

    # ---- the run ---------------------------------------------------------------------------------------------------

    def run(self):
        actions = ([self.flow_mods] * 6 + [self.traffic] * 6 + [self.statistics] * 2 + [self.packet_out] * 2 +
                   [self.flap, self.remove_or_add, self.connect, self.vanish, self.stop_reading, self.half_a_message])
        before = self.resting()
        begin = time.monotonic()
        while (now := time.monotonic() - begin) < self.seconds:
            self.random.choice(actions)()
            self.read_everything()
            if now >= len(self.samples) * self.seconds / SAMPLES_PER_RUN:
                self.samples.append(self.sample())
                assert self.switch.process.poll() is None, self.switch.log_text()
                self.audit()
        self.settle()
        self.check(before, self.resting())

    def settle(self):
        for one in self.readers + self.deaf:
            one.close()
        for name in self.down:
            lab.run("ip", "link", "set", name, "up")
        for number in self.removed:
            answer = self.switch.ask_connector(f"add s{number} {number}")
            assert answer.startswith("ok"), answer
        last = self.switch.controller()
        assert last.do(of.flow_mod(of.DELETE)) is None
        assert last.flows() == [] and len(last.features()["ports"]) == PORTS
        last.close()

    def check(self, before, after):
        audit = self.audit()
        assert audit["rules"] == audit["flows"] == audit["groups"] == 0, audit
        assert after[1:] == before[1:], f"descriptors and threads: {before[1:]} before, {after[1:]} after"
        memory = [sample[0] for sample in self.samples]
        early, late = memory[len(memory) // 4:len(memory) // 2], memory[len(memory) * 3 // 4:]
        print(f"resident: {min(memory)} to {max(memory)} KiB, second quarter up to {max(early)}, "
              f"last quarter up to {max(late)}")
        print("descriptors: {} before, {} to {} during, {} after".format(
            before[1], min(s[1] for s in self.samples), max(s[1] for s in self.samples), after[1]))
        print(", ".join(f"{count} {name.replace('_', ' ')}" for name, count in self.tally.items()))
        if self.seconds >= 60:  # before that it still grows into its queues
            assert max(late) <= max(early) + MEMORY_SLACK, memory
        said = self.switch.log_text()
        errors = [line for line in said.splitlines() if ": error: " in line and SEND_FAILED not in line]
        assert not errors, sorted(set(errors))
        assert self.switch.stop() == 0


def main():
    lab.enter_namespaces()
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 10
    seed = int(os.environ.get("KR_TEST_SEED", "1"))
    print(f"seed {seed}, {seconds:g} seconds", flush=True)
    Soak(os.path.abspath(sys.argv[1]), seconds, seed).run()
    print("OK: all agree, nothing has grown")


main()
