#!/usr/bin/env python3
"""Open vSwitch's test controller, as it comes, drives the agent: four hosts ping each other, TCP carries a transfer.

Usage: testcontroller_test.py BUILD-FOLDER CAPTURE-FILE
"""
import os
import re
import sys

import lab

lab.need(ovs_testcontroller="openvswitch-testcontroller", ovs_ofctl="openvswitch-common", tcpdump="tcpdump",
         ip="iproute2", ping="iputils-ping", socat="socat")
lab.enter_namespaces()
build, capture_path = (os.path.abspath(path) for path in sys.argv[1:3])

hosts = [lab.Host(i) for i in range(1, 5)]
capture = lab.Capture(capture_path)
controller = lab.Process("controller", "ovs-testcontroller", f"ptcp:{lab.CONTROLLER_PORT}:127.0.0.1")
agent = lab.Agent(build, hosts, f"tcp:127.0.0.1:{lab.CONTROLLER_PORT}", f"punix:{lab.FOLDER}/openflow")
agent.wait_for(": connected")

lab.everybody_pings_everybody(hosts)
lab.everybody_pings_everybody(hosts, 10)
lab.transfer(hosts[1], hosts[2], 10_000_000)
flows = lab.run("ovs-ofctl", "-O", "OpenFlow10", "dump-flows", f"unix:{lab.FOLDER}/openflow")
assert len(re.findall(r"^ cookie=.* actions=output:\d+$", flows, re.M)) >= 12, flows  # one for each ordered pair

capture.finish()
assert agent.stop() == 0, agent.log()
said = controller.log()
assert controller.process.poll() is None and "|WARN|" not in said and "|ERR|" not in said, said
controller.stop()
print(f"OK: everybody reached everybody, {flows.count('cookie=')} flows")
