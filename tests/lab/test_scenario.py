"""Scenarios without daemons: the file format's checks, and the runner playing the stations'
driver side against stand-ins that answer on the daemon's sockets."""

import json
import shutil
import struct
import subprocess
import sys
import tempfile

import pytest

from lab import daemonlog, scenario_check, topology
from lab.scenario_run import Runner
from lab.controller import Lab
from lab.sandbox import REPO
from standins import NetlinkEnd, uwb

THREE = REPO / "lab" / "topologies" / "three-node.json"
SCENARIOS = REPO / "lab" / "scenarios"
PHONE, LAPTOP = "02:aa:00:00:09:01", "02:aa:00:00:09:02"


def test_every_mistake_in_a_scenario_is_reported_at_once():
    raw = {
        "stations": {"phone": {"mac": "02:aa:00:00:09:01", "bands": ["2G", "7G"]},
                     "twin": {"mac": "02:AA:00:00:09:01"},
                     "multi": {"mac": "03:aa:00:00:09:03"}},
        "duration": 3,
        "steps": [
            {"at": 1, "do": "join", "station": "phone", "node": "A", "bss": "wlan7"},
            {"at": 2, "do": "join", "station": "phone", "node": "B", "bss": "wlan0"},
            {"at": 3, "do": "leave", "station": "ghost"},
            {"at": 4, "do": "rssi", "station": "twin", "rssi": -50},
            {"at": 5, "do": "kill", "node": "Z", "signal": "NOPE"},
            {"at": 6, "do": "radio", "node": "C", "radio": "r5", "channel": 149},
            {"at": 7, "do": "relay", "action": "partition", "groups": [["A"], ["Q"]]},
            {"at": 7, "do": "relay", "action": "drop", "types": ["SNEI_HEARTBEAT_TYPO"]},
            {"at": 7, "do": "join", "station": "multi", "node": "C", "bss": 3},
            {"at": -1, "do": "leave", "station": "phone"},
            {"at": 8, "do": "fly", "station": "phone"},
            {"at": 9, "do": "leave", "station": "phone", "bss": "wlan0"},
        ],
    }
    with pytest.raises(scenario_check.ScenarioError) as e:
        scenario_check.parse(raw, "bad.json", topology.load(THREE))
    text = str(e.value)
    for expected in ["bad scenario bad.json",
                     "station 'phone': unknown bands ['7G']",
                     "station 'twin': has the MAC 02:aa:00:00:09:01 of station 'phone'",
                     "station 'multi': 'mac' 03:aa:00:00:09:03 is not a unicast address",
                     "node A has no VAP 'wlan7' (VAPs: wlan0, wlan1)",
                     "step join of 'phone' at 2: it is associated on A then; use roam",
                     "no station 'ghost'",
                     "step rssi of 'twin' at 4: it is not associated then",
                     "no node 'Z' in the topology",
                     "unknown signal 'NOPE'",
                     "channel 149 is not one of radio r5's [36, 40, 44, 48]",
                     "no node 'Q' in the topology",
                     "unknown message type SNEI_HEARTBEAT_TYPO (types: SNEI_HEARTBEAT, ",
                     "node C has no BSS 3 (its 2 VAPs are BSS 1 to 2)",
                     "'at' must be a number of seconds from 0",
                     "'do' must be one of join, roam",
                     "unknown key 'bss'",
                     "'duration' 3 ends before the last step at 9"]:
        assert expected in text, expected
    assert len(e.value.problems) == 17, text


def test_the_shipped_scenarios_fit_the_topology_they_name():
    files = sorted(SCENARIOS.glob("*.json"))
    assert [f.name for f in files] == ["arrivals.json", "crash.json", "roam.json"]
    macs = {}
    for f in files:
        sc = scenario_check.load(f)
        assert sc.topology == "three-node.json" and sc.steps and sc.description
        for st in sc.stations.values():
            assert macs.setdefault(st.mac, f.name) == f.name, f"{st.mac} is in two scenarios"


