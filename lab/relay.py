"""The mesh relay: the lab's stand-in for the mesh daemon weft.

It listens on every node's <lab>/nodes/<name>/weft_socket. Each connection
carries one message: the transport header 03 01 00, then the envelope (sa 6
bytes, da 6 bytes, type 32 bytes NUL-padded) and the JSON text with its NUL.
The relay checks and strips the header and delivers the rest over a new
connection to the steer_socket of the node whose id is da, or of every node
(the sender included) for ff:ff:ff:ff:ff:ff. Every message is recorded with
where it went, in memory and in <lab>/mesh.jsonl.

On command it drops messages (all, or of some types), delays them, or
partitions the nodes into groups that do not hear each other; and it sends
messages of its own as the mesh daemon does ("SAP_INFO").
"""

import copy
import json
import random
import logging
import math
import socket
from pathlib import Path

from lab.wire import bind_unix, check_socket_path, mac_bytes, mac_text
from lab.topology import BROADCAST, LAB_ADDRESS

log = logging.getLogger("lab.relay")

TRANSPORT_HEADER = bytes([3, 1, 0])
ENVELOPE_SIZE = 44
TYPE_SIZE = 32
MAX_MESSAGE = 1 << 20


def max_backlog():
    """The system's longest accept queue (what `listen` is capped at), as a mesh daemon uses it:
    a node's daemon opens a connection per message without retrying, so a burst of its messages
    must fit while the relay is busy."""
    try:
        return int(Path("/proc/sys/net/core/somaxconn").read_text())
    except (OSError, ValueError):
        return socket.SOMAXCONN


# The types of the daemons' mesh messages: what a fault may name.
MESSAGE_TYPES = ("SNEI_HEARTBEAT", "SNEI_EXIT", "SSTA_ASSOCIATE", "SAP_INFO",
                 "SBTM_START", "SBTM_READY", "SBTM_FINISH",
                 "SBOFF_START", "SBOFF_READY", "SBOFF_FINISH", "SBOFF_PREASSOC")


def check_types(types):
    """Raises ValueError when `types` (a list, or None for every type) names a type that is
    not one of the daemons' message types."""
    if types is None:
        return
    if not isinstance(types, (list, tuple)) or not all(isinstance(t, str) for t in types):
        raise ValueError("message types must be a list of names")
    unknown = [t for t in types if t not in MESSAGE_TYPES]
    if unknown:
        raise ValueError(f"unknown message type{'s' if len(unknown) > 1 else ''} {', '.join(unknown)} "
                         f"(types: {', '.join(MESSAGE_TYPES)})")


def check_seconds(seconds):
    """`seconds` as a float if it is a finite number from 0; ValueError otherwise."""
    try:
        value = float(seconds)
    except (TypeError, ValueError):
        value = None
    if isinstance(seconds, bool) or value is None or not math.isfinite(value) or value < 0:
        raise ValueError(f"a delay is a number of seconds from 0, not {seconds!r}")
    return value


def envelope(sa, da, msg_type, body):
    """A message as a node's daemon builds it: envelope, formatted JSON text and its NUL."""
    name = msg_type.encode()
    if len(name) >= TYPE_SIZE:
        raise ValueError(f"message type {msg_type!r} is longer than {TYPE_SIZE - 1} characters")
    text = body if isinstance(body, str) else json.dumps(body, indent="\t", separators=(",", ":\t"))
    return mac_bytes(sa) + mac_bytes(da) + name.ljust(TYPE_SIZE, b"\0") + text.encode() + b"\0"


def parse_envelope(data):
    """The fields of a message (without transport header), or None when it is shorter than the envelope."""
    if len(data) < ENVELOPE_SIZE:
        return None
    text = data[ENVELOPE_SIZE:]
    fields = {
        "sa": mac_text(data[0:6]),
        "da": mac_text(data[6:12]),
        "type": data[12:12 + TYPE_SIZE].split(b"\0", 1)[0].decode(errors="replace"),
        "size": len(data),
        "nul": text.endswith(b"\0"),
    }
    raw = text.split(b"\0", 1)[0].decode(errors="replace")
    try:
        fields["body"] = json.loads(raw)
    except (ValueError, RecursionError):     # not JSON, or nested deeper than Python reads
        fields["body"] = None
        fields["text"] = raw
    return fields


