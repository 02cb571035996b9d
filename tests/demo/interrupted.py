#!/usr/bin/env python3
"""Presses Ctrl-C at moments spread over the demonstration and looks for what is left behind.

Usage: demo_interrupted.py RUN-DEMO BUILD-FOLDER. The moments are lines of the demonstration's own output, so that they
do not depend on how fast the machine is. Exits with 77 where namespaces are not allowed.
"""
import os
import pathlib
import signal
import subprocess
import sys

# The interrupt comes right after the line that contains the text; the first one before anything was printed.
MOMENTS = [None, "The switch", "ready event", "ping from h1", "100 MB", "a drop at priority", "packet-in",
           "A link goes down", "1000 flows", "s1-eth3 is removed"]


def interfaces():
    return set(os.listdir("/sys/class/net"))


def namespaces():
    """The network namespaces of all processes, and the named ones."""
    found = set()
    for path in pathlib.Path("/proc").glob("[0-9]*/ns/net"):
        try:
            found.add(os.readlink(path))
        except OSError:
            pass
    named = pathlib.Path("/run/netns")
    return found, set(os.listdir(named)) if named.is_dir() else set()


def processes_of_session(session):
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = path.read_text().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if int(fields[3]) == session and fields[0] != "Z":
            found.append(path.parent.name)
    return found


def interrupt_at(run_demo, build, moment):
    before = interfaces(), namespaces(), set(os.listdir("/tmp"))
    environment = dict(os.environ, KR_DEMO_BUILD=build)
    process = subprocess.Popen([run_demo, "--seed", "1"], env=environment, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, start_new_session=True)
    output = []
    if moment is not None:
        for line in process.stdout:
            output.append(line)
            if moment in line:
                break
    os.killpg(process.pid, signal.SIGINT)
    output += process.stdout.readlines()
    status = process.wait(timeout=60)
    output = "".join(output)
    if "network namespaces are not allowed" in output:
        print(output)
        sys.exit(77)

    wrong = []
    if status != 130:
        wrong.append(f"exit status {status}")
    if "INTERRUPTED" not in output.splitlines()[-1]:
        wrong.append(f"last line: {output.splitlines()[-1:]}")
    if processes_of_session(process.pid):
        wrong.append(f"processes left: {processes_of_session(process.pid)}")
    if interfaces() - before[0]:
        wrong.append(f"interfaces left: {interfaces() - before[0]}")
    if namespaces()[1] - before[1][1]:
        wrong.append(f"namespaces left: {namespaces()[1] - before[1][1]}")
    left = {name for name in set(os.listdir("/tmp")) - before[2] if "krsdn" in name or name in ("sent", "got")}
    if left:
        wrong.append(f"files left: {left}")
    print(f"{'ok' if not wrong else 'FAILED'}: Ctrl-C after {moment!r} {'; '.join(wrong)}")
    if wrong:
        print(output)
    return not wrong


def main():
    run_demo, build = sys.argv[1:3]
    results = [interrupt_at(run_demo, build, moment) for moment in MOMENTS]
    print(f"{sum(results)} passed, {len(results) - sum(results)} failed")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
