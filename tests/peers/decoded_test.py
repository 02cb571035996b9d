#!/usr/bin/env python3
"""What the agent said to other programs, decoded by two more: tshark finds nothing malformed, ovs-ofctl no decode error,
and both find the same messages. tshark leaves the inside of some messages out ("not dissected yet"); ovs-ofctl does not.

Usage: decoded_test.py CAPTURE-FILE...
"""
import collections
import os
import re
import subprocess
import sys

import lab

SEQUENCE, UNDECODED = 0x2000000, 0x5000000  # groups of tshark's remarks: on TCP itself, and on what it leaves out
FEATURES_REPLY = "6"
# Everything that the agent can say: each has to be in the captures, and nothing else may be. For tshark by number, for
# ovs-ofctl by its name for it, which also tells the kinds of statistics apart.
SAID = {0: "HELLO", 1: "ERROR", 2: "ECHO_REQUEST", 3: "ECHO_REPLY", 6: "FEATURES_REPLY", 8: "GET_CONFIG_REPLY",
        10: "PACKET_IN", 11: "FLOW_REMOVED", 12: "PORT_STATUS", 17: "STATS_REPLY", 19: "BARRIER_REPLY",
        21: "QUEUE_GET_CONFIG_REPLY"}
NAMES = {f"OFPT_{name}" for name in SAID.values() if name != "STATS_REPLY"} | {
    f"OFPST_{kind} reply" for kind in ("DESC", "FLOW", "AGGREGATE", "TABLE", "PORT", "QUEUE")}


def output_of(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True).stdout


def by_tshark(path):
    """The messages of the agent as (transaction, type), what tshark complains of, and the agent's side: "src" or "dst"
    for the one that has the well-known port."""
    fields = ("tcp.srcport", "frame.number", "openflow_1_0.type", "openflow.xid", "_ws.expert.group",
              "_ws.expert.message")
    rows = [line.split("\t") for line in output_of(
        "tshark", "-r", path, "-d", f"tcp.port=={lab.CONTROLLER_PORT},openflow", "-Y", "openflow.version", "-T", "fields",
        "-E", "aggregator=|", *(word for field in fields for word in ("-e", field))).splitlines()]
    # A packet-in carries a frame that has ports as well: the first one is the message's own.
    sources = {row[0].split("|")[0] == str(lab.CONTROLLER_PORT) for row in rows if FEATURES_REPLY in row[2].split("|")}
    assert len(sources) == 1, f"{path}: who is the switch?"
    is_server = sources.pop()
    messages, complaints = collections.Counter(), []
    for source, frame, types, transactions, groups, remarks in rows:
        if (source.split("|")[0] == str(lab.CONTROLLER_PORT)) != is_server:
            continue
        pairs = list(zip(transactions.split("|"), types.split("|"), strict=True))
        messages.update((int(transaction), int(kind)) for transaction, kind in pairs)
        bad = [group for group in filter(None, groups.split("|")) if int(group) not in (SEQUENCE, UNDECODED)]
        if bad:
            complaints.append(f"{path}, frame {frame}, types {types}: {remarks}")
    return messages, complaints, is_server


def by_ofctl(path, is_server):
    """The transactions of the agent's messages, the names of their types, and what ovs-ofctl complains of."""
    said = re.split(r"^[0-9.]+\.(\d+) > [0-9.]+\.\d+:\n", output_of(
        "ovs-ofctl", "ofp-parse-pcap", path, str(lab.CONTROLLER_PORT)), flags=re.M)
    transactions, names, complaints = collections.Counter(), set(), []
    for port, text in zip(said[1::2], said[2::2]):
        if (port == str(lab.CONTROLLER_PORT)) != is_server:
            continue
        first = re.match(r"(OFPT_\w+|OFPST_\w+ reply).*?\(xid=(0x[0-9a-f]+)\)", text)
        if first is None or "***" in re.sub(r"\(\*\*\*truncated .*\*\*\*\)", "", text):
            complaints.append(f"{path}: {text}")
        else:
            transactions[int(first[2], 16)] += 1
            names.add(first[1])
    return transactions, names, complaints


lab.need(tshark="tshark", ovs_ofctl="openvswitch-common")
captures = [path for path in sys.argv[1:] if os.path.exists(path)]
if not captures:
    lab.skip("the tests that record what the agent says were skipped")
kinds, names, failures = collections.Counter(), set(), []
for path in captures:
    messages, complaints, is_server = by_tshark(path)
    transactions, more_names, more_complaints = by_ofctl(path, is_server)
    names |= more_names
    failures += complaints + more_complaints
    of_tshark = collections.Counter()
    for (transaction, kind), count in messages.items():
        of_tshark[transaction] += count
        kinds[kind] += count
    if of_tshark != transactions:
        failures.append(f"{path}: tshark alone sees {(of_tshark - transactions).total()} messages, ovs-ofctl alone "
                        f"{(transactions - of_tshark).total()}")
if len(captures) == len(sys.argv) - 1:
    failures += [f"no {name} was seen" for kind, name in SAID.items() if kinds[kind] == 0]
    failures += [f"no {name} was seen" for name in sorted(NAMES - names)]
failures += [f"type {kind} was seen, which is not on the list" for kind in kinds if kind not in SAID]
failures += [f"{name} was seen, which is not on the list" for name in sorted(names - NAMES)]
print(f"{len(captures)} captures, {kinds.total()} messages: " +
      ", ".join(f"{count} {SAID.get(kind, kind)}" for kind, count in sorted(kinds.items())))
if failures:
    print("\n".join(failures[:10]))
    sys.exit(1)
print("OK: nothing malformed")
