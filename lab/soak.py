"""The soak: a three-node mesh of real daemons with 256 stations that keep joining, leaving and
walking from node to node (so that the daemons steer them) for a chosen time.

    python3 -m lab soak --minutes 60

It reads each daemon's private memory (Private_Dirty), its open descriptors and
its steering (the steering summary: steers it attempted and those that
succeeded) after a warm-up of churn, and again at the end, prints one table,
and fails (status 1) when a daemon died, its memory grew by more than the
tolerance, its descriptors by more than `FD_TOLERANCE`, or no steer succeeded
at all (the churn did not exercise steering). The stations' moves come from a
seeded random generator: a run with the same options does the same things at
the same times.

Why a warm-up: a daemon that has only seen stations join holds none of what
steering leaves behind by design, and takes a while to hold it all. Every
successful steer keeps a seesaw session with its 5-second timer for
`seesaw_interval` (300 s); a failed steer or a roam-back leaves a prohibition
record per station and target that keeps its level for good; a station with
either stays in the table after it leaves. So the memory of a daemon climbs
for the first minutes of steering and then levels off (bounded by the
stations and targets there are), while a leak goes on growing at the pace of
the work. The warm-up (`WARMUP`, at most a third of the run) lets every kind
of steering happen and the sessions reach their steady number before the
start figures are read.
"""

import random
import shutil
import sys
import tempfile
import threading
import time
from pathlib import Path

from lab import daemonlog, meter
from lab.commands import arg, number, runs_here
from lab.controller import Lab, LabError
from lab.sandbox import REPO, daemon_binary

TOPOLOGY = REPO / "lab" / "topologies" / "three-node.json"
STATIONS = 256
NEAR, FAR = -50, -85            # dBm: a node a station stands by, a node across the house
WALK = (30.0, 60.0)             # seconds a walk from one node to another takes, at least and at most
WALK_STEP = 3.0                 # seconds between the RSSIs a walker hears
STATUS_INTERVAL = 10.0          # seconds between a station's status reports
# Per station and second: the chance that an associated station sets off towards another node,
# that it leaves, and that a station that left comes back.
P_WALK, P_LEAVE, P_RETURN = 1 / 90, 1 / 400, 1 / 30
MEM_TOLERANCE_KIB, MEM_TOLERANCE_PCT = 48, 10
FD_TOLERANCE = 2
WARM_VAP = "wlan1"              # the BSS of each node every station visits before the start
MESH_WAIT = 60.0                # seconds for every daemon to know both others
JOIN_WAIT = 60.0                # seconds for every station to be associated at the start
WARMUP = 10.0                   # minutes of churn before the start figures (at most a third of the run)


class Churn:
    """Moves the world's stations about from a thread of its own until stopped."""

    def __init__(self, lab, macs, seed, walk=WALK):
        self.lab = lab
        self.walk = walk
        self.macs = macs
        self.nodes = [n.name for n in lab.topology.nodes]
        self.random = random.Random(seed)
        self.near = {}                  # mac -> the node it stands by (or walks to)
        self.walking_until = {}         # mac -> monotonic end of its walk
        self.away = set()               # stations that left and have not come back
        self.done = {"joins": 0, "leaves": 0, "walks": 0}
        self._stop = threading.Event()
        self._thread = None

    def add_stations(self):
        """Every station, by one node of the three in turn, with behaviours a household has:
        most obey a BSS transition request, one in ten rejects them, one in ten has no BTM."""
        for i, mac in enumerate(self.macs):
            node = self.nodes[i % len(self.nodes)]
            settings = {"rssi_at": self.heard(node, self.random.randint(-6, 6)),
                        "status_interval": STATUS_INTERVAL, "move_delay": 1.0}
            if i % 10 == 3:
                settings["btm"] = "reject"
            elif i % 10 == 7:
                settings["caps"] = 1 | 2 | 4          # HT, VHT, RRM: no BTM, so Backoff steers it
            self.lab.world.add(mac, **settings)
            self.near[mac] = node

    def heard(self, node, offset=0):
        return {n: (NEAR + offset if n == node else FAR) for n in self.nodes}

    def join_all(self):
        """Every station joins the 5 GHz BSS of each other node in turn, then its own node's: every
        daemon has met every station, so that its station table is as full at the start as it
        will ever be and only what churn and steering leave behind can grow."""
        for mac in self.macs:
            home = self.near[mac]
            visits = [n for n in self.nodes if n != home] + [home]
            for i, node in enumerate(visits):
                try:
                    if i == 0:
                        self.lab.world.associate(mac, node, WARM_VAP)
                    else:
                        self.lab.world.roam(mac, node, WARM_VAP)
                except ValueError:
                    pass        # refused there (it tries again on its own) or not associated yet
                self.done["joins"] += 1

    def start(self):
        self._thread = threading.Thread(target=self._run, name="soak-churn", daemon=True)
        self._thread.start()

    def stop(self):
        self._stop.set()
        if self._thread is not None:
            self._thread.join(30)

    def _run(self):
        while not self._stop.wait(1.0):
            now = time.monotonic()
            for mac in self.macs:
                try:
                    self._step(mac, now)
                except (ValueError, KeyError):
                    pass        # the world says it cannot (it is already where it would go)

    def _step(self, mac, now):
        r = self.random.random()
        if mac in self.away:
            if r < P_RETURN:
                self.away.discard(mac)
                self.lab.world.associate(mac)
                self.done["joins"] += 1
            return
        if self.walking_until.get(mac, 0) > now:
            return
        if r < P_LEAVE:
            self.away.add(mac)
            self.lab.world.leave(mac)
            self.done["leaves"] += 1
        elif r < P_LEAVE + P_WALK:
            here = self.near[mac]
            there = self.random.choice([n for n in self.nodes if n != here])
            length = self.random.uniform(*self.walk)
            self.lab.world.walk(mac, [{"at": 0, "rssi_at": self.heard(here)},
                                      {"at": length, "rssi_at": self.heard(there)}], step=WALK_STEP)
            self.near[mac] = there
            self.walking_until[mac] = now + length
            self.done["walks"] += 1


