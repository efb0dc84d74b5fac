"""The daemons steer on their own: each scenario file of automatic steering is
played on a fresh lab (no prohibition or session left from another run), and
what happened to each station is read from the radio world and the steering
summary: where it ended, how it was moved and why."""

import json
import re
from pathlib import Path

import pytest

from lab import scenario_check
from lab.controller import Lab
from lab.scenario_run import Runner

REPO = Path(__file__).resolve().parents[2]
SCENARIOS = REPO / "lab" / "scenarios"
# Faster give-ups than a router's, and the controller's reasons in the log.
SETTINGS = {"bandherd.log_level": 5, "bandherd.btm_timeout": 10, "bandherd.boff_timeout": 10}

# scenario: {station: (where it ends, [(mechanism, reason, outcome) of its steers])}
CASES = {
    "upgrade": {"laptop": (("A", "wlan1"), [("BTM", "HIGH_RSSI", "success")])},
    "walk": {"phone": (("B", "wlan1"), [("BTM", "LOW_RSSI", "success")]),
             "camera": (("B", "wlan1"), [("Backoff", "LOW_RSSI", "success")])},
    "downgrade": {"tablet": (("A", "wlan0"), [("BTM", "LOW_RSSI", "success")])},
    "offload": {"stream1": (("A", "wlan0"), [("BTM", "OVERLOAD", "success")]),
                "stream2": (("A", "wlan0"), [("BTM", "OVERLOAD", "success")]),
                "stream3": (("A", "wlan1"), []),
                "latecomer": (("A", "wlan0"), [])},
    "protect": {"tv": (("A", "wlan0"), []),
                "tablet": (("A", "wlan1"), [("BTM", "HIGH_RSSI", "success")])},
    "node-steering": {"laptop": (("A", "wlan0"), []),
                      "phone": (("B", "wlan1"), [("BTM", "LOW_RSSI", "success")])},
    "six-ghz-node": {"laptop": (("A", "wlan1"), [("BTM", "HIGH_RSSI", "success")]),
                "headset": (("A", "wlan2"), [("BTM", "OVERLOAD", "success")])},
}


def play(bandherd, name, steering_report, lab_dir):
    sc = scenario_check.load(SCENARIOS / f"{name}.json")
    lab = Lab(bandherd)
    try:
        lab.up(scenario_check.topology_path(sc.topology, SCENARIOS), lab_dir,
               {**SETTINGS, **sc.settings})
        for node in lab.topology.names():
            lab.start_daemon(node)
        runner = Runner(lab, sc)
        summary = runner.run()
        names = {st.mac: n for n, st in sc.stations.items()}
        steering = lab.summary(names=names)
        steering_report(lab, name)
        return lab, sc, summary, steering, names, runner.records
    except BaseException:
        lab.down()
        raise


def lasts(name):
    """About how long playing a scenario takes: its duration, and the mesh forming before it."""
    return json.loads((SCENARIOS / f"{name}.json").read_text())["duration"] + 6


@pytest.mark.parametrize("name", [pytest.param(name, marks=pytest.mark.lasts(lasts(name))) for name in CASES])
def test_scenario(bandherd, steering_report, lab_dir, name):
    lab, sc, summary, steering, names, records = play(bandherd, name, steering_report, lab_dir)
    try:
        assert summary["failed"] == [], summary["failed"]
        for station, (where, expected) in CASES[name].items():
            mac = sc.stations[station].mac
            assert lab.world.where(mac) == where, station
            steers = [(s["mechanism"], s["reason"], s["outcome"]) for s in steering["steers"] if s["mac"] == mac]
            assert steers == expected, station
        timeline = {names[r["mac"]]: [] for r in lab.world.timeline() if r["mac"] in names}
        for r in lab.world.timeline():
            if r["mac"] in names:
                timeline[names[r["mac"]]].append(r)
        if name == "walk":  # the camera's reports in RCPI were read as such
            rc, out = lab.cli("A", "sta", sc.stations["camera"].mac)
            assert "sns/abnormal_rcpi: 1" in out, out
        if name == "offload":  # the latecomer was turned away from the overloaded radio
            assert any(r["what"] == "refused" and r["vap"] == "wlan1" for r in timeline["latecomer"])
            radio = next(v.radio for v in lab.topology.node("A").vaps if v.mib == "wlan1")
            index = lab.driver("A").radio_index(radio)
            modes = [c["fields"]["mode"] for c in lab.driver("A").commands("SET_RADIO") if c["fields"]["index"] == index]
            assert modes[-2:] == ["MAPS_BAND_BLOCK", "MAPS_BAND_BLOCK_RSSI"], modes  # refused, then welcome
        if name == "protect":  # the tablet only moved once the operator let it
            pt_del = next(r["t"] for r in records if r["kind"] == "step" and r["do"] == "cli"
                          and r["words"][:2] == ["pt", "del"])
            assert all(r["t"] > pt_del for r in timeline["tablet"] if r["what"] == "btm_request")
        if name == "node-steering":  # every radio accepts every station
            assert {c["fields"]["mode"] for c in lab.driver("A").commands("SET_RADIO")} == {"MAPS_BAND_ACCEPT"}
    finally:
        lab.down()


@pytest.mark.lasts(lasts("faults"))
def test_faults_end_every_steer_and_keep_attempts_bounded(bandherd, steering_report, lab_dir):
    lab, sc, summary, steering, names, _ = play(bandherd, "faults", steering_report, lab_dir)
    try:
        assert summary["failed"] == [], summary["failed"]
        report = lab.check()
        assert report["problems"] == []
        for station in sc.stations.values():  # nobody is left out
            assert lab.world.where(station.mac) is not None
        # The stubborn laptop: a failed BTM steer, then Backoff, then prohibited.
        stubborn = sc.stations["stubborn"].mac
        attempts = [s for s in steering["steers"] if s["mac"] == stubborn]
        per_hour = len(attempts) * 3600 / summary["at"]
        assert 1 <= len(attempts) <= 3, attempts
        assert per_hour <= 150
        # and its failures left the target prohibited.
        rc, out = lab.cli("A", "allow", stubborn, "02:00:00:00:0a:02")
        assert (rc, out.splitlines()[0]) == (0, "sact_allowed: No"), out
        # Every node that survived has let go of every steer.
        for node in ("A", "C"):
            rc, out = lab.cli(node, "sta", "-l")
            assert rc == 0 and not re.search(r"sbtm/state: (?!idle)|sboff/state: (?!idle)|sctl/state: (?!idle)", out), out
    finally:
        lab.down()
