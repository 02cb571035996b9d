"""A small OpenFlow 1.0 controller for tests: bytes in, bytes out, nothing shared with the code under test.

Messages are plain tuples and dictionaries made from the layouts of the protocol with struct.
"""
import socket
import struct
import time

HELLO, ERROR, ECHO_REQUEST, ECHO_REPLY, VENDOR, FEATURES_REQUEST, FEATURES_REPLY = range(7)
GET_CONFIG_REQUEST, GET_CONFIG_REPLY, SET_CONFIG, PACKET_IN, FLOW_REMOVED, PORT_STATUS = range(7, 13)
PACKET_OUT, FLOW_MOD, PORT_MOD, STATS_REQUEST, STATS_REPLY, BARRIER_REQUEST, BARRIER_REPLY = range(13, 20)
QUEUE_GET_CONFIG_REQUEST, QUEUE_GET_CONFIG_REPLY = 20, 21

ADD, MODIFY, MODIFY_STRICT, DELETE, DELETE_STRICT = range(5)
SEND_FLOW_REM, CHECK_OVERLAP, EMERG = 1, 2, 4
IN_PORT, TABLE, NORMAL, FLOOD, ALL, CONTROLLER, LOCAL, NONE = range(0xfff8, 0x10000)
NO_BUFFER = 0xffffffff
UNKNOWN = 0xffffffffffffffff

PORT_DOWN, NO_STP, NO_RECV, NO_FLOOD, NO_FWD, NO_PACKET_IN = 1, 2, 4, 16, 32, 64

# Errors: (type, code)
HELLO_FAILED = (0, 0)
BAD_VERSION, BAD_TYPE, BAD_STAT, BAD_VENDOR, EPERM, BAD_LEN = (1, 0), (1, 1), (1, 2), (1, 3), (1, 5), (1, 6)
BUFFER_EMPTY, BUFFER_UNKNOWN = (1, 7), (1, 8)
ACTION_BAD_TYPE, BAD_OUT_PORT, BAD_ARGUMENT, TOO_MANY = (2, 0), (2, 4), (2, 5), (2, 7)
ACTION_BAD_VENDOR = (2, 2)
TABLE_FULL, OVERLAP, BAD_EMERG_TIMEOUT, BAD_COMMAND, UNSUPPORTED = (3, 0), (3, 1), (3, 3), (3, 4), (3, 5)
FLOW_EPERM = (3, 2)
BAD_PORT, BAD_HW_ADDR = (4, 0), (4, 1)

PORT_ADDED, PORT_DELETED, PORT_MODIFIED = range(3)

WILDCARDS = {"in_port": 1, "dl_vlan": 2, "dl_src": 4, "dl_dst": 8, "dl_type": 16, "nw_proto": 32, "tp_src": 64,
             "tp_dst": 128, "dl_vlan_pcp": 1 << 20, "nw_tos": 1 << 21}
ALL_WILD = (1 << 22) - 1


def mac(text):
    return bytes(int(part, 16) for part in text.split(":"))


def ip(text):
    return struct.unpack("!I", socket.inet_aton(text))[0]


def match(**fields):
    """A match; nw_src and nw_dst are addresses or "address/prefix", everything else is as on the wire."""
    wild = ALL_WILD & ~(0x3f << 8) & ~(0x3f << 14)
    values = {"nw_src": 0, "nw_dst": 0}
    for name, shift in (("nw_src", 8), ("nw_dst", 14)):
        if name in fields:
            address, _, prefix = fields.pop(name).partition("/")
            values[name] = ip(address)
            wild |= (32 - int(prefix or 32)) << shift
        else:
            wild |= 32 << shift
    for name, bit in WILDCARDS.items():
        values[name] = fields.pop(name, b"\0" * 6 if name in ("dl_src", "dl_dst") else None)
        if values[name] is not None and values[name] != b"\0" * 6:
            wild &= ~bit
        values[name] = values[name] if values[name] is not None else 0
    assert not fields, fields
    return struct.pack("!IH6s6sHBxHBB2xIIHH", wild, values["in_port"], values["dl_src"], values["dl_dst"],
                       values["dl_vlan"], values["dl_vlan_pcp"], values["dl_type"], values["nw_tos"],
                       values["nw_proto"], values["nw_src"], values["nw_dst"], values["tp_src"], values["tp_dst"])


def output(port, max_len=0):
    return struct.pack("!HHHH", 0, 8, port, max_len)


def set_vlan_vid(vid):
    return struct.pack("!HHHxx", 1, 8, vid)


def set_vlan_pcp(pcp):
    return struct.pack("!HHBxxx", 2, 8, pcp)


def strip_vlan():
    return struct.pack("!HHxxxx", 3, 8)


def message(kind, body=b"", xid=0, version=1):
    return struct.pack("!BBHI", version, kind, 8 + len(body), xid) + body


def flow_mod(command=ADD, match=match(), actions=(), xid=0, cookie=0, idle=0, hard=0, priority=0x8000,
             buffer_id=NO_BUFFER, out_port=NONE, flags=0):
    body = match + struct.pack("!QHHHHIHH", cookie, command, idle, hard, priority, buffer_id, out_port, flags)
    return message(FLOW_MOD, body + b"".join(actions), xid)


def packet_out(actions, data=b"", in_port=NONE, buffer_id=NO_BUFFER, xid=0):
    actions = b"".join(actions)
    return message(PACKET_OUT, struct.pack("!IHH", buffer_id, in_port, len(actions)) + actions + data, xid)


def port_mod(port, hw_addr, config, mask, xid=0, advertise=0):
    return message(PORT_MOD, struct.pack("!H6sIII4x", port, hw_addr, config, mask, advertise), xid)


