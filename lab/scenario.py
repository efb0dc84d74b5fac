"""Scenarios: stations, radios and faults scripted over time against a running lab.

A scenario file is JSON:

    {"name": "roam", "topology": "three-node.json", "wait_for_mesh": true,
     "status_interval": 2, "duration": 10,
     "stations": {"phone": {"mac": "02:aa:00:00:01:01", "rssi": -50, "rate": 400}},
     "steps": [
       {"at": 1, "do": "join", "station": "phone", "node": "A", "bss": "wlan1"},
       {"at": 5, "do": "roam", "station": "phone", "node": "B", "bss": "wlan1"},
       {"at": 8, "do": "leave", "station": "phone"}]}

`load` reads and checks a file (`parse` a decoded object); every mistake is
reported at once in a `ScenarioError`. `Runner(lab, scenario).run()` plays it
in real time against a `Lab` (times are seconds from the start) and plays the
stations' side as a driver reports it: a join event, then a status event every
`status_interval` seconds while associated, a leave event when the station
leaves or when a daemon kicks it. It writes what happened to
<lab>/timeline.jsonl, one JSON object a line: every step, every driver event it
sent, and what the daemons did that the lab sees (mesh messages, driver
commands and Wi-Fi calls, the log lines that tell of neighbours and stations,
daemons ending), then a summary. `MeshView` follows the timeline and keeps each
node's neighbour table (as its log reports it) and the station counts of its
BSSes (as its heartbeats carry them); `describe` and `summary_lines` put
records into words.
"""

import json
import os
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

from lab import daemonlog, topology as topo_mod
from lab.controller import exit_text, parse_signal
from lab.driver import BANDS, CAPS, mac_bytes, mac_text
from lab.relay import check_seconds, check_types
from lab.topology import BROADCAST

TIMELINE = "timeline.jsonl"
TOPOLOGIES = Path(__file__).resolve().parent / "topologies"
MESH_WAIT = 30.0        # how long `wait_for_mesh` waits for every node to know the others
POLL = 0.05
# Wi-Fi calls that only ask: recorded as queries, shown by `describe` only when verbose.
QUERIES = {"os_ifname", "mib_ifname", "bssmode", "ap_cap", "chan_info", "channel_list", "ssid",
           "sta_maxnum", "sta_info", "bssid"}
RELAY_ACTIONS = ("drop", "delay", "partition", "heal", "clear")

# Per step kind: required keys and optional keys (besides "at", "do" and "note").
STEPS = {
    "join": (["station", "node", "bss"], ["rssi", "rate"]),
    "roam": (["station", "node", "bss"], ["rssi", "rate", "leave_first", "old_leaves_after"]),
    "leave": (["station"], []),
    "rssi": (["station", "rssi"], ["rate"]),
    "status": (["station"], ["active", "load"]),
    "band": (["station", "bands"], []),
    "radio": (["node", "radio"], ["channel", "load", "sta_num"]),
    "kill": (["node"], ["signal"]),
    "start": (["node"], []),
    "relay": (["action"], ["types", "seconds", "groups"]),
    "send": (["to", "type"], ["from", "body"]),
}
STATION_KEYS = (["mac"], ["bands", "caps", "nss", "rssi", "rate", "load", "active"])
TOP_KEYS = (["steps"], ["name", "description", "topology", "stations", "status_interval", "duration",
                        "wait_for_mesh"])


class ScenarioError(topo_mod.ProblemsError):
    """A scenario that cannot run."""

    what = "scenario"


@dataclass
class StationPlan:
    name: str
    mac: str
    bands: int = BANDS["2G"] | BANDS["5L"] | BANDS["5H"]
    caps: int = CAPS["HT"] | CAPS["VHT"] | CAPS["RRM"] | CAPS["BTM"]
    nss: int = 2
    rssi: int = -60
    rate: int = 300         # the link rate sta_info answers, Mbit/s
    load: int = 0
    active: bool = True


@dataclass
class Scenario:
    steps: list                         # step dicts in the order they run (by "at", then file order)
    stations: dict = field(default_factory=dict)     # name -> StationPlan
    name: str = "scenario"
    description: str = ""
    status_interval: float = 5.0
    duration: float = 0.0
    wait_for_mesh: bool = False
    topology: str = None                # the topology file it was written for
    source: str = None


def load(path, topology=None):
    """Reads and checks a scenario file; checks it against `topology` (a `Topology`), or
    else against the topology file it names."""
    path = Path(path)
    try:
        raw = json.loads(path.read_text())
    except OSError as e:
        raise ScenarioError([f"cannot read it: {e.strerror}"], path) from None
    except json.JSONDecodeError as e:
        raise ScenarioError([f"not JSON: {e}"], path) from None
    return parse(raw, str(path), topology, base=path.parent)


def parse(raw, source=None, topology=None, base=None):
    """Checks a decoded scenario and builds the `Scenario`. Without `topology`, the topology
    file named by "topology" (relative to `base`, or one of lab/topologies/) is read."""
    c = _Checker()
    if topology is None and isinstance(raw, dict) and isinstance(raw.get("topology"), str):
        topology = c.topology_file(raw["topology"], base)
    sc = c.scenario(raw, topology)
    if c.problems:
        raise ScenarioError(c.problems, source)
    sc.source = source
    return sc


def topology_path(name, base=None):
    """Where the topology a scenario names is: relative to the scenario, else in lab/topologies/."""
    for d in ([Path(base)] if base else []) + [TOPOLOGIES]:
        p = d / name
        if p.exists():
            return p
    return None


def _number(v):
    return isinstance(v, (int, float)) and not isinstance(v, bool)


def _bits(value, names, what):
    """A bit set from a list of names or a number; raises ValueError."""
    if isinstance(value, int) and not isinstance(value, bool) and 0 <= value < 256:
        return value
    if isinstance(value, list) and all(isinstance(x, str) for x in value):
        unknown = [x for x in value if x.upper() not in names]
        if unknown:
            raise ValueError(f"unknown {what} {unknown} (known: {', '.join(names)})")
        out = 0
        for x in value:
            out |= names[x.upper()]
        return out
    raise ValueError(f"{what} must be a list of names ({', '.join(names)}) or a number")


