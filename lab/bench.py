"""The load benchmark: one real daemon in a lab node, its driver sending station status events as
fast as the daemon takes them, 16 neighbours heartbeating, beside a bare receive loop on the
same kind of socket.

    python3 -m lab bench

It prints one table: the status events absorbed per second by the daemon and by
the bare loop, and their ratio; instructions per status event in the daemon;
system calls per status event; the daemon's private memory; the instructions of
building and sending a heartbeat and of receiving one; the association
announcements lost when 256 stations join at once. Every per-event figure is
given for 1 station and for 256, to show that a full table costs no more.

How each is measured:

- events/s from a full queue: the receiver (the daemon, or the bare loop:
  `event_pump sink`, a Unix datagram socket bound in the same node and `recv`
  in a loop) is stopped (SIGSTOP), `event_pump` (bench/) fills its queue with
  status events, round robin over the stations, from the driver double's own
  socket (so that they come from the driver), and the receiver's CPU time
  (/proc/PID/schedstat) is taken while it empties the queue, never waiting for
  a datagram: events over CPU seconds, its pace on a core of its own. The
  node's network namespace lets its Unix datagram sockets hold `QUEUE`
  datagrams (a netlink socket on a router holds thousands; the default here is 10).
- events/s through a blocking sender: `event_pump` sends, blocking, as fast as
  the receiver takes them, and counts for `--seconds` after a warm-up. The
  sender's pace is the receiver's only while the receiver is the slower; here
  the bare loop outpaces any one sender and idles (the table gives each
  receiver's busy share of a core), so these rows show what one sender gets
  through, not the receivers' capacities. The runs alternate, `--repeat`
  times; the table gives the medians.
- instructions per event: the daemon runs under callgrind twice with the same
  start-up, neighbours and heartbeats, once with `--instr-events` more status
  events than the other; the difference of the two runs' instruction counts
  over the difference of their event counts cancels start-up and shutdown;
  the heartbeats each run sent and took in are left out of both, as the
  longer run lasts longer and has more of them.
- system calls per event: `strace -c` attached to the daemon while it takes two
  batches of status events of different sizes; again the difference over the
  difference.
- private memory: Private_Dirty of /proc/PID/smaps_rollup (least of a few
  readings): with 1 station and with 256 stations, 16 neighbours each time,
  then after `--cycles` leave-and-join cycles of the 256 stations.
- heartbeats: in the callgrind runs, the inclusive instructions of the daemon's
  heartbeat timer callback (building the message and sending it to the mesh
  daemon) per heartbeat it sent, and of its mesh socket's accept and read
  callbacks (reading, parsing and taking in the message) per heartbeat
  delivered to it (the neighbours' and the echo of its own broadcast).
- announcements lost: 256 join events at once; the daemon opens a connection
  to the mesh daemon per announcement and does not retry; the relay records
  every message that reached it, the daemon logs every one it could not send.

Status events carry RSSI -62 dBm on the 2.4 GHz BSS, between the thresholds of a
weak (-69) and a strong (-55) signal, so they go the whole event path and
trigger no steering.
"""

import json
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from lab import daemonlog, meter, relay as relay_mod
from lab.commands import arg, number, runs_here
from lab.controller import Lab, LabError
from lab.sandbox import REPO, daemon_binary

TOPOLOGY = REPO / "lab" / "topologies" / "three-node.json"
NODE = "A"                      # the portal: it sends heartbeats without measuring a backhaul first
VAP = "wlan0"                   # its 2.4 GHz BSS
RSSI = -62                      # dBm, between bandherd.lrssi_2 (-69) and bandherd.hrssi_2 (-55)
NEIGHBOURS = 16
HEARTBEAT_EVERY = 10.0          # seconds between the fake neighbours' heartbeats (the daemon ages them after 45)
HEARTBEAT_ROUNDS = 4            # extra rounds of heartbeats in each callgrind run
STATION_COUNTS = (1, 256)
QUEUE = 65536                   # datagrams the daemon's event socket may hold
SETTINGS = {"bandherd.log_size": 0}     # the whole log stays: the benchmark reads it


