"""Faults over a running three-node mesh: garbage on every node's driver channel (as the driver and
from foreign sockets) and mesh socket (straight and through the relay), connections left idle or
cut half-way, the relay killed and restarted, a daemon restarted twenty times, a restart request
during a partition, and the partition healed. After each, every daemon runs, answers the operator,
holds the descriptors it held at the start and, across rounds of the same input, keeps its private
memory within a stated slack. One lab serves the module; the tests run in the file's order."""

import itertools
import json
import os
import random
import re
import shutil
import signal
import socket
import tempfile
import time
from dataclasses import dataclass, field

import pytest

from lab import daemonlog
from lab.controller import Lab
from lab.relay import ENVELOPE_SIZE, MESSAGE_TYPES, TRANSPORT_HEADER
from lab.sandbox import REPO
from lab.topology import BROADCAST
from lab.wire import (BEACON_REP_SIZE, DAEMON_PORT, EV, HEADER_SIZE, MAGIC, NLMSG_HEADER, mac_bytes,
                      radio_payload, sta_payload)
from standins import weft_send

TOPOLOGY = REPO / "lab" / "topologies" / "three-node.json"
NODES = ("A", "B", "C")
ROUNDS = 6                  # the first two warm the heap up; the others must not grow it
WARMUP = 2
# How much Private_Dirty may grow after the warm-up: the driver's garbage leaves it as it was, the
# mesh's steering sessions move it by a page or two. A leak of 14 bytes a mesh message (some 1100 a
# round) or 20 bytes a driver datagram (some 200) goes beyond.
DRIVER_SLACK_KB = 16
MESH_SLACK_KB = 64
FAKE_NODE = "02:00:00:00:0f:00"     # the sender of the mesh garbage: no node of the lab
# Blocks from 4 KiB up get mappings of their own, returned when freed (by default the threshold
# moves up with the largest block freed and big messages raise the heap at random).
DAEMON_ENV = {"GLIBC_TUNABLES": "glibc.malloc.mmap_threshold=4096"}

# -- what the daemons answer with ---------------------------------------------------------------

REJECTED = re.compile(r"^(?:\d+ \S+ \S+ )?(?:error|warning) (?P<func>\w+):\d+, (?P<text>.*)$", re.M)
# Why the daemon drops a driver datagram (the text of its error or warning line).
SHORT_READ = r"read error! ret="
LIES_LONGER = r"wrong message length"
LIES_SHORTER = r"message is too short"
BAD_MAGIC = r"wrong magic\."
UNKNOWN_EVENT = r"event \d+ is not registered"
WRONG_SIZE = (r"wrong message size|invalid msg size|invalid message length"
              r"|'size' is not satisfied|'s_ping_timer' is not satisfied")
FOREIGN = re.compile(r"dropped a datagram that the driver did not send \((\d+) so far\)")
# Why it drops a mesh message.
MESH_SHORT = r"invalid message size"
MESH_UNKNOWN = r"message '(?!MARK-).*' is not registered\."
MESH_JSON = r"json parse error"


# -- the driver's garbage -------------------------------------------------------------------------

def raw(code, payload=b"", length=None, magic=MAGIC, pid=0):
    """A driver datagram with any `nlmsg_len` and magic."""
    length = HEADER_SIZE + len(payload) if length is None else length
    return NLMSG_HEADER.pack(length & 0xFFFFFFFF, 0, 0, 0, pid) + magic + bytes([code]) + payload


# The exact payload size of each event the daemon takes; MAPS_EV_VAP_UPDATE (10), whatever it
# carries, ends the daemon by design and is left out.
EVENT_SIZES = {EV["PONG"]: None, EV["STA_JOIN"]: 24, EV["STA_LEAVE"]: 24, EV["STA_BAND"]: 24,
               EV["STA_STATUS"]: 24, EV["BEACON_REP"]: BEACON_REP_SIZE, EV["BSS_TRANS"]: 8,
               EV["REJECT"]: 9, EV["RADIO_STATUS"]: 8}
UNREGISTERED = (EV["PING"], 11, 128, 255)