class _Checker(topo_mod.Checker):
    def topology_file(self, name, base):
        p = topology_path(name, base)
        if p is None:
            self.err("", f"topology {name!r} not found (next to the scenario or in {TOPOLOGIES})")
            return None
        try:
            return topo_mod.load(p)
        except topo_mod.TopologyError as e:
            self.err("", str(e))
            return None

    def scenario(self, raw, topo):
        if not self.fields(raw, "", *TOP_KEYS):
            return Scenario(steps=[])
        sc = Scenario(steps=[], name=str(raw.get("name", "scenario")),
                      description=str(raw.get("description", "")), topology=raw.get("topology"))
        for key in ("status_interval", "duration"):
            if key in raw and (not _number(raw[key]) or raw[key] < (0.1 if key == "status_interval" else 0)):
                self.err("", f"'{key}' must be a number of seconds" + (" from 0.1" if key == "status_interval" else ""))
        sc.status_interval = float(raw.get("status_interval", 5.0)) if _number(raw.get("status_interval", 5.0)) else 5.0
        if not isinstance(raw.get("wait_for_mesh", False), bool):
            self.err("", "'wait_for_mesh' must be true or false")
        sc.wait_for_mesh = raw.get("wait_for_mesh") is True
        stations = raw.get("stations", {})
        if not isinstance(stations, dict):
            self.err("", "'stations' must be an object of named stations")
            stations = {}
        macs = {}
        for name, s in stations.items():
            plan = self.station(name, s)
            if plan is None:
                continue
            if plan.mac in macs:
                self.err(f"station '{name}'", f"has the MAC {plan.mac} of station '{macs[plan.mac]}'")
            macs.setdefault(plan.mac, name)
            sc.stations[name] = plan
        steps = raw["steps"]
        if not isinstance(steps, list):
            self.err("", "'steps' must be a list")
            steps = []
        checked = []
        for i, st in enumerate(steps):
            step = self.step(i, st, sc, topo, stations)
            if step is not None:
                checked.append(step)
        sc.steps = sorted(checked, key=lambda s: s["at"])       # stable: file order at equal times
        self.station_states(sc)
        last = sc.steps[-1]["at"] if sc.steps else 0.0
        sc.duration = float(raw["duration"]) if _number(raw.get("duration")) else last + 2.0
        if sc.duration < last:
            self.err("", f"'duration' {sc.duration:g} ends before the last step at {last:g}")
        return sc

    def station(self, name, raw):
        where = f"station '{name}'"
        if not name or any(ch.isspace() for ch in name):
            self.err(where, "a station's name is one word")
        if not self.fields(raw, where, *STATION_KEYS):
            return None
        try:
            mac = mac_text(mac_bytes(str(raw["mac"]).lower()))
        except ValueError:
            self.err(where, f"'mac' must be a MAC address xx:xx:xx:xx:xx:xx, not {raw['mac']!r}")
            return None
        if int(mac[:2], 16) & 1:
            self.err(where, f"'mac' {mac} is not a unicast address")
        plan = StationPlan(name=name, mac=mac)
        for key, names in (("bands", BANDS), ("caps", CAPS)):
            if key in raw:
                try:
                    setattr(plan, key, _bits(raw[key], names, key))
                except ValueError as e:
                    self.err(where, str(e))
        for key, lo, hi in (("nss", 1, 8), ("rssi", -127, 0), ("rate", 1, 100000), ("load", 0, 100)):
            if key in raw and self.is_integer(raw, key, where, lo, hi):
                setattr(plan, key, raw[key])
        if "active" in raw:
            if isinstance(raw["active"], bool):
                plan.active = raw["active"]
            else:
                self.err(where, "'active' must be true or false")
        return plan

    def step(self, i, raw, sc, topo, stations):
        where = f"step #{i + 1}"
        if not isinstance(raw, dict):
            self.err(where, "must be an object")
            return None
        kind = raw.get("do")
        if kind not in STEPS:
            self.err(where, f"'do' must be one of {', '.join(STEPS)}, not {kind!r}")
            return None
        where = f"step #{i + 1} ({kind} at {raw.get('at')})"
        required, optional = STEPS[kind]
        if not self.fields(raw, where, ["at", "do"] + required, optional + ["note"]):
            return None
        if not _number(raw["at"]) or raw["at"] < 0:
            self.err(where, "'at' must be a number of seconds from 0")
            return None
        step = dict(raw)
        step["at"] = float(raw["at"])
        if "station" in raw and raw["station"] not in stations:
            self.err(where, f"no station {raw['station']!r} (stations: {', '.join(stations) or 'none'})")
        node = self.node(raw["node"], topo, where, "node") if "node" in raw else None
        if "from" in raw:
            self.node(raw["from"], topo, where, "from")
        if "to" in raw and raw["to"] != "broadcast":
            self.node(raw["to"], topo, where, "to")
        if "bss" in raw:
            b = raw["bss"]
            if isinstance(b, int) and not isinstance(b, bool):
                if node is not None and node.bss_problem(b):
                    self.err(where, node.bss_problem(b))
                elif not 1 <= b <= 31:
                    self.err(where, f"'bss' as a number is a driver BSS index from 1 to 31, not {b}")
            elif not isinstance(b, str):
                self.err(where, "'bss' must be a VAP's name or a driver BSS index")
            elif node is not None and node.vap(b) is None:
                have = ", ".join(v.mib for v in node.vaps)
                self.err(where, f"node {node.name} has no VAP {b!r} (VAPs: {have})")
        for key, lo, hi in (("rssi", -127, 0), ("rate", 1, 100000), ("load", 0, 100), ("sta_num", 0, 255),
                            ("channel", 1, 233)):
            if key in raw:
                self.is_integer(raw, key, where, lo, hi)
        for key in ("leave_first", "active"):
            if key in raw and not isinstance(raw[key], bool):
                self.err(where, f"'{key}' must be true or false")
        if "old_leaves_after" in raw:
            if not _number(raw["old_leaves_after"]) or raw["old_leaves_after"] < 0:
                self.err(where, "'old_leaves_after' must be a number of seconds")
            if raw.get("leave_first") is True:
                self.err(where, "'old_leaves_after' is for a station that does not leave first")
        if "bands" in raw:
            try:
                step["bands"] = _bits(raw["bands"], BANDS, "bands")
            except ValueError as e:
                self.err(where, str(e))
        if kind == "radio" and node is not None and isinstance(raw["radio"], str):
            radio = node.radio(raw["radio"])
            if radio is None:
                self.err(where, f"node {node.name} has no radio {raw['radio']!r} "
                                f"(radios: {', '.join(r.name for r in node.radios)})")
            elif isinstance(raw.get("channel"), int) and raw["channel"] not in radio.channels:
                self.err(where, f"channel {raw['channel']} is not one of radio {radio.name}'s {radio.channels}")
        elif kind == "radio" and not isinstance(raw["radio"], str):
            self.err(where, "'radio' must be the name of one of the node's radios")
        if kind == "kill":
            try:
                step["signal"] = int(parse_signal(raw.get("signal", "KILL")))
            except ValueError as e:
                self.err(where, str(e))
        if kind == "relay":
            self.relay(raw, topo, where)
        if kind == "send":
            if not isinstance(raw["type"], str) or not 0 < len(raw["type"].encode()) < 32:
                self.err(where, "'type' must be a message type of 1 to 31 characters")
            if not isinstance(raw.get("body", {}), dict):
                self.err(where, "'body' must be a JSON object")
        return step

    def node(self, name, topo, where, key):
        if not isinstance(name, str):
            self.err(where, f"'{key}' must be a node's name")
            return None
        if topo is None:
            return None
        try:
            return topo.node(name)
        except KeyError:
            self.err(where, f"no node {name!r} in the topology (nodes: {', '.join(topo.names())})")
            return None

    def relay(self, raw, topo, where):
        action = raw["action"]
        if action not in RELAY_ACTIONS:
            self.err(where, f"'action' must be one of {', '.join(RELAY_ACTIONS)}, not {action!r}")
            return
        if "types" in raw:
            if not (isinstance(raw["types"], list) and all(isinstance(t, str) for t in raw["types"])):
                self.err(where, "'types' must be a list of message types")
            else:
                try:
                    check_types(raw["types"])
                except ValueError as e:
                    self.err(where, str(e))
        if action == "delay":
            try:
                check_seconds(raw.get("seconds"))
            except ValueError:
                self.err(where, "a delay needs 'seconds', a number from 0")
        if action == "partition":
            groups = raw.get("groups")
            if not (isinstance(groups, list) and groups and all(isinstance(g, list) for g in groups)):
                self.err(where, "a partition needs 'groups', a list of lists of node names")
                return
            for g in groups:
                for name in g:
                    self.node(name, topo, where, "groups")

    def station_states(self, sc):
        """Walks the steps in time order: a station joins when it is not associated, and
        roams, leaves or reports only while it is."""
        on = {}
        for i, s in enumerate(sc.steps):
            name = s.get("station")
            if name not in sc.stations:
                continue
            where = f"step {s['do']} of '{name}' at {s['at']:g}"
            kind = s["do"]
            if kind == "join":
                if name in on:
                    self.err(where, f"it is associated on {on[name]} then; use roam")
                on[name] = s["node"]
            elif kind in ("roam", "leave", "rssi", "status"):
                if name not in on:
                    self.err(where, "it is not associated then")
                elif kind == "roam":
                    on[name] = s["node"]
                elif kind == "leave":
                    del on[name]


