"""The lab's commands, each defined once: its name, its arguments and help, what the controller
does for it, and how the command line prints the answer.

A command served by the controller (`@served`) travels as one request over the
control socket: {"cmd": name, ...its arguments as parsed}. The controller runs
the command's function with the `Lab` and the request and sends back its
result; the command line prints that with the command's `show`. Commands that
run in the command line alone (up, log, exec, scenario, demo ...) are defined
in lab/console.py with `@runs_here`. Requests that only programs send (status,
announce, records, scenario-start, scenario-stop, shutdown) are served commands
that nobody types (`typed=False`).

The command line (lab/__main__.py) builds its parser from COMMANDS; a name with
a blank ("world add") is a sub-command.
"""

import argparse
import json
import re
import threading
import time
from dataclasses import dataclass
from pathlib import Path

from lab import render, svg, topology as topo_mod
from lab.driver import API_VERSION, check_call
from lab.relay import check_seconds
from lab.sandbox import exit_text, parse_signal
from lab.wire import command_code, event_code
from lab.world import BEACON_BEHAVIOURS, BTM_BEHAVIOURS, PATH_STEP


@dataclass(frozen=True)
class Command:
    name: str
    help: str
    args: tuple = ()
    serve: object = None        # serve(lab, request) -> result, in the controller
    show: object = None         # show(result, args) prints the result, in the command line
    run: object = None          # run(args) -> exit status, for a command the command line runs alone
    offline: object = None      # offline(args) -> result, in the command line when no lab runs
    typed: bool = True          # False: a request of programs only
    timeout: float = 30.0       # how long the command line waits for the answer


COMMANDS = []
TIMELINE_SVG = "timeline.svg"      # the last scenario's picture, in the lab directory
WORLD_SVG = "world.svg"            # `picture`'s
GROUPS = {
    "world": "stations that answer like real ones: add | set | join | roam | leave | rssi | walk | radio | show "
             "| timeline | check",
    "relay": "mesh faults: drop | delay | loss | partition | heal | clear | show",
}


def arg(*flags, **opts):
    return flags, opts


def served(name, help, *args, show=None, offline=None, typed=True, timeout=30.0):
    """Defines a command the controller serves with the decorated function."""
    def register(fn):
        COMMANDS.append(Command(name, help, args, serve=fn, show=show or show_json, offline=offline, typed=typed,
                                timeout=timeout))
        return fn
    return register


def runs_here(name, help, *args):
    """Defines a command the command line runs alone with the decorated function."""
    def register(fn):
        COMMANDS.append(Command(name, help, args, run=fn))
        return fn
    return register


def find(name):
    """The command named `name`; ValueError when there is none."""
    for c in COMMANDS:
        if c.name == name:
            return c
    raise ValueError(f"unknown command {name!r}")


def number(lo, hi, base=10, kind=int):
    """An argparse type: a number from `lo` to `hi` (`base` 0: also 0x... and 0b...)."""
    def convert(text):
        try:
            value = int(text, base) if kind is int else float(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"{text!r} is not a {'whole ' if kind is int else ''}number") from None
        if not lo <= value <= hi:
            raise argparse.ArgumentTypeError(f"{text} is not from {lo} to {hi}")
        return value
    return convert


BYTE, SBYTE, BITS, RSSI = number(0, 255), number(-128, 127), number(0, 0xFFFFFFFF, 0), number(-127, 0)
SECONDS = number(0, 86400, kind=float)


def parser(common):
    """The command line's parser: every typed command of COMMANDS; `args.command` is the one typed."""
    p = argparse.ArgumentParser(prog="python3 -m lab", description="The bandherd lab: a simulated mesh.",
                                parents=[common])
    sub = p.add_subparsers(dest="group", required=True, metavar="COMMAND")
    groups = {}
    for c in sorted(COMMANDS, key=lambda c: c.run is None):      # those run here (up, down ...) first
        if not c.typed:
            continue
        head, _, rest = c.name.partition(" ")
        into = sub
        if rest:
            if head not in groups:
                gp = sub.add_parser(head, parents=[common], help=GROUPS[head], description=GROUPS[head])
                groups[head] = gp.add_subparsers(dest="action", required=True, metavar="ACTION")
            into = groups[head]
        sp = into.add_parser(rest or head, parents=[common], help=c.help, description=c.help)
        sp.set_defaults(command=c)
        for flags, opts in c.args:
            sp.add_argument(*flags, **opts)
    return p


