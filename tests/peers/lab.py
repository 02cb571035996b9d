"""What the tests with other programs share: namespaces of their own, hosts on veth pairs, the agent on the software
switch, processes with their logs, and the capture of what the agent says.

`enter_namespaces` has to be called first: it runs the program again as root of its own network, process and mount
namespaces, and ends with exit status 77 where that is not allowed. All that is made here goes with those, so nothing
has to be taken back. Waiting is always for something that is seen, and never longer than PATIENCE.
"""
import ctypes
import os
import shutil
import signal
import socket
import subprocess
import sys
import time

INSIDE = "KR_PEERS_INSIDE"
FOLDER = "/run/peers"  # files of the test, in a file system of its own
PATIENCE = 40  # seconds: a busy machine is not a defect
PORT_BASE = 32768  # the connector's numbers: a requested port N becomes this plus N
CONTROLLER_PORT = 6653  # free in a network namespace that is new
SKIPPED = 77
HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
LEARNING_SWITCH = ("osken-manager", "--ofp-listen-host", "127.0.0.1", "--ofp-tcp-listen-port", str(CONTROLLER_PORT),
                   os.path.join(HERE, "learning_switch_app.py"))


def skip(reason):
    print(f"skipped: {reason}", flush=True)
    sys.exit(SKIPPED)


def need(**packages):
    """Ends the test with its reason where a program is missing: need(tshark="tshark"), program = Debian package."""
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    for program, package in packages.items():
        program = program.replace("_", "-")
        if shutil.which(program) is None:
            skip(f"there is no {program} here (Debian package {package})")


# ---- namespaces ------------------------------------------------------------------------------------------------------


def enter_namespaces(own_tmp=False):
    if os.environ.get(INSIDE):
        _furnish()
        if own_tmp:
            _change_tmp()
        return
    spaces = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    for start in (["unshare", *spaces], ["unshare", "--user", "--map-root-user", *spaces]):
        if subprocess.run([*start, "true"], stderr=subprocess.DEVNULL, check=False).returncode == 0:
            os.environ[INSIDE] = "1"
            os.execvp(start[0], [*start, sys.executable, *sys.argv])
    skip("network, process and mount namespaces are not allowed here")


def _own_root():
    """Makes a changed root (chroot) that of the whole mount namespace: who joins the namespace, as mnexec does, would
    find himself outside of it otherwise."""
    libc = ctypes.CDLL(None, use_errno=True)

    def call(function, *arguments):
        if getattr(libc, function)(*arguments) != 0:
            raise OSError(ctypes.get_errno(), f"{function}: {os.strerror(ctypes.get_errno())}")

    bind = 4096 | 16384  # MS_BIND, MS_REC
    folder, root, namespace = os.getcwd(), os.open("/", os.O_PATH), os.open("/proc/self/ns/mnt", os.O_RDONLY)
    call("setns", namespace, 0)
    if not os.path.samestat(os.fstat(root), os.stat("/")):
        os.fchdir(root)
        call("mount", b".", b"/", None, bind, None)
        os.chroot("/..")  # what lies on top of the root now
    os.chdir(folder)
    os.close(root)
    os.close(namespace)


def _furnish():
    _own_root()
    run("mount", "-t", "tmpfs", "tmpfs", "/run")
    for folder in ("/run/netns", "/run/openvswitch", FOLDER):
        os.mkdir(folder)
    # Settings of the whole machine are out of reach; those of the network are the namespace's own.
    for folder in ("/proc/sys/fs", "/proc/sys/kernel"):
        run("mount", "--bind", folder, folder)
        run("mount", "-o", "remount,bind,ro", folder)
    quiet_ipv6()
    run("ip", "link", "set", "lo", "up")
    if not os.path.exists("/dev/pts/ptmx"):  # a bare root has no pseudo-terminals, and Mininet wants one for each host
        os.makedirs("/dev/pts", exist_ok=True)
        run("mount", "-t", "devpts", "-o", "newinstance,ptmxmode=0666", "devpts", "/dev/pts")


