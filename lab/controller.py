"""The lab controller: namespaces, driver doubles, radio world, mesh relay and daemons of one lab.

In a test:

    with Lab() as lab:
        lab.up("lab/topologies/two-node.json", "/tmp/bh-test")
        lab.start_daemon("A")
        lab.wait_log("A", r"bandherd is ready\\.")
        lab.driver("A").sta_event("STA_JOIN", "02:aa:00:00:00:01", bss_index=1)
        lab.wait_for(lambda: lab.driver("A").commands("SET_STA"))

The sockets of every node, and the world's stations, are served by one `Loop`
thread. The control socket <lab>/control.sock (one JSON request a line, one
JSON answer a line: a command of lab/commands.py and its result) lets the
command line (`python3 -m lab`) drive a running controller from another process.
"""

import json
import logging
import os
import re
import signal
import socket
import stat
import subprocess
import threading
import time
from pathlib import Path

from lab import commands, netns, scenario_check, summary as summary_mod, topology as topo_mod
from lab.driver import DriverDouble
from lab.journal import Journal
from lab.loop import Loop
from lab.relay import Relay
from lab.sandbox import STEER_CLI, daemon_binary, exit_text, wait_until
from lab.scenario_run import Runner
from lab.wire import DAEMON_PORT, SUN_PATH_MAX
from lab.world import World

log = logging.getLogger("lab")

CONTROL = "control.sock"
CONTROLLER_PID = "controller.pid"
CONF_IN_NODE = "/var/bandherd.conf"
# Files of a lab directory that `up` may replace; anything else makes it refuse.
LAB_FILES = {"topology.json", CONTROL, CONTROLLER_PID, "mesh.jsonl", "nodes", netns.LEDGER,
             "pids.tmp", "controller.log", "timeline.jsonl", "world.jsonl", "timeline.svg", "world.svg"}


class LabError(RuntimeError):
    pass


# What goes wrong when a person asks for something the lab cannot do: told in words, without
# a traceback, by the control socket and the command line.
EXPECTED_ERRORS = (LabError, ValueError, KeyError, TimeoutError, OSError, netns.NamespaceError)


def error_text(e):
    """An error in one line for people: the message of an expected error, else its type too."""
    if isinstance(e, KeyError) and e.args:
        return str(e.args[0])
    if isinstance(e, OSError) and e.strerror:
        return e.strerror + (f": {e.filename}" if e.filename else "")
    if isinstance(e, EXPECTED_ERRORS):
        return str(e)
    return f"{type(e).__name__}: {e}"


def check_dir(lab_dir, topology=None):
    """Refuses a lab directory whose sockets would not fit in a Unix socket address
    (SUN_PATH_MAX bytes): the control socket's, and with `topology` every node's."""
    lab_dir = Path(lab_dir)
    paths = [lab_dir / CONTROL]
    for n in topology.nodes if topology is not None else []:
        paths.append(lab_dir / "nodes" / n.name / "run" / "maps" / f"nl-{DAEMON_PORT}")
    longest = max(paths, key=lambda p: len(os.fsencode(p)))
    size = len(os.fsencode(longest))
    if size > SUN_PATH_MAX:
        raise LabError(f"the lab directory {lab_dir} is too long: its socket {longest} would take {size} bytes, "
                       f"a Unix socket's path at most {SUN_PATH_MAX}; choose a shorter --dir")


def default_dir():
    """/tmp/bandherd-lab for root; ordinary users get their own."""
    if "BANDHERD_LAB" in os.environ:
        return Path(os.environ["BANDHERD_LAB"])
    return Path("/tmp/bandherd-lab" if os.geteuid() == 0 else f"/tmp/bandherd-lab-{os.geteuid()}")


class Daemon:
    """One run of bandherd in a node."""

    def __init__(self, node, proc, log_path):
        self.node = node
        self.proc = proc
        self.pid = proc.pid
        self.log_path = log_path
        self.started = time.monotonic()

    @property
    def returncode(self):
        return self.proc.poll()

    def state(self):
        return exit_text(self.proc.poll())