class Neighbours:
    """Nodes that are not in the topology and exist only as heartbeats the relay delivers."""

    def __init__(self, lab, count=NEIGHBOURS):
        self.lab = lab
        self.ids = [f"02:00:00:01:{i:02x}:00" for i in range(count)]
        self._stop = threading.Event()
        self._thread = None

    @staticmethod
    def body(node_id):
        base = node_id[:-2]
        return {"is_mpp": 0, "link_rate2mpp": 433, "hop": 1, "ess": [{"essid": "herd", "index": 0}],
                "radio": [{"work_band": 2, "channel": 1, "load": 7, "sta_num": 1},
                          {"work_band": 4, "channel": 36, "load": 7, "sta_num": 1}],
                "bss": [{"bssid": base + "01", "sta_num": 3, "sta_max": 32, "radio": 1, "ess": 0, "ifname": "wl0"},
                        {"bssid": base + "02", "sta_num": 0, "sta_max": 64, "radio": 2, "ess": 0, "ifname": "wl1"}]}

    def beat(self):
        for node_id in self.ids:
            self.lab.relay.send(None, "broadcast", "SNEI_HEARTBEAT", self.body(node_id), sa=node_id)

    def start(self):
        def run():
            while True:
                self.beat()
                if self._stop.wait(HEARTBEAT_EVERY):
                    return
        self._thread = threading.Thread(target=run, name="bench-neighbours", daemon=True)
        self._thread.start()

    def stop(self):
        self._stop.set()
        if self._thread is not None:
            self._thread.join(30)