def _change_tmp():
    """A /tmp of the test's own, in which a tree or a build that lies in the other one still is where it was."""
    folders = {TOP, *(os.path.abspath(word) for word in sys.argv[1:] if os.path.isdir(word))}
    os.mkdir("/run/tmp")
    run("mount", "--bind", "/tmp", "/run/tmp")
    run("mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/tmp")
    for folder in sorted(folders):  # what holds others first
        if not os.path.exists(folder):
            os.makedirs(folder)
            run("mount", "--bind", f"/run{folder}", folder)


def quiet_ipv6(namespace=None):
    """Router and neighbour discovery would be traffic that no test has asked for."""
    script = 'for i in default all; do echo 1 >/proc/sys/net/ipv6/conf/$i/disable_ipv6; done 2>/dev/null || true'
    run(*(["ip", "netns", "exec", namespace] if namespace else []), "sh", "-c", script)


# ---- processes -------------------------------------------------------------------------------------------------------


def run(*command, check=True, **more):
    """Runs a command to its end; what it printed. A failure shows that."""
    done = subprocess.run(command, check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=PATIENCE, **more)
    if check and done.returncode != 0:
        raise AssertionError(f"{' '.join(command)}: exit status {done.returncode}\n{done.stdout}")
    return done.stdout


def wait_until(condition, what):
    """Asks again and again; returns the first answer that is true."""
    end = time.monotonic() + PATIENCE
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > end:
            raise AssertionError(f"this did not happen: {what() if callable(what) else what}")
        time.sleep(0.02)