class Lab:
    def __init__(self, binary=None):
        self.binary = Path(binary) if binary else daemon_binary()
        self.topology = None
        self.dir = None
        self.loop = None
        self.ns = None
        self.relay = None
        self.drivers = {}
        self.world = None
        self.daemons = {}
        self.wrappers = {}          # node -> a command that runs its daemon (["valgrind", ...]): every start
        self.mesh_journal = None
        self.ready = False
        self.serving = False
        self._served = False
        self.stop_requested = threading.Event()
        self.scenario = None        # the scenario Runner a control request started
        self._control = None
        self._control_thread = None
        self._lock = threading.Lock()
        self._down_lock = threading.Lock()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.down()

    # -- bring-up ---------------------------------------------------------------

    def up(self, topology, lab_dir=None, settings=None, namespaces=True):
        """Builds the lab: directory, driver doubles, radio world, relay, control socket, namespaces.

        `topology` is a file, a decoded topology object or a `Topology`;
        `settings` are configuration keys added to every node's bandherd.conf. Without
        `namespaces` the nodes exist only as their directories and sockets (no daemon can
        run): enough to drive the driver doubles, the world and the relay from a test."""
        if isinstance(topology, topo_mod.Topology):
            self.topology = topology
        elif isinstance(topology, dict):
            self.topology = topo_mod.parse(topology, "(given)")
        else:
            self.topology = topo_mod.load(topology)
        self.dir = Path(lab_dir) if lab_dir else default_dir()
        check_dir(self.dir, self.topology)
        self._check_settings(settings or {})
        prepare_dir(self.dir)
        try:
            self._build(settings or {}, namespaces)
        except BaseException:
            self.down()
            raise
        self.ready = True
        return self

    def _build(self, settings, namespaces):
        raw = self.topology.raw if self.topology.raw is not None else {}
        (self.dir / "topology.json").write_text(json.dumps(raw, indent=2) + "\n")
        for node in self.topology.nodes:
            (self.node_dir(node.name) / "run" / "maps").mkdir(parents=True, exist_ok=True)
            node.config.update(settings)
            self.write_conf(node.name)
        self.mesh_journal = Journal(self.dir / "mesh.jsonl")
        self.loop = Loop()
        self.relay = Relay(self.topology, self.dir, self.loop, self.mesh_journal)
        for node in self.topology.nodes:
            journal = Journal(self.node_dir(node.name) / "driver.jsonl")
            self.drivers[node.name] = DriverDouble(node, self.node_dir(node.name), self.loop, journal)
        self.world = World(self.topology, self.loop, Journal(self.dir / "world.jsonl"), self.drivers)
        self.loop.start()
        self.loop.call(self._start_sockets)
        self._start_control()
        (self.dir / CONTROLLER_PID).write_text(f"{os.getpid()}\n")
        if not namespaces:
            return
        self.ns = netns.Namespaces(self.dir)
        self.ns.start_host()
        for node in self.topology.nodes:
            self.ns.add_node(node, self.node_dir(node.name))
        # Nodes have talked to their portal, as on a real network: its address is in their ARP tables.
        # A fresh link can drop the first request on a busy machine: ping asks once a second until
        # one answer comes, for up to 20 s.
        portal = self.topology.portal
        for node in self.topology.nodes:
            if node is not portal:
                self.ns.node_sh(node.name, f"ping -c1 -w20 {portal.address} >/dev/null")

    def _start_sockets(self):
        for d in self.drivers.values():
            d.start()
        self.relay.start()

    def node_dir(self, name):
        return self.dir / "nodes" / self.node(name).name

    def node(self, name):
        """The topology node named `name` (or whose id is `name`)."""
        if self.topology is None:
            raise LabError("the lab is not up")
        return self.topology.node(name)

    def _check_settings(self, settings):
        problems = self.topology.config_problems(settings)
        if problems:
            raise LabError("; ".join(problems))

    def write_conf(self, name, settings=None):
        """Adds `settings` to a node's configuration and rewrites its bandherd.conf
        (a daemon reads it when it starts)."""
        node = self.node(name)
        self._check_settings(settings or {})
        node.config.update(settings or {})
        (self.node_dir(name) / "bandherd.conf").write_text(node.conf_lines())

    # -- daemons --------------------------------------------------------------------

    def start_daemon(self, name, extra_env=None, args=(), wrapper=None):
        """Starts bandherd in node `name`, its output appended to <node>/bandherd.log, under
        `wrapper` (a command line: ["valgrind", "--tool=callgrind", ...]) or else `wrappers[name]`."""
        node = self.node(name)
        if self.ns is None:
            raise LabError("this lab has no node namespaces: no daemon can run in it")
        with self._lock:
            d = self.daemons.get(node.name)
            if d is not None and d.returncode is None:
                raise LabError(f"the daemon of {node.name} is already running (pid {d.pid})")
            if not self.binary.exists():
                raise LabError(f"{self.binary} is not built")
            env = dict(os.environ)
            env["BANDHERD_CONF"] = CONF_IN_NODE
            env.update({k: str(v) for k, v in (extra_env or {}).items()})
            log_path = self.node_dir(name) / "bandherd.log"
            with open(log_path, "ab") as out:
                if wrapper is None:
                    wrapper = self.wrappers.get(node.name, [])
                argv = list(wrapper) + [str(self.binary.resolve())] + list(args)
                proc = self.ns.run(node.name, argv, env=env,
                                   stdout=out, stderr=subprocess.STDOUT,
                                   cwd=self.node_dir(name) / "run", what="bandherd")
            d = Daemon(node.name, proc, log_path)
            self.daemons[node.name] = d
            return d

    def start_node(self, name, extra_env=None):
        """Starts a node's daemon; a node with a wireless backhaul is told its uplink ("SAP_INFO")
        once its daemon listens, as the mesh daemon does."""
        d = self.start_daemon(name, extra_env)
        if self.node(name).backhaul is not None:
            threading.Thread(target=self._announce_when_listening, args=(d.node,), daemon=True).start()
        return d

    def daemon(self, name):
        return self.daemons.get(self.node(name).name)

    def _running(self, name):
        d = self.daemon(name)
        if d is None:
            raise LabError(f"no daemon was started in {name}")
        return d

    def stop_daemon(self, name, sig=signal.SIGTERM, timeout=20.0):
        """Signals the daemon and waits for its end; returns its exit status
        (negative: killed by that signal)."""
        d = self._running(name)
        if d.returncode is None:
            os.kill(d.pid, sig)
        return self.wait_daemon(name, timeout)

    def wait_daemon(self, name, timeout=20.0):
        """Waits for the daemon's end and returns its exit status; TimeoutError if it keeps running."""
        try:
            return self._running(name).proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise TimeoutError(f"the daemon of {name} still runs after {timeout} s") from None

    def listening(self, name, path="/var/steer_socket"):
        """True once the node's daemon listens on the Unix socket `path` (as the daemon names it)."""
        d = self.daemon(name)
        if d is None or d.returncode is not None:
            return False
        try:
            table = Path(f"/proc/{d.pid}/net/unix").read_text().splitlines()[1:]
        except OSError:
            return False
        for line in table:
            f = line.split()
            # Num RefCount Protocol Flags Type St Inode Path; flag 0x10000: accepting connections
            if len(f) >= 8 and f[7] == path and int(f[3], 16) & 0x10000:
                return True
        return False

    def log(self, name):
        """The daemon's output so far (every run of it in this lab)."""
        try:
            return (self.node_dir(name) / "bandherd.log").read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def wait_log(self, name, pattern, timeout=10.0):
        """Waits for a line of node `name`'s log to match; returns the match."""
        rx = re.compile(pattern, re.M)
        try:
            return self.wait_for(lambda: rx.search(self.log(name)), timeout)
        except TimeoutError:
            raise TimeoutError(f"no line of {name}'s log matches {pattern!r}; the log:\n"
                               + self.log(name)) from None

    # -- inside the nodes ---------------------------------------------------------

    def run(self, name, argv, **popen):
        """Starts a program in node `name` (Popen keywords: env, stdin, stdout, stderr, cwd)."""
        return self.ns.run(self.node(name).name, argv, **popen)

    def sh(self, name, script):
        """Runs a shell script in node `name` and returns its output (raises when it fails)."""
        return self.ns.node_sh(self.node(name).name, script)

    def cli(self, name, *args, timeout=30.0):
        """Runs the operator's front end (tools/steer_cli.sh) in node `name` with `args`; returns
        its exit status and its output (standard output and error)."""
        if self.ns is None:
            raise LabError("this lab has no node namespaces: the front end cannot run in it")
        p = self.run(name, ["sh", str(STEER_CLI), *args], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        try:
            out, _ = p.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            p.kill()
            p.communicate()
            raise TimeoutError(f"steer_cli.sh {' '.join(args)} in {name} did not end in {timeout:g} s") from None
        return p.returncode, out.decode(errors="replace")

    # -- driver and mesh --------------------------------------------------------

    def driver(self, name):
        return self.drivers[self.node(name).name]

    def inject(self, name, code, payload=b""):
        return self.driver(name).inject(code, payload)

    def send(self, from_node, to, msg_type, body):
        return self.relay.send(from_node, to, msg_type, body)

    def announce_uplink(self, name):
        """Tells a node with a wireless backhaul its uplink and hop count ("SAP_INFO"),
        as the mesh daemon does; returns the message's record."""
        node = self.node(name)
        if node.backhaul is None:
            raise LabError(f"{node.name} has no wireless backhaul")
        up = self.node(node.backhaul.uplink)
        return self.send(None, node.name, "SAP_INFO", {"mac": up.id, "hopcont": node.backhaul.hops})

    def send_event(self, name, send):
        """Sends a driver event with `send(driver)`; returns its bytes in hex."""
        try:
            return send(self.driver(name)).hex()
        except OSError as e:
            raise LabError(f"{self.node(name).name}'s daemon does not take driver events "
                           f"({e.strerror or e}); is it running?") from None

    def check(self, since=None):
        """The world's lock-out check over everything so far (or since `since`, monotonic):
        {"blocked_everywhere": {mac: s}, "lockouts": {mac: [s, ...]}, "problems": [...], "limit": s}."""
        return self.world.check(since)

    def summary(self, since=None, names=None):
        """What the daemons' steering did so far (or since `since`, monotonic): every steer and the
        figures (see lab/summary.py); `names` ({mac: name}) names stations."""
        return summary_mod.of_lab(self, since, names)

    def wait_for(self, predicate, timeout=10.0, step=0.02):
        """Polls `predicate` until it returns something true and returns that; TimeoutError otherwise."""
        box = []

        def probe():
            v = predicate()
            if v:
                box.append(v)
            return v

        if not wait_until(probe, timeout, step):
            raise TimeoutError(f"condition not met in {timeout} s")
        return box[-1]

    def nodes(self):
        """What `python3 -m lab nodes` shows."""
        out = []
        for n in self.topology.nodes:
            d = self.daemons.get(n.name)
            out.append({"name": n.name, "id": n.id, "address": n.address, "portal": n.portal,
                        "dir": str(self.node_dir(n.name)),
                        "holder": self.ns.holders[n.name].pid if self.ns and n.name in self.ns.holders else None,
                        "daemon_pid": d.pid if d else None,
                        "daemon": d.state() if d else "not started"})
        return out

    # -- teardown -----------------------------------------------------------------

    def down(self, grace=5.0):
        """Stops the daemons (SIGTERM, then SIGKILL after `grace` s), everything in
        the nodes, the namespaces and the sockets. Logs and records stay. Safe to call twice."""
        with self._down_lock:
            self._down(grace)

    def _down(self, grace):
        self.ready = False
        if self.scenario is not None and self.scenario.running():
            self.scenario.stop()
            self.scenario.wait(10)
        running = [d for d in self.daemons.values() if d.returncode is None]
        for d in running:
            try:
                os.kill(d.pid, signal.SIGTERM)
            except ProcessLookupError:
                pass
        deadline = time.monotonic() + grace
        for d in running:
            try:
                d.proc.wait(max(0.1, deadline - time.monotonic()))
            except subprocess.TimeoutExpired:
                d.proc.kill()
                d.proc.wait()
        failure = None
        if self.ns is not None:
            try:
                self.ns.down()
            except netns.NamespaceError as e:
                failure = e
            self.ns = None
        self._stop_control()
        if self.loop is not None:
            def stop_sockets():
                for drv in self.drivers.values():
                    drv.stop()
                if self.relay:
                    self.relay.stop()
            self.loop.call(stop_sockets)
            self.loop.stop()
            self.loop = None
        for journal in [d.journal for d in self.drivers.values()] + [self.mesh_journal, self.world and self.world.journal]:
            if journal is not None:
                journal.close()
        if self.dir is not None:
            remove_sockets(self.dir)
            try:
                pidfile = self.dir / CONTROLLER_PID
                if pidfile.read_text().strip() == str(os.getpid()):
                    pidfile.unlink()
            except OSError:
                pass
        self.stop_requested.set()
        if failure is not None:
            raise failure

    # -- control socket -------------------------------------------------------------

    def _start_control(self):
        path = self.dir / CONTROL
        try:
            path.unlink()
        except FileNotFoundError:
            pass
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.bind(str(path))
        s.listen(8)
        self._control = s
        self._control_thread = threading.Thread(target=self._control_accept, name="lab-control",
                                                daemon=True)
        self._control_thread.start()

    def _stop_control(self):
        if self._control is None:
            return
        try:
            self._control.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._control.close()
        self._control = None
        if self._control_thread is not threading.current_thread():
            self._control_thread.join(5)

    def _control_accept(self):
        while True:
            try:
                conn, _ = self._control.accept()
            except (OSError, AttributeError):
                return
            threading.Thread(target=self._control_conn, args=(conn,), daemon=True).start()

    def _control_conn(self, conn):
        with conn, conn.makefile("rwb") as f:
            for line in f:
                req = {}
                try:
                    req = json.loads(line)
                    answer = {"ok": True, "result": self.control(req)}
                except Exception as e:       # every failure goes back to the caller
                    answer = {"ok": False, "error": error_text(e)}
                f.write(json.dumps(answer).encode() + b"\n")
                f.flush()
                if req.get("cmd") == "shutdown" and answer["ok"]:
                    return

    def control(self, req):
        """Carries out one control request (a dict with "cmd": a command of lab/commands.py)."""
        try:
            command = commands.find(req.get("cmd"))
        except ValueError as e:
            raise LabError(str(e)) from None
        if command.serve is None:
            raise LabError(f"the command {command.name!r} runs in the command line, not in the controller")
        if not self.ready and command.name not in ("status", "shutdown"):
            raise LabError("the lab is not up")
        return command.serve(self, req)

    def status(self):
        # A background controller is ready once it has started the daemons too.
        return {"ready": self.ready and (not self.serving or self._served),
                "dir": str(self.dir), "pid": os.getpid(), "topology": self.topology.source}

    def start_scenario(self, raw, source=None, base=None):
        """Starts a scenario (a decoded scenario file) on a thread; its timeline grows in
        <lab>/timeline.jsonl and ends with the summary. One runs at a time."""
        with self._lock:
            if self.scenario is not None and self.scenario.running():
                raise LabError(f"the scenario {self.scenario.sc.name} is still running")
            sc = scenario_check.parse(raw, source, self.topology, base)
            self.scenario = Runner(self, sc).start()
        return {"timeline": str(self.scenario.path), "name": sc.name, "duration": sc.duration}

    # -- the background controller -------------------------------------------------

    def serve(self, topology, lab_dir=None, settings=None, daemons=True):
        """Runs a lab until a shutdown request, SIGTERM or SIGINT, then tears it down."""
        self.serving = True
        for sig in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(sig, lambda *_: self.stop_requested.set())
        try:
            self.up(topology, lab_dir, settings)
            if daemons:
                for n in self.topology.nodes:
                    self.start_node(n.name)
            self._served = True
            print(f"lab up in {self.dir}", flush=True)
            while not self.stop_requested.wait(0.5):
                pass
        finally:
            self.down()
        print("lab down", flush=True)

    def _announce_when_listening(self, name):
        if wait_until(lambda: self.listening(name) or self.stop_requested.is_set(), 30.0, 0.1) \
                and not self.stop_requested.is_set():
            try:
                self.announce_uplink(name)
            except Exception as e:
                log.warning("SAP_INFO to %s not sent: %s", name, e)


def prepare_dir(lab_dir):
    """Makes `lab_dir` ready for a new lab: ends what an earlier run left behind and
    removes its files; refuses a running lab or a directory that is not a lab's."""
    lab_dir = Path(lab_dir)
    lab_dir.mkdir(parents=True, exist_ok=True)
    pid = controller_pid(lab_dir)
    if pid is not None and pid != os.getpid() and _answers(lab_dir):
        raise LabError(f"a lab controller (pid {pid}) runs in {lab_dir}; "
                       f"`python3 -m lab down --dir {lab_dir}` first")
    foreign = [p.name for p in lab_dir.iterdir() if p.name not in LAB_FILES]
    if foreign:
        raise LabError(f"{lab_dir} holds files that are not a lab's ({', '.join(sorted(foreign)[:5])}); "
                       f"choose another directory")
    netns.cleanup(lab_dir)
    for name in ("nodes",):
        _rmtree(lab_dir / name)
    # controller.log is the output of the controller now starting.
    for name in LAB_FILES - {"nodes", "controller.log"}:
        try:
            (lab_dir / name).unlink()
        except FileNotFoundError:
            pass


def _rmtree(path):
    if not path.exists():
        return
    for root, dirs, files in os.walk(path, topdown=False):
        for f in files:
            os.unlink(os.path.join(root, f))
        for d in dirs:
            full = os.path.join(root, d)
            if os.path.islink(full):
                os.unlink(full)
            else:
                os.rmdir(full)
    os.rmdir(path)


def remove_sockets(lab_dir):
    """Removes every socket file under a lab directory (the lab's and the daemons')."""
    for root, _, files in os.walk(lab_dir):
        for f in files:
            p = os.path.join(root, f)
            try:
                if stat.S_ISSOCK(os.lstat(p).st_mode):
                    os.unlink(p)
            except FileNotFoundError:
                pass


def controller_pid(lab_dir):
    """The pid of the controller running in `lab_dir`, or None."""
    try:
        pid = int((Path(lab_dir) / CONTROLLER_PID).read_text())
    except (OSError, ValueError):
        return None
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return None
    except PermissionError:
        pass
    return pid


def _answers(lab_dir):
    try:
        control_request(lab_dir, {"cmd": "status"}, timeout=2.0)
        return True
    except (OSError, LabError, ValueError):
        return False


def control_request(lab_dir, request, timeout=30.0):
    """Sends one request to the controller of `lab_dir` and returns its result;
    LabError when it refuses, OSError when no controller answers."""
    check_dir(lab_dir)
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(timeout)
    with s:
        s.connect(str(Path(lab_dir) / CONTROL))
        s.sendall(json.dumps(request).encode() + b"\n")
        with s.makefile("rb") as f:
            line = f.readline()
    if not line:
        raise LabError("the controller closed the connection")
    answer = json.loads(line)
    if not answer["ok"]:
        raise LabError(answer["error"])
    return answer["result"]


def teardown(lab_dir, timeout=30.0):
    """Ends the lab of `lab_dir`: asks its controller, or when none answers cleans
    up after it. Returns what was done, for people."""
    lab_dir = Path(lab_dir)
    pid = controller_pid(lab_dir)
    done = "nothing to do"
    if pid is not None:
        try:
            control_request(lab_dir, {"cmd": "shutdown"}, timeout=5.0)
            done = f"controller {pid} went down"
        except (OSError, LabError, ValueError):
            os.kill(pid, signal.SIGTERM)
            done = f"controller {pid} did not answer, sent SIGTERM"
        # Gone is gone: its pid file goes before it has finished (and written its last words).
        if not wait_until(lambda: not _is_alive(pid), timeout, 0.05):
            os.kill(pid, signal.SIGKILL)
            done += ", then SIGKILL"
            wait_until(lambda: not _is_alive(pid), 5.0)
    if netns.cleanup(lab_dir):
        done = ("cleaned up what a dead controller left" if pid is None
                else done + "; cleaned up what it left")
    if lab_dir.exists():
        remove_sockets(lab_dir)
    try:
        (lab_dir / CONTROLLER_PID).unlink()
    except FileNotFoundError:
        pass
    return done


def _is_alive(pid):
    return netns._alive(pid)

