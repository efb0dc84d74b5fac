"""The daemon binary as a user runs it: -V, the enable check, signals, log settings."""

import re
import signal
import tempfile
from pathlib import Path

import pytest

from lab.sandbox import Daemon, VarDir, wait_until

RESTART = signal.SIGRTMIN + 1
RED = "\x1b[0;31m"
RESET = "\x1b[0m"
EXITED = f"{RED}bandherd: exited.{RESET}\n"
DELAY = f"{RED}bandherd will exit after 15 seconds!!!{RESET}\n"
ENABLED = {"bandherd.enable": 1, "bandherd.log_time": 0}


@pytest.fixture(scope="module")
def slow_exits(bandherd):
    """The two 15-second exits, started together so that they wait in parallel."""
    dirs = tempfile.TemporaryDirectory()
    root = Path(dirs.name)
    disabled_var = VarDir(root / "disabled")
    (disabled_var.path("/var/run/steer.log")).write_text("old steering record\n")
    disabled = Daemon(disabled_var, [bandherd], {"bandherd.log_time": 0})
    restart_var = VarDir(root / "restart")
    restart = Daemon(restart_var, [bandherd], ENABLED)
    restart.wait_for(r"bandherd is ready\.")
    restart.signal(RESTART)
    yield {"disabled": (disabled, disabled_var), "restart": (restart, restart_var)}
    disabled.kill()
    restart.kill()
    dirs.cleanup()


def test_version_prints_two_lines_and_leaves_the_pid_file(bandherd, var):
    d = Daemon(var, [bandherd, "-V"])
    assert d.wait(10) == 0
    lines = d.out().splitlines()
    assert len(lines) == 2, d.out()
    assert re.fullmatch(r"Version: \S.*", lines[0])
    assert re.fullmatch(r"Build: \S.*", lines[1])
    assert d.err() == ""
    # The pid file is written before the options are read, and stays.
    assert var.path("/var/run/bandherd.pid").read_text() == str(d.pid)


def test_unknown_options_and_arguments_are_ignored(bandherd, var):
    d = Daemon(var, [bandherd, "-x", "extra"], ENABLED)
    d.wait_for(r"bandherd is ready\.")
    assert "invalid option" in d.err()
    d.signal(signal.SIGINT)
    assert d.wait(10) == 0
    assert re.search(r"^warning exit_handler:\d+, receive signal 2$", d.out(), re.M)


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


def test_restart_signal_cleans_up_then_waits_and_exits_1(slow_exits):
    d, var = slow_exits["restart"]
    assert d.wait(30) == 1
    assert d.elapsed >= 15
    assert re.search(rf"^warning exit_handler:\d+, receive signal {int(RESTART)}$", d.out(), re.M)
    assert d.err() == DELAY + EXITED
    assert not var.path("/var/run/bandherd.pid").exists()


def test_sigterm_ends_at_once_with_status_0(bandherd, var):
    d = Daemon(var, [bandherd], ENABLED)
    m = d.wait_for(r"^info main:\d+, bandherd is ready\.$")
    assert m
    assert var.path("/var/run/bandherd.pid").read_text() == str(d.pid)
    var.path("/var/run/steer.log").write_text("x\n")
    d.signal(signal.SIGTERM)
    assert d.wait(5) == 0
    assert d.elapsed < 10
    assert re.search(r"^warning exit_handler:\d+, receive signal 15$", d.out(), re.M)
    assert d.err() == EXITED
    assert not var.path("/var/run/bandherd.pid").exists()
    assert not var.path("/var/run/steer.log").exists()


@pytest.mark.parametrize("log_time, prefixed", [(7, True), (0, False)])
def test_log_path_and_time_prefix_settings(bandherd, var, log_time, prefixed):
    settings = {"bandherd.enable": 1, "bandherd.log_time": log_time,
                "bandherd.log_path": "/var/run/bandherd.log", "bandherd.log_level": 7}
    d = Daemon(var, [bandherd], settings)
    log = var.path("/var/run/bandherd.log")
    assert wait_until(lambda: log.exists() and "bandherd is ready." in log.read_text())
    d.signal(signal.SIGTERM)
    assert d.wait(5) == 0
    text = log.read_text()
    stamp = r"\d+ \d\d/\d\d \d\d:\d\d:\d\d " if prefixed else ""
    assert re.search(rf"^{stamp}info main:\d+, bandherd is ready\.$", text, re.M), text
    assert re.search(rf"^{stamp}warning exit_handler:\d+, receive signal 15$", text, re.M), text
    # Nothing went to standard output once the log moved to the file.
    assert d.out() == ""