class Process:
    """A program in the background, with a log."""

    def __init__(self, name, *command, **more):
        self.name = name
        self.log_path = os.path.join(FOLDER, f"{name}.log")
        with open(self.log_path, "wb") as log:
            self.process = subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT, **more)

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    def wait_for(self, text, count=1):
        def seen():
            return self.log().count(text) >= count or self.process.poll() is not None
        wait_until(seen, lambda: f"{self.name} says {text!r}; it said\n{self.log()}")
        assert self.log().count(text) >= count, f"{self.name} ended without {text!r}:\n{self.log()}"

    def stop(self, number=signal.SIGTERM):
        """Ends it as an operator would; its exit status."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        return self.process.wait(timeout=PATIENCE)


def listens(port):
    """Whether somebody waits for connections, seen without connecting."""
    with open("/proc/net/tcp", encoding="ascii") as table:
        rows = [line.split() for line in table.readlines()[1:]]
    return any(row[3] == "0A" and int(row[1].split(":")[1], 16) == port for row in rows)


# ---- hosts -----------------------------------------------------------------------------------------------------------


class Host:
    """A network namespace whose eth0 is cabled to a port of the switch."""

    def __init__(self, number):
        self.name = f"h{number}"
        self.address = f"10.0.0.{number}"
        self.port = f"s1-eth{number}"
        run("ip", "netns", "add", self.name)
        quiet_ipv6(self.name)
        run("ip", "link", "add", self.port, "type", "veth", "peer", "name", "eth0", "netns", self.name)
        run("ip", "-n", self.name, "link", "set", "eth0", "up", "address", f"02:00:00:00:00:{number:02x}")
        run("ip", "-n", self.name, "address", "add", f"{self.address}/24", "dev", "eth0")
        run("ip", "link", "set", self.port, "up")

    def command(self, *command):
        return ("ip", "netns", "exec", self.name, *command)

    def ping(self, other, count=1):
        """Fails unless all come back."""
        said = run(*self.command("ping", "-n", "-q", "-c", str(count), "-i", "0.02", "-W", "10", other.address))
        assert f"{count} packets transmitted, {count} received" in said, said

    def wire(self):
        """A raw socket on its end of the cable."""
        libc = ctypes.CDLL(None, use_errno=True)
        with open("/proc/self/ns/net", "rb") as home, open(f"/run/netns/{self.name}", "rb") as there:
            assert libc.setns(there.fileno(), 0x40000000) == 0, os.strerror(ctypes.get_errno())
            try:
                end = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
                end.bind(("eth0", 3))
            finally:
                assert libc.setns(home.fileno(), 0x40000000) == 0, os.strerror(ctypes.get_errno())
        end.settimeout(PATIENCE)
        return end


def everybody_pings_everybody(hosts, count=1):
    for one in hosts:
        for other in hosts:
            if one is not other:
                one.ping(other, count)


def transfer(source, target, size):
    """Sends so many bytes over TCP and compares what came."""
    sent, got = os.path.join(FOLDER, "sent"), os.path.join(FOLDER, "got")
    with open(sent, "wb") as file:
        file.write(os.urandom(size))
    receiver = Process("receiver", *target.command("socat", "-u", "TCP-LISTEN:9000,reuseaddr", f"CREATE:{got}"))
    run(*source.command("socat", "-u", f"OPEN:{sent}", f"TCP:{target.address}:9000,retry=200,interval=0.05"))
    assert receiver.process.wait(timeout=PATIENCE) == 0, receiver.log()
    run("cmp", sent, got)


# ---- the switch ------------------------------------------------------------------------------------------------------


class Agent(Process):
    """The daemon on the ports of some hosts."""

    def __init__(self, build, hosts, *endpoints):
        self.notices = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.notices.bind(os.path.join(FOLDER, "notify"))
        self.notices.settimeout(PATIENCE)
        ports = os.path.join(FOLDER, "ports.conf")
        with open(ports, "w", encoding="ascii") as file:
            file.write("[ports]\n" + "".join(f"{host.port} = {host.port[6:]}\n" for host in hosts))
        super().__init__("agent", f"{build}/agent/krsdn-ofagentd",
                         "--connector", f"{build}/plugins/connector/connector.so",
                         "--port-plugin", f"{build}/plugins/fpt_linux/fpt_linux.so",
                         "--control", os.path.join(FOLDER, "control"), "--connector-config", ports, "--datapath-id", "00000000000000a1", *endpoints,
                         env=dict(os.environ, NOTIFY_SOCKET=os.path.join(FOLDER, "notify")))
        assert self.notices.recv(64) == b"READY=1", self.log()
        for host in hosts:
            self.wait_for(f" is {host.port}\n")


# ---- what it says ----------------------------------------------------------------------------------------------------


class Capture(Process):
    """All that goes over loopback, in a file for tshark."""

    def __init__(self, path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        self.partial = path + ".partial"
        self.path = path
        with open("/proc/self/setgroups", encoding="ascii") as file:
            may_change_groups = file.read().strip() == "allow"
        if may_change_groups:
            self.ready, self.nothing_lost = "listening on lo", "\n0 packets dropped by kernel"
            super().__init__("tcpdump", "tcpdump", "-i", "lo", "-s", "0", "-B", "32768", "-U", "-Z", "root",
                             "-w", self.partial, "tcp or udp")
        else:  # tcpdump insists on that, also as the root of a user namespace
            need(dumpcap="wireshark-common")
            self.ready, self.nothing_lost = "File: ", "(pcap:0/"
            super().__init__("dumpcap", "dumpcap", "-i", "lo", "-s", "0", "-B", "32", "-P", "-f", "tcp or udp",
                             "-w", self.partial)
        self.wait_for(self.ready)

    def finish(self):
        """Ends it behind the last frame, which is one that everybody recognises."""
        mark = b"the last frame of this capture"
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as marker:
            marker.sendto(mark, ("127.0.0.1", 9))

        def seen():
            with open(self.partial, "rb") as file:
                file.seek(max(0, os.path.getsize(self.partial) - 4096))
                return mark in file.read()
        wait_until(seen, "the capture comes to its end")
        status = self.stop()
        assert status == 0 and self.nothing_lost in self.log(), (status, self.log())
        os.replace(self.partial, self.path)
