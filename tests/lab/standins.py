"""Stand-ins for a node's daemon, speaking its side of the lab's sockets as the daemon does.

The wire formats are written out here on purpose, apart from the lab's own
code, so that a test compares the lab against the protocol and not against itself.
"""

import contextlib
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

NLMSG = struct.Struct("=IHHII")      # nlmsg_len, type, flags, seq, pid
BROADCAST = "ff:ff:ff:ff:ff:ff"


def mac_bytes(mac):
    return bytes.fromhex(mac.replace(":", ""))


def ping_message():
    """The daemon's netlink ping: no payload, nlmsg_len NLMSG_SPACE(8) = 24, its port id 3333."""
    return NLMSG.pack(24, 0, 0, 0, 3333) + b"steerin" + bytes([0])


def event_message(code, payload):
    """An event as the driver sends it: nlmsg_len 24 + the payload's exact size, port id 0."""
    return NLMSG.pack(24 + len(payload), 0, 0, 0, 0) + b"steerin" + bytes([code]) + payload


EVENT_NAMES = {2: "join", 3: "leave", 4: "band", 5: "status", 6: "beacon_rep", 7: "bss_trans", 8: "reject",
               9: "radio"}
STA_EVENT = struct.Struct("=6sBxIIbBBBB3x")      # maps_msg_sta_t
REJECT = struct.Struct("=6sBBb")                 # maps_msg_reject_t
BSS_TRANS = struct.Struct("=6sBB")               # maps_msg_bss_trans_rsp_t
BEACON_HEAD, BEACON_ENTRY = struct.Struct("=6sBB"), struct.Struct("=BBbb6s")   # maps_msg_beacon_rep_t
RADIO = struct.Struct("=BBBBI")                  # maps_msg_radio_t


def decode_event(data):
    """(name, fields) of an event from the driver, checking its framing and its payload's exact size."""
    length, _, _, _, pid = NLMSG.unpack_from(data)
    assert (length, pid, data[16:23]) == (len(data), 0, b"steerin"), data
    code, payload = data[23], data[24:]
    name = EVENT_NAMES.get(code, code)
    if code in (2, 3, 4, 5):
        assert len(payload) == 24
        mac, bss, bands, caps, rssi, nss, load, sta_num, active = STA_EVENT.unpack(payload)
        return name, {"mac": mac.hex(":"), "bss": bss, "rssi": rssi, "sta_num": sta_num, "caps": caps}
    if code == 8:
        mac, bss, count, rssi = REJECT.unpack(payload)
        return name, {"mac": mac.hex(":"), "bss": bss, "count": count, "rssi": rssi}
    if code == 7:
        mac, bss, status = BSS_TRANS.unpack(payload)
        return name, {"mac": mac.hex(":"), "bss": bss, "status": status}
    if code == 6:
        assert len(payload) == 328
        sta, bss, count = BEACON_HEAD.unpack_from(payload)
        entries = [BEACON_ENTRY.unpack_from(payload, 8 + 10 * i) for i in range(count)]
        return name, {"mac": sta.hex(":"), "bss": bss,
                      "reports": [(bssid.hex(":"), ch, rcpi, op) for op, ch, rcpi, _, bssid in entries]}
    if code == 9:
        index, channel, load, sta_num, band = RADIO.unpack(payload)
        return name, {"radio": index, "channel": channel, "load": load, "sta_num": sta_num, "band": band}
    return name, {"hex": payload.hex()}


class EventSink:
    """A daemon's netlink end that collects every event the driver sends, as it comes."""

    def __init__(self, node_dir):
        self.end = NetlinkEnd(node_dir)
        self.events = []
        self.thread = threading.Thread(target=self._collect, daemon=True)
        self.thread.start()

    def _collect(self):
        while True:
            try:
                data = self.end.sock.recv(65536)
            except socket.timeout:
                continue
            except OSError:
                return
            self.events.append(decode_event(data))

    def of(self, mac, *names):
        """The events about one station (of the given kinds): [(name, fields)]."""
        return [(n, f) for n, f in list(self.events) if f.get("mac") == mac and (not names or n in names)]

    def radio(self, index):
        """The figures of each report of one radio: [(channel, load, sta_num, band)]."""
        return [(f["channel"], f["load"], f["sta_num"], f["band"]) for n, f in list(self.events)
                if n == "radio" and f["radio"] == index]

    def close(self):
        self.end.sock.shutdown(socket.SHUT_RDWR)
        self.end.close()
        self.thread.join(2)


class NetlinkEnd:
    """The daemon's end of the driver channel: a datagram socket bound at run/maps/nl-3333."""

    def __init__(self, node_dir):
        self.maps = node_dir / "run" / "maps"
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(str(self.maps / "nl-3333"))
        self.sock.settimeout(2.0)

    def send(self, data):
        self.sock.sendto(data, str(self.maps / "nl-0"))

    def recv(self, timeout=10.0):
        self.sock.settimeout(timeout)
        return self.sock.recv(65536)

    def close(self):
        self.sock.close()


