#!/usr/bin/env python3
"""Ends the demonstration before its time, at moments spread over all of it, and looks for what is left behind.

Usage: interrupted.py RUN-DEMO BUILD-FOLDER [--capture]. A moment is a line of the demonstration's own output, or a part
of the time that it takes to print the first one: what counts as right does not depend on how fast the machine is.
Exits with 77 where namespaces are not allowed (with --capture none are needed).
"""
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

# Ctrl-C right after the line that contains the text.
LINES = ["The switch", "ready event", "ping from h1", "a large transfer", "a drop at priority", "packet-in",
         "A link goes down", "1000 flows", "s1-eth3 is removed"]
# The part with the agent, which needs namespaces.
AGENT_LINES = ["The OpenFlow agent", "runs on three ports", "a learning switch, is connected", "by flows of the controller",
               "krsdnctl audit"]
# Ctrl-C while the hosts are being made: at these parts of the time until the first line.
PARTS_OF_SETUP = [0, 0.05, 0.1, 0.2, 0.3, 0.45, 0.6, 0.75, 0.9]
# A signal to the script alone, as from a supervisor, and the terminal that goes away.
OTHERS = [("ping from h1", signal.SIGTERM, False), ("a drop at priority", signal.SIGHUP, True)]


def names_in(folder):
    return set(os.listdir(folder)) if os.path.isdir(folder) else set()


def world():
    """What a run must leave as it was."""
    return {"interfaces": names_in("/sys/class/net"), "named namespaces": names_in("/run/netns"),
            "files in /run": {name for name in names_in("/run") if "krsdn" in name},
            "files in /tmp": {name for name in names_in("/tmp") if "krsdn" in name or name in ("sent", "got")}}


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


def run_and_end(command, build, line=None, delay=None, number=signal.SIGINT, whole_group=True):
    """Returns what is wrong, the output, and how long the first line took."""
    before = world()
    with tempfile.TemporaryDirectory() as folder:
        environment = dict(os.environ, KR_DEMO_BUILD=build, TMPDIR=folder)
        started = time.monotonic()
        process = subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   stdin=subprocess.DEVNULL, text=True, start_new_session=True)
        output, first_line_after = [], None
        if delay is not None:
            time.sleep(delay)  # not for luck: whatever moment this is, the result must be the same
        while line is not None:
            text = process.stdout.readline()
            output.append(text)
            if first_line_after is None:
                first_line_after = time.monotonic() - started
            if not text or line in text:
                break
        (os.killpg if whole_group else os.kill)(process.pid, number)
        output = "".join(output) + process.stdout.read()
        status = process.wait(timeout=60)
        wrong = [f"processes left: {processes_of_session(process.pid)}"] if processes_of_session(process.pid) else []
        wrong += [f"files left: {names_in(folder)}"] if names_in(folder) else []
    for what, names in world().items():
        if names - before[what]:
            wrong.append(f"{what} left: {names - before[what]}")
    if line is not None and line not in output:
        wrong.append("the moment never came")
    # The very first moment may be before the script could read its first line; then the signal itself is the answer.
    if not (status == -number and output == "" and delay is not None):
        if status != 130:
            wrong.append(f"exit status {status}")
        if not output.splitlines() or "INTERRUPTED: nothing is left behind" != output.splitlines()[-1]:
            wrong.append(f"last line: {output.splitlines()[-1:]}")
    return wrong, output, first_line_after


def main():
    run_demo, build = sys.argv[1:3]
    command = [run_demo, "--seed", "1"] + sys.argv[3:]
    failed, count, setup_times = 0, 0, []

    def check(name, **moment):
        nonlocal failed, count
        wrong, output, first_line_after = run_and_end(command, build, **moment)
        if "network namespaces are not allowed" in output and "--capture" not in command:
            print(output)
            sys.exit(77)
        print(f"{'FAILED' if wrong else 'ok'}: {name} {'; '.join(wrong)}", flush=True)
        if wrong:
            print(output, flush=True)
        failed, count = failed + bool(wrong), count + 1
        if first_line_after is not None:
            setup_times.append(first_line_after)

    for line in LINES + ([] if "--capture" in command else AGENT_LINES):
        check(f"Ctrl-C after {line!r}", line=line)
    for part in PARTS_OF_SETUP:
        check(f"Ctrl-C at {part} of the time to the first line", delay=part * min(setup_times))
    for line, number, whole_group in OTHERS:
        check(f"{number.name} after {line!r}", line=line, number=number, whole_group=whole_group)
    print(f"{count - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