def check_against(scenario, topology):
    """What keeps a parsed scenario from running in a lab of `topology` (a list of problems)."""
    try:
        parse(_raw_of(scenario), scenario.source, topology)
    except ScenarioError as e:
        return e.problems
    return []


def _raw_of(sc):
    """A checked scenario written back as the object it came from (for a second check)."""
    stations = {}
    for name, s in sc.stations.items():
        stations[name] = {"mac": s.mac, "bands": s.bands, "caps": s.caps, "nss": s.nss, "rssi": s.rssi,
                          "rate": s.rate, "load": s.load, "active": s.active}
    return {"name": sc.name, "description": sc.description, "stations": stations, "steps": sc.steps,
            "status_interval": sc.status_interval, "duration": sc.duration, "wait_for_mesh": sc.wait_for_mesh}


class StepError(RuntimeError):
    """A step that could not be carried out; the runner records it and goes on."""


class Station:
    """A station of the running scenario: where it is associated, as its node's driver sees it."""

    def __init__(self, plan):
        self.plan = plan
        self.name = plan.name
        self.mac = plan.mac
        self.rssi, self.rate, self.load, self.active = plan.rssi, plan.rate, plan.load, plan.active
        self.bands = plan.bands
        self.on = None          # (node name, Vap, driver BSS index) while associated
        self.stale = {}         # node name -> (Vap, BSS index): left without the old node noticing
        self.next_status = None


