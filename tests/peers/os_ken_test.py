#!/usr/bin/env python3
"""A learning switch written for os-ken drives the agent: four hosts ping each other, TCP carries a transfer, and the
frames that went to the controller are bounded by the pairs of hosts.

Usage: os_ken_test.py BUILD-FOLDER CAPTURE-FILE
"""
import os
import sys

import lab

lab.need(osken_manager="python3-os-ken", tcpdump="tcpdump", ip="iproute2", ping="iputils-ping", socat="socat")
lab.enter_namespaces()
build, capture_path = (os.path.abspath(path) for path in sys.argv[1:3])

hosts = [lab.Host(i) for i in range(1, 5)]
capture = lab.Capture(capture_path)
agent = lab.Agent(build, hosts, f"tcp:127.0.0.1:{lab.CONTROLLER_PORT}")  # it keeps trying until there is a controller
environment = dict(os.environ, PYTHONDONTWRITEBYTECODE="1")
controller = lab.Process("os-ken", *lab.LEARNING_SWITCH, env=environment)
controller.wait_for("switch 00000000000000a1 with 4 ports")

lab.everybody_pings_everybody(hosts)
lab.everybody_pings_everybody(hosts, 10)
lab.transfer(hosts[0], hosts[3], 10_000_000)
# For each ordered pair one frame that gets its flow, and one broadcast that asks for the address; once more of each for
# what a slow machine asks twice. The transfer alone is thousands of frames.
bound = 4 * len(hosts) * (len(hosts) - 1)
count = controller.log().count("packet-in")
assert "error type" not in controller.log(), controller.log()
assert 0 < count <= bound, (count, bound, controller.log())

# The controller goes: flows stay. It comes back: the agent finds it.
controller.stop()
lab.everybody_pings_everybody(hosts)
controller = lab.Process("os-ken-again", *lab.LEARNING_SWITCH, env=environment)
controller.wait_for("switch 00000000000000a1 with 4 ports")
lab.run("ip", "-n", hosts[0].name, "link", "set", "eth0", "down")
controller.wait_for(f"port {lab.PORT_BASE + 1} is down")
lab.run("ip", "-n", hosts[0].name, "link", "set", "eth0", "up")
controller.wait_for(f"port {lab.PORT_BASE + 1} is up")
lab.everybody_pings_everybody(hosts)

capture.finish()
assert agent.stop() == 0, agent.log()
controller.stop()
assert "error type" not in controller.log(), controller.log()
print(f"OK: {count} frames came to the controller, at most {bound} expected")
