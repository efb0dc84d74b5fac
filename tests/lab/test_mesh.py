"""Three real daemons in the three-node lab: neighbours and heartbeats, station announcements and
the counts the other nodes keep, the kick of a station that roams without leaving, a crashed and a
stopped node, the wireless backhaul's rate to the portal, and a VAP update.

The heartbeat (5 s after start, then 20 s, 40 s, ... after start) and the ageing (45 s, checked every 15 s) keep
their fixed times, so one lab serves the whole module and the tests run in the file's order: the
ones that end daemons come last, each on a node the later tests no longer need (B, then C, then A).
"""

import contextlib
import json
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from dataclasses import dataclass
from fractions import Fraction

import pytest

from lab import daemonlog
from lab.controller import Lab
from lab.driver import BANDS
from lab.sandbox import REPO

pytestmark = pytest.mark.lasts(75)

TOPOLOGY = REPO / "lab" / "topologies" / "three-node.json"
# C's uplink rate: shared with the portal's rate (999999) it gives 1198.56..., whose rounding shows.
UPLINK_RATE = 1200
PING_DATA = 1400

# Run in node A: prints every ICMP echo request that reaches A's br0, one JSON object a line,
# with "t" the wall-clock time the kernel received it (not when this watcher got to run).
ECHO_WATCH = r"""
import json, socket, struct
SO_TIMESTAMPNS = getattr(socket, "SO_TIMESTAMPNS", 35)
s = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(0x0800))
s.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
s.bind(("br0", 0))
print("ready", flush=True)
while True:
    ip, anc, _, addr = s.recvmsg(65535, 64)
    if addr[2] == socket.PACKET_OUTGOING or len(ip) < 28 or ip[9] != 1:
        continue
    stamp = [struct.unpack("qq", d[:16]) for level, kind, d in anc
             if level == socket.SOL_SOCKET and kind == SO_TIMESTAMPNS]
    ihl = (ip[0] & 15) * 4
    if ip[ihl] == 8 and stamp:
        total = struct.unpack_from("!H", ip, 2)[0]
        print(json.dumps({"t": stamp[0][0] + stamp[0][1] / 1e9, "src": socket.inet_ntoa(ip[12:16]),
                          "dst": socket.inet_ntoa(ip[16:20]), "data": total - ihl - 8}), flush=True)
"""


class EchoWatch:
    """The echo requests node A receives, watched from inside A."""

    def __init__(self, lab, node):
        self.proc = lab.run(node, [sys.executable, "-c", ECHO_WATCH], stdout=subprocess.PIPE)
        assert self.proc.stdout.readline() == b"ready\n"
        self.seen = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.seen.append(json.loads(line))

    def stop(self):
        self.proc.kill()
        self.proc.wait()


@dataclass
class Mesh:
    lab: Lab
    started: float          # wall clock when the daemons were started
    started_mono: float
    echoes: EchoWatch

    def id(self, name):
        return self.lab.node(name).id

    def heartbeats(self, name):
        return self.lab.relay.messages(type="SNEI_HEARTBEAT", sender=name, source="daemon")

    def announcements(self, sender, sta):
        return [m for m in self.lab.relay.messages(settled=True, type="SSTA_ASSOCIATE", sender=sender)
                if (m.get("body") or {}).get("sta") == sta]

    def lines(self, name):
        return [p for p in map(daemonlog.parse, self.lab.log(name).splitlines()) if p is not None]

    def wait_formed(self, names=("A", "B", "C")):
        """Waits until each of the nodes lists the others (their first heartbeats, 5 s after start)."""
        ids = {n: self.id(n) for n in names}
        self.lab.wait_for(lambda: all((daemonlog.neighbour_table(self.lab.log(n)) or set()) >= set(ids.values()) - {i}
                                      for n, i in ids.items()), self.started_mono + 12 - time.monotonic())

    def wait_line(self, name, pattern, timeout, since=0):
        """Waits for a line of `name`'s log (past character `since`) to match; returns when it
        was first seen (monotonic)."""
        rx = re.compile(pattern, re.M)
        self.lab.wait_for(lambda: rx.search(self.lab.log(name), since), timeout, step=0.05)
        return time.monotonic()