def test_a_daemon_log_tells_the_neighbour_table_of_its_latest_run(tmp_path):
    log = tmp_path / "bandherd.log"
    log.write_text("1795305623 11/22 00:00:23 info main:144, bandherd is ready.\n0.1.0 (abc)\n"
                   "1795305628 11/22 00:00:28 info snei_new:200, neighbor 02:00:00:00:0b:00 is online\n"
                   "1795305628 11/22 00:00:28 info snei_new:200, neighbor 02:00:00:00:0c:00 is online\n"
                   "1795305690 11/22 00:01:30 debug snei_age_check:390, node 02:00:00:00:0b:00 is aged\n"
                   "1795305690 11/22 00:01:30 info snei_del:33, neighbor 02:00:00:00:0b:00 is offline\n")
    assert daemonlog.neighbour_table(log.read_text()) == {"02:00:00:00:0c:00"}
    tail = daemonlog.Tail(log)
    assert tail.lines() == []
    with open(log, "a") as f:
        f.write("warning exit_handler:98, receive signal 15\ninfo main:144, bandherd is ready.\ninfo snei_new:2")
    assert [daemonlog.parse(line).func for line in tail.lines()] == ["exit_handler", "main"]
    assert daemonlog.neighbour_table(log.read_text()) == set()       # a new run starts with none
    with open(log, "a") as f:
        f.write("00, neighbor 02:00:00:00:0a:00 is online\n")
    (line,) = tail.lines()
    assert daemonlog.neighbour_change(daemonlog.parse(line)) == ("online", "02:00:00:00:0a:00")
    assert daemonlog.neighbour_table(log.read_text()) == {"02:00:00:00:0a:00"}
    assert daemonlog.parse("0.1.0 (abc)") is None


# -- the runner against stand-ins -------------------------------------------------------------

STA_EVENT = struct.Struct("=6sBxIIbBBBB3x")
EVENTS = {2: "join", 3: "leave", 4: "band", 5: "status"}


def set_bss(node_dir, ifname, index):
    """What a daemon does at start: tell its driver a BSS index (MAPS_CMD_SET_BSS)."""
    buf = b"steerin" + bytes([1]) + struct.pack("=B3xI", index, 6)
    assert uwb(node_dir, f"steer_maps {ifname} {buf.hex()}").startswith("0 ")


def station_events(nl):
    """The station events that reached a stand-in daemon so far: (event, mac, bss, rssi, sta_num)."""
    out = []
    while True:
        try:
            data = nl.recv(0.05)
        except OSError:
            return out
        mac, bss, bands, caps, rssi, nss, load, sta_num, active = STA_EVENT.unpack_from(data, 24)
        assert len(data) == 24 + STA_EVENT.size
        out.append((EVENTS[data[23]], mac.hex(":"), bss, rssi, sta_num))


@pytest.fixture(scope="module")
def stand_in_lab():
    """A three-node lab whose daemons are stand-ins: A and B listen for driver events and have set
    up their 5 GHz BSS as index 2; C has no daemon."""
    lab_dir = tempfile.mkdtemp(prefix="bh-", dir="/tmp")
    lab = Lab()
    ends = {}
    try:
        lab.up(THREE, lab_dir)
        for name in ("A", "B"):
            ends[name] = NetlinkEnd(lab.node_dir(name))
            set_bss(lab.node_dir(name), "wlan1", 2)
        yield lab, ends
    finally:
        for nl in ends.values():
            nl.close()
        lab.down()
        shutil.rmtree(lab_dir, ignore_errors=True)


