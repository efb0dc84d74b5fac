"""The lab's namespaces: a lab host with the backbone bridge, and one node per topology node.

The lab host is a network + mount namespace (inside a user namespace when we
are not root) held open by a `sleep infinity` process. Each node is a network +
mount namespace created from inside the lab host, again held by a sleeping
process. Inside a node:

    br0         a bridge whose MAC is the node id, up, 169.254.100.<n>/24
    <vap>       one veth per VAP, named as the kernel names it, MAC = BSSID,
                up, a port of br0 (its peer stays down inside the node)
    <uplink>    the node's end of its link onto the backbone, a port of br0
                (named after the wireless backhaul interface, or eth0)
    /var        the node's directory <lab>/nodes/<name>
    /sys        a fresh sysfs: /sys/class/net lists the node's own interfaces

Every holder and every process started in a node is written to
<lab>/pids.json as soon as it exists, so that `cleanup` can end a lab whose
controller died without tearing it down.
"""

import json
import os
import shlex
import signal
import subprocess
import time
from pathlib import Path

from lab.topology import NETWORK, PEER_IFNAME

LEDGER = "pids.json"
BACKBONE = "backbone"


class NamespaceError(RuntimeError):
    pass


def is_root():
    return os.geteuid() == 0


def _ns_id(pid, kind):
    """The namespace identity of a process ("net:[4026532...]"), or None if it is gone."""
    try:
        return os.readlink(f"/proc/{pid}/ns/{kind}")
    except OSError:
        return None


def _comm(pid):
    try:
        return Path(f"/proc/{pid}/comm").read_text().strip()
    except OSError:
        return None


def _alive(pid):
    """True while the process exists and is not a zombie."""
    try:
        stat = Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return False
    return stat.rsplit(")", 1)[1].split()[0] != "Z"


def _wait_gone(pids, timeout):
    deadline = time.monotonic() + timeout
    while any(_alive(p) for p in pids) and time.monotonic() < deadline:
        time.sleep(0.02)
    return [p for p in pids if _alive(p)]


def boot_id():
    try:
        return Path("/proc/sys/kernel/random/boot_id").read_text().strip()
    except OSError:
        return None


class Ledger:
    """The pids of a lab, kept in <lab>/pids.json."""

    def __init__(self, lab_dir):
        self.path = Path(lab_dir) / LEDGER
        self.data = {"root": is_root(), "boot": boot_id(), "host": None, "nodes": {}, "procs": []}

    @classmethod
    def read(cls, lab_dir):
        ledger = cls(lab_dir)
        try:
            ledger.data = json.loads(ledger.path.read_text())
        except (OSError, ValueError):
            return None
        return ledger

    def save(self):
        tmp = self.path.with_suffix(".tmp")
        tmp.write_text(json.dumps(self.data, indent=1) + "\n")
        os.replace(tmp, self.path)

    def add_proc(self, node, pid, what):
        self.data["procs"].append({"node": node, "pid": pid, "what": what})
        self.save()

    def remove(self):
        try:
            self.path.unlink()
        except FileNotFoundError:
            pass


def enter_command(pid, root=None, cwd=None):
    """The nsenter command line that runs a program in the namespaces held by `pid`."""
    root = is_root() if root is None else root
    cmd = ["nsenter", "-t", str(pid)]
    if not root:
        cmd += ["-U", "--preserve-credentials"]
    cmd += ["-n", "-m"]
    # nsenter resolves the directory before it enters the mount namespace, and
    # would otherwise leave the program in /.
    cmd.append(f"--wd={cwd or os.getcwd()}")
    return cmd


