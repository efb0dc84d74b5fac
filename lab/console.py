"""The commands the lab's command line runs itself: bringing a lab up and down, looking into
its nodes, playing scenarios and the demo. They are rows of the one command table
(lab/commands.py), defined here with `@runs_here` because they run in the command
line rather than in the controller.
"""

import argparse
import json
import os
import re
import subprocess
import sys
import time
from pathlib import Path

from lab import daemonlog, netns, render, scenario_check, topology as topo_mod
from lab.commands import TIMELINE_SVG, arg, runs_here, show_nodes, write_picture
from lab.controller import Lab, LabError, check_dir, control_request, controller_pid, default_dir, teardown
from lab.sandbox import REPO, STEER_CLI, daemon_binary, wait_until

READY = r"bandherd is ready\."


def fail(text):
    print(f"lab: {text}", file=sys.stderr)
    sys.exit(1)


def request(args, req, timeout=30.0):
    try:
        return control_request(args.dir, req, timeout)
    except (FileNotFoundError, ConnectionRefusedError):
        fail(f"no lab controller runs in {args.dir} (start one with `python3 -m lab up TOPOLOGY`)")
    except LabError as e:
        fail(str(e))


# -- up, serve, down ------------------------------------------------------------------

def parse_settings(items, topo=None):
    """{key: value} from `--set KEY=VALUE` arguments; with `topo`, only keys its daemons read."""
    settings = {}
    for item in items:
        key, sep, value = item.partition("=")
        if not sep:
            fail(f"--set {item!r}: a setting is KEY=VALUE")
        settings[key] = value
    problems = topo.config_problems(settings) if topo is not None else []
    if problems:
        fail("--set: " + "; ".join(problems))
    return settings


def start_background(lab_dir, topology_path, daemons=True, settings=()):
    """Starts `serve` as a detached process and waits until its lab is up."""
    try:
        topo = topo_mod.load(topology_path)
    except topo_mod.TopologyError as e:
        fail(str(e))
    parse_settings(settings, topo)
    check_dir(lab_dir, topo)
    lab_dir = Path(lab_dir)
    pid = controller_pid(lab_dir)
    if pid is not None:
        try:
            control_request(lab_dir, {"cmd": "status"}, 2.0)
            fail(f"a lab already runs in {lab_dir} (controller pid {pid}); `python3 -m lab down` first")
        except (OSError, LabError):
            pass
    try:
        lab_dir.mkdir(parents=True, exist_ok=True)
    except OSError as e:
        fail(f"cannot make the lab directory {lab_dir}: {e.strerror}")
    argv = [sys.executable, "-m", "lab", "serve", str(Path(topology_path).resolve()), "--dir", str(lab_dir)]
    if not daemons:
        argv.append("--no-daemons")
    for s in settings:
        argv += ["--set", s]
    env = dict(os.environ)
    env["BANDHERD_BIN"] = str(daemon_binary().resolve())     # the controller runs in the repository
    env["PYTHONPATH"] = str(REPO) + (os.pathsep + env["PYTHONPATH"] if env.get("PYTHONPATH") else "")
    with open(lab_dir / "controller.log", "w") as out:
        proc = subprocess.Popen(argv, cwd=REPO, env=env, stdin=subprocess.DEVNULL, stdout=out,
                                stderr=subprocess.STDOUT, start_new_session=True)

    def ready():
        if proc.poll() is not None:
            return True
        try:
            return control_request(lab_dir, {"cmd": "status"}, 2.0)["ready"]
        except (OSError, LabError, ValueError):
            return False

    wait_until(ready, 30.0, 0.05)
    if proc.poll() is not None:
        sys.stderr.write((lab_dir / "controller.log").read_text())
        fail(f"the lab controller stopped (status {proc.returncode}); its output is above")
    return proc.pid


def last_words(text):
    """What a daemon's log says last that tells why it stopped: its last fatal line, else its
    last error line, else its last line."""
    lines = [line for line in text.splitlines() if line.strip()]
    if not lines:
        return "its log is empty"
    parsed = [(daemonlog.parse(line), line) for line in lines]
    for level in ("fatal", "error"):
        found = [p for p, _ in parsed if p is not None and p.level == level]
        if found:
            return f"its log: {found[-1].level} {found[-1].func}: {found[-1].text}"
    p, raw = parsed[-1]
    return f"its log: {raw if p is None else f'{p.level} {p.func}: {p.text}'}"