def driver_garbage():
    """[(what, bytes, why it is dropped or None when that depends on the bytes)]: the same list
    every time."""
    rnd = random.Random(7)
    join = sta_payload("02:5a:00:00:00:01", 1)
    out = [
        ("an empty datagram", b"", SHORT_READ),
        ("15 bytes", bytes(rnd.randrange(256) for _ in range(15)), SHORT_READ),
        ("a netlink header alone", NLMSG_HEADER.pack(16, 0, 0, 0, 0), LIES_SHORTER),
        ("nlmsg_len 8", raw(EV["STA_JOIN"], join, length=8), LIES_SHORTER),
        ("nlmsg_len 0", raw(EV["STA_JOIN"], join, length=0), LIES_SHORTER),
        ("nlmsg_len one past the datagram", raw(EV["STA_JOIN"], join, length=HEADER_SIZE + 25), LIES_LONGER),
        ("nlmsg_len 2^32-1", raw(EV["STA_JOIN"], join, length=-1), LIES_LONGER),
        ("nlmsg_len cutting the payload", raw(EV["STA_JOIN"], join, length=HEADER_SIZE + 10), WRONG_SIZE),
        ("nlmsg_len past a longer payload", raw(EV["RADIO_STATUS"], radio_payload(1, 6) * 3,
                                               length=HEADER_SIZE + 12), WRONG_SIZE),
        ("a wrong magic", raw(EV["STA_JOIN"], join, magic=b"steerim"), BAD_MAGIC),
        ("a magic of zeros", raw(EV["STA_JOIN"], join, magic=bytes(7)), BAD_MAGIC),
        ("1025 bytes, nlmsg_len saying so", raw(EV["STA_JOIN"], bytes(1025 - HEADER_SIZE)), LIES_LONGER),
        ("64 KiB, nlmsg_len saying so", raw(EV["RADIO_STATUS"], bytes(65536)), LIES_LONGER),
        ("4 KiB, nlmsg_len within the first KiB", raw(EV["STA_JOIN"], join * 170, length=HEADER_SIZE + 48),
         WRONG_SIZE),
    ]
    for code, size in EVENT_SIZES.items():
        sizes = [0, 1, 12, 1000 - HEADER_SIZE] if size is None else \
            sorted({0, 1, size - 1, size + 1, 1000 - HEADER_SIZE} - {size})
        for n in sizes:
            out.append((f"event {code} with {n} bytes", raw(code, bytes(rnd.randrange(256) for _ in range(n))),
                        WRONG_SIZE))
    for code in UNREGISTERED:
        out.append((f"event {code}", raw(code, bytes(8)), UNKNOWN_EVENT))
    for n in (16, 23, 24, 40, 300, 1024):
        out.append((f"{n} random bytes", bytes(rnd.randrange(256) for _ in range(n)), None))
    return out


DRIVER_GARBAGE = driver_garbage()


# -- the mesh's garbage ---------------------------------------------------------------------------

def envelope(msg_type, text, sa=FAKE_NODE, da=BROADCAST, nul=True):
    name = msg_type if isinstance(msg_type, bytes) else msg_type.encode()
    return (mac_bytes(sa) + mac_bytes(da) + name.ljust(32, b"\0")[:32] + text
            + (b"\0" if nul else b""))


def body(msg_type, value):
    return envelope(msg_type, json.dumps(value).encode())