class Bench:
    def __init__(self, lab, pump, out):
        self.lab = lab
        self.pump_path = str(pump)
        self.out = out
        self.node_dir = lab.node_dir(NODE)
        self.to = str(self.node_dir / "run" / "maps" / "nl-3333")
        self.neighbours = Neighbours(lab)
        self.bss = None
        self.tail = None
        self.markers = 0
        self.filled = None          # events the last full queue held

    # -- the daemon and its log -------------------------------------------------------------

    def start_daemon(self, wrapper=(), timeout=30.0):
        self.tail = daemonlog.Tail(self.node_dir / "bandherd.log")
        d = self.lab.start_daemon(NODE, wrapper=wrapper)
        self.wait_lines(lambda line: daemonlog.READY.match(line.text), 1, timeout, "the daemon is ready")
        return d

    def wait_lines(self, match, count, timeout, what, counts=None):
        """Waits until `count` new lines of the daemon's log match (and, with `counts`, pass it too);
        returns the matching lines."""
        found = []
        deadline = time.monotonic() + timeout

        def done():
            return sum(1 for line in found if counts is None or counts(line)) >= count
        while not done():
            d = self.lab.daemon(NODE)
            if d.returncode is not None:
                raise LabError(f"the daemon ended ({d.state()}) while waiting until {what}")
            for raw in self.tail.lines():
                line = daemonlog.parse(raw)
                if line is not None and match(line):
                    found.append(line)
            if not done():
                if time.monotonic() > deadline:
                    raise LabError(f"waited {timeout:g} s in vain until {what}")
                time.sleep(0.02)
        return found

    def wait_neighbours(self, timeout=60.0):
        self.neighbours.beat()
        self.wait_lines(lambda line: daemonlog.ONLINE.match(line.text), NEIGHBOURS, timeout,
                        f"the daemon knows {NEIGHBOURS} neighbours")

    def marker(self, timeout=60.0):
        """Sends, behind whatever was sent before, a leave of a station nobody has, and waits for the
        daemon to log that it does not know it: everything sent before has been taken in by then."""
        self.markers += 1
        base = 0xff00 + (self.markers & 0xff)
        self.pump("--event", "leave", "--stations", "1", "--base", str(base), "--count", "1")
        mac = f"02:bb:ff:{self.markers & 0xff:02x}:00:00"
        self.wait_lines(lambda line: line.text == f"can't find {mac}", 1, timeout, "the daemon took the events")

    def pump(self, *args):
        """Runs event_pump's sender from the driver double's socket; its result line, decoded."""
        fd = self.lab.driver(NODE).nl.fileno()
        p = subprocess.run([self.pump_path, "send", "--to", self.to, "--fd", str(fd), "--bss", str(self.bss),
                            "--rssi", str(RSSI), *args], pass_fds=(fd,), capture_output=True, text=True)
        if p.returncode != 0:
            raise LabError(f"event_pump failed: {p.stderr.strip()}")
        return json.loads(p.stdout)

    def private_dirty(self):
        return meter.quiet_sample(meter.private_dirty, self.lab.daemon(NODE).pid)

    # -- the measurements --------------------------------------------------------------------

    def burst(self, stations=256):
        """Joins `stations` at once; (announcements the relay recorded, those the daemon could not send)."""
        since = time.monotonic()
        self.pump("--event", "join", "--stations", str(stations), "--count", str(stations))
        # Each join logs a failure to announce it (if it failed) before the join itself.
        seen = self.wait_lines(lambda line: line.func == "ssta_join_handler" or
                               (line.func == "ssta_bcast_associate" and line.text == "send message failed"),
                               stations, 60.0, f"the daemon took {stations} joins",
                               counts=lambda line: line.func == "ssta_join_handler")
        lost = sum(1 for line in seen if line.func == "ssta_bcast_associate")

        def announced():
            return [m for m in self.lab.relay.messages(type="SSTA_ASSOCIATE", sender=NODE) if m["mono"] >= since]
        self.lab.wait_for(lambda: len(announced()) + lost >= stations, 60.0)
        return len(announced()), lost

    def rate(self, stations, seconds, receiver, bare=None):
        """(status events per second the daemon, or the bare loop at `bare`, absorbed; events per
        second of the receiver's CPU time (`receiver`: its pid); the share of the time it was busy)."""
        args = ["--event", "status", "--stations", str(stations), "--seconds", str(seconds), "--warmup", "0.5"]
        before = cpu_seconds(receiver)
        if bare is None:
            res = self.pump(*args)
        else:
            res = self.bare_pump(bare, *args)
        busy = cpu_seconds(receiver) - before
        return res["rate"], res["all"] / busy if busy > 0 else float("nan"), busy / res["all_seconds"]

    def drain(self, stations, receiver, bare=None):
        """Status events per CPU second the daemon (or the bare loop at `bare`) absorbs from a full
        queue: the receiver is stopped, its queue filled, and its CPU time taken while it empties
        the queue without ever waiting for a datagram."""
        os.kill(receiver, signal.SIGSTOP)
        try:
            self.lab.wait_for(lambda: proc_state(receiver) == "T", 10.0, 0.001)
            args = ["--event", "status", "--stations", str(stations), "--fill", "1"]
            if bare is None:
                res = self.pump(*args)
            else:
                res = self.bare_pump(bare, *args)
            before = cpu_seconds(receiver)
        finally:
            os.kill(receiver, signal.SIGCONT)
        last = [before]

        def idle():
            # Waiting again (not running, not stopped) and no CPU used since the last look.
            now, state = cpu_seconds(receiver), proc_state(receiver)
            settled = state == "S" and now == last[0] and now > before
            last[0] = now
            return settled
        self.lab.wait_for(idle, 60.0, 0.005)
        self.filled = res["sent"]
        return res["sent"] / (last[0] - before)

    def bare_pump(self, bare, *args):
        p = subprocess.run([self.pump_path, "send", "--to", bare, "--from", bare + "-sender",
                            "--bss", str(self.bss), "--rssi", str(RSSI), *args], capture_output=True, text=True)
        if p.returncode != 0:
            raise LabError(f"event_pump failed: {p.stderr.strip()}")
        return json.loads(p.stdout)

    def syscalls(self, stations, small, large):
        """(system calls per status event, {call: per event}) by strace -c over two batches."""
        counts = []
        for n in (small, large):
            out = self.node_dir / f"strace-{stations}-{n}.txt"
            st = subprocess.Popen(["strace", "-c", "-o", str(out), "-p", str(self.lab.daemon(NODE).pid)],
                                  stderr=subprocess.PIPE, text=True)
            try:
                line = st.stderr.readline()     # "strace: Process N attached"
                if "attached" not in line:
                    raise LabError(f"strace did not attach: {line.strip()}")
                self.pump("--event", "status", "--stations", str(stations), "--count", str(n))
                self.marker()
            finally:
                st.send_signal(signal.SIGINT)
                st.wait(30)
            counts.append(strace_counts(out.read_text()))
        per = {name: (counts[1].get(name, 0) - counts[0].get(name, 0)) / (large - small)
               for name in counts[1] if name != "total"}
        return (counts[1]["total"] - counts[0]["total"]) / (large - small), per

    def cycles(self, n):
        if n == 0:
            return
        self.pump("--event", "cycle", "--stations", "256", "--count", str(2 * n))
        self.marker(300.0)

    def callgrind(self, stations, events):
        """One run of the daemon under callgrind: start, neighbours, extra heartbeats, `events` status
        events, stop. {"total", "hb_send", "hb_sent", "hb_recv", "hb_received"}."""
        out = self.node_dir / f"callgrind-{stations}-{events}.out"
        started = time.monotonic()
        self.start_daemon(["valgrind", "--tool=callgrind", "--quiet", f"--callgrind-out-file={out}"], 120.0)
        self.wait_neighbours(120.0)
        for _ in range(HEARTBEAT_ROUNDS):
            self.neighbours.beat()
        self.pump("--event", "status", "--stations", str(stations), "--count", str(events))
        self.marker(300.0)
        # Its own first heartbeat goes 5 s after its start: wait for one, to have one to count.
        self.lab.wait_for(lambda: self._heartbeats(started, sent=True), 60.0)
        status = self.lab.stop_daemon(NODE, timeout=60.0)
        if status != 0:
            raise LabError(f"the daemon under callgrind ended with status {status}")
        receive = ("cm_io_on_connection(", "cm_io_deferred_accept(", "cm_io_on_read(")
        cost = callgrind_costs(out.read_text(), ("snei_heartbeat_send(",) + receive)
        return {"total": cost["total"], "hb_send": cost["snei_heartbeat_send("],
                "hb_sent": len(self._heartbeats(started, sent=True)),
                "hb_recv": sum(cost[n] for n in receive),
                "hb_received": len(self._heartbeats(started, sent=False))}

    def _heartbeats(self, since, sent):
        """The heartbeats the daemon sent (or that were delivered to it) since `since`."""
        recs = [m for m in self.lab.relay.messages(type="SNEI_HEARTBEAT") if m["mono"] >= since]
        if sent:
            return [m for m in recs if m["sender"] == NODE]
        return [m for m in recs if NODE in m.get("delivered", [])]