def wait_ready(args, names, timeout=15.0):
    """Waits until each node's daemon is ready or has failed: ended, or logged a fatal line (it
    then exits after its restart delay). Returns {node: None when ready, else why not, in words}."""
    logs = {n: Path(args.dir) / "nodes" / n / "bandherd.log" for n in names}

    def state():
        nodes = {n["name"]: n for n in request(args, {"cmd": "nodes"})}
        out = {}
        for n in names:
            text = logs[n].read_text(errors="replace") if logs[n].exists() else ""
            daemon = nodes[n]["daemon"]
            if re.search(READY, text):
                out[n] = None
            elif daemon.startswith(("exited", "killed")):
                out[n] = f"its daemon {daemon}; {last_words(text)}"
            elif any(p is not None and p.level == "fatal" for p in map(daemonlog.parse, text.splitlines())):
                out[n] = f"its daemon stopped on a fatal error (it exits after its restart delay); {last_words(text)}"
        return out

    wait_until(lambda: len(state()) == len(names), timeout, 0.1)
    out = state()
    for n in names:
        if n not in out:
            text = logs[n].read_text(errors="replace") if logs[n].exists() else ""
            out[n] = f"its daemon is not ready after {timeout:g} s; {last_words(text)}"
    return out


MESH_ARGS = (arg("topology", type=Path),
             arg("--no-daemons", action="store_true", help="do not start the daemons"),
             arg("--set", action="append", default=[], metavar="KEY=VALUE",
                 help="add a configuration key to every node"))


@runs_here("up", "bring a mesh up and keep it running in the background", *MESH_ARGS)
def cmd_up(args):
    pid = start_background(args.dir, args.topology, not args.no_daemons, args.set)
    nodes = request(args, {"cmd": "nodes"})
    failed = {}
    if not args.no_daemons:
        failed = {n: why for n, why in wait_ready(args, [n["name"] for n in nodes]).items() if why}
        nodes = request(args, {"cmd": "nodes"})
    print(f"lab up in {args.dir} (controller pid {pid}, its output in {args.dir}/controller.log)")
    show_nodes(nodes)
    print(f"""
  each node's files:   {args.dir}/nodes/<name>/  (its /var: bandherd.conf, bandherd.log,
                       driver.jsonl, run/, steer_socket, weft_socket)
  mesh messages:       {args.dir}/mesh.jsonl
  then:                python3 -m lab nodes | log NODE -f | exec NODE | send NODE TYPE JSON | down""")
    if failed:
        sys.stdout.flush()
        for name, why in failed.items():
            print(f"lab: {name} did not start: {why}", file=sys.stderr)
        print(f"lab: the lab keeps running; `python3 -m lab --dir {args.dir} log NODE` shows a daemon's log, "
              f"`down` ends the lab", file=sys.stderr)
        return 1
    return 0


@runs_here("serve", "run a lab's controller in the foreground", *MESH_ARGS)
def cmd_serve(args):
    settings = parse_settings(args.set)
    try:
        Lab().serve(args.topology, args.dir, settings, daemons=not args.no_daemons)
    except (topo_mod.TopologyError, LabError, netns.NamespaceError) as e:
        fail(str(e))


@runs_here("down", "tear the lab down (also after a failed run)")
def cmd_down(args):
    print(teardown(args.dir))


# -- looking ---------------------------------------------------------------------------

def node_dir(args, name):
    d = Path(args.dir) / "nodes" / name
    if not d.is_dir():
        have = sorted(p.name for p in (Path(args.dir) / "nodes").glob("*")) if (Path(args.dir) / "nodes").exists() else []
        fail(f"no node {name!r} in {args.dir} (nodes: {', '.join(have) or 'none'})")
    return d


@runs_here("log", "a node's daemon output", arg("node"), arg("-f", "--follow", action="store_true"))
def cmd_log(args):
    path = node_dir(args, args.node) / "bandherd.log"
    pos = 0
    try:
        while True:
            if path.exists():
                with open(path, "rb") as f:
                    f.seek(pos)
                    chunk = f.read()
                    pos += len(chunk)
                sys.stdout.write(chunk.decode(errors="replace"))
                sys.stdout.flush()
            if not args.follow:
                return
            time.sleep(0.2)
    except KeyboardInterrupt:
        pass


def exec_in_node(args, argv):
    ledger = netns.Ledger.read(args.dir)
    if ledger is None or args.node not in ledger.data["nodes"]:
        fail(f"no node {args.node!r} is up in {args.dir}")
    pid = ledger.data["nodes"][args.node]["pid"]
    cmd = netns.enter_command(pid, ledger.data["root"], os.getcwd()) + argv
    os.execvp(cmd[0], cmd)