# A valid body of each message type; each of its fields (and of its lists' first items) is sent
# again with a value of every wrong kind.
VALID = {
    "SNEI_HEARTBEAT": {"is_mpp": 0, "link_rate2mpp": 500, "hop": 1,
                       "ess": [{"essid": "herd", "index": 0}],
                       "radio": [{"work_band": 4, "channel": 36, "load": 10, "sta_num": 1}],
                       "bss": [{"bssid": "02:00:00:00:0f:02", "sta_num": 1, "sta_max": 64, "radio": 1, "ess": 0,
                                "ifname": "wlan1"}]},
    "SNEI_EXIT": {},
    "SSTA_ASSOCIATE": {"sta": "02:5b:00:00:00:01", "associated": 1, "bss": 1},
    "SAP_INFO": {"mac": "02:00:00:00:0a:00", "hopcont": 1},
    "SBTM_START": {"sta": "02:5b:00:00:00:02", "target_bss": "02:00:00:00:0f:02", "target_node": FAKE_NODE},
    "SBTM_READY": {"sta": "02:5b:00:00:00:02", "ok": 1},
    "SBTM_FINISH": {"sta": "02:5b:00:00:00:02", "success": 1},
    "SBOFF_START": {"sta": "02:5b:00:00:00:03", "target_bss": "02:00:00:00:0f:02", "target_node": FAKE_NODE,
                    "low_rssi": 0, "ess": 0},
    "SBOFF_READY": {"sta": "02:5b:00:00:00:03", "ok": 1},
    "SBOFF_FINISH": {"sta": "02:5b:00:00:00:03", "success": 1},
    "SBOFF_PREASSOC": {"sta": "02:5b:00:00:00:04", "low_rssi": 1},
}
assert sorted(VALID) == sorted(MESSAGE_TYPES)
WRONG_VALUES = (None, True, "x", "02:zz:00:00:00:00", 1.5, -1, 0, 2147483647, -2147483648, 1e300, [], {}, [[]])


def wrong_bodies(value):
    """Copies of `value` with one field (at any depth, a list's first item standing for all)
    replaced by each wrong value."""
    if isinstance(value, dict):
        for key, inner in value.items():
            for replaced in [w for w in WRONG_VALUES if w != inner] + list(wrong_bodies(inner)):
                yield {**value, key: replaced}
    elif isinstance(value, list) and value:
        for replaced in wrong_bodies(value[0]):
            yield [replaced] + value[1:]
        yield [value[0]] * 300


def mesh_garbage():
    """[(what, bytes, why it is dropped or None when it goes without a word)]: the same list every
    time."""
    rnd = random.Random(11)
    beat = json.dumps(VALID["SNEI_HEARTBEAT"]).encode()
    out = [
        ("one byte", b"\0", MESH_SHORT),
        ("the envelope alone", envelope("SNEI_EXIT", b"", nul=False), MESH_SHORT),
        ("300 random bytes", bytes(rnd.randrange(256) for _ in range(300)), None),
        ("to another node", envelope("SNEI_EXIT", b"{}", da="02:00:00:00:0e:00"), None),
        ("an unknown type", envelope("SNEI_HEARTBEEP", beat), MESH_UNKNOWN),
        ("a type filling its 32 bytes", envelope(b"S" * 32, beat), MESH_UNKNOWN),
        ("truncated JSON", envelope("SNEI_HEARTBEAT", beat[:40], nul=False), MESH_JSON),
        ("JSON cut by a NUL", envelope("SNEI_HEARTBEAT", beat[:40] + b"\0" + beat[40:]), MESH_JSON),
        ("JSON nested 100000 deep", envelope("SSTA_ASSOCIATE", b"[" * 100000), MESH_JSON),
        ("no text at all but its NUL", envelope("SSTA_ASSOCIATE", b""), MESH_JSON),
        ("200 KiB of JSON", body("SNEI_HEARTBEAT", {**VALID["SNEI_HEARTBEAT"], "pad": "p" * 200000}), MESH_JSON),
    ]
    for msg_type, valid in VALID.items():
        for value in (None, 7, "text", [valid]):
            out.append((f"{msg_type}: {json.dumps(value)[:20]}", body(msg_type, value), None))
        for bad in wrong_bodies(valid):
            out.append((f"{msg_type}: {json.dumps(bad)[:60]}", body(msg_type, bad), None))
    return out


MESH_GARBAGE = mesh_garbage()


# -- the lab --------------------------------------------------------------------------------------