def lab_cli(lab_dir, *args, timeout=60, **kw):
    """The lab's command line on a lab directory: the finished process, its output as text."""
    from lab.sandbox import REPO
    return subprocess.run([sys.executable, "-m", "lab", "--dir", str(lab_dir), *args], cwd=REPO,
                          capture_output=True, text=True, timeout=timeout, **kw)


def uwb(node_dir, line):
    """One Wi-Fi library call as the lab's uwb library makes it: connect, one line, one answer line."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.settimeout(10.0)
        s.connect(str(node_dir / "run" / "maps" / "uwb"))
        s.sendall(line.encode() + b"\n")
        answer = b""
        while chunk := s.recv(4096):
            answer += chunk
    assert answer.endswith(b"\n") and answer.count(b"\n") == 1, answer
    return answer[:-1].decode()


def message(sa, da, msg_type, text):
    """A mesh message as a daemon builds it: sa, da, type padded to 32 bytes, JSON text and its NUL."""
    return mac_bytes(sa) + mac_bytes(da) + msg_type.encode().ljust(32, b"\0") + text.encode() + b"\0"


def weft_send(node_dir, data, header=b"\x03\x01\x00"):
    """What a daemon's mesh transport does: connect to /var/weft_socket, write header and message, close."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.connect(str(node_dir / "weft_socket"))
        s.sendall(header + data)


class SteerSocket:
    """A daemon's /var/steer_socket: collects what each connection brings, until it closes."""

    def __init__(self, node_dir):
        self.messages = []
        self.times = []
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.bind(str(node_dir / "steer_socket"))
        self.sock.listen(16)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            with conn:
                data = b""
                while chunk := conn.recv(65536):
                    data += chunk
            self.times.append(time.monotonic())
            self.messages.append(data)

    def wait(self, n, timeout=10.0):
        """Waits until `n` messages came and returns all of them."""
        deadline = time.monotonic() + timeout
        while len(self.messages) < n and time.monotonic() < deadline:
            time.sleep(0.01)
        return self.messages

    def close(self):
        self.sock.shutdown(socket.SHUT_RDWR)
        self.sock.close()
        self.thread.join(2)


# -- what a daemon tells its driver over the uwb socket (MAPS commands through steer_maps) --------------

BLOCK_DEFAULT, BLOCK_BSS, BLOCK_DISABLE = 0, 1, 2


def steer_maps(lab, node, ifname, code, payload=b""):
    buf = b"steerin" + bytes([code]) + payload
    assert uwb(lab.node_dir(node), f"steer_maps {ifname} {buf.hex()}") == f"0 {buf.hex()}"


def daemon_start(lab, node):
    """What a daemon tells its driver as it starts: forget all, BSS 1 (2.4 GHz) and 2 (5 GHz), their radios."""
    steer_maps(lab, node, "wlan0", 9)
    for ifname, index in (("wlan0", 1), ("wlan1", 2)):
        steer_maps(lab, node, ifname, 1, struct.pack("=B3xI", index, 0b110))
        steer_maps(lab, node, ifname, 4, bytes([index]))


def set_sta(lab, node, mac, mode, bits=0):
    steer_maps(lab, node, "wlan0", 2, mac_bytes(mac) + bytes(2) + struct.pack("=II", mode, bits))


def set_radio(lab, node, index, mode, upper=0, lower=0):
    steer_maps(lab, node, "wlan0", 5, struct.pack("=B3xIbbbb", index, mode, upper, lower, 0, -100))


def set_config(lab, node, reject_max_cnt):
    conf = struct.pack("=BBBxIBBBxIBB2xIBB2x", 1, 1, 1, 60, 20, reject_max_cnt, 15, 12000, 1, 0, 3, 6, 0)
    steer_maps(lab, node, "wlan0", 3, conf)


@contextlib.contextmanager
def stand_in_lab(topology, daemons):
    """A lab without namespaces (no daemon can run) whose nodes named in `daemons` have a stand-in
    daemon: an EventSink on its netlink end, and the BSSes and radios set up as a daemon does.
    Yields (lab, {node: EventSink})."""
    from lab.controller import Lab
    lab_dir = tempfile.mkdtemp(prefix="bh-", dir="/tmp")
    lab = Lab()
    sinks = {}
    try:
        lab.up(topology, lab_dir, namespaces=False)
        for name in daemons:
            sinks[name] = EventSink(lab.node_dir(name))
            daemon_start(lab, name)
        yield lab, sinks
    finally:
        for sink in sinks.values():
            sink.close()
        lab.down()
        shutil.rmtree(lab_dir, ignore_errors=True)