class MeshView:
    """Each node's neighbour table (from its log) and the station counts of its BSSes
    (from its heartbeats), followed through timeline records."""

    def __init__(self, topology):
        self.topology = topology
        self.names = {n.id: n.name for n in topology.nodes}
        self.neighbours = {n.name: None for n in topology.nodes}     # None: no daemon run known
        self.counts = {n.name: None for n in topology.nodes}         # {VAP name: stations} or None
        self.neighbour_history = {n.name: [] for n in topology.nodes}
        self.count_history = {n.name: [] for n in topology.nodes}

    def name(self, node_id):
        return self.names.get(node_id, node_id)

    def apply(self, rec):
        """Takes one timeline record; returns the changes it made, in short words ("A+B": A
        learnt B, "A-B": A lost B, "A hb 1/0": A's heartbeat carries other counts)."""
        changes = []
        at = rec.get("at", 0.0)
        kind = rec.get("kind")
        if kind == "start":
            for node, table in rec.get("neighbours", {}).items():
                self._set_table(node, None if table is None else set(table), at)
            for node, counts in rec.get("bss_counts", {}).items():
                if counts is not None:
                    self._set_counts(node, counts, at)
        elif kind == "log" and rec.get("change"):
            what, other = rec["change"]
            node = rec["node"]
            table = set() if self.neighbours[node] is None or what == "ready" else set(self.neighbours[node])
            if what == "online":
                table.add(other)
                changes.append(f"{node}+{other}")
            elif what == "offline":
                table.discard(other)
                changes.append(f"{node}-{other}")
            if self._set_table(node, table, at) and what == "ready":
                changes.append(f"{node} up")
        elif kind == "daemon" and rec.get("state") != "running":
            if self._set_table(rec["node"], None, at):
                changes.append(f"{rec['node']} down")
        elif kind == "mesh" and rec.get("type") == "SNEI_HEARTBEAT" and rec.get("source") == "daemon":
            body = rec.get("body") or {}
            counts = {b.get("ifname", str(i + 1)): b.get("sta_num") for i, b in enumerate(body.get("bss", []))
                      if isinstance(b, dict)}
            if rec["from"] in self.counts and self._set_counts(rec["from"], counts, at):
                changes.append(f"{rec['from']} hb {'/'.join(str(v) for v in counts.values())}")
        return changes

    def _set_table(self, node, table, at):
        if node not in self.neighbours or self.neighbours[node] == table:
            return False
        self.neighbours[node] = table
        self.neighbour_history[node].append([round(at, 3), None if table is None else sorted(table)])
        return True

    def _set_counts(self, node, counts, at):
        if self.counts.get(node) == counts:
            return False
        self.counts[node] = dict(counts)
        self.count_history[node].append([round(at, 3), dict(counts)])
        return True

    def converged(self, stations=None):
        """True when every node with a running daemon lists every other such node, and (given the
        scenario's station counts {node: {VAP: n}}) every heartbeat carries those counts."""
        up = {n for n, t in self.neighbours.items() if t is not None}
        if any(self.neighbours[n] != up - {n} for n in up):
            return False
        if stations is not None:
            return all(self.counts.get(n) == stations.get(n) for n in up)
        return True

    def cells(self):
        """Per node: its neighbours ("B C", "-" for none, "down") and its counts ("1/0", "?")."""
        out = {}
        for n in self.topology.nodes:
            t = self.neighbours[n.name]
            nb = "down" if t is None else (" ".join(sorted(t)) or "-")
            c = self.counts[n.name]
            out[n.name] = (nb, "?" if c is None else "/".join(str(v) for v in c.values()))
        return out