@pytest.fixture(scope="module")
def mesh(bandherd, steering_report):
    raw = json.loads(TOPOLOGY.read_text())
    c = next(n for n in raw["nodes"] if n["name"] == "C")
    c["backhaul"]["rate"] = UPLINK_RATE
    lab_dir = tempfile.mkdtemp(prefix="bh-", dir="/tmp")
    lab = Lab()
    echoes = None
    try:
        lab.up(raw, lab_dir, {"bandherd.log_level": 5})
        for name in ("A", "B", "C"):    # radios are reported when they change only: the heartbeats' zeros
            lab.driver(name).set_radio_interval(0)
        echoes = EchoWatch(lab, "A")
        started, started_mono = time.time(), time.monotonic()
        for name in ("A", "B", "C"):
            lab.start_daemon(name)
        lab.wait_for(lambda: lab.listening("C"), 10.0)
        lab.announce_uplink("C")            # as the mesh daemon does once C's daemon listens
        yield Mesh(lab, started, started_mono, echoes)
    finally:
        if echoes is not None:
            echoes.stop()
        steering_report(lab)
        lab.down()
        shutil.rmtree(lab_dir, ignore_errors=True)


def shared_medium(rate1, rate2):
    """Two hops taking turns on one channel: rate1*rate2/(rate1+rate2), rounded half away from zero."""
    return int(Fraction(rate1 * rate2, rate1 + rate2) + Fraction(1, 2))


# -- neighbours and heartbeats --------------------------------------------------------------------

def test_each_node_learns_the_other_two_from_their_first_heartbeats(mesh):
    names = ("A", "B", "C")
    for name in names:
        others = [o for o in names if o != name]
        for other in others:
            mesh.wait_line(name, rf"neighbor {mesh.id(other)} is online$", mesh.started_mono + 12 - time.monotonic())
            (online,) = [p for p in mesh.lines(name) if p.text == f"neighbor {mesh.id(other)} is online"]
            # The first heartbeat goes out 5 s after start (the log's clock has whole seconds).
            assert 4 <= online.epoch - mesh.started <= 8, online.raw
            first = mesh.heartbeats(other)[0]
            assert name in first["delivered"] and 4.5 <= first["mono"] - mesh.started_mono <= 7
        assert daemonlog.neighbour_table(mesh.lab.log(name)) == {mesh.id(o) for o in others}


def test_heartbeats_describe_each_node_as_its_topology_and_driver_define_it(mesh):
    lab = mesh.lab
    for node in lab.topology.nodes:
        lab.wait_for(lambda: mesh.heartbeats(node.name), mesh.started_mono + 10 - time.monotonic())
        beat = mesh.heartbeats(node.name)[0]
        assert beat["da"] == "ff:ff:ff:ff:ff:ff" and sorted(beat["delivered"]) == ["A", "B", "C"]
        body = beat["body"]
        # The radio slots and BSS indices are the ones the daemon gave its driver at start.
        told = lab.driver(node.name).state()
        # Every own BSS is in every own BSS's neighbour report.
        own = {vap.bssid for vap in node.vaps}
        assert all(own <= set(told["rrm_neighbors"].get(vap.ifname, {})) for vap in node.vaps), told
        slot = {ifname: index for index, ifnames in told["radios"].items() for ifname in ifnames}
        radios = []
        for index in sorted(told["radios"]):
            radio = node.vap(told["radios"][index][0]).radio
            radios.append({"work_band": BANDS[radio.band], "channel": radio.channel, "load": 0, "sta_num": 0})
        assert sorted(told["bss"]) == list(range(1, len(node.vaps) + 1))
        bsses = []
        for index in sorted(told["bss"]):
            vap = node.vap(told["bss"][index]["if"])
            bsses.append({"bssid": vap.bssid, "sta_num": 0, "sta_max": vap.sta_max,
                          "radio": sorted(told["radios"]).index(slot[vap.ifname]) + 1, "ess": 0,
                          "ifname": vap.mib})
        assert [b["ifname"] for b in bsses] == node.config["bandherd.ess"].split(",")
        expected = {"is_mpp": 1 if node.portal else 0, "ess": [{"essid": "herd", "index": 0}],
                    "radio": radios, "bss": bsses}
        assert {k: body[k] for k in expected} == expected, node.name
        assert set(body) == set(expected) | {"link_rate2mpp", "hop"}
    # The portal's rate is unbounded; a node that is not the portal starts at 999 and 0 hops
    # (C's first heartbeat may already know its uplink: the backhaul test looks at it).
    assert {k: mesh.heartbeats("A")[0]["body"][k] for k in ("link_rate2mpp", "hop")} == {"link_rate2mpp": 999999,
                                                                                       "hop": 0}
    assert {k: mesh.heartbeats("B")[0]["body"][k] for k in ("link_rate2mpp", "hop")} == {"link_rate2mpp": 999,
                                                                                       "hop": 0}


# -- stations ------------------------------------------------------------------------------------