class Namespaces:
    """The running namespaces of one lab."""

    def __init__(self, lab_dir):
        self.lab_dir = Path(lab_dir)
        self.root = is_root()
        self.ledger = Ledger(self.lab_dir)
        self.host = None          # Popen of the lab host's holder
        self.holders = {}         # node name -> Popen of its holder
        self.procs = []           # (node name, Popen) started by run()

    # -- bring-up ---------------------------------------------------------

    def _hold(self, prefix, parent_ids):
        """Starts a holder and waits until it sleeps in its own namespaces."""
        proc = subprocess.Popen(prefix + ["sleep", "infinity"], stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            if proc.poll() is not None:
                err = proc.stderr.read().decode(errors="replace").strip()
                raise NamespaceError(f"{' '.join(prefix)} failed: {err or proc.returncode}")
            if (_comm(proc.pid) == "sleep" and _ns_id(proc.pid, "net") not in parent_ids
                    and _ns_id(proc.pid, "net") is not None):
                proc.stderr.close()
                return proc
            time.sleep(0.005)
        proc.kill()
        proc.wait()
        raise NamespaceError(f"{' '.join(prefix)} did not start")

    def _record_holder(self, proc):
        return {"pid": proc.pid, "net": _ns_id(proc.pid, "net"), "mnt": _ns_id(proc.pid, "mnt")}

    def start_host(self):
        if self.root:
            prefix = ["unshare", "-n", "-m", "--propagation", "private"]
        else:
            prefix = ["unshare", "-U", "-r", "-n", "-m", "--propagation", "private"]
        self.ledger.save()
        self.host = self._hold(prefix, {_ns_id(os.getpid(), "net")})
        self.ledger.data["host"] = self._record_holder(self.host)
        self.ledger.save()
        self.host_sh(f"ip link set lo up && ip link add {BACKBONE} type bridge && ip link set {BACKBONE} up")

    def add_node(self, node, node_dir):
        """Creates the namespaces of one topology node and builds its interfaces and mounts."""
        if self.host is None:
            raise NamespaceError("the lab host is not up")
        node_dir = Path(node_dir)
        (node_dir / "run" / "maps").mkdir(parents=True, exist_ok=True)
        prefix = enter_command(self.host.pid, self.root, "/") + [
            "unshare", "-n", "-m", "--propagation", "private"]
        holder = self._hold(prefix, {_ns_id(self.host.pid, "net"), _ns_id(os.getpid(), "net")})
        self.holders[node.name] = holder
        self.ledger.data["nodes"][node.name] = self._record_holder(holder)
        self.ledger.save()

        port = f"bb-{node.name}"
        peer = f"peer name {node.uplink_ifname}"
        if node.backhaul and node.backhaul.mac:
            peer += f" address {node.backhaul.mac}"
        self.host_sh(f"ip link add {port} type veth {peer} netns {holder.pid} && "
                     f"ip link set {port} master {BACKBONE} up")

        lines = [
            "link set lo up",
            f"link add br0 address {node.id} type bridge",
            f"addr add {node.address}/{NETWORK.prefixlen} dev br0",
            f"link set {node.uplink_ifname} master br0 up",
        ]
        for i, vap in enumerate(node.vaps):
            lines.append(f"link add {vap.ifname} address {vap.bssid} type veth peer name {PEER_IFNAME.format(i)}")
            lines.append(f"link set {vap.ifname} master br0 up")
        lines.append("link set br0 up")
        batch = "\n".join(lines) + "\n"
        script = (f"ip -batch - <<'EOF'\n{batch}EOF\n"
                  f"mount --bind {shlex.quote(str(node_dir))} /var && mount -t sysfs sysfs /sys")
        self.node_sh(node.name, script)

    # -- running things ----------------------------------------------------

    def _sh(self, pid, script):
        r = subprocess.run(enter_command(pid, self.root, "/") + ["sh", "-ec", script],
                           stdin=subprocess.DEVNULL, capture_output=True, text=True)
        if r.returncode != 0:
            raise NamespaceError(f"{script!r} failed: {(r.stderr or r.stdout).strip()}")
        return r.stdout

    def host_sh(self, script):
        """Runs a shell script in the lab host; returns its output, raises on failure."""
        return self._sh(self.host.pid, script)

    def node_sh(self, name, script):
        """Runs a shell script in a node; returns its output, raises on failure."""
        return self._sh(self.holder(name).pid, script)

    def holder(self, name):
        try:
            return self.holders[name]
        except KeyError:
            raise NamespaceError(f"no node {name!r} is up") from None

    def command(self, name, argv, cwd=None):
        """The command line that runs `argv` inside node `name`."""
        return enter_command(self.holder(name).pid, self.root, cwd) + [str(a) for a in argv]

    def run(self, name, argv, env=None, stdin=subprocess.DEVNULL, stdout=None, stderr=None,
            cwd=None, what=None):
        """Starts `argv` inside node `name` and returns its Popen.

        nsenter execs the program, so the Popen's pid is the program's own pid
        and signals sent to it reach the program directly.
        """
        proc = subprocess.Popen(self.command(name, argv, cwd), env=env, stdin=stdin,
                                stdout=stdout, stderr=stderr)
        self.procs.append((name, proc))
        self.ledger.add_proc(name, proc.pid, what or os.path.basename(str(argv[0])))
        return proc

    # -- teardown ----------------------------------------------------------

    def down(self):
        """Ends every process in the nodes and the lab host, and the holders."""
        for _, proc in self.procs:
            if proc.poll() is None:
                proc.terminate()
        cleanup_ledger(self.ledger)
        for p in [proc for _, proc in self.procs] + list(self.holders.values()) + [self.host]:
            if p is not None:
                try:
                    p.wait(5)
                except subprocess.TimeoutExpired:
                    p.kill()
                    p.wait()
        self.procs.clear()
        self.holders.clear()
        self.host = None


def _pids_in(ns_ids):
    """Our processes that live in one of the given network namespaces."""
    found = []
    me = os.getpid()
    for entry in os.listdir("/proc"):
        if not entry.isdigit() or int(entry) == me:
            continue
        if _ns_id(entry, "net") in ns_ids and _alive(int(entry)):
            found.append(int(entry))
    return found


def _holds(record):
    """True when a recorded holder still sleeps in the recorded namespace."""
    return (bool(record) and _alive(record["pid"]) and _comm(record["pid"]) == "sleep"
            and _ns_id(record["pid"], "net") == record.get("net"))


def cleanup_ledger(ledger, grace=2.0):
    """Ends everything a ledger names: processes in the nodes (SIGTERM, then
    SIGKILL after `grace` seconds), then the node holders, then the lab host.

    Only namespaces whose holder still sleeps in them are searched, and a
    recorded process must still be the program recorded and live in a node,
    so that pids and namespace numbers reused since (after a reboot, say)
    are left alone.
    """
    data = ledger.data
    if data.get("boot") != boot_id():
        ledger.remove()
        return
    host = data.get("host") or {}
    nodes = data.get("nodes", {})
    held = [r for r in list(nodes.values()) + [host] if _holds(r)]
    holders = {r["pid"] for r in held}
    nets = {r["net"] for r in held}
    recorded_nets = {r.get("net") for r in nodes.values()} - {None}

    # Processes started in the nodes, and anything else living there (a shell, a ping).
    inside = set(_pids_in(nets)) - holders
    for p in data.get("procs", []):
        pid = p["pid"]
        if (_alive(pid) and _ns_id(pid, "net") in recorded_nets
                and _comm(pid) == str(p.get("what", ""))[:15]):
            inside.add(pid)
    for pid in inside:
        _signal(pid, signal.SIGTERM)
    for pid in _wait_gone(inside, grace):
        _signal(pid, signal.SIGKILL)
    _wait_gone(inside, 2)

    # The holders, the lab host's last; then whatever entered meanwhile.
    for pid in sorted(holders, key=lambda p: p == host.get("pid")):
        _signal(pid, signal.SIGKILL)
    late = _pids_in(nets)
    for pid in late:
        _signal(pid, signal.SIGKILL)
    left = _wait_gone(list(holders) + late, 5)
    if left:
        raise NamespaceError(f"processes {left} did not end")
    ledger.remove()


def _signal(pid, sig):
    try:
        os.kill(pid, sig)
    except (ProcessLookupError, PermissionError):
        pass


def cleanup(lab_dir):
    """Tears down what a lab directory's ledger names; True if there was anything."""
    ledger = Ledger.read(lab_dir)
    if ledger is None:
        return False
    cleanup_ledger(ledger)
    return True