def fd_count(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def private_dirty_kb(pid):
    text = open(f"/proc/{pid}/smaps_rollup").read()
    return int(re.search(r"^Private_Dirty:\s+(\d+) kB", text, re.M)[1])


@dataclass
class Mesh:
    lab: Lab
    fds: dict = field(default_factory=dict)          # node -> descriptors of a settled daemon
    foreign: dict = field(default_factory=dict)      # daemon pid -> foreign datagrams sent to it

    def pid(self, name):
        d = self.lab.daemon(name)
        assert d is not None and d.returncode is None, f"{name}'s daemon is not running: {d and d.state()}"
        return d.pid

    def id(self, name):
        return self.lab.node(name).id

    def log(self, name, since=0):
        return self.lab.log(name)[since:]

    def rejections(self, name, since=0, foreign=True):
        """The daemon's error and warning lines past character `since`: [(function, text)]."""
        return [(m["func"], m["text"]) for m in REJECTED.finditer(self.log(name, since))
                if foreign or m["func"] != "sdrv_drop_foreign"]

    def table(self, name):
        """The lab's nodes in `name`'s neighbour table (the mesh garbage's sender left aside)."""
        ids = {self.id(n) for n in NODES}
        return (daemonlog.neighbour_table(self.lab.log(name)) or set()) & ids

    def healthy(self, names=NODES):
        """Every daemon runs, answers the operator's command and is back to its descriptors;
        returns each one's Private_Dirty (kB)."""
        memory = {}
        for name in names:
            pid = self.pid(name)
            rc, out = self.lab.cli(name, "ap")
            assert rc == 0 and f"NODE {self.id(name)}" in out, (name, rc, out)
            try:
                self.lab.wait_for(lambda: fd_count(pid) == self.fds[name], 30)
            except TimeoutError:
                raise AssertionError(f"{name}'s daemon holds {fd_count(pid)} descriptors, "
                                     f"{self.fds[name]} before: {sorted(os.listdir(f'/proc/{pid}/fd'))}") from None
            memory[name] = private_dirty_kb(pid)
        return memory

    def wait_table(self, name, expected, timeout):
        self.lab.wait_for(lambda: self.table(name) == expected, timeout)


@pytest.fixture(scope="module")
def mesh(bandherd):
    lab_dir = tempfile.mkdtemp(prefix="bh-", dir="/tmp")
    lab = Lab(bandherd)
    try:
        lab.up(TOPOLOGY, lab_dir)
        for name in NODES:
            lab.driver(name).set_radio_interval(0)     # the channel carries only what a test sends
            lab.start_node(name, DAEMON_ENV)
        m = Mesh(lab)
        for name in NODES:
            m.wait_table(name, {m.id(o) for o in NODES if o != name}, 15)
        for name in NODES:
            lab.cli(name, "ap")
            # What it holds for good: the fewest of a few looks (a mesh message, a Wi-Fi call come and go).
            looks = []
            for _ in range(10):
                looks.append(fd_count(m.pid(name)))
                time.sleep(0.02)
            m.fds[name] = min(looks)
        yield m
    finally:
        lab.down()
        shutil.rmtree(lab_dir, ignore_errors=True)


def patiently(call):
    """call(), again while the daemon's queue or backlog is full (BlockingIOError), up to 10 s."""
    deadline = time.monotonic() + 10
    while True:
        try:
            return call()
        except BlockingIOError:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.002)


def foreign_sockets(lab, name):
    """Two senders that are not the driver: one bound beside the driver's socket, one unbound."""
    bound = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    path = lab.node_dir(name) / "run" / "maps" / "nl-4444"
    path.unlink(missing_ok=True)
    bound.bind(str(path))
    unbound = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    for s in (bound, unbound):
        s.settimeout(10)        # a full queue holds the sender back, as it would any process
    return [bound, unbound]


def counts(rejections, reasons):
    return {r: sum(1 for _, text in rejections if re.match(r, text)) for r in reasons}


def held_within(memory, slack, what):
    """Each round's Private_Dirty (kB) per node grew by at most `slack` after the warm-up."""
    print(f"{what}, Private_Dirty kB by round:", memory)
    for name in NODES:
        assert memory[-1][name] - memory[WARMUP - 1][name] <= slack, (name, memory)


def largest_power_of_two(n):
    return 1 << (n.bit_length() - 1) if n else 0


# -- the tests ------------------------------------------------------------------------------------