def test_a_station_on_A_is_announced_and_the_others_count_it_until_it_leaves(mesh):
    """B keeps the count of A's BSSes in its record of A; no message carries it, but B's log shows
    each change, and a disassociation that would take a count below 0 is refused with an error."""
    lab, a_id = mesh.lab, mesh.id("A")
    mesh.wait_formed()
    sta = "02:aa:00:00:10:01"
    lab.driver("A").sta_event("join", sta, 1, rssi=-61, sta_num=1)
    (joined,) = lab.wait_for(lambda: mesh.announcements("A", sta))
    assert joined["body"] == {"sta": sta, "associated": 1, "bss": 1}
    assert joined["da"] == "ff:ff:ff:ff:ff:ff" and sorted(joined["delivered"]) == ["A", "B", "C"]
    for other in ("B", "C"):
        mesh.wait_line(other, rf"{sta} associate node {a_id} bss1$", 5)

    lab.driver("A").sta_event("leave", sta, 1, rssi=-61, sta_num=0)
    left = lab.wait_for(lambda: mesh.announcements("A", sta)[1:])[0]
    assert left["body"] == {"sta": sta, "associated": 0, "bss": 1}
    for other in ("B", "C"):
        mesh.wait_line(other, rf"{sta} disassociate node {a_id} bss1$", 5)
        # The join had counted the station: its leave brought the count back to 0 without error.
        assert "wrong sta number" not in lab.log(other)

    # At 0, one more disassociation from A (sent as A would) is refused.
    lab.send("A", "broadcast", "SSTA_ASSOCIATE", {"sta": "02:aa:00:00:10:09", "associated": 0, "bss": 1})
    for other in ("B", "C"):
        mesh.wait_line(other, rf" error ssta_msg_handler:\d+, wrong sta number of BSS1 in NODE {a_id}$", 5)


def test_a_station_that_joins_B_before_leaving_A_is_kicked_on_A(mesh):
    lab = mesh.lab
    mesh.wait_formed()
    a, b = lab.driver("A"), lab.driver("B")
    five = lab.node("A").vap("wlan1")

    def kicks(driver, sta):
        return [c for c in driver.calls("kick_sta") if c["args"]["mac"] == sta]

    # It joins B while still associated on A: B's announcement makes A kick it off its 5 GHz VAP.
    roamer = "02:aa:00:00:10:02"
    a.sta_event("join", roamer, 2, rssi=-70, sta_num=1)
    lab.wait_for(lambda: all(n in (mesh.announcements("A", roamer) or [{}])[0].get("delivered", [])
                             for n in ("B", "C")))
    b.sta_event("join", roamer, 2, rssi=-55, sta_num=1)
    (kick,) = lab.wait_for(lambda: kicks(a, roamer))
    assert kick["if"] in (five.mib, five.ifname) and kick["result"] == 0
    mesh.wait_line("A", rf"{roamer} has connected to another node, kick it on wlan1$", 5)
    # A's driver reports the kicked station gone, and A tells the others.
    a.sta_event("leave", roamer, 2, rssi=-70, sta_num=0)
    gone = lab.wait_for(lambda: mesh.announcements("A", roamer)[1:])[0]
    assert gone["body"] == {"sta": roamer, "associated": 0, "bss": 2}
    b.sta_event("leave", roamer, 2, rssi=-55, sta_num=0)

    # Left A first, then joined B: nothing to kick.
    walker = "02:aa:00:00:10:03"
    a.sta_event("join", walker, 2, rssi=-70, sta_num=1)
    a.sta_event("leave", walker, 2, rssi=-70, sta_num=0)
    lab.wait_for(lambda: mesh.announcements("A", walker)[1:])  # A has seen it leave
    b.sta_event("join", walker, 2, rssi=-55, sta_num=1)
    b.sta_event("leave", walker, 2, rssi=-55, sta_num=0)
    # A has handled both of B's announcements once it logged the second.
    mesh.wait_line("A", rf"{walker} disassociate node {mesh.id('B')} bss2$", 5)
    assert kicks(a, walker) == []
    assert kicks(b, roamer) == [] and kicks(lab.driver("C"), roamer) == []


# -- nodes ending -----------------------------------------------------------------------------------

def test_a_node_killed_with_SIGKILL_is_aged_out_45_to_60_seconds_after_its_last_heartbeat(mesh):
    lab, b_id = mesh.lab, mesh.id("B")
    mesh.wait_formed()
    assert lab.stop_daemon("B", signal.SIGKILL) == -signal.SIGKILL
    seen = {}
    deadline = time.monotonic() + 45 + 15 + 3
    while len(seen) < 2 and time.monotonic() < deadline:
        for name in ("A", "C"):
            if name not in seen and f"neighbor {b_id} is offline" in lab.log(name):
                seen[name] = time.monotonic()
        time.sleep(0.05)
    # Read now: a heartbeat on its way when B died has been recorded by then.
    last = mesh.heartbeats("B")[-1]["mono"]
    assert sorted(seen) == ["A", "C"], f"B is still a neighbour {time.monotonic() - last:.0f} s after its last heartbeat"
    for name, when in seen.items():
        # g_time has whole seconds: "more than 45 s" can show up to a second early.
        assert 44 <= when - last <= 45 + 15 + 2, (name, when - last)
        texts = [p.text for p in mesh.lines(name)]
        assert texts.index(f"node {b_id} is aged") == texts.index(f"neighbor {b_id} is offline") - 1
        assert daemonlog.neighbour_table(lab.log(name)) == {mesh.id(o) for o in ("A", "C") if o != name}
    assert lab.relay.messages(type="SNEI_EXIT", sender="B") == []


