"""Scenario files: stations, radios and faults scripted over time, read and checked.

A scenario file is JSON:

    {"name": "roam", "topology": "three-node.json", "wait_for_mesh": true,
     "status_interval": 2, "duration": 10,
     "stations": {"phone": {"mac": "02:aa:00:00:01:01", "rssi": -50, "rate": 400}},
     "steps": [
       {"at": 1, "do": "join", "station": "phone", "node": "A", "bss": "wlan1"},
       {"at": 5, "do": "roam", "station": "phone", "node": "B", "bss": "wlan1"},
       {"at": 8, "do": "leave", "station": "phone"}]}

`load` reads and checks a file (`parse` a decoded object); every mistake is
reported at once in a `ScenarioError`. lab/scenario_run.py plays a scenario,
lab/render.py puts what happened into words.
"""

import json
from dataclasses import dataclass, field
from pathlib import Path

from lab import topology as topo_mod
from lab.relay import check_seconds, check_types
from lab.sandbox import parse_signal
from lab.wire import BANDS, CAPS, mac_bytes, mac_text
from lab.world import BEACON_BEHAVIOURS, BTM_BEHAVIOURS, DELAYS

TIMELINE = "timeline.jsonl"
TOPOLOGIES = Path(__file__).resolve().parent / "topologies"
MESH_WAIT = 30.0        # how long `wait_for_mesh` waits for every node to know the others
POLL = 0.05
# Wi-Fi calls that only ask: recorded as queries, shown by `describe` only when verbose.
QUERIES = {"os_ifname", "mib_ifname", "bssmode", "ap_cap", "chan_info", "channel_list", "ssid",
           "sta_maxnum", "sta_info", "bssid"}
RELAY_ACTIONS = ("drop", "delay", "loss", "partition", "heal", "clear")

# Per step kind: required keys and optional keys (besides "at", "do" and "note").
STEPS = {
    "join": (["station"], ["node", "bss", "rssi", "rate"]),
    "roam": (["station", "node", "bss"], ["rssi", "rate", "leave_first", "old_leaves_after"]),
    "leave": (["station"], []),
    "rssi": (["station", "rssi"], ["node", "bss", "rate"]),
    "status": (["station"], ["active", "load"]),
    "band": (["station", "bands"], []),
    "radio": (["node", "radio"], ["channel", "load", "sta_num"]),
    "kill": (["node"], ["signal"]),
    "start": (["node"], []),
    "relay": (["action"], ["types", "seconds", "groups", "fraction"]),
    "send": (["to", "type"], ["from", "body"]),
    "cli": (["node", "args"], []),
}
STATION_KEYS = (["mac"], ["ssid", "bands", "caps", "nss", "rssi", "rssi_at", "rate", "load", "active", "btm",
                          "beacon", "path", *DELAYS])
TOP_KEYS = (["steps"], ["name", "description", "topology", "stations", "status_interval", "duration",
                        "wait_for_mesh", "path_step", "radio_interval", "settings"])


class ScenarioError(topo_mod.ProblemsError):
    """A scenario that cannot run."""

    what = "scenario"


@dataclass
class StationPlan:
    """A station of the scenario: its MAC and the settings the radio world gives it
    (lab/world.py's Station fields)."""
    name: str
    mac: str
    settings: dict = field(default_factory=dict)
    path: list = None                   # [{"at": s, "rssi_at": {...}}] on the steps' clock, or None


@dataclass
class Scenario:
    steps: list                         # step dicts in the order they run (by "at", then file order)
    stations: dict = field(default_factory=dict)     # name -> StationPlan
    name: str = "scenario"
    description: str = ""
    status_interval: float = 5.0
    duration: float = 0.0
    wait_for_mesh: bool = False
    path_step: float = 1.0              # seconds between the RSSIs a walking station hears
    radio_interval: float = None        # the drivers' radio reports (None: as the lab has them)
    settings: dict = field(default_factory=dict)     # configuration keys of every node for the run
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