def test_driver_garbage_as_the_driver_and_from_foreign_sockets_is_dropped_with_a_word(mesh):
    lab = mesh.lab
    reasons = sorted({why for _, _, why in DRIVER_GARBAGE if why})
    expected = {r: [why for _, _, why in DRIVER_GARBAGE].count(r) for r in reasons}
    memory = []
    for _ in range(ROUNDS):
        for name in NODES:
            pid, since = mesh.pid(name), len(lab.log(name))
            senders = foreign_sockets(lab, name)
            target = str(lab.node_dir(name) / "run" / "maps" / f"nl-{DAEMON_PORT}")
            try:
                for _, data, _ in DRIVER_GARBAGE:
                    for s in senders:
                        s.sendto(data, target)
            finally:
                for s in senders:
                    s.close()
            mesh.foreign[pid] = mesh.foreign.get(pid, 0) + len(DRIVER_GARBAGE) * len(senders)
            # The same bytes from the driver are each dropped for what they are.
            for _, data, _ in DRIVER_GARBAGE:
                patiently(lambda: lab.driver(name).send_raw(data))
            lab.wait_for(lambda: len(mesh.rejections(name, since, False)) >= len(DRIVER_GARBAGE), 10)
            # One line each (the foreign ones are not among them), and the reasons tables give.
            found = mesh.rejections(name, since, False)
            assert len(found) == len(DRIVER_GARBAGE), found
            got = counts(found, reasons)
            assert all(got[r] >= n for r, n in expected.items()), (got, expected)
            # The foreign ones were counted, none looked at: the driver's were all there is above.
            told = [int(n) for n in FOREIGN.findall(lab.log(name))]
            assert told and max(told) == largest_power_of_two(mesh.foreign[pid]), (told, mesh.foreign[pid])
        memory.append(mesh.healthy())
    held_within(memory, DRIVER_SLACK_KB, "driver garbage")


IDLE = 100          # connections opened and left quiet, per node
CUT = 100           # connections that bring half a message and close, per node
OPEN_LIMIT = 64     # the daemon keeps at most this many accepted connections open


def steer_send(lab, name, data, close=True):
    """One connection to a node's /var/steer_socket carrying `data`, as the mesh daemon delivers."""
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(10)
    patiently(lambda: s.connect(str(lab.node_dir(name) / "steer_socket")))
    s.sendall(data)
    if close:
        s.close()
    return s


MARKS = itertools.count()