def request_of(command, args):
    """The control request of a typed command: its name and its arguments as parsed."""
    skip = {"dir", "command", "group", "action"}
    return {"cmd": command.name, **{k: v for k, v in vars(args).items() if k not in skip}}


# -- printing -------------------------------------------------------------------------------------

def show_json(result, args=None):
    print(json.dumps(result, indent=2))


def show_nodes(nodes, args=None):
    if getattr(args, "json", False):
        return show_json(nodes)
    print(f"{'node':<6} {'id':<18} {'address':<15} {'portal':<6} {'pid':>7}  daemon")
    for n in nodes:
        pid = n["daemon_pid"] or "-"
        print(f"{n['name']:<6} {n['id']:<18} {n['address']:<15} {'yes' if n['portal'] else '':<6} "
              f"{pid:>7}  {n['daemon']}")


def show_sent(what):
    return lambda sent, args: print(f"sent {what(args, sent)} to {args.node}: {sent}")


def show_stations(stations, args=None):
    """One line per world station: where it is, its behaviours, its blocks per node, its plans."""
    for st in stations:
        where = " ".join(st["where"]) if st["where"] else \
            f"(out {st['out_for']} s)" if st["out_for"] is not None else "(away)"
        stale = f" (still on {','.join(st['stale'])} for its driver)" if st["stale"] else ""
        blocks = "; ".join(f"{n} {'+'.join(v) if isinstance(v, list) else v}" for n, v in st["blocks"].items())
        plans = ", ".join(f"{what} in {due} s" for what, due in st["plans"])
        print(f"{st['mac']}  {st['ssid']:<8} btm={st['btm']:<6} beacon={st['beacon']:<6} on {where}{stale}"
              f"  blocked: {blocks or '-'}" + (f"  next: {plans}" if plans else ""))


def show_timeline(records, args=None):
    base = records[0]["mono"] if records else 0.0
    for r in records:
        rest = " ".join(f"{k}={v}" for k, v in r.items() if k not in ("kind", "what", "mac", "t", "mono"))
        print(f"{r['mono'] - base:8.2f}  {r['mac']}  {r['what']:<14} {rest}")


def show_check(report, args=None):
    for line in render.check_lines(report):
        print(line)


# -- the lab and its daemons ---------------------------------------------------------------------

@served("status", "whether the lab is up", typed=False)
def status(lab, req):
    return lab.status()


@served("nodes", "the nodes and their daemons", arg("--json", action="store_true"), show=show_nodes)
def nodes(lab, req):
    return lab.nodes()


@served("start", "start a node's daemon", arg("node"),
        show=lambda pid, args: print(f"bandherd started in {args.node}, pid {pid}"))
def start(lab, req):
    return lab.start_node(req["node"]).pid


@served("stop", "signal a node's daemon (TERM, INT, ABRT, RTMIN+1, a number) and wait for its end",
        arg("node"), arg("--signal", default="TERM"), timeout=40.0,
        show=lambda state, args: print(f"bandherd of {args.node}: {state}"))
def stop(lab, req):
    return exit_text(lab.stop_daemon(req["node"], parse_signal(req.get("signal", "TERM")), 30.0))


@served("announce", "SAP_INFO to a node with a wireless backhaul", typed=False)
def announce(lab, req):
    return lab.announce_uplink(req["node"])


@served("records", "a node's driver records", typed=False)
def records(lab, req):
    return lab.driver(req["node"]).records(**req.get("match", {}))


@served("scenario-start", "play a decoded scenario file on a thread", typed=False)
def scenario_start(lab, req):
    return lab.start_scenario(req["scenario"], req.get("source"), req.get("base"))


