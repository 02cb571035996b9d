"""The switch under test: interfaces in a network namespace of the test's own, the daemon on them, and the cables' other
ends as raw sockets, on which a test sends and receives frames.

`enter_namespaces` has to be called first: it runs the program again as root of its own namespaces, and ends with exit
status 77 where that is not allowed. Everything made here ends with those.
"""
import errno
import os
import re
import select
import shutil
import socket
import subprocess
import sys
import tempfile

import openflow

ETH_P_ALL = 3
PORT_BASE = 32768  # the connector's numbers: a requested port N becomes this plus N
INSIDE = "KR_AGENT_TEST_INSIDE"


def run(*command, check=True, **more):
    return subprocess.run(command, check=check, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **more)


def enter_namespaces():
    if os.environ.get(INSIDE):
        run("ip", "link", "set", "lo", "up")
        for name in ("default", "all"):
            try:
                with open(f"/proc/sys/net/ipv6/conf/{name}/disable_ipv6", "w", encoding="ascii") as file:
                    file.write("1")  # its router discovery would be frames that no test has sent
            except OSError:
                pass
        return
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    spaces = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    for start in (["unshare", *spaces], ["unshare", "--user", "--map-root-user", *spaces]):
        if subprocess.run([*start, "true"], stderr=subprocess.DEVNULL, check=False).returncode == 0:
            os.environ[INSIDE] = "1"
            os.execvp(start[0], [*start, sys.executable, *sys.argv])
    print("skipped: network namespaces are not allowed here")
    sys.exit(77)


def is_plain(build):
    """Whether the daemon is of its own size: sanitizers and the counting of lines need memory themselves."""
    with open(f"{build}/agent/krsdn-ofagentd", "rb") as program:
        return not re.search(rb"__(a|t|ub)san_|__gcov_", program.read())


class Cable:
    """The far end of a port's cable."""

    def __init__(self, name):
        self.name = name
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        self.socket.bind((name, ETH_P_ALL))
        self.socket.setsockopt(263, 8, 1)  # SOL_PACKET, PACKET_AUXDATA: tells the tag that the kernel took off

    def close(self):
        self.socket.close()

    def send(self, frame):
        try:
            self.socket.send(frame)
        except OSError as error:
            if error.errno != errno.ENETDOWN:  # told once after the link was down
                raise
            self.socket.send(frame)

    def receive(self, timeout=10):
        """The next frame that came out of the switch, its tag where it was on the wire; None: none came in time."""
        while True:
            if not select.select([self.socket], [], [], timeout)[0]:
                return None
            try:
                data, extra, _, address = self.socket.recvmsg(1 << 16, 256)
            except OSError as error:
                if error.errno == errno.ENETDOWN:  # told once after the link was down
                    continue
                raise
            if address[2] == 4:  # PACKET_OUTGOING: what this end sent
                continue
            for level, kind, aux in extra:
                status, tci, tpid = (int.from_bytes(aux[a:b], sys.byteorder) for a, b in ((0, 4), (16, 18), (18, 20)))
                if (level, kind) == (263, 8) and status & 0x10:  # TP_STATUS_VLAN_VALID
                    tpid = tpid if status & 0x40 else 0x8100
                    data = data[:12] + tpid.to_bytes(2, "big") + tci.to_bytes(2, "big") + data[12:]
            return data