class Relay:
    def __init__(self, topology, lab_dir, loop, journal):
        self._random = random.Random(0)  # the same losses run after run
        self.topology = topology
        self.lab_dir = Path(lab_dir)
        self.loop = loop
        self.journal = journal
        self._faults = self._no_faults()
        self._servers = {}      # listening socket -> node
        self._conns = {}        # accepted connection -> (node, bytearray)
        for node in topology.nodes:
            check_socket_path(self.node_dir(node) / "steer_socket")

    def node_dir(self, node):
        return self.lab_dir / "nodes" / node.name

    # -- life ------------------------------------------------------------------

    def start(self):
        for node in self.topology.nodes:
            s = bind_unix(self.node_dir(node) / "weft_socket", socket.SOCK_STREAM)
            s.listen(max_backlog())
            self._servers[s] = node
            self.loop.add_reader(s, self._on_accept)

    def listen(self, backlog):
        """Listens on every node's socket with an accept queue of `backlog` from now on (the
        load benchmark shows what a short one loses)."""
        def go():
            for s in self._servers:
                s.listen(backlog)
        self.loop.call(go)

    def stop(self):
        for s, node in list(self._servers.items()):
            self.loop.remove_reader(s)
            s.close()
            try:
                (self.node_dir(node) / "weft_socket").unlink()
            except FileNotFoundError:
                pass
        for c in list(self._conns):
            self.loop.remove_reader(c)
            c.close()
        self._servers.clear()
        self._conns.clear()

    # -- faults ----------------------------------------------------------------

    @staticmethod
    def _no_faults():
        return {"drop_all": False, "drop_types": [], "delay": 0.0, "delay_types": [], "groups": None, "loss": 0.0}

    def faults(self):
        return self.loop.call(lambda: json.loads(json.dumps(self._faults)))

    def _set(self, change=None, **changes):
        def apply():
            if change:
                change(self._faults)
            self._faults.update(changes)
            log.info("relay faults: %s", self._faults)
        self.loop.call(apply)

    def drop(self, types=None):
        """Drops every message, or (with `types`) the messages of those types, until `clear`."""
        check_types(types)
        if types:
            self._set(lambda f: f.update(drop_types=sorted(set(f["drop_types"]) | set(types))))
        else:
            self._set(drop_all=True)

    def loss(self, fraction):
        """Loses each message to each node with probability `fraction` (0 ends it), as a lossy link does."""
        fraction = float(fraction)
        if not 0 <= fraction <= 1:
            raise ValueError("loss is a fraction from 0 to 1")
        self._set(loss=fraction)

    def delay(self, seconds, types=None):
        """Holds messages (of `types`, or all) for `seconds` before delivering them; 0 ends it."""
        seconds = check_seconds(seconds)
        check_types(types)
        self._set(delay=seconds, delay_types=sorted(types or []))

    def partition(self, *groups):
        """Splits the nodes into groups (lists of names); messages do not cross groups.
        Nodes named in no group form one more group."""
        names = {n.name for n in self.topology.nodes}
        seen = set()
        for g in groups:
            for name in g:
                self.topology.node(name)     # KeyError for an unknown node
                if name in seen:
                    raise ValueError(f"node {name} is in two groups")
                seen.add(name)
        rest = sorted(names - seen)
        parts = [sorted(self.topology.node(n).name for n in g) for g in groups if g]
        self._set(groups=parts + ([rest] if rest else []))

    def heal(self):
        self._set(groups=None)

    def clear(self):
        """Ends every fault: no drops, no delay, no partition."""
        self._set(**self._no_faults())

    def apply(self, action, types=None, seconds=None, groups=None, fraction=None):
        """One fault action by name: drop, delay, loss, partition, heal or clear."""
        if action == "drop":
            self.drop(types)
        elif action == "delay":
            self.delay(seconds, types)
        elif action == "loss":
            try:
                self.loss(fraction)
            except (TypeError, ValueError):
                raise ValueError(f"a loss is a fraction from 0 to 1, not {fraction!r}") from None
        elif action == "partition":
            self.partition(*groups)
        elif action == "heal":
            self.heal()
        elif action == "clear":
            self.clear()
        else:
            raise ValueError(f"unknown relay action {action!r}")

    def _reachable(self, src, dst):
        groups = self._faults["groups"]
        if groups is None or src is None:
            return True
        return any(src in g and dst in g for g in groups)

    # -- messages ----------------------------------------------------------------

    def messages(self, settled=False, **match):
        """Copies of the recorded messages (type="SNEI_HEARTBEAT", sender="A", ...); with `settled`
        only those whose fate is known: tried on every node they go to (a delayed one once its delay
        is over). A message is recorded as it comes, and its nodes as it reaches them."""
        return self.journal.records(settled, **match)

    def send(self, from_node, to, msg_type, body, sa=None):
        """Sends a message as the mesh daemon would: from node `from_node` (None: the lab's
        own address, or `sa`: a node the topology does not have) to a node (name or id) or to
        every node ("broadcast" or ff:ff:ff:ff:ff:ff). Returns the message's record (as it
        stands once delivered, dropped or delayed)."""
        sender = self.topology.node(from_node) if from_node else None
        sa = sender.id if sender else (sa or LAB_ADDRESS)
        if to in ("broadcast", "*", BROADCAST):
            da = BROADCAST
        else:
            da = self.topology.node(to).id
        data = envelope(sa, da, msg_type, body)
        return self.loop.call(lambda: copy.deepcopy(self._route(sender, data, "lab")))

    def _on_accept(self, server):
        try:
            conn, _ = server.accept()
        except (BlockingIOError, InterruptedError):
            return
        conn.setblocking(False)
        self._conns[conn] = (self._servers[server], bytearray())
        self.loop.add_reader(conn, self._on_data)
        self.loop.call_later(5.0, self._expire, conn)

    def _expire(self, conn):
        if conn in self._conns:
            node, buf = self._conns[conn]
            self._close(conn)
            self._bad(node, bytes(buf), "the sender kept the connection open for 5 s")

    def _close(self, conn):
        self._conns.pop(conn, None)
        self.loop.remove_reader(conn)
        conn.close()

    def _on_data(self, conn):
        node, buf = self._conns[conn]
        try:
            chunk = conn.recv(65536)
        except (BlockingIOError, InterruptedError):
            return
        except OSError:
            chunk = b""
        if chunk and len(buf) + len(chunk) <= MAX_MESSAGE:
            buf += chunk
            return
        self._close(conn)
        if chunk:
            self._bad(node, bytes(buf[:64]), f"longer than {MAX_MESSAGE} bytes")
        elif not buf.startswith(TRANSPORT_HEADER):
            self._bad(node, bytes(buf), f"transport header {bytes(buf[:3]).hex(' ') or 'missing'}, "
                                        f"not {TRANSPORT_HEADER.hex(' ')}")
        else:
            self._route(node, bytes(buf[len(TRANSPORT_HEADER):]), "daemon")

    def _bad(self, node, data, why):
        log.warning("relay: dropped what %s sent: %s", node.name, why)
        self.journal.add({"sender": node.name, "source": "daemon", "dropped": why, "hex": data.hex()})

    def _route(self, sender, data, source):
        rec = {"sender": sender.name if sender else "lab", "source": source}
        fields = parse_envelope(data)
        if fields is None:
            rec.update(dropped=f"{len(data)} bytes, shorter than the {ENVELOPE_SIZE}-byte envelope",
                       hex=data.hex())
            log.warning("relay: %s", rec["dropped"])
            return self.journal.add(rec)
        rec.update(fields)
        f = self._faults
        if f["drop_all"] or rec["type"] in f["drop_types"]:
            rec["dropped"] = "on command"
            return self.journal.add(rec)
        if rec["da"] == BROADCAST:
            targets = list(self.topology.nodes)
        else:
            targets = [n for n in self.topology.nodes if n.id == rec["da"]]
            if not targets:
                rec["dropped"] = f"no node has the id {rec['da']}"
                return self.journal.add(rec)
        rec["delivered"], rec["undelivered"] = [], {}
        src = sender.name if sender else None
        reachable = []
        for node in targets:
            if not self._reachable(src, node.name):
                rec["undelivered"][node.name] = "partitioned"
            elif f["loss"] and self._random.random() < f["loss"]:
                rec["undelivered"][node.name] = "lost"
            else:
                reachable.append(node)
        delay = f["delay"]
        if delay > 0 and (not f["delay_types"] or rec["type"] in f["delay_types"]):
            rec["delayed"] = delay
            self.journal.add(rec, final=False)
            self.loop.call_later(delay, self._deliver, rec, data, reachable)
            return rec
        self.journal.add(rec, final=False)
        self._deliver(rec, data, reachable)
        return rec

    def _deliver(self, rec, data, targets):
        """Delivers to each node in turn. The record names a node delivered to as soon as the node
        has taken the connection, before the message can have reached it: whoever sees a node act
        on the message finds it delivered there."""
        for node in targets:
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            s.settimeout(1.0)
            try:
                s.connect(str(self.node_dir(node) / "steer_socket"))
                self.journal.update(rec, delivered=rec["delivered"] + [node.name])
                s.sendall(data)
            except OSError as e:
                self.journal.update(rec, delivered=[n for n in rec["delivered"] if n != node.name],
                                    undelivered={**rec["undelivered"], node.name: e.strerror or type(e).__name__})
            finally:
                s.close()
        self.journal.finish(rec)