def test_stations_report_as_a_driver_does_and_a_kicked_station_leaves(stand_in_lab):
    lab, nl = stand_in_lab
    # Reports every 0.5 s: the phone's on A at 0.6, the laptop's at 0.7, 1.2 and 1.7, the phone's on B
    # at 1.5 and 2.0, each at least 0.4 s before the step that ends them. (A stand-in's socket holds
    # about ten events until the test reads them.)
    sc = scenario_check.parse({
        "status_interval": 0.5, "duration": 2.4,
        "stations": {"phone": {"mac": PHONE, "rssi": -50, "rate": 700}, "laptop": {"mac": LAPTOP}},
        "steps": [{"at": 0.1, "do": "join", "station": "phone", "node": "A", "bss": "wlan1"},
                  {"at": 0.2, "do": "join", "station": "laptop", "node": "A", "bss": 2, "rssi": -66},
                  {"at": 1.0, "do": "roam", "station": "phone", "node": "B", "bss": "wlan1", "rssi": -58},
                  {"at": 2.1, "do": "leave", "station": "laptop"}]}, "inline", lab.topology)
    runner = Runner(lab, sc)
    kicked = False

    def kick_when_roamed(rec):
        nonlocal kicked
        if rec.get("do") == "roam" and not kicked:
            kicked = True      # A's daemon would: the phone is on B now
            assert uwb(lab.node_dir("A"), f"kick_sta wlan1 {PHONE}") == "0"

    runner.on_record = kick_when_roamed
    summary = runner.run()
    a, b = station_events(nl["A"]), station_events(nl["B"])

    # A: two joins (sta_num counting up), status reports while associated, then the phone kicked
    # off A (A still had it: it roamed without leaving), the laptop leaving last.
    assert a[0] == ("join", PHONE, 2, -50, 1) and a[1] == ("join", LAPTOP, 2, -66, 2)
    assert ("leave", PHONE, 2, -58, 1) in a and a[-1] == ("leave", LAPTOP, 2, -66, 0)
    kick = a.index(("leave", PHONE, 2, -58, 1))
    phone_status = [e for e in a[:kick] if e[0] == "status" and e[1] == PHONE]
    assert phone_status and all(e[4] == 2 for e in phone_status)
    assert len([e for e in a if e[0] == "status" and e[1] == LAPTOP]) >= 3
    assert b[0] == ("join", PHONE, 2, -58, 1) and {e[0] for e in b[1:]} == {"status"}
    # What sta_info answers follows the stations.
    assert uwb(lab.node_dir("B"), f"sta_info wl5g0 {PHONE}") == "0 -58 700"

    recs = runner.records
    assert [json.loads(line) for line in (lab.dir / "timeline.jsonl").read_text().splitlines()] == recs
    assert recs[0]["kind"] == "start" and recs[-1] == summary
    assert [r["do"] for r in recs if r["kind"] == "step"] == ["join", "join", "roam", "leave"]
    kick_call = next(i for i, r in enumerate(recs) if r.get("call") == "kick_sta")
    assert recs[kick_call]["node"] == "A" and recs[kick_call]["args"] == {"mac": PHONE}
    assert any(r["kind"] == "event" and r["why"] == "kicked" and r["node"] == "A" for r in recs[kick_call:])
    assert summary["failed"] == [] and summary["driver_actions"] == {"kick_sta": 1}
    assert summary["stations"]["B"] == {"wlan0": [], "wlan1": ["phone"]}
    assert [c for _, c in summary["world_counts"]["A"]] == [{"wlan0": 0, "wlan1": n} for n in (0, 1, 2, 1, 0)]


def test_a_step_that_cannot_be_carried_out_is_recorded_and_the_rest_goes_on(stand_in_lab):
    lab, nl = stand_in_lab
    sc = scenario_check.parse({
        "duration": 0.5,
        "stations": {"phone": {"mac": "02:aa:00:00:09:03"}, "tv": {"mac": "02:aa:00:00:09:04"}},
        "steps": [{"at": 0, "do": "join", "station": "phone", "node": "A", "bss": "wlan0"},
                  {"at": 0, "do": "join", "station": "tv", "node": "B", "bss": "wlan1"},
                  {"at": 0.1, "do": "kill", "node": "C"},
                  {"at": 0.2, "do": "leave", "station": "tv"}]}, "inline", lab.topology)
    summary = Runner(lab, sc).run()
    assert [(f["n"], f["do"]) for f in summary["failed"]] == [(1, "join"), (3, "kill")]
    assert "has not set up wlan0 with its driver" in summary["failed"][0]["error"]
    assert summary["failed"][1]["error"] == "no daemon runs in C"
    assert station_events(nl["B"]) == [("join", "02:aa:00:00:09:04", 2, -60, 1),
                                       ("leave", "02:aa:00:00:09:04", 2, -60, 0)]
    assert station_events(nl["A"]) == []


def test_the_command_line_checks_a_scenario_before_it_needs_a_lab(lab_dir, tmp_path):
    def cli(*args):
        return subprocess.run([sys.executable, "-m", "lab", "--dir", str(lab_dir), "scenario", *args], cwd=REPO,
                              capture_output=True, text=True, timeout=30)

    bad = tmp_path / "bad.json"
    bad.write_text(json.dumps({"topology": "three-node.json",
                               "steps": [{"at": 0, "do": "join", "station": "phone", "node": "D", "bss": "wlan0"}]}))
    r = cli(str(bad))
    assert r.returncode == 1
    assert r.stderr.splitlines()[1:] == ["  step #1 (join at 0): no station 'phone' (stations: none)",
                                         "  step #1 (join at 0): no node 'D' in the topology (nodes: A, B, C)"]
    r = cli(str(SCENARIOS / "roam.json"))
    assert r.returncode == 1
    assert f"no lab runs in {lab_dir}; start one first: python3 -m lab up {THREE}" in r.stderr