def proc_state(pid):
    """The process's state letter (R running, S waiting, T stopped ...)."""
    text = Path(f"/proc/{pid}/stat").read_text()
    return text[text.rindex(")") + 2]


def cpu_seconds(pid):
    """The CPU time a process has used so far (/proc/PID/schedstat, nanoseconds), in seconds."""
    return int(Path(f"/proc/{pid}/schedstat").read_text().split()[0]) / 1e9


def strace_counts(text):
    """{system call: calls, "total": calls} from the table `strace -c` writes."""
    counts = {}
    for line in text.splitlines():
        f = line.split()
        if len(f) >= 5 and f[0][0].isdigit() and f[3].isdigit():
            counts[f[-1]] = int(f[3])
    if "total" not in counts:
        raise LabError(f"no total in strace's table:\n{text}")
    return counts


def callgrind_costs(text, names):
    """{"total": instructions of the run, name: inclusive instructions of the functions whose name
    contains `name`} from a callgrind output file (the first event column, Ir)."""
    ids, fn, total = {}, None, None
    inclusive = {n: 0 for n in names}
    positions = 1

    def name_of(field):
        m = re.match(r"\((\d+)\)(?: (.*))?$", field)
        if not m:
            return field
        if m.group(2) is not None:
            ids[m.group(1)] = m.group(2)
        return ids.get(m.group(1), "")

    for line in text.splitlines():
        if not line:
            continue
        c = line[0]
        if c.isdigit() or c in "+-*":
            if fn is not None:
                fields = line.split()
                cost = int(fields[positions]) if len(fields) > positions else 0
                for n in names:
                    if n in fn:
                        inclusive[n] += cost
                    continue
        key, _, value = line.partition("=")
        if key == "fn":
            fn = name_of(value)
        elif key == "cfn" or key == "cfi" or key == "cob":
            if key == "cfn":
                name_of(value)
        elif key == "calls":
            pass        # the next cost line is the call's inclusive cost: the caller's, counted above
        elif key in ("fl", "fi", "fe", "ob"):
            pass
        elif line.startswith("positions:"):
            positions = len(line.split()) - 1
        elif line.startswith("summary:") or line.startswith("totals:"):
            total = int(line.split()[1])
    if total is None:
        raise LabError("no total in callgrind's output")
    return {"total": total, **inclusive}