@served("scenario-stop", "end the running scenario early", typed=False)
def scenario_stop(lab, req):
    if lab.scenario is None or not lab.scenario.running():
        return "no scenario runs"
    lab.scenario.stop()
    return "stopping"


@served("shutdown", "end the lab (what `down` asks a running controller)", typed=False)
def shutdown(lab, req):
    if lab.serving:
        lab.stop_requested.set()
    else:
        threading.Thread(target=lab.down, daemon=True).start()
    return "going down"


# -- driver events, by hand ------------------------------------------------------------------------

@served("inject", "send a driver event (code or name, payload in hex) to a node's daemon",
        arg("node"), arg("event", help="event code or name: 2, STA_JOIN, MAPS_EV_STA_JOIN"),
        arg("hex", nargs="?", default="", help="the payload in hex"),
        show=show_sent(lambda args, sent: f"{len(sent) // 2} bytes"))
def inject(lab, req):
    code = event_code(req["event"])
    try:
        payload = bytes.fromhex(req.get("hex", "").replace(":", ""))
    except ValueError:
        raise ValueError(f"inject: the payload {req['hex']!r} is not hex") from None
    return lab.send_event(req["node"], lambda drv: drv.inject(code, payload))


@served("sta", "a station event: join, leave, band or status",
        arg("node"), arg("event", choices=["join", "leave", "band", "status"]), arg("mac"),
        arg("--bss", type=BYTE, required=True, help="the driver's BSS index"), arg("--rssi", type=SBYTE),
        arg("--bands", type=BITS, help="band bits: 2G 2, 5L 4, 5H 8, 6G 16"),
        arg("--caps", type=BITS, help="capability bits: HT 1, VHT 2, RRM 4, BTM 8, HE 16"),
        arg("--nss", type=BYTE), arg("--load", type=BYTE), arg("--sta-num", type=BYTE),
        arg("--active", type=int, choices=[0, 1]),
        show=show_sent(lambda args, sent: f"STA_{args.event.upper()} for {args.mac}"))
def sta(lab, req):
    node = lab.node(req["node"])
    told = {i: b["if"] for i, b in lab.driver(node.name).state()["bss"].items()}
    problem = node.bss_problem(req["bss"], told)
    if problem:
        raise ValueError(problem)
    fields = {k: req[k] for k in ("bands", "caps", "rssi", "nss", "load", "sta_num", "active")
              if req.get(k) is not None}
    return lab.send_event(node.name, lambda drv: drv.sta_event(req["event"], req["mac"].lower(), req["bss"],
                                                                **fields))


@served("radio", "a radio status event",
        arg("node"), arg("index", type=BYTE), arg("channel", type=BYTE), arg("--load", type=BYTE),
        arg("--sta-num", type=BYTE), arg("--work-band", type=BITS), show=show_sent(lambda args, sent: "RADIO_STATUS"))
def radio(lab, req):
    fields = {k: req[k] for k in ("load", "sta_num", "work_band") if req.get(k) is not None}
    return lab.send_event(req["node"], lambda drv: drv.radio_status(req["index"], req["channel"], **fields))


@served("driver", "driver misbehaviour of a node",
        arg("node"), arg("--pong-version", help="version text of the netlink pong"),
        arg("--no-pong", action="store_true", help="do not answer the netlink ping"),
        arg("--ping-answer", help="4-byte answer of the MAPS ping"),
        arg("--ping-fails", action="store_true", help="fail the MAPS ping"),
        arg("--fail", action="append", metavar="CALL[=RESULT]", help="make a Wi-Fi call fail"),
        arg("--refuse", action="append", metavar="CMD[=RESULT]", help="make a MAPS command fail"),
        arg("--reset", action="store_true", help="behave again"))