def test_C_pings_the_portal_before_each_heartbeat_and_reports_its_rate_to_it(mesh):
    lab = mesh.lab
    a, b, c = (lab.node(n) for n in ("A", "B", "C"))
    lab.wait_for(lambda: [h for h in mesh.heartbeats("C") if h["body"]["hop"] == 1], 30)
    (sap,) = lab.relay.messages(type="SAP_INFO", sender="lab")
    assert sap["body"] == {"mac": a.id, "hopcont": 1} and sap["delivered"] == ["C"]

    beats = mesh.heartbeats("C")

    def echoes():
        return [e for e in mesh.echoes.seen if e["data"] == PING_DATA]

    def unpinged():
        return [beat["t"] for beat in beats
                if not [e for e in echoes() if e["src"] == c.address and e["dst"] == a.address
                        and beat["t"] - 2 <= e["t"] <= beat["t"]]]
    # The echo watcher may still be reading the last ping.
    with contextlib.suppress(TimeoutError):
        lab.wait_for(lambda: not unpinged(), 5)
    assert not unpinged(), f"no {PING_DATA}-byte ping from C to A before C's heartbeats at {unpinged()}"
    echoes = echoes()
    assert not [e for e in echoes if e["src"] == b.address], "B has no wireless backhaul, yet it pinged"
    # One ping a heartbeat (the next heartbeat may be on its way).
    assert len([e for e in echoes if e["src"] == c.address and e["t"] <= beats[-1]["t"]]) == len(beats)

    # Every heartbeat after C knew its uplink carries the hop count of SAP_INFO and the rate
    # shared between the uplink's rate (what sta_info answered just before) and the portal's.
    uplink = [call for call in lab.driver("C").calls("sta_info") if call["args"]["mac"] == c.backhaul.uplink_bssid]
    assert uplink and {call["if"] for call in uplink} <= {c.backhaul.mib, c.backhaul.ifname}
    known = [h for h in beats if h["body"]["hop"] == 1]
    assert known[-1] is beats[-1]
    for beat in known:
        asked = [u for u in uplink if u["mono"] <= beat["mono"]][-1]
        rate = int(asked["answer"].split()[2])
        portal = [h for h in mesh.heartbeats("A") if h["mono"] <= beat["mono"]][-1]["body"]["link_rate2mpp"]
        assert rate == UPLINK_RATE and portal == 999999
        assert beat["body"]["link_rate2mpp"] == shared_medium(rate, portal) == 1199
        assert beat["body"]["is_mpp"] == 0


def test_a_node_stopped_with_SIGTERM_says_so_and_is_removed_at_once(mesh):
    lab, c_id = mesh.lab, mesh.id("C")
    mesh.wait_formed(("A", "C"))
    since = len(lab.log("A"))
    stopped = time.monotonic()
    assert lab.stop_daemon("C", signal.SIGTERM) == 0
    (bye,) = lab.wait_for(lambda: lab.relay.messages(settled=True, type="SNEI_EXIT", sender="C"), 10)
    assert bye["body"] == {} and bye["da"] == "ff:ff:ff:ff:ff:ff" and "A" in bye["delivered"]
    gone = mesh.wait_line("A", rf"neighbor {c_id} is offline$", 5, since)
    assert gone - stopped < 3
    assert f"node {c_id} is aged" not in lab.log("A")[since:]
    assert daemonlog.neighbour_table(lab.log("A")) == set()


def test_a_vap_update_ends_the_daemon_with_status_1_after_15_seconds(mesh):
    lab = mesh.lab
    since = len(lab.log("A"))
    sent = time.monotonic()
    lab.inject("A", 10)         # MAPS_EV_VAP_UPDATE, no payload
    mesh.wait_line("A", r" warning sap_vap_update_handler:\d+, wireless configs may be changed\. "
                        r"bandherd will exit\. monitor should restart it\.$", 5, since)
    assert lab.wait_daemon("A", 30) == 1
    assert 15 <= time.monotonic() - sent < 25
    assert "bandherd will exit after 15 seconds!!!" in lab.log("A")[since:]
