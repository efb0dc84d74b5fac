"""The mesh relay between stand-in daemons: header check, unicast, broadcast, records and faults."""

import json
import socket
import threading
import time
from pathlib import Path

import pytest

from lab import topology
from lab.journal import Journal
from lab.relay import Relay
from lab.sandbox import wait_until

import standins
from standins import BROADCAST, SteerSocket, message

TOPOLOGY = Path(__file__).resolve().parents[2] / "lab" / "topologies" / "three-node.json"
IDS = {"A": "02:00:00:00:0a:00", "B": "02:00:00:00:0b:00", "C": "02:00:00:00:0c:00"}


@pytest.fixture
def mesh(lab_dir, loop):
    """The relay with stand-in daemons listening on A's and B's steer_socket (none on C)."""
    topo = topology.load(TOPOLOGY)
    for n in topo.nodes:
        (lab_dir / "nodes" / n.name).mkdir(parents=True)
    relay = Relay(topo, lab_dir, loop, Journal(lab_dir / "mesh.jsonl"))
    loop.call(relay.start)
    listeners = {name: SteerSocket(lab_dir / "nodes" / name) for name in ("A", "B")}
    yield relay, listeners
    for s in listeners.values():
        s.close()
    loop.call(relay.stop)
    relay.journal.close()


def weft_send(lab_dir, node, data, header=b"\x03\x01\x00"):
    standins.weft_send(lab_dir / "nodes" / node, data, header)


def settled(relay, n):
    """Waits until the relay has recorded `n` messages, each with its fate known, and returns them."""
    assert wait_until(lambda: len(relay.messages(settled=True)) >= n, 10.0), relay.messages()
    return relay.messages()


def test_unicast_reaches_the_node_whose_id_is_da_and_broadcast_every_node_that_listens(lab_dir, mesh):
    relay, steer = mesh
    data = message(IDS["A"], IDS["B"], "SBTM_START", '{\n\t"sta":\t"02:aa:00:00:00:01"\n}')
    weft_send(lab_dir, "A", data)
    rec = settled(relay, 1)[0]
    assert steer["B"].wait(1) == [data]
    assert rec["sender"] == "A" and rec["source"] == "daemon"
    assert (rec["sa"], rec["da"], rec["type"]) == (IDS["A"], IDS["B"], "SBTM_START")
    assert rec["body"] == {"sta": "02:aa:00:00:00:01"} and rec["nul"] is True and rec["size"] == len(data)
    assert rec["delivered"] == ["B"] and rec["undelivered"] == {}
    # A broadcast after it reaches the sender too; nobody listens on C: it is skipped, the reason kept.
    marker = message(IDS["B"], BROADCAST, "SNEI_HEARTBEAT", '{"is_mpp":0}')
    weft_send(lab_dir, "B", marker)
    assert steer["A"].wait(1) == [marker] and steer["B"].wait(2) == [data, marker]
    rec = settled(relay, 2)[1]
    assert rec["delivered"] == ["A", "B"] and list(rec["undelivered"]) == ["C"] and rec["undelivered"]["C"]
    on_file = [json.loads(line) for line in (lab_dir / "mesh.jsonl").read_text().splitlines()]
    assert on_file == relay.messages()


def test_what_is_not_a_steering_message_is_dropped(lab_dir, mesh, caplog):
    relay, steer = mesh
    good = message(IDS["A"], IDS["B"], "SAP_INFO", "{}")
    weft_send(lab_dir, "A", good, header=b"\x01\x01\x00")
    weft_send(lab_dir, "A", good, header=b"")
    weft_send(lab_dir, "A", good[:43])
    weft_send(lab_dir, "A", message(IDS["A"], "02:00:00:00:0d:00", "SAP_INFO", "{}"))
    recs = settled(relay, 4)
    assert [r["dropped"] for r in recs] == [
        "transport header 01 01 00, not 03 01 00",
        "transport header 02 00 00, not 03 01 00",
        "43 bytes, shorter than the 44-byte envelope",
        "no node has the id 02:00:00:00:0d:00"]
    assert "transport header 01 01 00" in caplog.text
    # A message that does get through, after them, whose text is no JSON and lacks its NUL: what
    # each node received is that alone, and its record keeps the text.
    marker = message(IDS["B"], BROADCAST, "SNEI_EXIT", "{oops")[:-1]
    weft_send(lab_dir, "B", marker)
    assert steer["A"].wait(1) == [marker] and steer["B"].wait(1) == [marker]
    rec = settled(relay, 5)[4]
    assert (rec["body"], rec["text"], rec["nul"]) == (None, "{oops", False)


def test_drops_by_type_and_of_everything_until_cleared(lab_dir, mesh):
    relay, steer = mesh
    beat = message(IDS["A"], IDS["B"], "SNEI_HEARTBEAT", "{}")
    start = message(IDS["A"], IDS["B"], "SBTM_START", "{}")
    relay.drop(["SNEI_HEARTBEAT"])
    weft_send(lab_dir, "A", beat)
    weft_send(lab_dir, "A", start)
    settled(relay, 2)
    relay.drop()
    weft_send(lab_dir, "A", start)
    settled(relay, 3)
    relay.clear()
    weft_send(lab_dir, "A", beat)
    recs = settled(relay, 4)
    assert [(r["type"], r.get("dropped")) for r in recs] == [
        ("SNEI_HEARTBEAT", "on command"), ("SBTM_START", None), ("SBTM_START", "on command"),
        ("SNEI_HEARTBEAT", None)]
    assert steer["B"].wait(2) == [start, beat]
    assert relay.faults() == {"drop_all": False, "drop_types": [], "delay": 0.0, "delay_types": [],
                              "groups": None, "loss": 0.0}