def driver(lab, req):
    drv = lab.driver(req["node"])
    calls = {check_call(k): r for k, r in _results("--fail", req.get("fail")).items()}
    cmds = {command_code(k): r for k, r in _results("--refuse", req.get("refuse")).items()}
    if req.get("reset"):
        drv.pong_version, drv.ping_answer, drv.call_results, drv.command_results = API_VERSION, b"pong", {}, {}
    if req.get("pong_version") is not None:
        drv.pong_version = req["pong_version"]
    if req.get("no_pong"):
        drv.pong_version = None
    if req.get("ping_answer") is not None:
        drv.ping_answer = req["ping_answer"].encode()
    if req.get("ping_fails"):
        drv.ping_answer = None
    if calls:
        drv.call_results = calls
    if cmds:
        drv.command_results = cmds
    return {"pong_version": drv.pong_version,
            "ping_answer": None if drv.ping_answer is None else drv.ping_answer.decode(errors="replace"),
            "call_results": drv.call_results, "command_results": drv.command_results}


def _results(option, items):
    """{name: result} from NAME[=RESULT] arguments (the result -1 when not given)."""
    out = {}
    for item in items or []:
        name, sep, result = item.partition("=")
        try:
            out[name] = int(result) if sep else -1
        except ValueError:
            raise ValueError(f"{option} {item}: the result after '=' must be a whole number") from None
    return out


# -- the mesh ----------------------------------------------------------------------------------------

@served("send", "a mesh message from the lab's mesh daemon to a node (or 'broadcast')",
        arg("node"), arg("type"), arg("json"),
        arg("--from", dest="sender", default=None, help="send as this node (default: the lab)"))
def send(lab, req):
    try:
        body = json.loads(req["json"]) if isinstance(req["json"], str) else req["json"]
    except ValueError as e:
        raise ValueError(f"not JSON: {e}") from None
    return lab.send(req.get("sender"), req["node"], req["type"], body)


def _recorded_messages(args):
    """No lab runs: the mesh messages the last one recorded."""
    path = Path(args.dir) / "mesh.jsonl"
    if not path.exists():
        raise ValueError(f"no lab runs in {args.dir}, and no lab left a record of mesh messages there ({path.name})")
    found = []
    for line in path.read_text(errors="replace").splitlines():
        try:
            m = json.loads(line)
        except ValueError:
            continue
        if not args.type or m.get("type") == args.type:
            found.append(m)
    return found


@served("messages", "the mesh messages seen so far (when no lab runs, those the last one recorded)",
        arg("--type"), offline=_recorded_messages, show=lambda found, args: [print(json.dumps(m)) for m in found])
def messages(lab, req):
    return lab.relay.messages(**({"type": req["type"]} if req.get("type") else {}))


@served("relay drop", "drop every message, or those of the given types", arg("types", nargs="*", metavar="TYPE"))
def relay_drop(lab, req):
    lab.relay.drop(req["types"] or None)
    return lab.relay.faults()


@served("relay delay", "hold messages (of the given types, or all) for SECONDS; 0 ends it",
        arg("seconds"), arg("types", nargs="*", metavar="TYPE"))
def relay_delay(lab, req):
    lab.relay.delay(check_seconds(req["seconds"]), req["types"] or None)
    return lab.relay.faults()


@served("relay loss", "lose each message to each node with probability FRACTION (0 ends it)", arg("fraction"))
def relay_loss(lab, req):
    try:
        lab.relay.loss(req["fraction"])
    except (TypeError, ValueError):
        raise ValueError(f"a loss is a fraction from 0 to 1, not {req['fraction']!r}") from None
    return lab.relay.faults()


@served("relay partition", "split the nodes into groups that do not hear each other (A,B C)",
        arg("groups", nargs="+", metavar="GROUP", help="a comma-separated list of nodes"))
def relay_partition(lab, req):
    lab.relay.partition(*[g.split(",") for g in req["groups"]])
    return lab.relay.faults()


@served("relay heal", "end the partition")
def relay_heal(lab, req):
    lab.relay.heal()
    return lab.relay.faults()


@served("relay clear", "end every fault")
def relay_clear(lab, req):
    lab.relay.clear()
    return lab.relay.faults()


@served("relay show", "the faults in force")
def relay_show(lab, req):
    return lab.relay.faults()


# -- the radio world ---------------------------------------------------------------------------------