def stats_request(kind, body=b"", xid=0):
    return message(STATS_REQUEST, struct.pack("!HH", kind, 0) + body, xid)


def parse_port(data):
    number, hw_addr, name, config, state, curr, advertised = struct.unpack("!H6s16sIIII", data[:40])
    return {"port": number, "hw_addr": hw_addr, "name": name.rstrip(b"\0").decode(), "config": config,
            "state": state, "curr": curr, "advertised": advertised}


def parse_flow(data):
    (seconds, nanoseconds, priority, idle, hard, cookie, packets, octets) = struct.unpack("!IIHHH6xQQQ", data[44:88])
    return {"match": data[4:44], "age": seconds + nanoseconds * 1e-9, "priority": priority, "idle": idle,
            "hard": hard, "cookie": cookie, "packets": packets, "bytes": octets, "actions": data[88:]}


class Closed(Exception):
    """The switch has closed the connection."""


class Controller:
    """One connection to the switch, after the greeting unless told otherwise."""

    def __init__(self, connected, greet=True, timeout=20):
        self.socket = connected
        self.timeout = timeout
        self.input = b""
        self.queue = []  # messages that came while another was waited for
        self.xid = 100
        if greet:
            self.send(message(HELLO))
            assert self.receive()[0] == HELLO

    def close(self):
        self.socket.close()

    def send(self, data):
        self.socket.settimeout(self.timeout)
        self.socket.sendall(data)

    def receive(self, deadline=None):
        """The next message: (type, xid, body); echo requests are answered on the way."""
        deadline = deadline or time.monotonic() + self.timeout
        while len(self.input) < 8 or len(self.input) < struct.unpack("!H", self.input[2:4])[0]:
            self.socket.settimeout(max(deadline - time.monotonic(), 0.001))
            got = self.socket.recv(1 << 16)
            if not got:
                raise Closed()
            self.input += got
        version, kind, size, xid = struct.unpack("!BBHI", self.input[:8])
        assert version == 1
        body, self.input = self.input[8:size], self.input[size:]
        if kind == ECHO_REQUEST:
            self.send(message(ECHO_REPLY, body, xid))
            return self.receive(deadline)
        return kind, xid, body

    def wait(self, kind, accept=lambda xid, body: True):
        """The next message of a kind; others are kept for later."""
        for i, kept in enumerate(self.queue):
            if kept[0] == kind and accept(*kept[1:]):
                del self.queue[i]
                return kept
        deadline = time.monotonic() + self.timeout
        while True:
            got = self.receive(deadline)
            if got[0] == kind and accept(*got[1:]):
                return got
            self.queue.append(got)

    def barrier(self):
        """Waits for a barrier; returns the errors since the last one, as {xid: (type, code)}."""
        self.xid += 1
        xid = self.xid
        self.send(message(BARRIER_REQUEST, xid=xid))
        self.wait(BARRIER_REPLY, lambda got, body: got == xid)
        errors = {got[1]: struct.unpack("!HH", got[2][:4]) for got in self.queue if got[0] == ERROR}
        self.queue = [got for got in self.queue if got[0] != ERROR]
        return errors

    def do(self, data):
        """Sends a request and a barrier; returns the one error or None."""
        self.send(data)
        errors = list(self.barrier().values())
        assert len(errors) <= 1, errors
        return errors[0] if errors else None

    def features(self):
        self.send(message(FEATURES_REQUEST, xid=7))
        _, _, body = self.wait(FEATURES_REPLY)
        dpid, buffers, tables, capabilities, actions = struct.unpack("!QIB3xII", body[:24])
        ports = [parse_port(body[at:at + 48]) for at in range(24, len(body), 48)]
        return {"dpid": dpid, "buffers": buffers, "tables": tables, "capabilities": capabilities,
                "actions": actions, "ports": ports}

    def stats(self, kind, body=b""):
        """All parts of a statistics reply, joined."""
        self.xid += 1
        xid = self.xid
        self.send(stats_request(kind, body, xid))
        joined = b""
        while True:
            _, _, part = self.wait(STATS_REPLY, lambda got, body: got == xid)
            got_kind, flags = struct.unpack("!HH", part[:4])
            assert got_kind == kind
            joined += part[4:]
            if not flags & 1:
                return joined

    def flows(self, wanted=match(), out_port=NONE):
        data = self.stats(1, wanted + struct.pack("!BxH", 0xff, out_port))
        flows = []
        while data:
            size = struct.unpack("!H", data[:2])[0]
            flows.append(parse_flow(data[:size]))
            data = data[size:]
        return flows

    def aggregate(self, wanted=match(), out_port=NONE):
        return struct.unpack("!QQI", self.stats(2, wanted + struct.pack("!BxH", 0xff, out_port))[:20])

    def packet_in(self):
        _, _, body = self.wait(PACKET_IN)
        buffer_id, total, port, reason = struct.unpack("!IHHB", body[:9])
        return {"buffer": buffer_id, "total": total, "port": port, "reason": reason, "data": body[10:]}

    def flow_removed(self):
        _, _, body = self.wait(FLOW_REMOVED)
        cookie, priority, reason, seconds, nanoseconds, idle, packets, octets = struct.unpack(
            "!QHBxIIH2xQQ", body[40:80])
        return {"match": body[:40], "cookie": cookie, "priority": priority, "reason": reason,
                "age": seconds + nanoseconds * 1e-9, "idle": idle, "packets": packets, "bytes": octets}

    def port_status(self, *reasons):
        """The next one with one of the reasons, if any are given."""
        _, _, body = self.wait(PORT_STATUS, lambda xid, body: not reasons or body[0] in reasons)
        return body[0], parse_port(body[8:])
