"""A switch class for Mininet: each switch is an OpenFlow agent of its own on the software switch.

    mn --custom mininet/korvane.py --switch korvane --controller remote --topo tree,2

The agent is that of a build of this tree (of the folder that KRSDN_BUILD names, else of build/release or build/dev), or
the installed one. A switch's log and sockets are in a folder of its own in /tmp, which goes with the switch unless it
failed. Port N of Mininet is OpenFlow port 32768 + N.
"""
import glob
import os
import shutil
import socket
import subprocess
import tempfile
import time

from mininet.log import error, warn
from mininet.node import RemoteController, Switch

DAEMON = "krsdn-ofagentd"
PATIENCE_SECONDS = 60  # what the start or the end of a switch may take on a busy machine


def agent_command():
    """The agent and its plug-ins: of a build, or installed."""
    here = os.path.dirname(os.path.abspath(agent_command.__code__.co_filename))  # mn does not set __file__
    named = os.environ.get("KRSDN_BUILD")
    for build in [named] if named else [os.path.join(here, "..", "build", preset) for preset in ("release", "dev")]:
        daemon = os.path.join(build, "agent", DAEMON)
        if os.path.exists(daemon):
            return [daemon, "--connector", os.path.join(build, "plugins/connector/connector.so"),
                    "--port-plugin", os.path.join(build, "plugins/fpt_linux/fpt_linux.so")]
    if named:
        raise Exception(f"KRSDN_BUILD names {named}, where there is no agent/{DAEMON}")
    daemon = shutil.which(DAEMON, path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")
    if daemon is None:
        raise Exception(f"there is no {DAEMON}: build this tree, name a build in KRSDN_BUILD, or install it")
    prefix = os.path.dirname(os.path.dirname(os.path.realpath(daemon)))
    for plugins in glob.glob(f"{prefix}/lib/*/krsdnhal") + glob.glob(f"{prefix}/lib/krsdnhal"):
        return [daemon, "--connector", f"{plugins}/connector.so", "--port-plugin", f"{plugins}/fpt_linux.so"]
    return [daemon]  # it knows where they are


class Korvane(Switch):
    """One agent per switch. `opts` are further options of the agent, as on its command line."""

    def __init__(self, name, **params):
        super().__init__(name, **params)
        self.agent = None
        self.folder = None
        self.notices = None  # the agent says here that it is ready

    def start(self, controllers):
        """Starts the agent, which looks for its controllers by itself for as long as it takes."""
        self.folder = tempfile.mkdtemp(prefix=f"korvane-{self.name}-")
        self.write_ports()
        self.notices = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.notices.bind(self.path("notices"))
        self.notices.settimeout(0.2)
        endpoints = [f"{'ssl' if one.protocol == 'ssl' else 'tcp'}:{one.IP()}:{one.port}" for one in controllers]
        with open(self.path("log"), "wb") as log:
            self.agent = self.popen(
                *agent_command(), "--connector-config", self.path("ports.conf"),
                "--connector-control", self.path("connector"), "--control", self.path("control"), "--datapath-id", self.dpid, "--description", self.name,
                *self.opts.split(), f"punix:{self.path('openflow')}", *endpoints, stdout=log, stderr=log,
                env=dict(os.environ, NOTIFY_SOCKET=self.path("notices")))

    @classmethod
    def batchStartup(cls, switches):
        """Waits for switches that have all begun to start: their ports are there when Mininet goes on."""
        for switch in switches:
            switch.wait_until_ready()
        return switches

    def wait_until_ready(self):
        end = time.monotonic() + PATIENCE_SECONDS
        while self.notices is not None:
            self.check_alive()
            try:
                if self.notices.recv(64) == b"READY=1":
                    self.notices.close()
                    self.notices = None
            except TimeoutError:
                if time.monotonic() > end:
                    raise Exception(f"{self.name} did not become ready:\n{self.log()}") from None

    def check_alive(self):
        if self.agent.poll() is not None:
            raise Exception(f"{self.name} ended with status {self.agent.returncode}:\n{self.log()}")

    def connected(self):
        """Whether a controller has answered."""
        self.check_alive()
        return any(": connected" in line and "unix:" not in line for line in self.log().splitlines())

    @classmethod
    def batchShutdown(cls, switches):
        """All begin to stop before the first is waited for. None is done yet: `stop` follows."""
        for switch in switches:
            switch.tell_to_stop()
        return ()

    def tell_to_stop(self):
        if self.agent is not None and self.agent.poll() is None:
            self.agent.terminate()

    def stop(self, deleteIntfs=True):
        """Ends the agent well, then removes what it stood on."""
        if self.agent is not None:
            self.tell_to_stop()
            try:
                status = self.agent.wait(timeout=PATIENCE_SECONDS)
            except subprocess.TimeoutExpired:
                self.agent.kill()
                status = self.agent.wait()
            if status == 0:
                shutil.rmtree(self.folder)
            else:
                error(f"{self.name} ended with status {status}; its log is {self.path('log')}\n")
            self.agent = None
            if self.notices is not None:
                self.notices.close()
                self.notices = None
        super().stop(deleteIntfs)

    def attach(self, intf):
        """Makes a port of one more interface while the switch runs: `intf` has been added to the node already."""
        assert str(intf) in self.nameToIntf, f"{intf} is no interface of {self.name}"
        self.write_ports()

    def detach(self, intf):
        """Takes a port out of the switch while it runs."""
        self.write_ports(without=str(intf))

    def write_ports(self, without=None):
        """Says which interfaces are ports. The agent follows the file."""
        with open(self.path("ports.new"), "w", encoding="ascii") as file:
            file.write("[ports]\n")
            for intf, port in self.ports.items():
                if port >= self.portBase and intf.name != without:
                    file.write(f"{intf.name} = {port}\n")
        os.replace(self.path("ports.new"), self.path("ports.conf"))

    def dpctl(self, command, *arguments):
        """The commands of ovs-ofctl: "mininet> dpctl dump-flows"."""
        return self.cmd("ovs-ofctl", "-O", "OpenFlow10", command, f"unix:{self.path('openflow')}", *arguments)

    def path(self, name):
        return os.path.join(self.folder, name)

    def log(self):
        with open(self.path("log"), encoding="utf-8", errors="replace") as file:
            return file.read()


class Remote(RemoteController):
    """Mininet's own, but for how it looks whether there is a controller: with telnet, which now and then never ends."""

    def isListening(self, ip, port):
        if self.inNamespace:
            return super().isListening(ip, port)
        try:
            socket.create_connection((ip, port), PATIENCE_SECONDS).close()
            return True
        except OSError as why:
            warn(f"Unable to contact the remote controller at {ip}:{port}: {why.strerror}\n")
            return False


switches = {"korvane": Korvane}
controllers = {"remote": Remote}