STATION_ARGS = (
    arg("--ssid", help="its ESS (default: the topology's first SSID)"),
    arg("--btm", choices=BTM_BEHAVIOURS, help="towards a BSS transition request (default obey)"),
    arg("--beacon", choices=BEACON_BEHAVIOURS, help="towards a beacon request: report dBm, true RCPI, or not"),
    arg("--caps", type=number(0, 31), help="capability bits: HT 1, VHT 2, RRM 4, BTM 8, HE 16 (default 15)"),
    arg("--bands", type=number(0, 31), help="band bits: 2G 2, 5L 4, 5H 8, 6G 16 (default 14)"),
    arg("--nss", type=number(1, 8)), arg("--rssi", type=RSSI, help="dBm towards every BSS (default -60)"),
    arg("--at", action="append", metavar="NODE[:VAP]=RSSI", help="dBm towards one node's BSSes, or one BSS"),
    arg("--rate", type=number(1, 100000), help="the link rate sta_info answers, Mbit/s"),
    arg("--load", type=BYTE), arg("--active", type=int, choices=[0, 1]),
    arg("--answer-delay", type=SECONDS, help="seconds to answer a request (default 0.2)"),
    arg("--move-delay", type=SECONDS, help="seconds from leaving to the next association (default 1)"),
    arg("--return-after", type=SECONDS, help="seconds a sticky station stays on the target (default 5)"),
    arg("--retry-after", type=SECONDS, help="seconds before a station every BSS refused tries again (default 2)"),
    arg("--status-interval", type=SECONDS, help="seconds between status events while associated (default 5)"),
)


def _settings(req):
    out = {k: req[k] for k in ("ssid", "btm", "beacon", "caps", "bands", "nss", "rssi", "rate", "load",
                               "answer_delay", "move_delay", "return_after", "retry_after", "status_interval")
           if req.get(k) is not None}
    if req.get("active") is not None:
        out["active"] = bool(req["active"])
    at = {}
    for item in req.get("at") or []:
        m = re.fullmatch(r"([^:=]+)(?::([^=]+))?=(-?\d+)", item)
        if not m:
            raise ValueError(f"--at NODE[:VAP]=RSSI, not {item!r}")
        if m.group(2):
            at.setdefault(m.group(1), {})[m.group(2)] = int(m.group(3))
        else:
            at[m.group(1)] = int(m.group(3))
    if at:
        out["rssi_at"] = at
    return out


@served("world add", "define a station (replacing one of that MAC), not yet associated",
        arg("mac"), *STATION_ARGS, show=lambda st, args: show_stations([st]))
def world_add(lab, req):
    return lab.world.add(req["mac"], **_settings(req))


@served("world set", "change a station's settings; its driver reports the change",
        arg("mac"), *STATION_ARGS, show=lambda st, args: show_stations([st]))
def world_set(lab, req):
    return lab.world.update(req["mac"], **_settings(req))


def _node_vap(req, what):
    if (req.get("node") is None) != (req.get("vap") is None):
        raise ValueError(f"world {what}: give a NODE and a VAP, or neither")


@served("world join", "the station associates: to that BSS, or to the strongest that lets it in",
        arg("mac"), arg("node", nargs="?"), arg("vap", nargs="?"),
        show=lambda where, args: print(f"{args.mac} on {' '.join(where) if where else '(out: every BSS refused it)'}"))
def world_join(lab, req):
    _node_vap(req, "join")
    return lab.world.associate(req["mac"], req.get("node"), req.get("vap"))


@served("world roam", "the station goes to that BSS (leaving its own first, unless --unnoticed)",
        arg("mac"), arg("node"), arg("vap"),
        arg("--unnoticed", action="store_true", help="its old node's driver keeps it until a kick"),
        show=lambda where, args: print(f"{args.mac} on {' '.join(where) if where else '(out)'}"))
def world_roam(lab, req):
    return lab.world.roam(req["mac"], req["node"], req["vap"], leave_first=not req.get("unnoticed"))


@served("world leave", "the station leaves on its own and stays away", arg("mac"),
        show=lambda _, args: print(f"{args.mac} left"))
def world_leave(lab, req):
    lab.world.leave(req["mac"])