class Runner:
    """Plays a scenario against a lab in real time (see the module's description)."""

    def __init__(self, lab, scenario, on_record=None, timeline=None):
        problems = check_against(scenario, lab.topology)
        if problems:
            raise ScenarioError(problems, scenario.source)
        self.lab = lab
        self.sc = scenario
        self.topology = lab.topology
        self.path = Path(timeline) if timeline else Path(lab.dir) / TIMELINE
        self.on_record = on_record
        self.records = []
        self.summary = None
        self.view = MeshView(self.topology)
        self.stations = {name: Station(plan) for name, plan in scenario.stations.items()}
        self.world_history = {n.name: [] for n in self.topology.nodes}
        self._world = {}
        self._stop = threading.Event()
        self._thread = None
        self._file = None
        self._base = None
        self._held = None           # records kept back while waiting for the mesh
        self._step_records = None   # records a step makes, written after the step's own
        self._timers = []           # (at, what, callable)
        self._announce = {}         # node -> deadline: say SAP_INFO once its daemon listens
        self.failed = []

    # -- running ---------------------------------------------------------------------

    def start(self):
        """Runs the scenario on a thread of its own; `wait` for it, `stop` to end it early."""
        self._open()          # the timeline starts afresh before anyone reads it
        self._thread = threading.Thread(target=self._run_quietly, name="lab-scenario", daemon=True)
        self._thread.start()
        return self

    def _run_quietly(self):
        try:
            self.run()
        except Exception:           # already in the timeline as an "error" record
            pass

    def stop(self):
        self._stop.set()

    def running(self):
        return self._thread is not None and self._thread.is_alive()

    def wait(self, timeout=None):
        if self._thread is not None:
            self._thread.join(timeout)
        return self.summary

    def run(self):
        """Plays the scenario and returns the summary (also the timeline's last record)."""
        if self._file is None:
            self._open()
        error = None
        try:
            self._begin()
            self._play()
        except Exception as e:
            error = e
            self._emit([{"kind": "error", "mono": time.monotonic(), "text": f"{type(e).__name__}: {e}"}])
        finally:
            try:
                self._observe()
            except Exception:
                pass
            self._release()
            self.summary = self._summary()
            self._emit([self.summary])
            self._file.close()
        if error is not None:
            raise error
        return self.summary

    def _open(self):
        self.path.parent.mkdir(parents=True, exist_ok=True)
        self._file = open(self.path, "w", buffering=1)

    def now(self):
        return time.monotonic() - self._base

    def _begin(self):
        lab = self.lab
        self._base = time.monotonic()
        mesh, self._mesh_pos = lab.mesh_journal.since(0)
        self._driver_pos = {n.name: lab.driver(n.name).journal.since(0)[1] for n in self.topology.nodes}
        self._tails = {n.name: daemonlog.Tail(lab.node_dir(n.name) / "bandherd.log")
                       for n in self.topology.nodes}
        self._daemons = {n.name: self._daemon_state(n.name) for n in self.topology.nodes}
        neighbours, counts = {}, {}
        for n in self.topology.nodes:
            table = daemonlog.neighbour_table(lab.log(n.name)) if self._daemons[n.name] == "running" else None
            neighbours[n.name] = None if table is None else sorted(self.view.name(i) for i in table)
            beats = [m for m in mesh if m.get("type") == "SNEI_HEARTBEAT" and m.get("sender") == n.name
                     and m.get("source") == "daemon" and isinstance(m.get("body"), dict)]
            counts[n.name] = ({b.get("ifname"): b.get("sta_num") for b in beats[-1]["body"].get("bss", [])}
                              if beats else None)
        if self.sc.wait_for_mesh:
            self._held = []
        self._emit([{"kind": "start", "mono": self._base, "scenario": self.sc.name, "source": self.sc.source,
                     "description": self.sc.description, "topology": self.topology.source,
                     "duration": self.sc.duration, "wait_for_mesh": self.sc.wait_for_mesh,
                     "daemons": dict(self._daemons), "neighbours": neighbours, "bss_counts": counts}])
        if self.sc.wait_for_mesh:
            self._wait_for_mesh()
        self._note_world()

    def _wait_for_mesh(self):
        """Holds the scenario's clock until every running daemon knows every other one."""
        deadline = time.monotonic() + MESH_WAIT
        while not self._stop.is_set():
            self._observe()
            if self._mesh_formed() or time.monotonic() > deadline:
                break
            time.sleep(POLL)
        formed = self._mesh_formed()
        self._base = time.monotonic()
        self._release()
        self._emit([{"kind": "note", "mono": self._base,
                     "text": "the mesh has formed; the steps' clock starts" if formed
                     else f"the mesh did not form in {MESH_WAIT:g} s; going on"}])

    def _mesh_formed(self):
        """True when the log of every running daemon lists every other running daemon's node."""
        up = {n.name: n.id for n in self.topology.nodes if self._daemon_state(n.name) == "running"}
        for name in up:
            table = daemonlog.neighbour_table(self.lab.log(name))
            if table is None or table != {i for n, i in up.items() if n != name}:
                return False
        return True

    def _release(self):
        held, self._held = self._held, None
        if held:
            self._emit(held)

    def _play(self):
        steps = list(enumerate(self.sc.steps, 1))
        while not self._stop.is_set():
            now = self.now()
            while steps and steps[0][1]["at"] <= now:
                n, step = steps.pop(0)
                self._step(n, step)
            for at, what, fn in [t for t in self._timers if t[0] <= now]:
                self._timers.remove((at, what, fn))
                fn()
            for st in self.stations.values():
                if st.on is not None and st.next_status is not None and st.next_status <= now:
                    st.next_status += self.sc.status_interval
                    self._sta_event(st, "status", *st.on, why="status")
            self._observe()
            if not steps and now >= self.sc.duration:
                break
            time.sleep(POLL)

    # -- the timeline -----------------------------------------------------------------

    def _emit(self, recs):
        """Adds records to the timeline, oldest first; while the clock waits for the mesh they are held."""
        if self._step_records is not None:
            self._step_records.extend(recs)
            return
        if self._held is not None:
            self._held.extend(recs)
            return
        for rec in sorted(recs, key=lambda r: r.get("mono", 0.0)):
            mono = rec.pop("mono", None)
            if "at" not in rec:
                rec["at"] = round((mono if mono is not None else time.monotonic()) - self._base, 3)
            rec.setdefault("t", round(time.time(), 3))
            changes = self.view.apply(rec)
            if changes:
                rec["changes"] = changes
            self.records.append(rec)
            self._file.write(json.dumps(rec) + "\n")
            if self.on_record is not None:
                self.on_record(rec)

    def _observe(self):
        """Collects what happened since the last look: mesh messages, driver commands, log lines, daemons."""
        batch = []
        mesh, self._mesh_pos = self.lab.mesh_journal.since(self._mesh_pos)
        batch += [self._mesh_record(m) for m in mesh]
        kicks = []
        for n in self.topology.nodes:
            recs, self._driver_pos[n.name] = self.lab.driver(n.name).journal.since(self._driver_pos[n.name])
            for r in recs:
                rec = self._driver_record(n.name, r)
                if rec is not None:
                    batch.append(rec)
                    if rec.get("call") == "kick_sta" and rec.get("result") == 0:
                        kicks.append(rec)
            now = time.monotonic()
            for raw in self._tails[n.name].lines():
                line = daemonlog.parse(raw)
                if line is None or not (line.level in ("fatal", "error", "warning", "info")
                                        or daemonlog.AGED.match(line.text)):
                    continue
                rec = {"kind": "log", "node": n.name, "mono": now, "level": line.level, "func": line.func,
                       "text": line.text}
                change = daemonlog.neighbour_change(line)
                if change:
                    rec["change"] = [change[0], self.view.name(change[1]) if change[1] else None]
                batch.append(rec)
            state = self._daemon_state(n.name)
            if state != self._daemons[n.name]:
                self._daemons[n.name] = state
                d = self.lab.daemon(n.name)
                batch.append({"kind": "daemon", "node": n.name, "mono": now, "state": state,
                              "pid": d.pid if d else None})
        self._emit(batch)
        for k in kicks:
            self._kicked(k)
        for node, deadline in list(self._announce.items()):
            if self.lab.listening(node):
                del self._announce[node]
                self.lab.announce_uplink(node)
            elif time.monotonic() > deadline:
                del self._announce[node]

    def _mesh_record(self, m):
        rec = {"kind": "mesh", "mono": m.get("mono"), "from": m.get("sender"), "source": m.get("source"),
               "type": m.get("type"), "body": m.get("body")}
        if "da" in m:
            rec["to"] = "all" if m["da"] == BROADCAST else self.view.name(m["da"])
        for key in ("delivered", "undelivered", "dropped", "delayed", "text"):
            if m.get(key):
                rec[key] = m[key]
        return rec

    @staticmethod
    def _driver_record(node, r):
        kind = r.get("kind")
        rec = {"kind": "driver", "node": node, "mono": r.get("mono")}
        if kind == "maps":
            rec.update(cmd=r.get("cmd", "").removeprefix("MAPS_CMD_"), result=r.get("result"))
            for key in ("if", "fields", "error"):
                if key in r:
                    rec[key] = r[key]
        elif kind == "call":
            rec.update(call=r.get("call"), result=r.get("result"))
            for key in ("if", "args", "answer", "error"):
                if key in r:
                    rec[key] = r[key]
            if r.get("call") in QUERIES:
                rec["query"] = True
        elif kind == "netlink":
            rec.update(netlink=r.get("event"))
        else:
            return None         # the events: the runner records those it sends itself
        return rec

    def _daemon_state(self, node):
        d = self.lab.daemon(node)
        return "not started" if d is None else exit_text(d.returncode)

    # -- the stations' world ---------------------------------------------------------

    def _bss_index(self, node, vap):
        """The driver's index of a VAP: what the node's daemon told its driver (MAPS_CMD_SET_BSS)."""
        for index, bss in self.lab.driver(node).state()["bss"].items():
            if bss.get("if") == vap.ifname:
                return int(index)
        raise StepError(f"the daemon of {node} has not set up {vap.mib} with its driver (no MAPS_CMD_SET_BSS)")

    def _place(self, node, bss):
        """(Vap, driver BSS index) of a step's "bss": a VAP's name or a driver index."""
        n = self.topology.node(node)
        if isinstance(bss, int):
            entry = self.lab.driver(node).state()["bss"].get(bss)
            vap = n.vap(entry["if"]) if entry else None
            return vap, bss
        vap = n.vap(bss)
        return vap, self._bss_index(node, vap)

    def _count(self, node, index):
        return sum(1 for st in self.stations.values()
                   if (st.on is not None and st.on[0] == node and st.on[2] == index)
                   or st.stale.get(node, (None, None))[1] == index)

    def _sta_event(self, st, event, node, vap, index, why):
        fields = dict(bands=st.bands, caps=st.plan.caps, rssi=st.rssi, nss=st.plan.nss, load=st.load,
                      sta_num=self._count(node, index), active=st.active)
        rec = {"kind": "event", "mono": time.monotonic(), "node": node, "event": "STA_" + event.upper(),
               "station": st.name, "mac": st.mac, "bss": index, "vap": vap.mib if vap else None,
               "rssi": st.rssi, "sta_num": fields["sta_num"], "why": why}
        try:
            self.lab.driver(node).sta_event(event, st.mac, index, **fields)
        except OSError as e:
            rec["error"] = f"not delivered: {e.strerror or e}"
        self._emit([rec])
        self._note_world()

    def _join(self, st, node, vap, index, why):
        st.on = (node, vap, index)
        if st.stale.get(node, (None, None))[1] == index:
            del st.stale[node]          # back on the BSS its driver still had it on
        if vap is not None:
            self.lab.driver(node).set_station(vap.ifname, st.mac, st.rssi, st.rate)
        self._sta_event(st, "join", node, vap, index, why)
        st.next_status = self.now() + self.sc.status_interval

    def _leave(self, st, why):
        node, vap, index = st.on
        st.on = None
        st.next_status = None
        self._sta_event(st, "leave", node, vap, index, why)

    def _leave_stale(self, st, node, why):
        vap, index = st.stale.pop(node)
        self._sta_event(st, "leave", node, vap, index, why)

    def _kicked(self, rec):
        """A daemon kicked a station: the driver deauthenticates it and reports it gone."""
        node = rec["node"]
        vap = self.topology.node(node).vap(rec.get("if", ""))
        mac = (rec.get("args") or {}).get("mac", "").lower()
        for st in self.stations.values():
            if st.mac != mac:
                continue
            if st.on is not None and st.on[0] == node and (vap is None or st.on[1] is vap):
                self._leave(st, why="kicked")
            elif node in st.stale and (vap is None or st.stale[node][0] is vap):
                self._leave_stale(st, node, why="kicked")

    def _note_world(self):
        for n in self.topology.nodes:
            counts = {v.mib: 0 for v in n.vaps}
            for st in self.stations.values():
                vaps = [st.on[1]] if st.on and st.on[0] == n.name else []
                if n.name in st.stale:
                    vaps.append(st.stale[n.name][0])
                for vap in vaps:
                    if vap is not None:
                        counts[vap.mib] += 1
            if self._world.get(n.name) != counts:
                self._world[n.name] = counts
                at = 0.0 if self._base is None else max(0.0, round(self.now(), 3))
                self.world_history[n.name].append([at, counts])

    # -- the steps ------------------------------------------------------------------------

    def _step(self, n, step):
        rec = {"kind": "step", "mono": time.monotonic(), "n": n,
               **{k: v for k, v in step.items() if k != "at"}, "scheduled": step["at"]}
        self._step_records = []
        try:
            rec.update(getattr(self, "_do_" + step["do"])(step) or {})
        except (StepError, KeyError, ValueError, OSError, TimeoutError) as e:
            rec["error"] = str(e)
            self.failed.append({"n": n, "do": step["do"], "at": step["at"], "error": str(e)})
        finally:
            made, self._step_records = self._step_records, None
        self._emit([rec] + made)

    def _station(self, step):
        return self.stations[step["station"]]

    def _do_join(self, step):
        st = self._station(step)
        if st.on is not None:
            raise StepError(f"{st.name} is associated on {st.on[0]}; a join needs it away (use roam)")
        self._apply_link(st, step)
        vap, index = self._place(step["node"], step["bss"])
        self._join(st, step["node"], vap, index, why="step")
        return {"bss_index": index}

    def _apply_link(self, st, step):
        st.rssi = step.get("rssi", st.rssi)
        st.rate = step.get("rate", st.rate)

    def _associated(self, step):
        st = self._station(step)
        if st.on is None:
            raise StepError(f"{st.name} is not associated")
        return st

    def _do_roam(self, step):
        st = self._associated(step)
        old_node, old_vap, old_index = st.on
        vap, index = self._place(step["node"], step["bss"])
        if (old_node, old_index) == (step["node"], index):
            raise StepError(f"{st.name} is already on {old_node} bss {index}")
        if step.get("leave_first"):
            self._leave(st, why="step")
        else:
            st.stale[old_node] = (old_vap, old_index)
            st.on = None
            if "old_leaves_after" in step:
                self._timers.append((self.now() + step["old_leaves_after"], f"{st.name} inactive on {old_node}",
                                     lambda: self._inactive(st, old_node)))
        self._apply_link(st, step)
        self._join(st, step["node"], vap, index, why="step")
        return {"bss_index": index, "from": old_node}

    def _inactive(self, st, node):
        if node in st.stale:
            self._leave_stale(st, node, why="inactive")

    def _do_leave(self, step):
        st = self._associated(step)
        self._leave(st, why="step")

    def _do_rssi(self, step):
        st = self._associated(step)
        self._apply_link(st, step)
        node, vap, index = st.on
        if vap is not None:
            self.lab.driver(node).set_station(vap.ifname, st.mac, st.rssi, st.rate)
        self._sta_event(st, "status", node, vap, index, why="step")
        st.next_status = self.now() + self.sc.status_interval

    def _do_status(self, step):
        st = self._associated(step)
        st.active = step.get("active", st.active)
        st.load = step.get("load", st.load)
        self._sta_event(st, "status", *st.on, why="step")

    def _do_band(self, step):
        st = self._station(step)
        st.bands = step["bands"]
        if st.on is None:
            raise StepError(f"{st.name} is not associated; its driver has nothing to report")
        self._sta_event(st, "band", *st.on, why="step")

    def _do_radio(self, step):
        node = self.topology.node(step["node"])
        radio = node.radio(step["radio"])
        index = None
        ifnames = {v.ifname for v in node.vaps if v.radio is radio}
        for i, names in self.lab.driver(node.name).state()["radios"].items():
            if ifnames & set(names):
                index = int(i)
        if index is None:
            raise StepError(f"the daemon of {node.name} has not added radio {radio.name} (no MAPS_CMD_ADD_RADIO)")
        radio.channel = step.get("channel", radio.channel)      # what chan_info answers from now on
        radio.load = step.get("load", radio.load)
        radio.sta_num = step.get("sta_num", radio.sta_num)
        self.lab.driver(node.name).radio_status(index, radio.channel, load=radio.load, sta_num=radio.sta_num,
                                                work_band=BANDS[radio.band])
        return {"radio_index": index}

    def _do_kill(self, step):
        d = self.lab.daemon(step["node"])
        if d is None or d.returncode is not None:
            raise StepError(f"no daemon runs in {step['node']}")
        os.kill(d.pid, step["signal"])
        return {"pid": d.pid}

    def _do_start(self, step):
        node = self.topology.node(step["node"])
        d = self.lab.start_daemon(node.name)
        if node.backhaul is not None:
            self._announce[node.name] = time.monotonic() + MESH_WAIT
        return {"pid": d.pid}

    def _do_relay(self, step):
        self.lab.relay.apply(step["action"], step.get("types"), step.get("seconds"), step.get("groups"))
        return {"faults": self.lab.relay.faults()}

    def _do_send(self, step):
        self.lab.send(step.get("from"), step["to"], step["type"], step.get("body", {}))

    # -- the end ------------------------------------------------------------------------

    def _summary(self):
        messages, actions = {}, {}
        for r in self.records:
            if r["kind"] == "mesh" and r.get("type"):
                messages[r["type"]] = messages.get(r["type"], 0) + 1
            elif r["kind"] == "driver" and not r.get("query"):
                name = r.get("call") or r.get("cmd") or r.get("netlink")
                actions[name] = actions.get(name, 0) + 1
        # No station may stay blocked on every BSS of its ESS longer than the Backoff time-out allows.
        limit = 2 + max(int(n.config.get("bandherd.boff_timeout", 25)) for n in self.topology.nodes)
        blocked = {mac: round(t, 2) for mac, t in self.lab.blocked_everywhere().items()}
        for mac, t in blocked.items():
            if t > limit:
                self.failed.append({"n": "-", "do": "check", "at": round(self.now(), 3) if self._base else 0.0,
                                    "error": f"{mac} was blocked on every BSS of its ESS for {t} s (limit {limit} s)"})
        stations = {n.name: {v.mib: [] for v in n.vaps} for n in self.topology.nodes}
        for st in self.stations.values():
            if st.on is not None and st.on[1] is not None:
                stations[st.on[0]][st.on[1].mib].append(st.name)
        return {"kind": "summary", "scenario": self.sc.name, "at": round(self.now(), 3) if self._base else 0.0,
                "stopped": self._stop.is_set(), "steps": sum(1 for r in self.records if r["kind"] == "step"),
                "failed": self.failed, "stations": stations, "world_counts": self.world_history,
                "heartbeat_counts": self.view.count_history, "neighbours": self.view.neighbour_history,
                "messages": messages, "driver_actions": actions, "blocked_everywhere": blocked,
                "daemons": {n.name: self._daemon_state(n.name) for n in self.topology.nodes}}