def sample(lab):
    """{node: {"pid", "kib", "fds", "attempted", "succeeded", "alive"}} of every daemon now."""
    steers = lab.summary()["steers"]
    out = {}
    for node in lab.topology.nodes:
        d = lab.daemon(node.name)
        alive = d is not None and d.returncode is None
        row = {"pid": d.pid if d else None, "alive": alive, "state": d.state() if d else "not started",
               "attempted": sum(1 for s in steers if s["node"] == node.name),
               "succeeded": sum(1 for s in steers if s["node"] == node.name and s["outcome"] == "success")}
        if alive:
            try:
                row["kib"] = meter.quiet_sample(meter.private_dirty, d.pid)
                row["fds"] = meter.quiet_sample(meter.open_fds, d.pid)
            except (OSError, ValueError):
                row["alive"] = False
        out[node.name] = row
    return out


def judge(start, end, mem_kib=MEM_TOLERANCE_KIB, mem_pct=MEM_TOLERANCE_PCT, fds=FD_TOLERANCE):
    """The problems of a soak, in words, from its start and end samples ([] when it passed)."""
    problems = []
    for node, a in start.items():
        b = end[node]
        if not b["alive"]:
            problems.append(f"the daemon of {node} died ({b['state']})")
            continue
        allowed = a["kib"] + mem_kib + a["kib"] * mem_pct / 100
        if b["kib"] > allowed:
            problems.append(f"{node}'s private memory grew from {a['kib']} to {b['kib']} KiB "
                            f"(at most {allowed:.0f} KiB allowed)")
        if b["fds"] > a["fds"] + fds:
            problems.append(f"{node}'s open descriptors grew from {a['fds']} to {b['fds']}")
    if sum(b["succeeded"] - start[n]["succeeded"] for n, b in end.items()) <= 0:
        problems.append("no steer succeeded during the soak")
    return problems


def table(start, end, middle=None):
    lines = [f"{'node':<5} {'pid':>7}  {'private dirty KiB':<30} {'open fds':<10} {'steers attempted/succeeded':<28}",
             f"{'':<5} {'':>7}  {'start -> half-way -> end (growth)':<30} {'start->end':<10} "
             f"{'start -> end (during)':<28}"]
    for node, a in start.items():
        b = end[node]
        half = (middle or {}).get(node)
        if b["alive"]:
            mem = f"{a['kib']} -> {half if half is not None else '-'} -> {b['kib']} ({b['kib'] - a['kib']:+d})"
            fds = f"{a['fds']} -> {b['fds']}"
        else:
            mem, fds = f"{a['kib']} -> ... -> died", f"{a['fds']} -> -"
        steer = (f"{a['attempted']}/{a['succeeded']} -> {b['attempted']}/{b['succeeded']} "
                 f"({b['attempted'] - a['attempted']}/{b['succeeded'] - a['succeeded']})")
        lines.append(f"{node:<5} {a['pid']:>7}  {mem:<30} {fds:<10} {steer:<28}")
    return lines


def warmup_minutes(minutes, warmup=None):
    """The minutes of a run of `minutes` before its start figures: `warmup`, or by default
    `WARMUP`, at most a third of the run."""
    return min(WARMUP, minutes / 3) if warmup is None else min(warmup, minutes)