@runs_here("exec", "run a command (default: a shell) inside a node", arg("node"),
           arg("argv", nargs=argparse.REMAINDER))
def cmd_exec(args):
    argv = args.argv or [os.environ.get("SHELL", "/bin/sh")]
    if argv and argv[0] == "--":
        argv = argv[1:]
    exec_in_node(args, argv)


@runs_here("cli", "run the operator's front end tools/steer_cli.sh inside a node: cli A sta -l", arg("node"),
           arg("argv", nargs=argparse.REMAINDER))
def cmd_cli(args):
    argv = args.argv[1:] if args.argv[:1] == ["--"] else args.argv
    exec_in_node(args, ["sh", str(STEER_CLI), *argv])


# -- scenarios ----------------------------------------------------------------------------

def read_scenario(args, path):
    """A scenario file, checked against the running lab's topology; fails with every problem."""
    path = Path(path)
    try:
        raw = json.loads(path.read_text())
    except OSError as e:
        fail(f"cannot read {path}: {e.strerror}")
    except json.JSONDecodeError as e:
        fail(f"{path} is not JSON: {e}")
    topo = None
    if (Path(args.dir) / "topology.json").exists():
        try:
            topo = topo_mod.load(Path(args.dir) / "topology.json")
        except topo_mod.TopologyError:
            topo = None
    try:
        sc = scenario_check.parse(raw, str(path), topo, base=path.parent)
    except scenario_check.ScenarioError as e:
        fail(str(e))
    return raw, sc


def play(args, path, raw, sc, on_batch):
    """Has the running lab's controller play a scenario and hands its timeline records to
    `on_batch` (a list at a time) as they come; returns the summary. Ctrl-C ends it early."""
    if controller_pid(args.dir) is None:
        hint = f" {scenario_check.topology_path(sc.topology, Path(path).parent) or sc.topology}" if sc.topology else ""
        fail(f"no lab runs in {args.dir}; start one first: python3 -m lab up{hint}")
    started = request(args, {"cmd": "scenario-start", "scenario": raw, "source": str(path),
                             "base": str(Path(path).resolve().parent)})
    tail = daemonlog.Tail(started["timeline"], from_start=True)
    stop_sent = None
    while True:
        try:
            recs = [json.loads(line) for line in tail.lines() if line.strip()]
            summary = next((r for r in recs if r.get("kind") == "summary"), None)
            on_batch([r for r in recs if r.get("kind") != "summary"])
            if summary is not None:
                return summary
            if controller_pid(args.dir) is None:
                fail("the lab's controller went away during the scenario")
            if stop_sent is not None and time.monotonic() - stop_sent > 15:
                fail("the scenario did not stop")
            time.sleep(0.1)
        except KeyboardInterrupt:
            if stop_sent is not None:
                raise
            print("\n(stopping the scenario)", flush=True)
            request(args, {"cmd": "scenario-stop"})
            stop_sent = time.monotonic()


@runs_here("scenario", "play a scenario file against the running lab and print its timeline",
           arg("file", type=Path),
           arg("-v", "--verbose", action="store_true",
               help="also periodic status events, Wi-Fi queries and every log line at info level"),
           arg("-q", "--quiet", action="store_true", help="only the summary"),
           arg("--svg", type=Path, metavar="PATH", help=f"where the picture of its stations goes "
                                                         f"(default <lab>/{TIMELINE_SVG})"))
def cmd_scenario(args):
    raw, sc = read_scenario(args, args.file)
    world = []

    def show(recs):
        world.extend(r for r in recs if r.get("kind") == "world")
        for r in recs:
            line = render.describe(r, args.verbose)
            if line is not None and not args.quiet:
                print(line, flush=True)

    summary = play(args, args.file, raw, sc, show)
    print()
    for line in render.summary_lines(summary):
        print(line)
    print(f"timeline: {Path(args.dir) / scenario_check.TIMELINE}")
    picture = write_picture(args, args.svg or Path(args.dir) / TIMELINE_SVG, world, f"scenario {sc.name}",
                            end=summary.get("at"))
    print(f"picture: {picture}")
    return 1 if summary["failed"] else 0


# -- demo ---------------------------------------------------------------------------------