# -- for people ---------------------------------------------------------------------------------

def _body_words(rec):
    body = rec.get("body") or {}
    t = rec.get("type")
    if t == "SNEI_HEARTBEAT":
        counts = " ".join(f"{b.get('ifname')}:{b.get('sta_num')}" for b in body.get("bss", []) if isinstance(b, dict))
        return f"mpp {body.get('is_mpp')} hop {body.get('hop')} rate {body.get('link_rate2mpp')} sta {counts}"
    if t == "SSTA_ASSOCIATE":
        return f"{body.get('sta')} associated {body.get('associated')} bss {body.get('bss')}"
    return json.dumps(body, separators=(",", ":"))[:80] if body else ""


def step_words(rec):
    """A step record in words: "phone joins A wlan1 (bss 2), rssi -52"."""
    do, st, node = rec.get("do"), rec.get("station"), rec.get("node")
    where = f"{node} {rec.get('bss')}" + (f" (bss {rec['bss_index']})" if "bss_index" in rec else "")
    link = "".join(f", {k} {rec[k]}" for k in ("rssi", "rate") if k in rec)
    if do == "join":
        text = f"{st} joins {where}{link}"
    elif do == "roam":
        how = "after leaving" if rec.get("leave_first") else "still associated on"
        text = f"{st} roams to {where} {how} {rec.get('from', 'its node')}{link}"
    elif do == "leave":
        text = f"{st} leaves"
    elif do == "rssi":
        text = f"{st}'s signal changes{link}"
    elif do == "status":
        text = f"{st} reports its status" + "".join(f", {k} {rec[k]}" for k in ("active", "load") if k in rec)
    elif do == "band":
        text = f"{st} reports bands 0x{rec.get('bands', 0):x}"
    elif do == "radio":
        text = f"{node}'s radio {rec.get('radio')}" + (f" (radio {rec['radio_index']})" if "radio_index" in rec else "") \
            + "".join(f", {k} {rec[k]}" for k in ("channel", "load", "sta_num") if k in rec)
    elif do == "kill":
        text = f"{node}'s daemon gets signal {rec.get('signal')}"
    elif do == "start":
        text = f"{node}'s daemon starts"
    elif do == "relay":
        extra = "".join(f" {rec[k]}" for k in ("seconds", "groups", "types") if k in rec)
        text = f"the relay: {rec.get('action')}{extra}"
    elif do == "send":
        text = f"the lab's mesh daemon sends {rec.get('type')} to {rec.get('to')}" \
            + (f" as {rec['from']}" if rec.get("from") else "")
    else:
        text = json.dumps(rec)
    note = f"  ({rec['note']})" if rec.get("note") else ""
    err = f"  FAILED: {rec['error']}" if rec.get("error") else ""
    return text + note + err


