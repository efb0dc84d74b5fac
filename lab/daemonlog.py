"""What a node's daemon says in its log, read by the lab: lines parsed, a log read as it
grows, and the neighbour table the daemon reports through its lines.

A log line is "[<epoch> <mm/dd> <HH:MM:SS> ]<level> <function>:<line>, <message>"
(the time prefix unless bandherd.log_time is 0); lines that do not start so
(the version after "bandherd is ready.", a JSON body at log level dump) are
continuation lines.
"""

import re
from dataclasses import dataclass
from pathlib import Path

LEVELS = ("fatal", "error", "warning", "info", "debug", "dump", "steer")
_LINE = re.compile(r"^(?:(?P<epoch>\d+) \d\d/\d\d \d\d:\d\d:\d\d )?(?P<level>" + "|".join(LEVELS)
                   + r") (?P<func>\w+):(?P<line>\d+), (?P<text>.*)$")
_MAC = r"[0-9a-f]{2}(?::[0-9a-f]{2}){5}"
READY = re.compile(r"^bandherd is ready\.")
ONLINE = re.compile(rf"^neighbor ({_MAC}) is online$")
OFFLINE = re.compile(rf"^neighbor ({_MAC}) is offline$")
AGED = re.compile(rf"^node ({_MAC}) is aged$")


_GLUED = re.compile(r"^(?:\d+ \d\d/\d\d \d\d:\d\d:\d\d )?steer (?P<rest>.+)$")
# A record of the steering log (/var/run/steer.log): the time, then the function and the text.
_STEER_LINE = re.compile(r"^(?P<epoch>\d+) \d\d/\d\d \d\d:\d\d:\d\d (?P<func>\w+):(?P<line>\d+), (?P<text>.*)$")


@dataclass
class Line:
    level: str
    func: str
    text: str
    epoch: int = None       # wall-clock seconds, when the daemon prints the time
    raw: str = ""


def parse(raw):
    """The parts of one log line, or None for a continuation line. A record of the steering log
    leaves its prefix ("[<time> ]steer ") on the output, and the next line follows it there."""
    m = _LINE.match(raw.rstrip("\n"))
    if not m:
        glued = _GLUED.match(raw)
        return parse(glued["rest"]) if glued else None
    return Line(level=m["level"], func=m["func"], text=m["text"],
                epoch=int(m["epoch"]) if m["epoch"] else None, raw=raw.rstrip("\n"))


def parse_steer(raw):
    """A record of the steering log as a Line of level "steer", or None."""
    m = _STEER_LINE.match(raw.rstrip("\n"))
    if not m:
        return None
    return Line(level="steer", func=m["func"], text=m["text"].rstrip(), epoch=int(m["epoch"]), raw=raw.rstrip("\n"))


def neighbour_change(line):
    """("ready", None) when a daemon run begins (its table is empty), ("online", id) or
    ("offline", id) when its neighbour table changes; None for any other line."""
    if line is None:
        return None
    if READY.match(line.text):
        return "ready", None
    for kind, rx in (("online", ONLINE), ("offline", OFFLINE)):
        m = rx.match(line.text)
        if m:
            return kind, m.group(1)
    return None


def ready_count(text):
    """How many daemon runs a whole log tells of that became ready."""
    return sum(1 for raw in text.splitlines() if (line := parse(raw)) is not None and READY.match(line.text))


def neighbour_table(text):
    """The ids in the neighbour table of the latest daemon run a whole log tells of
    (a set), or None when no run became ready."""
    table = None
    for raw in text.splitlines():
        change = neighbour_change(parse(raw))
        if change is None:
            continue
        kind, node_id = change
        if kind == "ready":
            table = set()
        elif table is not None:
            (table.add if kind == "online" else table.discard)(node_id)
    return table


class Tail:
    """Reads a log as it grows: `lines()` returns the complete lines added since the last call."""

    def __init__(self, path, from_start=False):
        self.path = Path(path)
        self.pos = 0
        self._part = b""
        if not from_start:
            try:
                self.pos = self.path.stat().st_size
            except FileNotFoundError:
                pass

    def lines(self):
        try:
            with open(self.path, "rb") as f:
                size = f.seek(0, 2)
                if size < self.pos:          # the log was started afresh
                    self.pos, self._part = 0, b""
                f.seek(self.pos)
                chunk = f.read()
        except FileNotFoundError:
            return []
        self.pos += len(chunk)
        data = self._part + chunk
        *done, self._part = data.split(b"\n")
        return [d.decode(errors="replace") for d in done]
