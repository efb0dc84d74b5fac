"""The daemon binary as a user runs it: -V, the enable check, signals, log settings.

Each daemon runs in a node of a lab mesh, as on a router: its /var is the
node's directory, and the node has its br0, VAPs and driver.
"""

import re
import shutil
import signal
import subprocess
import tempfile
import threading
from contextlib import contextmanager

import pytest

from lab.controller import Lab
from lab.sandbox import REPO, Daemon, VarDir, wait_until

RESTART = signal.SIGRTMIN + 1
RED = "\x1b[0;31m"
RESET = "\x1b[0m"
EXITED = f"{RED}bandherd: exited.{RESET}\n"
DELAY = f"{RED}bandherd will exit after 15 seconds!!!{RESET}\n"
ENABLED = {"bandherd.enable": 1, "bandherd.log_time": 0}
TOPOLOGY = REPO / "lab" / "topologies" / "two-node.json"
TERM_RUNS = 200


class Node:
    """A lab node to run the daemon in; `var` is its directory, the daemon's /var."""

    def __init__(self, lab, name):
        self.lab = lab
        self.name = name
        self.var = VarDir(lab.node_dir(name))
        # What the node's daemon needs besides the settings a test is about.
        self.base = {k: v for k, v in lab.node(name).config.items() if k != "bandherd.enable"}

    def daemon(self, argv, settings=None):
        if settings is not None:
            settings = {**self.base, **settings}
        return Daemon(self.var, argv, settings, runner=self._run)

    def _run(self, argv, env):
        return self.lab.run(self.name, argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)


@contextmanager
def mesh():
    lab_dir = tempfile.mkdtemp(prefix="bh-", dir="/tmp")
    lab = Lab()
    try:
        lab.up(TOPOLOGY, lab_dir)
        yield lab
    finally:
        lab.down()
        shutil.rmtree(lab_dir, ignore_errors=True)


@pytest.fixture
def node():
    with mesh() as lab:
        yield Node(lab, "A")


@pytest.fixture(scope="module")
def slow_exits(bandherd):
    """The two 15-second exits, started together so that they wait in parallel."""
    with mesh() as lab:
        disabled_node, restart_node = Node(lab, "A"), Node(lab, "B")
        disabled_var, restart_var = disabled_node.var, restart_node.var
        (disabled_var.path("/var/run/steer.log")).write_text("old steering record\n")
        disabled = disabled_node.daemon([bandherd], {"bandherd.log_time": 0})
        restart = restart_node.daemon([bandherd], ENABLED)
        restart.wait_for(r"bandherd is ready\.")
        restart.signal(RESTART)
        yield {"disabled": (disabled, disabled_var), "restart": (restart, restart_var)}
        disabled.kill()
        restart.kill()


def test_version_prints_two_lines_and_leaves_the_pid_file(bandherd, node):
    d = node.daemon([bandherd, "-V"])
    assert d.wait(10) == 0
    lines = d.out().splitlines()
    assert len(lines) == 2, d.out()
    assert re.fullmatch(r"Version: \S.*", lines[0])
    assert re.fullmatch(r"Build: \S.*", lines[1])
    assert d.err() == ""
    # The pid file is written before the options are read, and stays.
    assert node.var.path("/var/run/bandherd.pid").read_text() == str(d.pid)


def test_unknown_options_and_arguments_are_ignored(bandherd, node):
    d = node.daemon([bandherd, "-x", "extra"], ENABLED)
    d.wait_for(r"bandherd is ready\.")
    d.signal(signal.SIGINT)
    assert d.wait(10) == 0
    assert "invalid option" in d.err()  # read once the output is all in
    assert re.search(r"^warning exit_handler:\d+, receive signal 2$", d.out(), re.M)


@pytest.mark.lasts(15)
def test_disabled_daemon_refuses_to_run_and_exits_after_the_delay(slow_exits):
    d, var = slow_exits["disabled"]
    assert d.wait(30) == 1
    assert d.elapsed >= 15
    fatal = [l for l in d.stdout if l.startswith("fatal ")]
    assert len(fatal) == 1 and re.fullmatch(r"fatal main:\d+, mib 'bandherd.enable' is not 1\.\n", fatal[0])
    assert re.search(r"^info exit_handler:\d+, clean before exit$", d.out(), re.M)
    assert d.err() == DELAY + EXITED
    assert not var.path("/var/run/bandherd.pid").exists()
    assert not var.path("/var/run/steer.log").exists()