def soak(minutes, lab_dir, seed=1, out=print, mem_kib=MEM_TOLERANCE_KIB, mem_pct=MEM_TOLERANCE_PCT, walk=WALK,
         warmup=None):
    """Runs a soak of `minutes` of churn in a fresh lab in `lab_dir`; returns (start, end, problems).
    `walk`: the shortest and longest walk from one node to another, in seconds; `warmup`: the
    minutes of churn before the start figures (see `warmup_minutes`)."""
    warmup = warmup_minutes(minutes, warmup)
    started = time.monotonic()
    lab = Lab(daemon_binary())
    churn = None
    try:
        lab.up(TOPOLOGY, lab_dir)
        for node in lab.topology.nodes:
            lab.start_node(node.name)
        names = [n.name for n in lab.topology.nodes]
        ids = {n.name: n.id for n in lab.topology.nodes}

        def formed():
            for name in names:
                d = lab.daemon(name)
                if d.returncode is not None:
                    raise LabError(f"the daemon of {name} ended ({d.state()}) before the mesh formed")
                if daemonlog.neighbour_table(lab.log(name)) != {ids[n] for n in names if n != name}:
                    return False
            return True
        try:
            lab.wait_for(formed, MESH_WAIT, 0.2)
        except TimeoutError:
            raise LabError(f"the mesh did not form in {MESH_WAIT:g} s") from None
        out(f"soak: the mesh of {', '.join(names)} formed after {time.monotonic() - started:.0f} s; "
            f"{STATIONS} stations join")
        macs = [f"02:5a:00:00:{i >> 8:02x}:{i & 0xff:02x}" for i in range(STATIONS)]
        churn = Churn(lab, macs, seed, walk)
        churn.add_stations()
        churn.join_all()
        try:
            lab.wait_for(lambda: all(lab.world.where(m) for m in macs), JOIN_WAIT, 0.5)
        except TimeoutError:
            raise LabError(f"not every station could join in {JOIN_WAIT:g} s") from None
        out(f"soak: every station joined after {time.monotonic() - started:.0f} s; "
            f"{minutes:g} min of churn from now, the first {warmup:g} of them to warm up")
        churn.start()
        begin = time.monotonic()
        deadline = begin + minutes * 60

        def churn_until(until):
            while time.monotonic() < until:
                time.sleep(min(1.0, max(0.0, until - time.monotonic())))
                if any(lab.daemon(n).returncode is not None for n in names):
                    out("soak: a daemon ended; stopping early")
                    return False
            return True
        start = middle = None
        if churn_until(begin + warmup * 60):
            start = sample(lab)
            measured = time.monotonic()
            if churn_until(measured + (deadline - measured) / 2):
                middle = {n: row.get("kib") for n, row in sample(lab).items()}
                churn_until(deadline)
        churn.stop()
        end = sample(lab)
        if start is None:       # a daemon died during the warm-up: that is the problem to tell
            start = {n: {**row, "kib": row.get("kib", 0), "fds": row.get("fds", 0)} for n, row in end.items()}
        out(f"soak: {minutes:g} min of churn by {STATIONS} stations: {churn.done['joins']} joins, "
            f"{churn.done['leaves']} leaves, {churn.done['walks']} walks to another node")
        for line in table(start, end, middle):
            out(line)
        problems = judge(start, end, mem_kib, mem_pct)
        out(f"tolerance: private memory may grow by {mem_kib} KiB + {mem_pct:g} %, open descriptors by "
            f"{FD_TOLERANCE}; every daemon runs to the end; some steer succeeds")
        for p in problems:
            out(f"soak: FAIL: {p}")
        out(f"soak: {'FAIL' if problems else 'PASS'} after {time.monotonic() - started:.0f} s in all")
        return start, end, problems
    finally:
        if churn is not None:
            churn.stop()
        lab.down()


@runs_here("soak", "a three-node mesh, 256 stations joining, leaving and walking between nodes for a while; "
                   "fails when a daemon dies or its memory or descriptors grow",
           arg("--minutes", type=number(0, 24 * 60, kind=float), default=10.0,
               help="how long the stations churn (default 10)"),
           arg("--seed", type=int, default=1, help="the seed of the stations' moves (default 1)"),
           arg("--warmup", type=number(0, 24 * 60, kind=float), default=None,
               help=f"minutes of churn before the start figures (default {WARMUP:g}, at most a third of the run)"),
           arg("--mem-kib", type=number(0, 1 << 20), default=MEM_TOLERANCE_KIB,
               help=f"private memory a daemon may gain, KiB (default {MEM_TOLERANCE_KIB}) ..."),
           arg("--mem-pct", type=number(0, 1000, kind=float), default=MEM_TOLERANCE_PCT,
               help=f"... plus this percentage of its start (default {MEM_TOLERANCE_PCT})"))
def cmd_soak(args):
    binary = daemon_binary()
    if not binary.exists():
        print(f"lab: {binary} is not built", file=sys.stderr)
        return 1
    # A lab of its own beside any other: a fresh directory, removed afterwards.
    lab_dir = Path(tempfile.mkdtemp(prefix="bh-soak-", dir="/tmp"))
    problems = ["it did not finish"]
    try:
        _, _, problems = soak(args.minutes, lab_dir, args.seed, lambda line: print(line, flush=True),
                              args.mem_kib, args.mem_pct, warmup=args.warmup)
    finally:
        if problems:
            print(f"soak: the lab's records and logs stay in {lab_dir}", flush=True)
        else:
            shutil.rmtree(lab_dir, ignore_errors=True)
    return 1 if problems else 0