class SteerTeller:
    """The demo's words: each steer as it happens, from a scenario's timeline records."""

    REASONS = {"HIGH_RSSI": "its signal on 2.4 GHz is strong: up to 5 GHz",
               "LOW_RSSI": "its signal is weak, and the target serves it clearly better",
               "OVERLOAD": "its radio is overloaded", "CMD": "the operator asked"}
    BANDS = {"2G": "2.4 GHz", "5L": "5 GHz", "5H": "5 GHz", "6G": "6 GHz"}

    def __init__(self, topology, scenario):
        self.names = {st.mac: name for name, st in scenario.stations.items()}
        self.bss = {v.bssid: f"{n.name} {self.BANDS[v.radio.band]}" for n in topology.nodes for v in n.vaps}
        self.vap = {(n.name, v.mib): f"{n.name} {self.BANDS[v.radio.band]}" for n in topology.nodes for v in n.vaps}
        self.by_channel = {(n.name, r.channel): f"{n.name}'s {self.BANDS[r.band]} radio"
                           for n in topology.nodes for r in n.radios}
        self.radio = {}     # (node, the index its daemon gave the radio) -> words, from its status reports
        self.began = {}     # mac -> when its steer began (scenario seconds)
        self.refusing = {}  # (node, radio index) -> refuses new stations
        self.turned_away = set()

    def name(self, mac):
        return self.names.get(mac, mac)

    def lines(self, recs):
        out = []
        for r in recs:
            text = self.words(r)
            if text:
                out.append(f"{r.get('at', 0):7.1f} s  {text}")
        return out

    def words(self, r):
        kind = r.get("kind")
        if kind == "start":
            return "the scenario starts"
        if kind == "step" and r.get("do") == "join":
            where = self.vap.get((r.get("node"), r.get("bss")), "the strongest BSS that lets it in")
            return f"{r['station']} joins {where}"
        if kind == "log":
            return self.log_words(r)
        if kind == "event" and r.get("event") == "RADIO_STATUS":
            self.radio[(r["node"], r.get("radio_index"))] = self.by_channel.get((r["node"], r.get("channel")))
            return None
        if kind == "driver" and r.get("cmd") == "SET_RADIO":
            f = r.get("fields", {})
            key, block = (r["node"], f.get("index")), f.get("mode") == "MAPS_BAND_BLOCK"
            if self.refusing.get(key, False) != block:
                self.refusing[key] = block
                radio = self.radio.get(key) or f"{r['node']}'s radio {f.get('index')}"
                return f"{radio} is overloaded: it refuses new stations" if block else \
                    f"{radio} is no longer overloaded: new stations are welcome again"
            return None
        if kind == "world":
            return self.world_words(r)
        return None

    def log_words(self, r):
        m = re.search(r"\[steer trigger\] from (\w+), sta (\S+) steer to bss (\S+)", r["text"])
        if m:
            self.began[m.group(2)] = r.get("at", 0)
            why = self.REASONS.get(m.group(1), m.group(1))
            return f"{r['node']} moves {self.name(m.group(2))} to {self.bss.get(m.group(3), m.group(3))} " \
                   f"with a BSS transition request ({why})"
        m = re.search(r"try to steer (\S+) to (\S+) with Backoff", r["text"])
        if m:
            self.began.setdefault(m.group(1), r.get("at", 0))
            return f"{r['node']} moves {self.name(m.group(1))} to {self.bss.get(m.group(2), m.group(2))} by Backoff: " \
                   "blocked on every other BSS of the mesh, then disconnected"
        return None

    def world_words(self, r):
        who, what, node = self.name(r["mac"]), r["what"], r.get("node")
        where = self.vap.get((node, r.get("vap")), node)
        if what == "btm_response":
            return f"{who} {'accepts' if r.get('status') == 0 else 'refuses (status %s)' % r.get('status')}"
        if what == "btm_ignored":
            return f"{who} does not answer"
        if what == "beacon_request":
            return f"{node} asks {who} which BSSes it hears on channel {r.get('channel')}"
        if what == "kicked":
            return f"{node} disconnects {who} from {where}"
        if what == "refused":
            self.turned_away.add(r["mac"])
            return f"{where} turns {who} away"
        if what == "join" and r["mac"] in self.turned_away and r["mac"] not in self.began:
            self.turned_away.discard(r["mac"])
            return f"{who} joins {where} instead"
        if what == "join" and r.get("why") not in ("step", "command"):
            began = self.began.pop(r["mac"], None)
            took = f" ({r.get('at', 0) - began:.1f} s after the steer began)" if began is not None else ""
            return f"{who} is now on {where}{took}"
        return None


@runs_here("demo", "a three-node mesh whose daemons steer stations on their own: each steer as it happens, "
                   "a summary and a picture",
           arg("--keep", action="store_true", help="leave the lab running"))
