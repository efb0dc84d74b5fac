"""Runs a daemon in a private mount namespace where a directory of ours is /var.

The daemon's fixed paths (/var/run/bandherd.pid, /var/run/steer.log, ...) then
land in that directory, visible from outside, and the machine's own /var is
never touched. As root a mount namespace is enough; as an ordinary user a user
namespace maps us to root inside it.
"""

import os
import re
import signal
import subprocess
import threading
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
STEER_CLI = REPO / "tools" / "steer_cli.sh"     # the operator's front end of the command FIFO


def daemon_binary():
    """The bandherd binary under test: $BANDHERD_BIN or the normal build's."""
    return Path(os.environ.get("BANDHERD_BIN", REPO / "build" / "src" / "bandherd"))


def unshare_prefix(net=False):
    """The unshare command line that gives a private mount (and network) namespace."""
    cmd = ["unshare"]
    if os.geteuid() != 0:
        cmd += ["-U", "-r"]
    cmd += ["-m", "--propagation", "private"]
    if net:
        cmd.append("-n")
    return cmd


def wait_until(predicate, timeout=10.0, step=0.05):
    """Polls `predicate` until it is true; returns whether it became true in time."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(step)
    return bool(predicate())


class VarDir:
    """A directory that processes started through it see as /var."""

    def __init__(self, root):
        self.root = Path(root)
        (self.root / "run").mkdir(parents=True, exist_ok=True)

    def path(self, var_path):
        """Where /var/<...> of the sandbox is, seen from outside."""
        rel = Path(var_path).relative_to("/var")
        return self.root / rel

    def write_conf(self, settings):
        """Writes a key=value configuration file and returns its path."""
        conf = self.root / "bandherd.conf"
        conf.write_text("".join(f"{k}={v}\n" for k, v in settings.items()))
        return conf

    def command(self, argv):
        script = 'mount --bind "$0" /var && exec "$@"'
        return unshare_prefix() + ["sh", "-c", script, str(self.root)] + [str(a) for a in argv]


class Daemon:
    """A running process whose output is collected line by line.

    unshare and sh exec the program, so `pid` is the program's own pid and
    signals sent to it reach it directly. `runner(argv, env)`, when given,
    starts the program elsewhere (in a lab node) and returns its Popen, with
    standard output and error on pipes.
    """

    def __init__(self, var, argv, settings=None, env=None, runner=None):
        full_env = dict(os.environ)
        if settings is not None:
            full_env["BANDHERD_CONF"] = str(var.write_conf(settings))
        full_env.update(env or {})
        self.started = time.monotonic()
        if runner is not None:
            self.proc = runner([str(a) for a in argv], full_env)
        else:
            self.proc = subprocess.Popen(var.command(argv), stdin=subprocess.DEVNULL,
                                         stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                         env=full_env)
        self.pid = self.proc.pid
        self.stdout = []
        self.stderr = []
        self._cond = threading.Condition()
        self._pumps = [threading.Thread(target=self._pump, args=(s, lines), daemon=True)
                       for s, lines in ((self.proc.stdout, self.stdout), (self.proc.stderr, self.stderr))]
        for t in self._pumps:
            t.start()

    def _pump(self, stream, lines):
        for raw in iter(stream.readline, b""):
            with self._cond:
                lines.append(raw.decode(errors="replace"))
                self._cond.notify_all()
        stream.close()

    def wait_for(self, pattern, timeout=10.0, stream="stdout"):
        """Waits for a line matching `pattern`; returns the match or raises TimeoutError."""
        lines = self.stdout if stream == "stdout" else self.stderr
        rx = re.compile(pattern)
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for line in lines:
                    m = rx.search(line)
                    if m:
                        return m
                left = deadline - time.monotonic()
                if left <= 0 or (self.proc.poll() is not None and not any(t.is_alive() for t in self._pumps)):
                    raise TimeoutError(f"no line matching {pattern!r}; {stream} was:\n" + "".join(lines))
                self._cond.wait(min(left, 0.2))

    def signal(self, sig):
        os.kill(self.pid, sig)

    def wait(self, timeout=30.0):
        """Waits for the exit; returns the exit status (negative: killed by that signal)."""
        rc = self.proc.wait(timeout)
        for t in self._pumps:
            t.join(5)
        self.elapsed = time.monotonic() - self.started
        return rc

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()

    def out(self):
        return "".join(self.stdout)

    def err(self):
        return "".join(self.stderr)


def exit_text(code):
    """How a daemon ended, for people: "exited 0", "killed by SIGKILL"."""
    if code is None:
        return "running"
    if code < 0:
        try:
            return f"killed by {signal.Signals(-code).name}"
        except ValueError:
            return f"killed by signal {-code}"
    return f"exited {code}"


def parse_signal(text):
    """A signal from "15", "TERM", "SIGTERM" or "RTMIN+1"."""
    text = str(text).upper().removeprefix("SIG")
    if text.isdigit():
        return int(text)
    m = re.fullmatch(r"RTMIN\+(\d+)", text)
    if m:
        return signal.SIGRTMIN + int(m.group(1))
    try:
        return signal.Signals["SIG" + text]
    except KeyError:
        raise ValueError(f"unknown signal {text!r}") from None