def describe(rec, verbose=False):
    """One line for a timeline record, or None for what is shown only when `verbose`
    (periodic status events, Wi-Fi queries, driver commands of a daemon starting, debug lines)."""
    at = rec.get("at", 0.0)
    kind = rec.get("kind")
    head = f"{at:7.2f}  "
    if kind == "start":
        wait = "; waiting until every node knows the others" if rec.get("wait_for_mesh") else ""
        return f"{head}scenario {rec['scenario']} ({rec.get('source')}), {rec.get('duration'):g} s{wait}"
    if kind == "step":
        return f"{head}step   {step_words(rec)}"
    if kind == "event":
        if rec.get("why") == "status" and not verbose and not rec.get("error"):
            return None
        err = f"  ({rec['error']})" if rec.get("error") else ""
        why = "" if rec.get("why") == "step" else f"  [{rec.get('why')}]"
        return (f"{head}event  {rec['node']} {rec['event']} {rec['station']} bss {rec['bss']} ({rec.get('vap')}) "
                f"rssi {rec['rssi']} sta_num {rec['sta_num']}{why}{err}")
    if kind == "mesh":
        where = f" -> {rec.get('to')}" if rec.get("to") else ""
        fate = ""
        if rec.get("dropped"):
            fate = f"  DROPPED ({rec['dropped']})"
        elif rec.get("undelivered"):
            fate = f"  not to {rec['undelivered']}"
        if rec.get("delayed"):
            fate += f"  delayed {rec['delayed']} s"
        return f"{head}mesh   {rec.get('from')}{where} {rec.get('type')} {_body_words(rec)}{fate}"
    if kind == "driver":
        if rec.get("query") and not verbose:
            return None
        if rec.get("cmd"):
            if rec["cmd"] in ("PING", "CLEAN", "ADD_RADIO", "SET_BSS") and not verbose:
                return None
            return f"{head}driver {rec['node']} {rec['cmd']} {rec.get('if', '')} {rec.get('fields', '')}"
        if rec.get("netlink"):
            return f"{head}driver {rec['node']} {rec['netlink']}" if verbose else None
        if rec.get("call") in ("add_rrm_neighbor", "del_rrm_neighbor") and not verbose:
            return None
        args = " ".join(str(v) for v in (rec.get("args") or {}).values())
        return f"{head}driver {rec['node']} {rec['call']} {rec.get('if', '')} {args} -> {rec.get('result')}"
    if kind == "log":
        if rec["level"] == "info" and not rec.get("change") and not verbose and \
                rec["func"] not in ("ssta_join_handler", "ssta_leave_handler", "ssta_msg_handler"):
            return None
        return f"{head}log    {rec['node']} {rec['level']} {rec['func']}: {rec['text']}"
    if kind == "daemon":
        return f"{head}daemon {rec['node']} {rec['state']}" + (f" (pid {rec['pid']})" if rec.get("pid") else "")
    if kind in ("note", "error"):
        return f"{head}{kind:<6} {rec['text']}"
    if kind == "summary":
        return None
    return f"{head}{kind} {json.dumps(rec)}"


