"""The lab's namespaces: each node has its own interfaces, addresses, /var and /sys; nodes reach
each other; teardown leaves nothing behind, also after the controller was killed. As root and,
through a user namespace, as an ordinary user."""

import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import pytest

from lab import netns, topology
from lab.sandbox import REPO, wait_until
from standins import lab_cli

TOPOLOGY = REPO / "lab" / "topologies" / "three-node.json"
NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "env", "HOME=/tmp"]


@pytest.fixture
def mesh(lab_dir):
    topo = topology.load(TOPOLOGY)
    ns = netns.Namespaces(lab_dir)
    try:
        ns.start_host()
        for node in topo.nodes:
            ns.add_node(node, lab_dir / "nodes" / node.name)
        yield topo, ns
    finally:
        ns.down()


def interfaces(ns, name):
    """{interface: (MAC, IFF_UP, master)} as /sys/class/net shows them inside a node."""
    out = ns.node_sh(name, 'for i in /sys/class/net/*; do '
                           'm=$(readlink $i/master || true); '
                           'echo "$(basename $i) $(cat $i/address) $(cat $i/flags) ${m##*/}"; done')
    found = {}
    for line in out.splitlines():
        parts = line.split(" ")
        found[parts[0]] = (parts[1], int(parts[2], 16) & 1 == 1, parts[3] or None)
    return found


def net_ns(pid):
    try:
        return os.readlink(f"/proc/{pid}/ns/net")
    except OSError:
        return None


def test_each_node_has_its_own_interfaces_address_and_var(mesh, lab_dir):
    topo, ns = mesh
    for node in topo.nodes:
        ifs = interfaces(ns, node.name)
        peers = {f"vap-peer{i}" for i in range(len(node.vaps))}
        assert set(ifs) == {"lo", "br0", node.uplink_ifname} | {v.ifname for v in node.vaps} | peers
        assert ifs["br0"][:2] == (node.id, True)
        for v in node.vaps:
            assert ifs[v.ifname] == (v.bssid, True, "br0")
        assert ifs[node.uplink_ifname][1:] == (True, "br0")
        if node.backhaul and node.backhaul.mac:
            assert ifs[node.uplink_ifname][0] == node.backhaul.mac
        assert all(not ifs[p][1] for p in peers)
        addr = ns.node_sh(node.name, "ip -4 -o addr show dev br0")
        assert f"inet {node.address}/24 " in addr
        # /var is the node's directory; /var/run a directory of its own.
        ns.node_sh(node.name, f"echo {node.name} > /var/run/probe")
        assert (lab_dir / "nodes" / node.name / "run" / "probe").read_text() == f"{node.name}\n"


def test_nodes_reach_each_other_over_the_backbone(mesh):
    topo, ns = mesh
    a, b, c = topo.nodes
    ns.node_sh(c.name, f"ping -c1 -W2 {a.address} >/dev/null && ping -c1 -W2 {b.address} >/dev/null")
    arp = ns.node_sh(c.name, "cat /proc/net/arp")
    rows = {line.split()[0]: line.split()[3] for line in arp.splitlines()[1:]}
    assert rows[a.address] == a.id and rows[b.address] == b.id
    # A node's ARP table is its own.
    assert c.address not in ns.node_sh(c.name, "cat /proc/net/arp")
    assert ns.node_sh(a.name, "cat /proc/net/arp").count("\n") == 2     # header and C


def test_a_program_run_in_a_node_is_that_nodes_and_keeps_its_pid(mesh, lab_dir):
    _, ns = mesh
    proc = ns.run("B", ["sh", "-c", 'echo $$; ls /sys/class/net; exec sleep 30'], stdout=subprocess.PIPE,
                  env={"PATH": os.environ["PATH"], "X": "1"}, cwd=lab_dir)
    pid = int(proc.stdout.readline())
    assert pid == proc.pid
    assert wait_until(lambda: Path(f"/proc/{pid}/comm").read_text().strip() == "sleep", 10.0)
    assert net_ns(pid) == net_ns(ns.holders["B"].pid) != net_ns(os.getpid())
    assert os.readlink(f"/proc/{pid}/cwd") == str(lab_dir)
    assert json.loads((lab_dir / "pids.json").read_text())["procs"][-1]["pid"] == pid