@served("world rssi", "the station hears every BSS (or one) at RSSI dBm",
        arg("mac"), arg("rssi", type=RSSI), arg("node", nargs="?"), arg("vap", nargs="?"),
        arg("--rate", type=number(1, 100000)), show=lambda st, args: show_stations(st))
def world_rssi(lab, req):
    _node_vap(req, "rssi")
    lab.world.set_rssi(req["mac"], req["rssi"], req.get("node"), req.get("vap"), req.get("rate"))
    return lab.world.show(req["mac"])


@served("world walk", "the station walks a path: its RSSI towards BSSes over time, from now",
        arg("mac"), arg("path", help='JSON as in a scenario: [{"at": 0, "rssi_at": {"A": -50, "B": -85}}, '
                                     '{"at": 30, "rssi_at": {"A": -85, "B": -50}}]'),
        arg("--step", type=number(0.1, 60, kind=float), help="seconds between the RSSIs it hears (default 1)"),
        show=lambda _, args: print(f"{args.mac} walks its path"))
def world_walk(lab, req):
    try:
        path = json.loads(req["path"]) if isinstance(req["path"], str) else req["path"]
    except ValueError as e:
        raise ValueError(f"world walk: the path is not JSON: {e}") from None
    lab.world.walk(req["mac"], path, req.get("step") or PATH_STEP)


@served("world radio", "a node's radio: its channel, base load and base station count; its driver reports it",
        arg("node"), arg("radio", help="its name in the topology"), arg("--channel", type=BYTE),
        arg("--load", type=number(0, 100), help="channel utilisation, %%, besides its stations' load"),
        arg("--sta-num", type=BYTE, help="stations besides the world's"),
        show=lambda index, args: print(f"{args.node} {args.radio} (radio {index}) reported"))
def world_radio(lab, req):
    return lab.driver(req["node"]).set_radio(req["radio"], req.get("channel"), req.get("load"), req.get("sta_num"))


@served("world show", "where each station is, its behaviours, its blocks per node, its lock-out, its plans",
        arg("mac", nargs="?"), show=show_stations)
def world_show(lab, req):
    return lab.world.show(req.get("mac"))


@served("world timeline", "what happened to one station, or to all", arg("mac", nargs="?"), show=show_timeline)
def world_timeline(lab, req):
    return lab.world.timeline(req.get("mac"))


@served("world check", "the longest block of each station on every BSS of its ESS, and its longest lock-out",
        show=show_check)
def world_check(lab, req):
    return lab.check()


# -- pictures ----------------------------------------------------------------------------------------

def write_picture(args, path, records, title, origin=None, end=None):
    """Draws world records (lab/svg.py) into `path` with the lab's topology; returns the path."""
    try:
        topo = topo_mod.load(Path(args.dir) / "topology.json")
    except topo_mod.TopologyError as e:
        raise ValueError(f"no picture without the lab's topology: {e}") from None
    path = Path(path)
    path.write_text(svg.draw(records, topo, title, origin, end))
    return path


def _recorded_world(args):
    """No lab runs: the world records the last one left in <lab>/world.jsonl."""
    path = Path(args.dir) / "world.jsonl"
    if not path.exists():
        raise ValueError(f"no lab runs in {args.dir}, and no lab left a record of its radio world there")
    recs = []
    for line in path.read_text(errors="replace").splitlines():
        try:
            recs.append(json.loads(line))
        except ValueError:
            continue
    return {"records": recs, "now": None}


def show_picture(result, args):
    recs = result["records"]
    origin = recs[0]["mono"] if recs else None
    end = result["now"] - origin if result["now"] is not None and origin is not None else None
    out = Path(args.out) if args.out else Path(args.dir) / WORLD_SVG
    print(write_picture(args, out, recs, f"the radio world of {args.dir}", origin, end))


@served("picture", "draw the radio world's timeline as SVG, a row per station (when no lab runs, the last one's)",
        arg("--out", metavar="PATH", help=f"where it goes (default <lab>/{WORLD_SVG})"),
        show=show_picture, offline=_recorded_world)
def picture(lab, req):
    return {"records": lab.world.timeline(), "now": time.monotonic()}