@pytest.mark.lasts(15)
def test_restart_signal_cleans_up_then_waits_and_exits_1(slow_exits):
    d, var = slow_exits["restart"]
    assert d.wait(30) == 1
    assert d.elapsed >= 15
    assert re.search(rf"^warning exit_handler:\d+, receive signal {int(RESTART)}$", d.out(), re.M)
    assert d.err() == DELAY + EXITED
    assert not var.path("/var/run/bandherd.pid").exists()


def test_sigterm_ends_at_once_with_status_0(bandherd, node):
    d = node.daemon([bandherd], ENABLED)
    m = d.wait_for(r"^info main:\d+, bandherd is ready\.$")
    assert m
    assert node.var.path("/var/run/bandherd.pid").read_text() == str(d.pid)
    node.var.path("/var/run/steer.log").write_text("x\n")
    d.signal(signal.SIGTERM)
    assert d.wait(5) == 0
    assert d.elapsed < 10
    assert re.search(r"^warning exit_handler:\d+, receive signal 15$", d.out(), re.M)
    assert d.err() == EXITED
    assert not node.var.path("/var/run/bandherd.pid").exists()
    assert not node.var.path("/var/run/steer.log").exists()


@pytest.mark.parametrize("log_time, prefixed", [(7, True), (0, False)])
def test_log_path_and_time_prefix_settings(bandherd, node, log_time, prefixed):
    settings = {"bandherd.enable": 1, "bandherd.log_time": log_time,
                "bandherd.log_path": "/var/run/bandherd.log", "bandherd.log_level": 7}
    d = node.daemon([bandherd], settings)
    log = node.var.path("/var/run/bandherd.log")
    assert wait_until(lambda: log.exists() and "bandherd is ready." in log.read_text())
    d.signal(signal.SIGTERM)
    assert d.wait(5) == 0
    text = log.read_text()
    stamp = r"\d+ \d\d/\d\d \d\d:\d\d:\d\d " if prefixed else ""
    assert re.search(rf"^{stamp}info main:\d+, bandherd is ready\.$", text, re.M), text
    assert re.search(rf"^{stamp}warning exit_handler:\d+, receive signal 15$", text, re.M), text
    # Nothing went to standard output once the log moved to the file.
    assert d.out() == ""


@pytest.mark.lasts(25)
def test_sigterm_ends_a_daemon_busy_logging_every_time(bandherd, node):
    """The exit never runs inside an interrupted log line: a daemon flooded with
    station events, logging each at dump level with the time prefix, always
    ends on SIGTERM, with status 0 (one that hung in an interrupted log line would
    never end; the wait allows for a busy machine). The stations' signal stays
    between the steering thresholds: a steer would pause the daemon around its
    BSS transition request."""
    from lab.driver import EV, netlink_message, sta_payload
    events = [netlink_message(EV["STA_STATUS"], sta_payload(f"02:5e:00:00:00:{i:02x}", 1, rssi=-56 - i % 12))
              for i in range(64)]
    target = str(node.var.path("/var/run/maps/nl-3333"))
    sender = node.lab.driver("A").nl  # the driver's own endpoint, as the events' sender
    stop = threading.Event()

    def flood():
        while not stop.is_set():
            for msg in events:
                try:
                    sender.sendto(msg, target)
                except OSError:     # no daemon yet, or its queue is full: it has enough to do for now
                    stop.wait(0.001)
                    break
    threading.Thread(target=flood, daemon=True).start()
    try:
        for run in range(TERM_RUNS):
            log = node.var.path(f"/var/run/busy{run}.log")
            d = node.daemon([bandherd], {"bandherd.enable": 1, "bandherd.log_level": 6, "bandherd.log_size": 0,
                                         "bandherd.log_path": f"/var/run/busy{run}.log"})
            assert wait_until(lambda: log.exists() and "bandherd is ready." in log.read_text(errors="replace"))
            assert wait_until(lambda: "last rssi" in log.read_text(errors="replace")), "the daemon is not busy"
            d.signal(signal.SIGTERM)
            try:
                status = d.wait(10)
            except subprocess.TimeoutExpired:
                d.kill()
                pytest.fail(f"run {run}: the daemon still ran 10 s after SIGTERM")
            assert status == 0, f"run {run}: exit status {status}"
            log.unlink()
    finally:
        stop.set()
