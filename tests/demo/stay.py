#!/usr/bin/env python3
"""The demonstration that stays: what it says can be typed works then and there, from outside of its namespaces; and an
interrupt, which is its end, leaves nothing behind and is no failure.

Usage: stay.py RUN-DEMO BUILD-FOLDER. Exits with 77 where namespaces are not allowed.
"""
import os
import re
import signal
import subprocess
import sys
import tempfile

from interrupted import names_in, processes_of_session, world

LAST = "Ctrl-C here ends all of it."
# A word of each command that has to be there, and what its output has to show.
COMMANDS = {"agent-control flows": "dl_src=", "agent-control audit": "(?m)^they agree$",
            "agent-control trace": "the flow that is taken|to the controller",
            "ovs-ofctl -O OpenFlow10 show": r"(?s)s1-eth1.*s1-eth2.*s1-eth3",
            "ovs-ofctl -O OpenFlow10 dump-flows": "cookie=", "ip netns exec h1 ping": "3 received", " bash": ""}
ENDS = [(signal.SIGINT, True), (signal.SIGTERM, False)]  # Ctrl-C, and a signal to the script alone


def type_in(line):
    """What somebody types in another terminal; nothing follows on its standard input."""
    return subprocess.run(["bash", "-c", line], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, cwd="/",
                          stderr=subprocess.STDOUT, text=True, timeout=60, start_new_session=True, check=False)


def commands_work(lines):
    wrong = []
    for word, shown in COMMANDS.items():
        matching = [line for line in lines if word in line]
        if len(matching) != 1:
            wrong.append(f"{len(matching)} commands with {word!r}")
            continue
        done = type_in(matching[0])
        if done.returncode != 0 or not re.search(shown, done.stdout):
            wrong.append(f"{matching[0]!r} ended with {done.returncode}: {done.stdout}")
    return wrong


def stays_and_ends(run_demo, build, number, whole_group):
    before = world()
    with tempfile.TemporaryDirectory() as folder:
        process = subprocess.Popen([run_demo, "--seed", "1", "--stay"], stdout=subprocess.PIPE,
                                   stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT, text=True, start_new_session=True,
                                   env=dict(os.environ, KR_DEMO_BUILD=build, TMPDIR=folder))
        lines = []
        while not lines or LAST not in lines[-1]:
            lines.append(process.stdout.readline())
            if not lines[-1]:
                process.wait(timeout=60)
                return [f"it does not stay: exit status {process.returncode}"], "".join(lines)
        wrong = commands_work([line.strip() for line in lines if line.startswith("  ")])
        if process.poll() is not None:
            wrong.append("it has ended by itself")
        (os.killpg if whole_group else os.kill)(process.pid, number)
        lines.append(process.stdout.read())
        output = "".join(lines)
        status = process.wait(timeout=60)
        wrong += [f"exit status {status}"] if status != 0 else []
        wrong += [f"processes left: {left}" for left in [processes_of_session(process.pid)] if left]
        wrong += [f"files left: {names_in(folder)}"] if names_in(folder) else []
    wrong += [f"{what} left: {names - before[what]}" for what, names in world().items() if names - before[what]]
    if not re.search("the agent ends: ports removed, switch stopped +exit status 0\n", output):
        wrong.append("the agent did not end in good order")
    if output.splitlines()[-1] != "OK: the demonstration ran through, nothing is left behind":
        wrong.append(f"last line: {output.splitlines()[-1]}")
    return wrong, output


def main():
    run_demo, build = sys.argv[1:3]
    failed = 0
    for number, whole_group in ENDS:
        wrong, output = stays_and_ends(run_demo, build, number, whole_group)
        if "network namespaces are not allowed" in output or "there is no controller here" in output:
            print(output)
            sys.exit(77)
        print(f"{'FAILED' if wrong else 'ok'}: {number.name} {'; '.join(wrong)}", flush=True)
        if wrong:
            print(output, flush=True)
        failed += bool(wrong)
    both = subprocess.run([run_demo, "--stay", "--capture"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False)
    if both.returncode != 2:
        print(f"FAILED: --stay --capture ended with {both.returncode}")
        failed += 1
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