class Switch:
    """Cables and the daemon, which listens on `path` and does what `arguments` say besides; `prefix` is a command that runs it. Ports are numbered 1 to `count`; OpenFlow numbers are those plus PORT_BASE."""

    def __init__(self, build, count=3, arguments=(), environment=None, usual_control=False,
                 prefix=(), addresses=None):
        self.folder = tempfile.mkdtemp(prefix="krsdn-agent-test-")
        self.count = count
        self.control = os.path.join(self.folder, "connector")
        with open(os.path.join(self.folder, "ports.conf"), "w", encoding="ascii") as file:
            file.write("[ports]\n")
            for i in range(1, count + 1):
                run("ip", "link", "add", f"s{i}", *(("address", addresses[i - 1]) if addresses else ()), "type", "veth",
                    "peer", "name", f"p{i}")
                run("ip", "link", "set", f"s{i}", "up")
                run("ip", "link", "set", f"p{i}", "up")
                file.write(f"s{i} = {i}\n")
        if prefix:
            os.chmod(self.folder, 0o777)  # it may be another user
        self.cables = {i: Cable(f"p{i}") for i in range(1, count + 1)}
        self.path = os.path.join(self.folder, "openflow")
        self.ctl = os.path.join(self.folder, "control")  # for krsdnctl
        notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        notify.bind(os.path.join(self.folder, "notify"))
        os.chmod(os.path.join(self.folder, "notify"), 0o666)
        self.log = open(os.path.join(self.folder, "log"), "w+", encoding="utf-8")
        self.process = subprocess.Popen(
            [*prefix, f"{build}/agent/krsdn-ofagentd", "--connector", f"{build}/plugins/connector/connector.so",
             "--port-plugin", f"{build}/plugins/fpt_linux/fpt_linux.so",
             "--connector-config", os.path.join(self.folder, "ports.conf"), "--connector-control", self.control,
             "--inspector", f"{build}/tools/audit/inspect_soft.so", *([] if usual_control else ["--control", self.ctl]),
             f"punix:{self.path}", *arguments],
            stderr=self.log, env=dict(os.environ, NOTIFY_SOCKET=os.path.join(self.folder, "notify"),
                                      **(environment or {})))
        notify.settimeout(20)
        assert notify.recv(64) == b"READY=1"
        notify.close()
        self.controllers = []
        first = self.controller()
        ports = len(first.features()["ports"])
        while ports < count:  # those that came late are told one by one
            first.port_status(openflow.PORT_ADDED)
            ports += 1
        for i in self.cables:
            self.wait_for_link(first, i)
        first.close()
        self.controllers.clear()

    def wait_for_link(self, controller, port):
        """Until a frame gets through: the kernel takes a moment to call a new interface up."""
        controller.timeout = 0.2
        for _ in range(100):
            self.cables[port].send(b"\xff" * 6 + b"\2" * 6 + b"\xaa\xaa" + b"\0" * 46)
            try:
                while controller.packet_in()["port"] != PORT_BASE + port:
                    pass
                controller.timeout = 20
                return
            except TimeoutError:
                pass
        raise AssertionError(f"no frame gets through port {port}")

    def wait_for_way(self, sender, receiver):
        """The same where a flow forwards."""
        for _ in range(100):
            self.cables[sender].send(b"\2" * 12 + b"\xaa\xaa" + b"\0" * 46)
            if self.cables[receiver].receive(0.2) is not None:
                break
        for cable in self.cables.values():
            while cable.receive(0.2) is not None:
                pass

    def controller(self, greet=True, timeout=20):
        connected = socket.socket(socket.AF_UNIX)
        connected.connect(self.path)
        self.controllers.append(openflow.Controller(connected, greet, timeout))
        return self.controllers[-1]

    def ask_connector(self, command):
        asked = socket.socket(socket.AF_UNIX)
        asked.settimeout(20)
        asked.connect(self.control)
        asked.sendall(command.encode() + b"\n")
        answer = b""
        while not answer.endswith(b"\n"):
            answer += asked.recv(256)
        asked.close()
        return answer.decode().strip()

    def log_text(self):
        self.log.seek(0)
        return self.log.read()

    def stop(self):
        """Ends the daemon as an operator would; returns its exit status."""
        for one in self.controllers:
            one.close()
        self.process.terminate()
        status = self.process.wait(timeout=30)
        for cable in self.cables.values():
            cable.close()
        for i in range(1, self.count + 1):
            run("ip", "link", "del", f"s{i}")
        self.log.close()
        shutil.rmtree(self.folder)
        return status