def test_down_leaves_no_process_namespace_or_mount(lab_dir):
    mounts = Path("/proc/self/mountinfo").read_text()
    topo = topology.load(TOPOLOGY)
    ns = netns.Namespaces(lab_dir)
    ns.start_host()
    for node in topo.nodes:
        ns.add_node(node, lab_dir / "nodes" / node.name)
    started = ns.run("A", ["sleep", "60"])
    # Something that entered a node behind the lab's back (a person's shell); it is asked
    # to end (SIGTERM) before it is killed. It never ends on its own: a shell in `wait` whose
    # child is ended first would end with status 0 without taking its trap.
    stray = subprocess.Popen(netns.enter_command(ns.holders["C"].pid) + [
        "sh", "-c", 'trap "echo ended > /var/run/stray; exit 0" TERM; echo up > /var/run/stray; '
                    'while :; do sleep 1; done'])
    assert wait_until(lambda: (lab_dir / "nodes" / "C" / "run" / "stray").exists(), 10.0)
    ledger = json.loads((lab_dir / "pids.json").read_text())
    spaces = {ledger["host"]["net"]} | {n["net"] for n in ledger["nodes"].values()}
    pids = [ledger["host"]["pid"]] + [n["pid"] for n in ledger["nodes"].values()] + [started.pid]
    # Held open, the namespaces outlive their processes and keep their ids: a lab that another test
    # brings up meanwhile cannot get one of them.
    held = [os.open(f"/proc/{pid}/ns/net", os.O_RDONLY) for pid in pids[:-1]]
    try:
        ns.down()
        assert stray.wait(5) == 0
        assert (lab_dir / "nodes" / "C" / "run" / "stray").read_text() == "ended\n"
        for pid in pids + [stray.pid]:
            assert not Path(f"/proc/{pid}").exists(), pid
        assert not any(net_ns(p) in spaces for p in os.listdir("/proc") if p.isdigit())
    finally:
        for fd in held:
            os.close(fd)
    assert not (lab_dir / "pids.json").exists()
    assert Path("/proc/self/mountinfo").read_text() == mounts


def test_down_cleans_up_after_a_killed_controller(lab_dir):
    r = lab_cli(lab_dir, "up", str(TOPOLOGY), "--no-daemons")
    assert r.returncode == 0, r.stdout + r.stderr
    ledger = json.loads((lab_dir / "pids.json").read_text())
    controller = int((lab_dir / "controller.pid").read_text())
    holders = [ledger["host"]["pid"]] + [n["pid"] for n in ledger["nodes"].values()]
    shell = subprocess.Popen([sys.executable, "-m", "lab", "--dir", str(lab_dir), "exec", "A", "sleep", "60"],
                             cwd=REPO)
    assert wait_until(lambda: net_ns(shell.pid) == ledger["nodes"]["A"]["net"], 10.0)
    os.kill(controller, signal.SIGKILL)
    assert wait_until(lambda: not netns._alive(controller), 10.0)
    time.sleep(0.1)
    assert all(netns._alive(p) for p in holders)
    # Its sockets are still there; nobody answers on them.
    assert (lab_dir / "control.sock").exists() and (lab_dir / "nodes" / "B" / "run" / "maps" / "uwb").exists()

    r = lab_cli(lab_dir, "down")
    assert r.returncode == 0, r.stdout + r.stderr
    assert "cleaned up" in r.stdout
    assert shell.wait(5) is not None
    assert not any(netns._alive(p) for p in holders)
    assert not (lab_dir / "pids.json").exists() and not (lab_dir / "controller.pid").exists()
    assert [p for p in lab_dir.rglob("*") if p.is_socket()] == []
    r = lab_cli(lab_dir, "down")
    assert r.returncode == 0 and "nothing to do" in r.stdout


@pytest.mark.parametrize("module, only", [
    ("test_netns.py", "not ordinary_user"),
    pytest.param("test_controller.py", "not demo", marks=pytest.mark.lasts(25)),
    pytest.param("test_controller.py", "demo", marks=pytest.mark.lasts(65))])
def test_the_same_as_an_ordinary_user(module, only):
    """Runs this file's other tests and the controller's again as uid 65534 (in parts, so that a
    parallel run spreads them)."""
    if os.geteuid() != 0:
        pytest.skip("these tests already run as an ordinary user")
    probe = subprocess.run(NOBODY + ["unshare", "-U", "-r", "-n", "-m", "true"], capture_output=True)
    if probe.returncode != 0:
        pytest.skip(f"user namespaces are not available: {probe.stderr.decode().strip()}")
    env = {"PATH": os.environ["PATH"], "PYTHONDONTWRITEBYTECODE": "1"}
    if "BANDHERD_BIN" in os.environ:
        env["BANDHERD_BIN"] = str(Path(os.environ["BANDHERD_BIN"]).resolve())
    # Its own pytest temporary directory: runs of the two files at the same time share nothing.
    base = tempfile.mkdtemp(prefix="bh-nobody-", dir="/tmp")
    os.chown(base, 65534, 65534)
    try:
        r = subprocess.run(NOBODY + [f"{k}={v}" for k, v in env.items()]
                           + [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider",
                              f"--basetemp={base}/t", f"tests/lab/{module}", "-k", only],
                           cwd=REPO, capture_output=True, text=True, timeout=300)
    finally:
        shutil.rmtree(base, ignore_errors=True)
    assert r.returncode == 0, r.stdout + r.stderr
    assert " passed" in r.stdout and "skipped" not in r.stdout, r.stdout