def deliver(mesh, name, messages, batch=OPEN_LIMIT // 2):
    """Each message on a connection of its own to a node's /var/steer_socket, in batches the
    daemon has read before the next goes: a burst beyond its limit of open connections would have
    it close the oldest unread ones. A batch ends with a message of an unknown type: once the
    daemon has said so, it has accepted every connection before (they are accepted in order), and
    once it holds no more descriptors than before, it has read and closed them."""
    pid, path = mesh.pid(name), mesh.lab.node_dir(name) / "bandherd.log"
    for start in range(0, len(messages), batch):
        since, mark = path.stat().st_size, f"MARK-{next(MARKS)}"
        for data in messages[start:start + batch] + [envelope(mark, b"{}")]:
            steer_send(mesh.lab, name, data)
        said = f"message '{mark}' is not registered".encode()

        def read():
            with open(path, "rb") as f:
                f.seek(since)
                return said in f.read()
        mesh.lab.wait_for(lambda: read() and fd_count(pid) == mesh.fds[name], 10, step=0.002)


# Through the relay: what it drops itself, and what it hands to every node.
RELAY_DROPS = [
    (b"\x01\x01\x00" + envelope("SNEI_EXIT", b"{}"), "transport header 01 01 00"),
    (b"\x03\x02\x00" + envelope("SNEI_EXIT", b"{}"), "transport header 03 02 00"),
    (b"\x03\x01\x07" + envelope("SNEI_EXIT", b"{}"), "transport header 03 01 07"),
    (envelope("SNEI_EXIT", b"{}"), "transport header 02 00 00"),
    (b"\x03", "transport header"),
    (TRANSPORT_HEADER + b"\x02" * 43, "shorter than the 44-byte envelope"),
    (TRANSPORT_HEADER + envelope("SNEI_EXIT", b"{}", da="02:00:00:00:0e:00"), "no node has the id"),
]
RELAYED = [(what, data, why) for what, data, why in MESH_GARBAGE if why and len(data) > ENVELOPE_SIZE]


def test_mesh_garbage_straight_and_through_the_relay_and_connections_left_idle_or_cut(mesh):
    lab = mesh.lab
    reasons = [MESH_SHORT, MESH_UNKNOWN, MESH_JSON]
    straight = {r: [why for _, _, why in MESH_GARBAGE].count(r) for r in reasons}
    relayed = {r: [why for _, _, why in RELAYED].count(r) for r in reasons}
    half = envelope("SNEI_HEARTBEAT", json.dumps(VALID["SNEI_HEARTBEAT"]).encode())[:30]
    memory = []
    for n in range(ROUNDS):
        since = {name: len(lab.log(name)) for name in NODES}
        for i, name in enumerate(NODES):
            # The wrong bodies once more as if a neighbour sent them, which reach the records the
            # node keeps of it; then that neighbour's last heartbeat, as it sent it, puts its
            # record right again (and back in the table after a goodbye among them).
            other = NODES[(i + 1) % len(NODES)]
            spoofed = [mac_bytes(mesh.id(other)) + data[6:] for _, data, why in MESH_GARBAGE
                       if why is None and data.startswith(mac_bytes(FAKE_NODE))]
            last = lab.relay.messages(type="SNEI_HEARTBEAT", sa=mesh.id(other))[-1]
            replay = envelope("SNEI_HEARTBEAT", json.dumps(last["body"]).encode(), sa=mesh.id(other))
            deliver(mesh, name, [data for _, data, _ in MESH_GARBAGE] + spoofed)
            deliver(mesh, name, [replay])       # a batch of its own: within one the order may change
            assert mesh.id(other) in mesh.table(name)
        sender, seen = NODES[n % len(NODES)], len(lab.relay.messages())
        for data in [d for d, _ in RELAY_DROPS] + [TRANSPORT_HEADER + d for _, d, _ in RELAYED]:
            weft_send(lab.node_dir(sender), data, header=b"")
        def ours():
            recs = lab.relay.messages()[seen:]
            # (The daemons' answers to the garbage's sender are dropped too: no node has its id.)
            return ([r["dropped"] for r in recs if r.get("dropped") and r.get("da") != FAKE_NODE],
                    [r for r in recs if r.get("sa") == FAKE_NODE and not r.get("dropped")])
        lab.wait_for(lambda: [len(x) for x in ours()] == [len(RELAY_DROPS), len(RELAYED)], 10)
        dropped, passed = ours()
        for _, why in RELAY_DROPS:
            dropped.remove(next(d for d in dropped if why in d))
        assert all(sorted(r["delivered"]) == list(NODES) for r in passed), passed
        for name in NODES:
            want = {r: straight[r] + relayed[r] for r in reasons}
            lab.wait_for(lambda: all(v >= want[r] for r, v in counts(mesh.rejections(name, since[name]),
                                                                       reasons).items()), 20)
            assert counts(mesh.rejections(name, since[name]), reasons) == want, name
        # Connections cut half-way through a message, and quiet ones beyond the daemon's limit: it
        # keeps some of the quiet ones, never more than its limit, and serves on.
        held = []
        try:
            for name in NODES:
                for _ in range(CUT):
                    steer_send(lab, name, half)
                held += [steer_send(lab, name, b"", close=False) for _ in range(IDLE)]
            for name in NODES:
                pid = mesh.pid(name)
                lab.wait_for(lambda: mesh.fds[name] < fd_count(pid) <= mesh.fds[name] + OPEN_LIMIT, 10)
                rc, _ = lab.cli(name, "ap")
                assert rc == 0, name
        finally:
            for s in held:
                s.close()
        memory.append(mesh.healthy())
    held_within(memory, MESH_SLACK_KB, "mesh garbage")


def announced_to_the_others(mesh, name, sta):
    """True once `name`'s announcement of `sta` reached the other nodes and both logged it."""
    others = [o for o in NODES if o != name]
    recs = [m for m in mesh.lab.relay.messages(type="SSTA_ASSOCIATE", sender=name)
            if (m.get("body") or {}).get("sta") == sta]
    return recs and all(o in recs[-1]["delivered"] for o in others) and all(
        f"{sta} associate node {mesh.id(name)}" in mesh.lab.log(o) for o in others)


def test_the_relay_killed_and_started_again(mesh):
    lab = mesh.lab
    since = {name: len(lab.log(name)) for name in NODES}
    lab.loop.call(lab.relay.stop)
    # A killed mesh daemon leaves its socket files behind, with nobody listening.
    stale = []
    for name in NODES:
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.bind(str(lab.node_dir(name) / "weft_socket"))
        stale.append(s)
    for s in stale:
        s.close()
    try:
        # Each daemon has something to tell the mesh meanwhile, and cannot.
        for i, name in enumerate(NODES):
            lab.driver(name).sta_event("join", f"02:5c:00:00:00:{i:02x}", 1, rssi=-60)
        for name in NODES:
            lab.wait_for(lambda: "connect socket failed" in mesh.log(name, since[name]), 10)
        mesh.healthy()
    finally:
        lab.loop.call(lab.relay.start)
    # Back, the relay carries their news again.
    for i, name in enumerate(NODES):
        sta = f"02:5c:00:00:01:{i:02x}"
        lab.driver(name).sta_event("join", sta, 1, rssi=-60)
        lab.wait_for(lambda: announced_to_the_others(mesh, name, sta), 10)
    mesh.healthy()


RESTARTS = 20


def test_a_daemon_stopped_and_started_twenty_times(mesh):
    lab, b = mesh.lab, mesh.id("B")
    before = mesh.healthy()
    runs = daemonlog.ready_count(lab.log("B"))
    for i in range(RESTARTS):
        assert lab.stop_daemon("B", signal.SIGTERM) == 0
        lab.start_node("B", DAEMON_ENV)
        lab.wait_for(lambda: daemonlog.ready_count(lab.log("B")) == runs + i + 1, 10)
        # Every run sets its driver up afresh and takes the same descriptors.
        pid = mesh.pid("B")
        lab.wait_for(lambda: fd_count(pid) == mesh.fds["B"], 10)
    assert "Assertion failed" not in lab.log("B") and "fatal" not in mesh.log("B")
    # The last run is seen again by the others (its first heartbeat, 5 s after its start).
    for name in ("A", "C"):
        lab.wait_for(lambda: b in mesh.table(name), 10)
    after = mesh.healthy()
    for name in ("A", "C"):      # twenty goodbyes of a neighbour cost them nothing
        assert after[name] - before[name] <= DRIVER_SLACK_KB, (before, after)


RESTART_DELAY = 15


def test_a_restart_request_then_a_partition_healed(mesh):
    """A asks for a restart (SIGRTMIN+1): it says goodbye at once and ends with status 1 after
    15 s. Started again while the relay keeps it apart from B and C, it sends its first heartbeat
    into the partition and nobody learns anybody; healed, all three see each other again by
    their heartbeats."""
    lab, a = mesh.lab, mesh.id("A")
    asked = time.monotonic()
    os.kill(mesh.pid("A"), signal.SIGRTMIN + 1)
    bye = lab.wait_for(lambda: [m for m in lab.relay.messages(type="SNEI_EXIT", sender="A")
                                if m["mono"] > asked], 5)[0]
    assert sorted(bye["delivered"]) == list(NODES), bye
    for name in ("B", "C"):
        lab.wait_for(lambda: a not in mesh.table(name), 5)
    lab.relay.partition(["A"], ["B", "C"])
    try:
        assert lab.wait_daemon("A", RESTART_DELAY + 10) == 1
        assert time.monotonic() - asked >= RESTART_DELAY
        started = time.monotonic()
        lab.start_node("A", DAEMON_ENV)
        first = lab.wait_for(lambda: [m for m in lab.relay.messages(type="SNEI_HEARTBEAT", sender="A")
                                      if m["mono"] > started], 15)[0]
        assert first["undelivered"] == {"B": "partitioned", "C": "partitioned"}, first
        assert mesh.table("A") == set()
        assert a not in mesh.table("B") and a not in mesh.table("C")
    finally:
        lab.relay.heal()
    # A's next heartbeat 20 s after its start; B's and C's within 20 s.
    for name in NODES:
        mesh.wait_table(name, {mesh.id(o) for o in NODES if o != name}, 25)
    mesh.healthy()