def cmd_demo(args):
    binary = daemon_binary()
    if not binary.exists():
        fail(f"{binary} is not built: cmake -S . -B build -G Ninja && cmake --build build")
    topology = REPO / "lab" / "topologies" / "three-node.json"
    scenario_file = REPO / "lab" / "scenarios" / "demo.json"
    topo = topo_mod.load(topology)
    names = topo.names()
    portal = topo.portal
    wireless = [n for n in topo.nodes if n.backhaul]
    wired = [n.name for n in topo.nodes if n is not portal and not n.backhaul]
    started = time.monotonic()
    print(f"== a three-node mesh from {topology.relative_to(REPO)}: {portal.name} is the portal, "
          f"{', '.join(wired)} wired to it"
          + "".join(f", {n.name} reaches {n.backhaul.uplink} over a wireless backhaul" for n in wireless)
          + "; each node has a 2.4 GHz and a 5 GHz BSS of the ESS 'herd'")
    raw = json.loads(scenario_file.read_text())
    settings = [f"{k}={v}" for k, v in raw.get("settings", {}).items()]
    start_background(args.dir, topology, True, settings)
    ok = True
    try:
        failed = {n: why for n, why in wait_ready(args, names, 20.0).items() if why}
        if failed:
            print("\na daemon did not become ready; its log:")
            for n, why in failed.items():
                print(f"  {n}: {why}")
                print("".join(f"  {n}| {line}\n" for line in read_log(args, n)[-15:]))
            return 1
        raw, sc = read_scenario(args, scenario_file)
        print(f"\n== {sc.description}\n   (the daemons first find each other: about 15 s)\n")
        teller = SteerTeller(topo, sc)
        world = []

        def show(recs):
            world.extend(r for r in recs if r.get("kind") == "world")
            for line in teller.lines(recs):
                print(line, flush=True)

        summary = play(args, scenario_file.relative_to(REPO), raw, sc, show)
        ok = not summary["failed"] and not summary["check"]["problems"]
        print("\n== what the daemons did")
        for line in render.steering_lines(summary["steering"]):
            print("   " + line)
        for line in render.check_lines(summary["check"])[:1]:
            print("   " + line)
        picture = write_picture(args, Path(args.dir) / TIMELINE_SVG, world, "the demo", end=summary.get("at"))
        print(f"\n== the picture (open it in a browser): {picture}")

        d = "" if args.dir == default_dir() else f" --dir {args.dir}"
        tries = [
            ("scenario lab/scenarios/walk.json", "only the walk from A to B (also upgrade, downgrade, offload, "
             "protect, node-steering, faults; six-ghz-node on lab/topologies/six-ghz.json)"),
            ("cli A sta -l", "A's stations as the operator sees them; `cli A help` for the commands"),
            ("cli B ol", "B's radios: overloaded or not, the last offload"),
            ("world add 02:aa:00:00:00:01 --btm sticky --at B:wlan1=-45", "a station that returns after a BSS "
             "transition, strongest on B's 5 GHz BSS"),
            ("world join 02:aa:00:00:00:01 A wlan0", "it associates to A's 2.4 GHz BSS"),
            ("cli A act -t 02:aa:00:00:00:01 02:00:00:00:0b:02", "A's operator steers it to B (BTM): then "
             "world timeline 02:aa:00:00:00:01, world check"),
            ("picture", "the radio world's timeline so far as a picture"),
            ("log B -f", "follow B's daemon"),
            ("down", "tear it all down"),
        ]
        print(f"\n== try next{'' if args.keep else ' (run the demo with --keep, or python3 -m lab up ' + str(topology.relative_to(REPO)) + ', first)'}")
        for cmd, what in tries:
            print(f"  python3 -m lab{d} {cmd}\n      {what}")
        print(f"  records: {args.dir}/timeline.jsonl, {args.dir}/mesh.jsonl, {args.dir}/nodes/<name>/driver.jsonl; "
              "lab/README.md tells how to write scenarios")
    finally:
        if args.keep:
            print(f"\nthe lab keeps running in {args.dir}; `python3 -m lab down` ends it")
        else:
            print(f"\n== tearing down: {teardown(args.dir)}")
        print(f"(the demo took {time.monotonic() - started:.0f} s)")
    return 0 if ok else 1


def read_log(args, name):
    path = Path(args.dir) / "nodes" / name / "bandherd.log"
    return path.read_text(errors="replace").splitlines() if path.exists() else []