def median(values):
    return statistics.median(values) if values else float("nan")


def run(opts, out=print):
    """Runs the whole benchmark; returns the figures (and prints the table through `out`)."""
    for tool in ("valgrind", "strace"):
        if shutil.which(tool) is None:
            raise LabError(f"{tool} is missing: ./scripts/setup.sh installs it")
    pump = Path(opts.pump)
    if not pump.exists():
        raise LabError(f"{pump} is not built: cmake --build build")
    started = time.monotonic()
    lab_dir = Path(tempfile.mkdtemp(prefix="bh-bench-", dir="/tmp"))
    lab = Lab(daemon_binary())
    sink = None
    fig = {"stations": list(STATION_COUNTS)}
    try:
        topo = json.loads(TOPOLOGY.read_text())
        topo["nodes"] = [n for n in topo["nodes"] if n["name"] == NODE]
        lab.up(topo, lab_dir, SETTINGS)
        if opts.backlog:
            lab.relay.listen(opts.backlog)
        lab.driver(NODE).set_radio_interval(0)         # no radio reports amid the events
        # A queue of a router's size: a netlink socket holds as many events as its receive buffer
        # takes (thousands), a Unix datagram socket only net.unix.max_dgram_qlen of them (10 by
        # default), which the node's own network namespace sets for the sockets made in it.
        lab.sh(NODE, f"echo {QUEUE} > /proc/sys/net/unix/max_dgram_qlen")
        b = Bench(lab, pump, out)
        b.start_daemon()
        b.bss = lab.driver(NODE).bss_index(lab.node(NODE).vap(VAP))
        b.neighbours.start()
        b.wait_neighbours()
        out(f"bench: daemon ready with {NEIGHBOURS} neighbours after {time.monotonic() - started:.0f} s")

        b.pump("--event", "join", "--stations", "1", "--count", "1")
        b.marker()
        fig["memory"] = [b.private_dirty()]
        fig["recorded"], fig["lost"] = b.burst(256)
        fig["memory"].append(b.private_dirty())
        out(f"bench: 256 joins at once: {fig['recorded']} announcements reached the relay, {fig['lost']} lost")

        bare = str(lab.node_dir(NODE) / "run" / "maps" / "bare")
        sink = lab.run(NODE, [str(pump), "sink", bare])
        lab.wait_for(lambda: os.path.exists(bare), 10.0)
        rates = {(who, s): [] for who in ("daemon", "bare") for s in STATION_COUNTS}
        for _ in range(opts.repeat):
            for s in STATION_COUNTS:
                rates[("daemon", s)].append(b.rate(s, opts.seconds, lab.daemon(NODE).pid))
                rates[("bare", s)].append(b.rate(s, opts.seconds, sink.pid, bare=bare))
        drains = {(who, s): [] for who in ("daemon", "bare") for s in STATION_COUNTS}
        for _ in range(opts.repeat):
            for s in STATION_COUNTS:
                drains[("daemon", s)].append(b.drain(s, lab.daemon(NODE).pid))
                drains[("bare", s)].append(b.drain(s, sink.pid, bare=bare))
        fig["queue"] = b.filled
        for who in ("daemon", "bare"):
            fig[f"{who}_drain"] = [median(drains[(who, s)]) for s in STATION_COUNTS]
            for i, key in enumerate(("rate", "cpu_rate", "busy")):
                fig[f"{who}_{key}"] = [median([r[i] for r in rates[(who, s)]]) for s in STATION_COUNTS]
        out(f"bench: rates measured ({opts.repeat} x {opts.seconds:g} s each)")

        fig["syscalls"], fig["syscalls_by_call"] = [], []
        for s in STATION_COUNTS:
            total, per = b.syscalls(s, opts.syscall_events // 5, opts.syscall_events // 5 + opts.syscall_events)
            fig["syscalls"].append(total)
            fig["syscalls_by_call"].append({k: v for k, v in sorted(per.items(), key=lambda x: -x[1]) if v >= 0.01})
        b.cycles(opts.cycles)
        fig["memory_after_cycles"] = b.private_dirty()
        fig["cycles"] = opts.cycles
        out(f"bench: memory and system calls measured, {opts.cycles} join/leave cycles done")
        lab.stop_daemon(NODE)

        small = opts.instr_events // 10
        runs = {}
        for s in STATION_COUNTS:
            for n in (small, small + opts.instr_events):
                runs[(s, n)] = b.callgrind(s, n)
        fig["instructions"], fig["hb_send"], fig["hb_recv"] = [], [], []
        for s in STATION_COUNTS:
            r0, r1 = runs[(s, small)], runs[(s, small + opts.instr_events)]
            # The longer run also lasts longer, so more heartbeats come and go in it: their cost is
            # the mesh's, not the events'.
            def events_part(r):
                return r["total"] - r["hb_send"] - r["hb_recv"]
            fig["instructions"].append((events_part(r1) - events_part(r0)) / opts.instr_events)
            fig["hb_send"].append((r0["hb_send"] + r1["hb_send"]) / max(1, r0["hb_sent"] + r1["hb_sent"]))
            fig["hb_recv"].append((r0["hb_recv"] + r1["hb_recv"]) / max(1, r0["hb_received"] + r1["hb_received"]))
        b.neighbours.stop()
        fig["seconds"] = time.monotonic() - started
        for line in table(fig, opts):
            out(line)
        return fig
    finally:
        if sink is not None and sink.poll() is None:
            sink.kill()
            sink.wait()
        lab.down()
        if not opts.keep:
            shutil.rmtree(lab_dir, ignore_errors=True)
        else:
            out(f"bench: the lab's records, logs and callgrind files stay in {lab_dir}")


def table(fig, opts):
    def row(what, values, fmt):
        cells = [fmt(v) if v is not None else "-" for v in values]
        return f"{what:<52}" + "".join(f"{c:>14}" for c in cells)

    n = fig["stations"]
    def ratio(key):
        return [d / b if b else float("nan") for d, b in zip(fig[f"daemon_{key}"], fig[f"bare_{key}"])]
    calls = ", ".join(f"{k} {v:.2f}" for k, v in fig["syscalls_by_call"][-1].items())
    backlog = opts.backlog or relay_mod.max_backlog()
    return [
        "",
        f"bandherd load benchmark: node {NODE} with {NEIGHBOURS} neighbours heartbeating; status events at "
        f"{RSSI} dBm on its 2.4 GHz BSS (no steering)",
        row("", [f"{s} station{'s' if s > 1 else ''}" for s in n], str),
        row("status events/s from a full queue, daemon", fig["daemon_drain"], lambda v: f"{v:,.0f}"),
        row("status events/s from a full queue, bare recv loop", fig["bare_drain"], lambda v: f"{v:,.0f}"),
        row("daemon / bare loop", ratio("drain"), lambda v: f"{v:.2f}"),
        row("status events/s a blocking sender got through, daemon", fig["daemon_rate"], lambda v: f"{v:,.0f}"),
        row("  ... bare recv loop", fig["bare_rate"], lambda v: f"{v:,.0f}"),
        row("  ... daemon / bare loop", ratio("rate"), lambda v: f"{v:.2f}"),
        row("  ... receiver busy, daemon (share of a core)", fig["daemon_busy"], lambda v: f"{v:.0%}"),
        row("  ... receiver busy, bare recv loop", fig["bare_busy"], lambda v: f"{v:.0%}"),
        row("instructions per status event (callgrind)", fig["instructions"], lambda v: f"{v:,.0f}"),
        row("system calls per status event (strace -c)", fig["syscalls"], lambda v: f"{v:.2f}"),
        row("private dirty memory, KiB (16 neighbours)", fig["memory"], lambda v: f"{v:,}"),
        row(f"  after {fig['cycles']:,} join/leave cycles", [None, fig["memory_after_cycles"]], lambda v: f"{v:,}"),
        row("heartbeat build + send, instructions", fig["hb_send"], lambda v: f"{v:,.0f}"),
        row("heartbeat receive, instructions", fig["hb_recv"], lambda v: f"{v:,.0f}"),
        row(f"announcements lost, 256 joins at once (backlog {backlog})",
            [None, f"{fig['lost']} of 256"], str),
        f"(a full queue: {fig['queue']:,} events; system calls per event with 256 stations: {calls}; "
        f"medians of {opts.repeat} runs; {fig['seconds']:.0f} s in all)",
    ]


@runs_here("bench", "the load benchmark: a daemon taking status events as fast as it can, beside a bare receive "
                    "loop; instructions, system calls and memory; prints one table",
           arg("--seconds", type=number(0.1, 60, kind=float), default=2.0,
               help="seconds each rate is counted for (default 2)"),
           arg("--repeat", type=number(1, 20), default=3, help="runs of each rate, the median shown (default 3)"),
           arg("--instr-events", type=number(1000, 10_000_000), default=100_000,
               help="status events more in the long callgrind run than in the short (default 100000)"),
           arg("--syscall-events", type=number(100, 10_000_000), default=20_000,
               help="status events more in the long strace batch than in the short (default 20000)"),
           arg("--cycles", type=number(0, 10_000_000), default=50_000,
               help="leave-and-join cycles of the 256 stations before the last memory reading (default 50000)"),
           arg("--backlog", type=number(1, 1 << 20), default=None,
               help="the relay's accept queue (default: the system's longest)"),
           arg("--pump", default=str(REPO / "build" / "bench" / "event_pump"),
               help="the event_pump binary (default build/bench/event_pump)"),
           arg("--keep", action="store_true", help="keep the lab directory (logs, callgrind files)"))
def cmd_bench(args):
    if not daemon_binary().exists():
        print(f"lab: {daemon_binary()} is not built", file=sys.stderr)
        return 1
    try:
        run(args, lambda line: print(line, flush=True))
    except LabError as e:
        print(f"lab: bench: {e}", file=sys.stderr)
        return 1
    return 0