def cli_words(args, stations, topo):
    """The words of a "cli" step for the operator's front end, and what is wrong with them:
    `args` is a list of words or one text of blank-separated words; "$NAME" stands for the
    MAC of the scenario's station NAME, "$NODE:VAP" for the BSSID of that node's VAP."""
    if isinstance(args, str):
        args = args.split()
    if not isinstance(args, list) or not args or not all(isinstance(a, str) and a for a in args):
        return [], ["'args' must be the front end's words: a non-empty list of texts, or one text"]
    words, problems = [], []
    for word in args:
        if not word.startswith("$"):
            words.append(word)
            continue
        name = word[1:]
        if name in stations:
            words.append(stations[name].mac)
            continue
        node, _, vap = name.partition(":")
        found = None
        if vap and topo is not None and node in topo.names() and topo.node(node).vap(vap) is not None:
            found = topo.node(node).vap(vap).bssid
        if found is None and not (vap and topo is None):
            problems.append(f"{word} is neither a station ({', '.join(stations) or 'none'}) nor a NODE:VAP")
        words.append(found or word)
    return words, problems


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
        for key, lo in (("status_interval", 0.1), ("duration", 0), ("path_step", 0.1), ("radio_interval", 0)):
            if key in raw and (not _number(raw[key]) or raw[key] < lo):
                self.err("", f"'{key}' must be a number of seconds" + (f" from {lo:g}" if lo else ""))
        sc.status_interval = float(raw.get("status_interval", 5.0)) if _number(raw.get("status_interval", 5.0)) else 5.0
        sc.path_step = float(raw.get("path_step", 1.0)) if _number(raw.get("path_step")) else 1.0
        sc.radio_interval = float(raw["radio_interval"]) if _number(raw.get("radio_interval")) else None
        settings = raw.get("settings", {})
        if not isinstance(settings, dict):
            self.err("", "'settings' must be an object of configuration keys")
        else:
            for problem in topo_mod.config_problems(settings):
                self.err("settings", problem)
            sc.settings = dict(settings)
        if not isinstance(raw.get("wait_for_mesh", False), bool):
            self.err("", "'wait_for_mesh' must be true or false")
        sc.wait_for_mesh = raw.get("wait_for_mesh") is True
        stations = raw.get("stations", {})
        if not isinstance(stations, dict):
            self.err("", "'stations' must be an object of named stations")
            stations = {}
        macs = {}
        for name, s in stations.items():
            plan = self.station(name, s, topo, sc.status_interval)
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
        walks = {name: p.path[-1]["at"] for name, p in sc.stations.items() if p.path}
        sc.duration = float(raw["duration"]) if _number(raw.get("duration")) else max([last, *walks.values()]) + 2.0
        if sc.duration < last:
            self.err("", f"'duration' {sc.duration:g} ends before the last step at {last:g}")
        for name, end in walks.items():
            if sc.duration < end:
                self.err("", f"'duration' {sc.duration:g} ends before the path of station '{name}' at {end:g}")
        return sc

    def station(self, name, raw, topo, status_interval):
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
        plan = StationPlan(name=name, mac=mac, settings={"active": True, "status_interval": status_interval})
        for key, names in (("bands", BANDS), ("caps", CAPS)):
            if key in raw:
                try:
                    plan.settings[key] = _bits(raw[key], names, key)
                except ValueError as e:
                    self.err(where, str(e))
        for key, lo, hi in (("nss", 1, 8), ("rssi", -127, 0), ("rate", 1, 100000), ("load", 0, 100)):
            if key in raw and self.is_integer(raw, key, where, lo, hi):
                plan.settings[key] = raw[key]
        for key, choices in (("btm", BTM_BEHAVIOURS), ("beacon", BEACON_BEHAVIOURS)):
            if key in raw and raw[key] not in choices:
                self.err(where, f"'{key}' must be one of {', '.join(choices)}, not {raw[key]!r}")
            elif key in raw:
                plan.settings[key] = raw[key]
        for key in DELAYS:
            if key in raw and (not _number(raw[key]) or raw[key] < 0):
                self.err(where, f"'{key}' must be a number of seconds from 0")
            elif key in raw:
                plan.settings[key] = raw[key]
        for key, check in (("ssid", lambda v: isinstance(v, str)), ("active", lambda v: isinstance(v, bool))):
            if key in raw and not check(raw[key]):
                self.err(where, f"'{key}' must be " + ("a text" if key == "ssid" else "true or false"))
            elif key in raw:
                plan.settings[key] = raw[key]
        if "rssi_at" in raw:
            plan.settings["rssi_at"] = self.rssi_at(raw["rssi_at"], topo, where)
        if "path" in raw:
            plan.path = self.path(raw["path"], topo, where)
        return plan

    def path(self, raw, topo, where):
        """[{"at": 0, "rssi_at": {...}}, ...]: points whose times rise."""
        if not isinstance(raw, list) or not raw:
            self.err(where, "'path' must be a non-empty list of points {\"at\": seconds, \"rssi_at\": {...}}")
            return None
        last = None
        for i, point in enumerate(raw, 1):
            here = f"{where} path point #{i}"
            if not self.fields(point, here, ["at", "rssi_at"], []):
                continue
            if not _number(point["at"]) or point["at"] < 0:
                self.err(here, "'at' must be a number of seconds from 0")
            elif last is not None and point["at"] <= last:
                self.err(here, f"'at' {point['at']:g} does not come after the point before it ({last:g})")
            else:
                last = point["at"]
            self.rssi_at(point["rssi_at"], topo, here)
        return raw if last is not None else None

    def rssi_at(self, raw, topo, where):
        """{"A": {"wlan1": -48}, "B": -70}: dBm towards one BSS, or every BSS of a node."""
        if not isinstance(raw, dict):
            self.err(where, "'rssi_at' must be an object: {NODE: dBm} or {NODE: {VAP: dBm}}")
            return {}
        for node_name, v in raw.items():
            node = self.node(node_name, topo, where, "rssi_at")
            values = v.items() if isinstance(v, dict) else [(None, v)]
            for vap, rssi in values:
                if node is not None and vap is not None and node.vap(vap) is None:
                    self.err(where, f"node {node.name} has no VAP {vap!r} (VAPs: {', '.join(x.mib for x in node.vaps)})")
                if isinstance(rssi, bool) or not isinstance(rssi, int) or not -127 <= rssi <= 0:
                    self.err(where, f"'rssi_at' of {node_name}{' ' + vap if vap else ''} must be dBm from -127 to 0")
        return raw

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
        if kind in ("join", "rssi") and ("node" in raw) != ("bss" in raw):
            self.err(where, "give a 'node' and a 'bss', or neither")
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
        if kind == "cli":
            words, problems = cli_words(raw["args"], sc.stations, topo)
            for problem in problems:
                self.err(where, problem)
            step["args"] = raw["args"].split() if isinstance(raw["args"], str) else raw["args"]
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
        if action == "loss":
            fraction = raw.get("fraction")
            if isinstance(fraction, bool) or not isinstance(fraction, (int, float)) or not 0 <= fraction <= 1:
                self.err(where, "a loss needs 'fraction', a number from 0 to 1")
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
                on[name] = s.get("node", "its strongest BSS")
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
    stations = {name: {"mac": s.mac, **s.settings, **({"path": s.path} if s.path else {})}
                for name, s in sc.stations.items()}
    raw = {"name": sc.name, "description": sc.description, "stations": stations, "steps": sc.steps,
           "status_interval": sc.status_interval, "duration": sc.duration, "wait_for_mesh": sc.wait_for_mesh,
           "path_step": sc.path_step, "settings": sc.settings}
    if sc.radio_interval is not None:
        raw["radio_interval"] = sc.radio_interval
    return raw
