"""Scenarios without daemons: the file format's checks, the daemon log the runner reads, and the
runner playing its stations through the radio world against stand-ins on the daemons' sockets."""

import json
import subprocess
import sys

import pytest

from lab import daemonlog, scenario_check, topology
from lab.controller import Lab
from lab.sandbox import REPO
from lab.scenario_run import Runner
from standins import stand_in_lab, uwb

THREE = REPO / "lab" / "topologies" / "three-node.json"
TWO = REPO / "lab" / "topologies" / "two-node.json"
SCENARIOS = REPO / "lab" / "scenarios"
PHONE, LAPTOP, TV = "02:aa:00:00:09:01", "02:aa:00:00:09:02", "02:aa:00:00:09:03"


def test_every_mistake_in_a_scenario_is_reported_at_once():
    raw = {
        "stations": {"phone": {"mac": PHONE, "bands": ["2G", "7G"], "btm": "obeys", "rssi_at": {"A": {"wlan7": -50}}},
                     "twin": {"mac": "02:AA:00:00:09:01", "move_delay": -1},
                     "multi": {"mac": "03:aa:00:00:09:03"},
                     "walker": {"mac": "02:aa:00:00:09:04", "path": [{"at": 2, "rssi_at": {"A": -50}},
                                                                      {"at": 2, "rssi_at": {"D": -50}},
                                                                      {"at": 20, "rssi": -50}]}},
        "settings": {"bandherd.lrssi5": -70},
        "path_step": 0,
        "duration": 3,
        "steps": [
            {"at": 1, "do": "join", "station": "phone", "node": "A", "bss": "wlan7"},
            {"at": 2, "do": "join", "station": "phone", "node": "B", "bss": "wlan0"},
            {"at": 3, "do": "leave", "station": "ghost"},
            {"at": 4, "do": "rssi", "station": "twin", "rssi": -50, "node": "A"},
            {"at": 5, "do": "kill", "node": "Z", "signal": "NOPE"},
            {"at": 6, "do": "radio", "node": "C", "radio": "r5", "channel": 149},
            {"at": 7, "do": "relay", "action": "partition", "groups": [["A"], ["Q"]]},
            {"at": 7, "do": "relay", "action": "drop", "types": ["SNEI_HEARTBEAT_TYPO"]},
            {"at": 7, "do": "join", "station": "multi", "node": "C", "bss": 3},
            {"at": -1, "do": "leave", "station": "phone"},
            {"at": 8, "do": "fly", "station": "phone"},
            {"at": 9, "do": "leave", "station": "phone", "bss": "wlan0"},
            {"at": 9, "do": "cli", "node": "A", "args": "act -t $phone $B:wlan9"},
        ],
    }
    with pytest.raises(scenario_check.ScenarioError) as e:
        scenario_check.parse(raw, "bad.json", topology.load(THREE))
    text = str(e.value)
    expected = ["station 'phone': unknown bands ['7G']",
                "station 'phone': 'btm' must be one of obey, reject, ignore, sticky, not 'obeys'",
                "station 'phone': node A has no VAP 'wlan7'",
                "station 'twin': has the MAC 02:aa:00:00:09:01 of station 'phone'",
                "station 'twin': 'move_delay' must be a number of seconds from 0",
                "station 'multi': 'mac' 03:aa:00:00:09:03 is not a unicast address",
                "step #1 (join at 1): node A has no VAP 'wlan7' (VAPs: wlan0, wlan1)",
                "step join of 'phone' at 2: it is associated on A then; use roam",
                "no station 'ghost'",
                "step #4 (rssi at 4): give a 'node' and a 'bss', or neither",
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
                "'duration' 3 ends before the last step at 9",
                "station 'walker' path point #2: 'at' 2 does not come after the point before it (2)",
                "station 'walker' path point #2: no node 'D' in the topology",
                "station 'walker' path point #3: 'rssi_at' is missing",
                "station 'walker' path point #3: unknown key 'rssi'",
                "settings: unknown config key 'bandherd.lrssi5' (did you mean 'bandherd.lrssi_5'?)",
                "'path_step' must be a number of seconds from 0.1",
                "'duration' 3 ends before the path of station 'walker' at 20",
                "step #13 (cli at 9): $B:wlan9 is neither a station (phone, twin, multi, walker) nor a NODE:VAP"]
    assert [x for x in expected if x not in text] == []
    assert len(e.value.problems) == len(expected), text
    assert text.startswith("bad scenario bad.json:\n")


