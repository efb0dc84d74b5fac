"""The lab's commands, described once.

The command line (`python3 -m lab`) builds its parser from this table and runs
`cmd_<name>` of lab/__main__.py for the command typed. The controller serves
the requests a command sends over its control socket with `Lab.serve_<request>`
for every request named here, and refuses any other. Commands that run on the
command line alone (up, log, exec ...) name no request; requests that nobody
types (status, announce, records, scenario_stop) come with the command that
sends them, or with none.
"""

import argparse
from dataclasses import dataclass
from pathlib import Path


def number(lo, hi, base=10):
    """An argparse type: a whole number from `lo` to `hi` (`base` 0: also 0x... and 0b...)."""
    def convert(text):
        try:
            value = int(text, base)
        except ValueError:
            raise argparse.ArgumentTypeError(f"{text!r} is not a whole number") from None
        if not lo <= value <= hi:
            raise argparse.ArgumentTypeError(f"{text} is not from {lo} to {hi}")
        return value
    return convert


BYTE, SBYTE, BITS = number(0, 255), number(-128, 127), number(0, 0xFFFFFFFF, 0)


def arg(*flags, **opts):
    return flags, opts


@dataclass(frozen=True)
class Command:
    name: str                  # what is typed; None: requests only, never typed
    help: str
    args: tuple = ()
    requests: tuple = ()       # the control requests it sends the controller


MESH_ARGS = (arg("topology", type=Path),
             arg("--no-daemons", action="store_true", help="do not start the daemons"),
             arg("--set", action="append", default=[], metavar="KEY=VALUE",
                 help="add a configuration key to every node"))

COMMANDS = (
    Command("up", "bring a mesh up and keep it running in the background", MESH_ARGS, ("status", "nodes")),
    Command("serve", "run a lab's controller in the foreground", MESH_ARGS),
    Command("down", "tear the lab down (also after a failed run)", (), ("down",)),
    Command("nodes", "the nodes and their daemons", (arg("--json", action="store_true"),), ("nodes",)),
    Command("log", "a node's daemon output", (arg("node"), arg("-f", "--follow", action="store_true"))),
    Command("exec", "run a command (default: a shell) inside a node",
            (arg("node"), arg("argv", nargs=argparse.REMAINDER))),
    Command("cli", "run the operator's front end tools/steer_cli.sh inside a node: cli A sta -l",
            (arg("node"), arg("argv", nargs=argparse.REMAINDER))),
    Command("inject", "send a driver event (code or name, payload in hex) to a node's daemon",
            (arg("node"), arg("event", help="event code or name: 2, STA_JOIN, MAPS_EV_STA_JOIN"),
             arg("hex", nargs="?", default="", help="the payload in hex")), ("inject",)),
    Command("sta", "a station event: join, leave, band or status",
            (arg("node"), arg("event", choices=["join", "leave", "band", "status"]), arg("mac"),
             arg("--bss", type=BYTE, required=True, help="the driver's BSS index"), arg("--rssi", type=SBYTE),
             arg("--bands", type=BITS, help="band bits: 2G 2, 5L 4, 5H 8, 6G 16"),
             arg("--caps", type=BITS, help="capability bits: HT 1, VHT 2, RRM 4, BTM 8, HE 16"),
             arg("--nss", type=BYTE), arg("--load", type=BYTE), arg("--sta-num", type=BYTE),
             arg("--active", type=int, choices=[0, 1])), ("sta",)),
    Command("radio", "a radio status event",
            (arg("node"), arg("index", type=BYTE), arg("channel", type=BYTE), arg("--load", type=BYTE),
             arg("--sta-num", type=BYTE), arg("--work-band", type=BITS)), ("radio",)),
    Command("send", "a mesh message from the lab's mesh daemon to a node (or 'broadcast')",
            (arg("node"), arg("type"), arg("json"),
             arg("--from", dest="sender", default=None, help="send as this node (default: the lab)")), ("send",)),
    Command("relay", "mesh faults: drop [TYPE..] | delay S [TYPE..] | loss FRACTION | partition A,B C | heal | "
            "clear | show",
            (arg("action", choices=["drop", "delay", "loss", "partition", "heal", "clear", "show"]),
             arg("args", nargs="*")), ("relay",)),
    Command("world", "stations that answer like real ones: add | join | leave | rssi | show | timeline",
            (arg("action", choices=["add", "join", "leave", "rssi", "show", "timeline"]), arg("args", nargs="*"),
             arg("--ssid", default="herd"), arg("--btm", choices=["obey", "reject", "ignore", "sticky"], default="obey"),
             arg("--caps", type=number(0, 31)), arg("--bands", type=number(0, 31)),
             arg("--rssi", type=number(-128, 0)), arg("--at", action="append", metavar="NODE:VAP=RSSI")), ("world",)),
    Command("driver", "driver misbehaviour of a node",
            (arg("node"), arg("--pong-version", help="version text of the netlink pong"),
             arg("--no-pong", action="store_true", help="do not answer the netlink ping"),
             arg("--ping-answer", help="4-byte answer of the MAPS ping"),
             arg("--ping-fails", action="store_true", help="fail the MAPS ping"),
             arg("--fail", action="append", metavar="CALL[=RESULT]", help="make a Wi-Fi call fail"),
             arg("--refuse", action="append", metavar="CMD[=RESULT]", help="make a MAPS command fail"),
             arg("--reset", action="store_true", help="behave again")), ("driver",)),
    Command("start", "start a node's daemon", (arg("node"),), ("start",)),
    Command("stop", "signal a node's daemon and wait for its end", (arg("node"), arg("--signal", default="TERM")),
            ("stop",)),
    Command("messages", "the mesh messages seen so far", (arg("--type"),), ("messages",)),
    Command("scenario", "play a scenario file against the running lab and print its timeline",
            (arg("file", type=Path),
             arg("-v", "--verbose", action="store_true",
                 help="also periodic status events, Wi-Fi queries and every log line at info level"),
             arg("-q", "--quiet", action="store_true", help="only the summary")), ("scenario", "scenario_stop")),
    Command("demo", "a three-node mesh, a short scenario, neighbour tables and station counts converging",
            (arg("--keep", action="store_true", help="leave the lab running"),), ("nodes",)),
    Command(None, "what only programs ask", (), ("status", "announce", "records")),
)

# Every request the controller serves.
REQUESTS = frozenset(r for c in COMMANDS for r in c.requests)


def parser(functions, common):
    """The command line's parser: each command typed runs functions["cmd_<name>"]."""
    p = argparse.ArgumentParser(prog="python3 -m lab", description="The bandherd lab: a simulated mesh.",
                                parents=[common])
    sub = p.add_subparsers(dest="command", required=True)
    for c in COMMANDS:
        if c.name is None:
            continue
        sp = sub.add_parser(c.name, parents=[common], help=c.help, description=c.help)
        sp.set_defaults(func=functions["cmd_" + c.name.replace("-", "_")])
        for flags, opts in c.args:
            sp.add_argument(*flags, **opts)
    return p
