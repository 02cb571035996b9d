#!/usr/bin/env python3
"""Mininet with the switch class of mininet/korvane.py: nothing is dropped, a link goes down and comes back, many
switches run at once, and nothing is left behind.

Usage: mininet_test.py BUILD-FOLDER [SWITCHES]     with a number: so many in a row, instead of the tree
"""
import glob
import os
import re
import subprocess
import sys

import lab

lab.need(mn="mininet", mnexec="mininet", ovs_testcontroller="openvswitch-testcontroller", ovs_ofctl="openvswitch-common",
         ip="iproute2", ping="iputils-ping", ifconfig="net-tools")
# Mininet's clean-up kills by name and deletes what lies in /tmp: here it meets nothing but the test's own.
lab.enter_namespaces(own_tmp=True)
build = os.path.abspath(sys.argv[1])
switch_count = int(sys.argv[2]) if len(sys.argv) > 2 else 0
lab.PATIENCE += 4 * switch_count  # here everything takes so much longer
environment = dict(os.environ, KRSDN_BUILD=build, PYTHONDONTWRITEBYTECODE="1")
if switch_count == 0:
    controller = lab.Process("controller", "ovs-testcontroller", f"ptcp:{lab.CONTROLLER_PORT}:127.0.0.1")
else:  # that one takes 16 switches
    lab.need(osken_manager="python3-os-ken")
    controller = lab.Process("controller", *lab.LEARNING_SWITCH, env=environment)
lab.wait_until(lambda: lab.listens(lab.CONTROLLER_PORT), controller.log)


def mininet(*options, script=""):
    """Runs mn to its end; what it said."""
    path = os.path.join(lab.FOLDER, "script")
    with open(path, "w", encoding="ascii") as file:
        file.write(script)
    running = lab.Process(
        "mn", "mn", "--custom", os.path.join(lab.TOP, "mininet", "korvane.py"), "--switch", "korvane", "--controller",
        "remote", "--wait", *(("--post", path) if script else ()), *options, env=environment,
        stdin=subprocess.DEVNULL)
    lab.wait_until(lambda: running.process.poll() is not None, lambda: f"mn comes to its end; it said\n{running.log()}")
    said = running.log()
    assert running.process.returncode == 0 and "Exception" not in said and "ended with status" not in said, said
    left = glob.glob("/tmp/korvane-*") + re.findall(r"\S+-eth\d+", lab.run("ip", "-o", "link", "show"))
    for process in glob.glob("/proc/[0-9]*/comm"):
        with open(process, encoding="ascii", errors="replace") as file:
            left += [name for name in [file.read().strip()] if name.startswith("krsdn")]
    assert not left, (left, said)
    return said


def part(said, first, last):
    """What was said between two marks of the script."""
    return re.search(rf"^{first}$(.*)^{last}$", said, re.M | re.S)[1]


# Both wait until it is so, or until the test loses its patience.
REACHED = "until ping -c 1 -W 1 -q {0}; do :; done"
SHOWS = "until ovs-ofctl -O OpenFlow10 show unix:$(echo /tmp/korvane-{0}-*/openflow) | grep {1} | grep -q {2}; do sleep 0.02; done"
if switch_count == 0:
    said = mininet("--topo", "tree,2", "--test", "pingall")
    assert "*** Results: 0% dropped (12/12 received)" in said, said

    said = mininet("--topo", "tree,2", "--test", "none", script=f"""
pingall
link s1 s2 down
sh {SHOWS.format("s1", "-A 2 s1-eth1", "LINK_DOWN")}
sh {SHOWS.format("s2", "-A 2 s2-eth3", "LINK_DOWN")}
sh echo is down
h1 ping -c 1 -W 1 h3
h1 ping -c 1 -W 1 h2
link s1 s2 up
sh echo is up
h1 {REACHED.format("10.0.0.3")}
dpctl show
pingall
sh echo has attached
py net.addLink(net.addHost('h5', ip='10.0.0.5'), s3).intf2
py net.get('h5').configDefault()
py s3.attach('s3-eth4')
h1 {REACHED.format("10.0.0.5")}
dpctl show
pingall
sh echo the end
""")
    down = part(said, "is down", "is up")
    assert re.findall("1 packets transmitted, . received", down) == [
        "1 packets transmitted, 0 received", "1 packets transmitted, 1 received"], said
    assert "_DOWN" not in part(said, "is up", "has attached"), said
    assert "32772(s3-eth4)" in part(said, "has attached", "the end"), said
    dropped = re.findall(r"Results: (\d+%) dropped \((\d+/\d+) received\)", said)
    assert dropped == [("0%", "12/12"), ("0%", "12/12"), ("0%", "20/20")], said
    print("OK: nothing dropped in the tree, with a link that went and came, and a port that was added")
else:
    said = mininet("--topo", f"linear,{switch_count}", "--test", "none", script=f"""
h1 {REACHED.format(f"10.0.0.{switch_count}")}
sh echo has reached
h1 ping -c 20 -i 0.05 -q h{switch_count}
h{switch_count} ping -c 20 -i 0.05 -q h1
h{switch_count // 2} ping -c 20 -i 0.05 -q h{switch_count // 2 + 1}
sh ps ax -o comm | grep -c krsdn-ofagentd
sh echo the end
""")
    after = part(said, "has reached", "the end")
    assert after.count("20 packets transmitted, 20 received") == 3, said
    assert f"\n{switch_count}\n" in after, said
    print(f"OK: {switch_count} switches in a row, from end to end and back")
controller.stop()