def test_the_shipped_scenarios_fit_the_topology_they_name():
    files = sorted(SCENARIOS.glob("*.json"))
    assert {"arrivals.json", "crash.json", "roam.json", "walk.json", "faults.json"} <= {f.name for f in files}
    macs = {}
    for f in files:
        sc = scenario_check.load(f)  # checked against its topology
        assert sc.topology in ("three-node.json", "six-ghz.json") and sc.steps and sc.description
        for st in sc.stations.values():
            assert macs.setdefault(st.mac, f.name) == f.name, f"{st.mac} is in two scenarios"


def test_a_daemon_log_tells_the_neighbour_table_of_its_latest_run(tmp_path):
    log = tmp_path / "bandherd.log"
    log.write_text("1795305623 11/22 00:00:23 info main:144, bandherd is ready.\n0.1.0 (abc)\n"
                   "1795305628 11/22 00:00:28 info snei_new:200, neighbor 02:00:00:00:0b:00 is online\n"
                   "1795305628 11/22 00:00:28 info snei_new:200, neighbor 02:00:00:00:0c:00 is online\n"
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
    assert daemonlog.parse("0.1.0 (abc)") is None
    # A steering log record leaves its prefix on the output; the next line follows it.
    glued = daemonlog.parse("1795305700 11/22 00:01:40 steer 1795305700 11/22 00:01:40 info scmd_act_result:79, "
                            "steer 02:aa:00:00:01:01 to 02:00:00:00:0a:02 success")
    assert (glued.epoch, glued.level, glued.func) == (1795305700, "info", "scmd_act_result")
    steer = daemonlog.parse_steer("1795305700 11/22 00:01:40 sbtm_steer:405, [steer trigger] from CMD, "
                                  "sta 02:aa:00:00:01:01 steer to bss 02:00:00:00:0a:02")
    assert (steer.level, steer.func, steer.text[:20]) == ("steer", "sbtm_steer", "[steer trigger] from")


@pytest.fixture(scope="module")
def stand_ins(steering_report):
    """A three-node lab without namespaces: A and B have stand-in daemons, C has none."""
    with stand_in_lab(THREE, "AB") as lab_and_sinks:
        yield lab_and_sinks
        steering_report(lab_and_sinks[0])


def test_scenario_stations_live_in_the_world_report_as_drivers_do_and_a_kicked_one_leaves(stand_ins):
    lab, sinks = stand_ins
    # Reports every 0.5 s while associated; the phone roams to B without leaving A, A kicks it.
    sc = scenario_check.parse({
        "status_interval": 0.5, "duration": 2.4,
        "stations": {"phone": {"mac": PHONE, "rssi": -50, "rate": 700},
                     "laptop": {"mac": LAPTOP, "btm": "reject", "beacon": "ignore", "rssi_at": {"B": -80},
                                "status_interval": 0.3}},
        "steps": [{"at": 0.1, "do": "join", "station": "phone", "node": "A", "bss": "wlan1"},
                  {"at": 0.2, "do": "join", "station": "laptop", "node": "A", "bss": 2, "rssi": -66},
                  {"at": 1.0, "do": "roam", "station": "phone", "node": "B", "bss": "wlan1", "rssi": -58},
                  {"at": 2.1, "do": "leave", "station": "laptop"}]}, "inline", lab.topology)

    def kick_when_roamed(rec):
        if rec.get("do") == "roam":      # A's daemon would: the phone is on B now
            assert uwb(lab.node_dir("A"), f"kick_sta wlan1 {PHONE}") == "0"

    runner = Runner(lab, sc, on_record=kick_when_roamed)
    summary = runner.run()
    lab.wait_for(lambda: sinks["A"].of(LAPTOP, "leave"))
    a = [(name, f["mac"], f["rssi"], f["sta_num"]) for name, f in sinks["A"].events if name in ("join", "leave")]
    assert a == [("join", PHONE, -50, 1), ("join", LAPTOP, -66, 2), ("leave", PHONE, -50, 1),
                 ("leave", LAPTOP, -66, 0)]
    assert [(n, f["rssi"], f["sta_num"]) for n, f in sinks["B"].of(PHONE)][:1] == [("join", -58, 1)]
    status = {m: [f["sta_num"] for _, f in sinks["A"].of(m, "status")] for m in (PHONE, LAPTOP)}
    assert set(status[PHONE]) == {2} and len(status[LAPTOP]) >= len(status[PHONE]) >= 1
    assert uwb(lab.node_dir("B"), f"sta_info wl5g0 {PHONE}") == "0 -58 700"     # what sta_info answers follows
    assert lab.world.show(LAPTOP)[0]["btm"] == "reject" and lab.world.where(PHONE) == ("B", "wlan1")

    recs = runner.records
    assert [json.loads(line) for line in (lab.dir / "timeline.jsonl").read_text().splitlines()] == recs
    assert recs[0]["kind"] == "start" and recs[-1] == summary
    assert [r["do"] for r in recs if r["kind"] == "step"] == ["join", "join", "roam", "leave"]
    kick = next(i for i, r in enumerate(recs) if r.get("call") == "kick_sta")
    after = [(r["kind"], r.get("what") or r.get("event"), r.get("why")) for r in recs[kick:]
             if r.get("station") == "phone" and r["kind"] in ("world", "event")]
    assert after[:2] in ([("world", "kicked", None), ("event", "STA_LEAVE", "kicked")],
                         [("event", "STA_LEAVE", "kicked"), ("world", "kicked", None)])
    assert summary["failed"] == [] and summary["driver_actions"] == {"kick_sta": 1}
    assert summary["stations"]["B"] == {"wlan0": [], "wlan1": ["phone"]}
    assert [c for _, c in summary["world_counts"]["A"]] == [{"wlan0": 0, "wlan1": n} for n in (0, 1, 2, 1, 0)]
    assert summary["check"]["problems"] == [] and summary["check"]["lockouts"] == {}


def test_a_scenario_walks_its_stations_and_their_load_is_their_radios_load(stand_ins):
    lab, sinks = stand_ins
    walker, streamer = "02:aa:00:00:09:05", "02:aa:00:00:09:06"
    base = lab.topology.node("A").radio("r5").load
    sc = scenario_check.parse({
        "radio_interval": 0, "path_step": 0.2, "status_interval": 5,
        "stations": {"walker": {"mac": walker, "load": 30,
                                "path": [{"at": 0, "rssi_at": {"A": {"wlan1": -50}}},
                                         {"at": 1, "rssi_at": {"A": {"wlan1": -80}}}]},
                     "streamer": {"mac": streamer, "load": 25}},
        "steps": [{"at": 0, "do": "join", "station": "walker", "node": "A", "bss": "wlan1"},
                  {"at": 0.2, "do": "radio", "node": "A", "radio": "r5", "load": base + 10},
                  {"at": 0.4, "do": "join", "station": "streamer", "node": "A", "bss": "wlan1"},
                  {"at": 1.4, "do": "leave", "station": "walker"},
                  {"at": 1.6, "do": "status", "station": "streamer", "load": 5},
                  {"at": 1.8, "do": "radio", "node": "A", "radio": "r5", "load": base}]}, "inline", lab.topology)
    before = len(sinks["A"].radio(2))
    try:
        summary = Runner(lab, sc).run()     # the drivers report radios only when they change
        assert summary["failed"] == []
        # A's 5 GHz radio (its daemon's radio 2): its base plus what its stations carry, at each change.
        assert sinks["A"].radio(2)[before:] == [(36, base + 30, 1, 4), (36, base + 40, 1, 4), (36, base + 65, 2, 4),
                                                (36, base + 35, 1, 4), (36, base + 15, 1, 4), (36, base + 5, 1, 4)]
        # And steadily, whether they change or not.
        reported = len(sinks["B"].radio(1))
        lab.driver("B").set_radio_interval(0.1)
        lab.wait_for(lambda: len(sinks["B"].radio(1)) >= reported + 3)
        assert set(sinks["B"].radio(1)[reported:]) == {(1, 15, 0, 2)}      # channel 1, 15 %, nobody, 2.4 GHz
    finally:
        for name in "AB":
            lab.driver(name).set_radio_interval(5)
    # The walker joined where its path began, A reported its RSSI falling along the path, and its
    # leave carries where the path ended.
    heard = [(name, f["rssi"]) for name, f in sinks["A"].of(walker)]
    assert heard[0] == ("join", -50) and heard[-2:] == [("status", -80), ("leave", -80)]
    assert [r for _, r in heard[:-1]] == sorted({r for _, r in heard}, reverse=True) and len(heard) >= 4
    lab.world.leave(streamer)


def test_a_step_that_cannot_be_carried_out_is_recorded_and_the_rest_goes_on(stand_ins):
    lab, sinks = stand_ins
    sc = scenario_check.parse({
        "duration": 0.5,
        "stations": {"tv": {"mac": TV}},
        "steps": [{"at": 0, "do": "join", "station": "tv", "node": "C", "bss": "wlan1"},
                  {"at": 0.1, "do": "kill", "node": "C"},
                  {"at": 0.2, "do": "band", "station": "tv", "bands": ["2G"]},
                  {"at": 0.3, "do": "leave", "station": "tv"},
                  {"at": 0.4, "do": "band", "station": "tv", "bands": ["5L"]}]}, "inline", lab.topology)
    runner = Runner(lab, sc)
    summary = runner.run()
    assert [(f["n"], f["do"], f["error"]) for f in summary["failed"]] == [
        (2, "kill", "no daemon runs in C"), (5, "band", "tv is not associated; its driver has nothing to report")]
    # Nobody listens on C: its driver's events are recorded as not delivered.
    events = [(r["event"], "error" in r) for r in runner.records if r["kind"] == "event" and r["node"] == "C"]
    assert events == [("STA_JOIN", True), ("STA_BAND", True), ("STA_LEAVE", True)]


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


def test_a_scenario_configures_the_daemons_and_runs_the_operators_front_end(bandherd, lab_dir):
    with Lab(bandherd) as lab:
        lab.up(TWO, lab_dir)
        first = {n: lab.start_node(n).pid for n in "AB"}
        for n in "AB":
            lab.wait_log(n, r"bandherd is ready\.")
        sc = scenario_check.parse({
            "settings": {"bandherd.btm_timeout": 9},
            "stations": {"phone": {"mac": PHONE}},
            "steps": [{"at": 0, "do": "cli", "node": "A", "args": "help"},
                      {"at": 0, "do": "cli", "node": "B", "args": ["act", "-t", "$phone", "$A:wlan1"]}]},
            "inline", lab.topology)
        summary = Runner(lab, sc).run()
        # Both daemons were restarted with the key in their configuration before the clock started.
        assert {n: lab.daemon(n).pid != first[n] for n in "AB"} == {"A": True, "B": True}
        assert all("bandherd.btm_timeout=9\n" in (lab.node_dir(n) / "bandherd.conf").read_text() for n in "AB")
        assert daemonlog.ready_count(lab.log("A")) == 2
        # A step's words name stations and BSSes; a front end that fails fails its step.
        ran = {f["n"]: f["error"] for f in summary["failed"]}
        assert ran == {2: f"error: can't find {PHONE}"}
        recs = [json.loads(line) for line in (lab.dir / "timeline.jsonl").read_text().splitlines()]
        cli = [(r["node"], r["words"], r["rc"], r["output"].splitlines()[0]) for r in recs if r.get("do") == "cli"]
        assert cli == [("A", ["help"], 0, "Avaliable commands:"),
                       ("B", ["act", "-t", PHONE, "02:00:00:00:0a:02"], 1, f"error: can't find {PHONE}")]
        assert recs[1]["kind"] == "note" and "restarted the daemons of A, B" in recs[1]["text"]