def _series(history, fmt):
    return ", ".join(f"{at:g} s {fmt(v)}" for at, v in history) or "nothing seen"


def summary_lines(s):
    """The summary in a few lines."""
    out = [f"scenario {s['scenario']}: {s['at']:.1f} s, {s['steps']} steps"
           + (f", {len(s['failed'])} failed" if s["failed"] else "") + (" (stopped early)" if s["stopped"] else "")]
    for f in s["failed"]:
        out.append(f"  step {f['n']} ({f['do']} at {f['at']:g} s) failed: {f['error']}")
    out.append("stations at the end: " + "; ".join(
        f"{node} " + " ".join(f"{vap} [{', '.join(names) or '-'}]" for vap, names in vaps.items())
        for node, vaps in s["stations"].items()))
    counts = lambda c: "/".join(str(v) for v in c.values())   # noqa: E731
    out.append("stations per BSS over time (the scenario's stations):")
    for node, h in s["world_counts"].items():
        out.append(f"  {node}: {_series(h, counts)}")
    out.append("stations per BSS as the heartbeats carried them:")
    for node, h in s["heartbeat_counts"].items():
        out.append(f"  {node}: {_series(h, counts)}")
    out.append("neighbour tables (from the daemons' logs):")
    for node, h in s["neighbours"].items():
        out.append(f"  {node}: {_series(h, lambda t: 'down' if t is None else (' '.join(t) or '-'))}")
    out.append("mesh messages: " + (", ".join(f"{k} {v}" for k, v in sorted(s["messages"].items())) or "none"))
    out.append("driver commands and calls: "
               + (", ".join(f"{k} {v}" for k, v in sorted(s["driver_actions"].items())) or "none"))
    longest = max(s.get("blocked_everywhere", {}).values(), default=0)
    out.append(f"longest block of a station on every BSS of its ESS: {longest:g} s")
    out.append("daemons: " + ", ".join(f"{k} {v}" for k, v in s["daemons"].items()))
    return out