def test_a_partition_keeps_messages_inside_their_group(lab_dir, mesh):
    relay, steer = mesh
    relay.partition(["A"], ["B"])           # C, named nowhere, is a group of its own
    assert relay.faults()["groups"] == [["A"], ["B"], ["C"]]
    from_a = message(IDS["A"], BROADCAST, "SNEI_HEARTBEAT", '{"n":1}')
    weft_send(lab_dir, "A", from_a)
    rec = settled(relay, 1)[0]
    assert rec["delivered"] == ["A"] and rec["undelivered"] == {"B": "partitioned", "C": "partitioned"}
    relay.partition(["A", "B"])
    from_b = message(IDS["B"], IDS["A"], "SBTM_READY", "{}")
    weft_send(lab_dir, "B", from_b)
    assert settled(relay, 2)[1]["delivered"] == ["A"]
    relay.heal()
    weft_send(lab_dir, "A", from_a)
    assert settled(relay, 3)[2]["delivered"] == ["A", "B"]
    assert steer["A"].wait(3) == [from_a, from_b, from_a]
    assert steer["B"].wait(1) == [from_a]
    with pytest.raises(ValueError, match="in two groups"):
        relay.partition(["A"], ["A", "B"])
    with pytest.raises(KeyError):
        relay.partition(["Z"])


def test_delayed_messages_arrive_late_and_their_record_is_completed(lab_dir, mesh):
    relay, steer = mesh
    relay.delay(1.0, ["SBTM_FINISH"])
    finish = message(IDS["A"], IDS["B"], "SBTM_FINISH", "{}")
    other = message(IDS["A"], IDS["B"], "SBTM_START", "{}")
    sent = time.monotonic()
    weft_send(lab_dir, "A", finish)
    weft_send(lab_dir, "A", other)
    # The delayed message's record reaches the file once its fate is known, after the other's.
    assert wait_until(lambda: len((lab_dir / "mesh.jsonl").read_text().splitlines()) == 2, 10.0)
    on_file = [json.loads(line) for line in (lab_dir / "mesh.jsonl").read_text().splitlines()]
    assert [(r["type"], r.get("delayed"), r["delivered"]) for r in on_file] == [
        ("SBTM_START", None, ["B"]), ("SBTM_FINISH", 1.0, ["B"])]
    assert relay.messages() == on_file[::-1]       # in memory in the order they came
    assert steer["B"].wait(2) == [other, finish]
    assert steer["B"].times[1] - sent >= 1.0
    with pytest.raises(ValueError, match="unknown message type SBTM_FINSH"):
        relay.delay(1.0, ["SBTM_FINSH"])
    with pytest.raises(ValueError, match="a delay is a number of seconds from 0"):
        relay.delay(-1)


def test_the_lab_sends_as_the_mesh_daemon_does(lab_dir, mesh):
    relay, steer = mesh
    rec = relay.send(None, "B", "SAP_INFO", {"mac": IDS["A"], "hopcont": 2})
    assert rec["delivered"] == ["B"] and rec["source"] == "lab" and rec["sender"] == "lab"
    data = steer["B"].wait(1)[0]
    assert data[0:6] == bytes.fromhex(topology.LAB_ADDRESS.replace(":", ""))
    assert data[6:12] == bytes.fromhex(IDS["B"].replace(":", ""))
    assert data[12:44] == b"SAP_INFO".ljust(32, b"\0")
    assert data.endswith(b"\0") and data.count(b"\0", 44) == 1
    assert json.loads(data[44:-1]) == {"mac": IDS["A"], "hopcont": 2}
    rec = relay.send("A", "broadcast", "SNEI_EXIT", {})
    assert rec["sa"] == IDS["A"] and rec["delivered"] == ["A", "B"]
    assert steer["A"].wait(1)[0][0:6] == bytes.fromhex(IDS["A"].replace(":", ""))
    with pytest.raises(ValueError, match="longer than 31"):
        relay.send(None, "B", "X" * 32, {})


def test_a_burst_of_connections_waits_for_the_busy_relay(lab_dir, mesh):
    # A daemon connects without blocking and does not retry: 256 stations joining at once are 256
    # connections that must all wait in the accept queue while the relay is busy elsewhere.
    relay, steer = mesh
    busy, release = threading.Event(), threading.Event()
    relay.loop.call_soon(lambda: (busy.set(), release.wait(10)))
    assert busy.wait(5)
    refused = 0
    for i in range(256):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.setblocking(False)
        try:
            s.connect(str(lab_dir / "nodes" / "A" / "weft_socket"))
            s.send(b"\x03\x01\x00" + message(IDS["A"], IDS["B"], "SSTA_ASSOCIATE", f'{{"bss":{i}}}'))
        except BlockingIOError:
            refused += 1
        finally:
            s.close()
    release.set()
    assert refused == 0
    recs = settled(relay, 256)
    assert sorted(r["body"]["bss"] for r in recs) == list(range(256))
