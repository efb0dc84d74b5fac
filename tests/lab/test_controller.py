"""The lab controller and its command line: a running lab driven from another process, a real
daemon inside a node, up and down in the background, and the demo."""

import json
import os
import re
import signal
import struct
import subprocess
import sys
from pathlib import Path
from xml.etree import ElementTree

import pytest

from lab import netns
from lab.controller import Lab, LabError
from lab.sandbox import REPO, wait_until
from standins import BROADCAST, lab_cli, NetlinkEnd, SteerSocket, event_message, message, ping_message, weft_send

TWO = REPO / "lab" / "topologies" / "two-node.json"
THREE = REPO / "lab" / "topologies" / "three-node.json"
A_ID, B_ID = "02:00:00:00:0a:00", "02:00:00:00:0b:00"
STA = "02:aa:00:00:00:07"


@pytest.fixture
def lab(lab_dir):
    with Lab() as lab:
        lab.up(THREE, lab_dir)
        yield lab


@pytest.mark.lasts(10)     # some 40 runs of the command line
def test_the_command_line_drives_a_running_lab(lab, lab_dir):
    nl = NetlinkEnd(lab_dir / "nodes" / "A")
    steer = SteerSocket(lab_dir / "nodes" / "B")
    try:
        # Each node has talked to the portal: its address is in their ARP tables.
        assert A_ID in lab.sh("C", "cat /proc/net/arp") and A_ID in lab.sh("B", "cat /proc/net/arp")

        r = lab_cli(lab_dir, "nodes")
        assert r.returncode == 0, r.stderr
        rows = [line.split() for line in r.stdout.splitlines()[1:]]
        assert [row[:3] for row in rows] == [["A", A_ID, "169.254.100.1"], ["B", B_ID, "169.254.100.2"],
                                             ["C", "02:00:00:00:0c:00", "169.254.100.3"]]
        assert all(row[-2:] == ["not", "started"] for row in rows)

        r = lab_cli(lab_dir, "sta", "A", "join", STA, "--bss", "2", "--rssi", "-71", "--caps", "0x0c")
        assert r.returncode == 0, r.stderr
        got = nl.recv()
        assert got[:24] == event_message(2, bytes(24))[:24]
        assert got[24:31] == bytes.fromhex(STA.replace(":", "")) + bytes([2])
        assert struct.unpack_from("=Ib", got, 24 + 12) == (0x0c, -71)

        assert lab_cli(lab_dir, "radio", "A", "1", "6", "--load", "55").returncode == 0
        assert nl.recv() == event_message(9, bytes([1, 6, 55, 0]) + struct.pack("=I", 2))
        assert lab_cli(lab_dir, "inject", "A", "VAP_UPDATE").returncode == 0
        assert nl.recv() == event_message(10, b"")
        assert lab_cli(lab_dir, "inject", "A", "8", "0a0b0c").returncode == 0
        assert nl.recv() == event_message(8, bytes([10, 11, 12]))

        # Misbehaviour reaches the double (what it then does, test_driver.py checks).
        r = lab_cli(lab_dir, "driver", "A", "--no-pong", "--fail", "kick_sta=-3")
        assert (json.loads(r.stdout)["pong_version"], lab.driver("A").pong_version) == (None, None), r.stderr
        assert lab.driver("A").call_results == {"kick_sta": -3}
        assert lab_cli(lab_dir, "driver", "A", "--reset").returncode == 0
        nl.send(ping_message())
        assert nl.recv() == event_message(1, b"MAPS_API_V2\0")

        r = lab_cli(lab_dir, "send", "B", "SAP_INFO", json.dumps({"mac": A_ID, "hopcont": 1}))
        assert r.returncode == 0, r.stderr
        assert json.loads(r.stdout)["delivered"] == ["B"]
        data = steer.wait(1)[0]
        assert data[6:12] == bytes.fromhex(B_ID.replace(":", "")) and json.loads(data[44:-1])["hopcont"] == 1

        r = lab_cli(lab_dir, "relay", "partition", "A", "B,C")
        assert json.loads(r.stdout)["groups"] == [["A"], ["B", "C"]]
        weft_send(lab_dir / "nodes" / "A", message(A_ID, BROADCAST, "SNEI_HEARTBEAT", "{}"))
        assert wait_until(lambda: len(lab.relay.messages(type="SNEI_HEARTBEAT")) == 1, 10.0)
        assert lab.relay.messages(type="SNEI_HEARTBEAT")[0]["undelivered"]["B"] == "partitioned"
        assert json.loads(lab_cli(lab_dir, "relay", "clear").stdout)["groups"] is None
        r = lab_cli(lab_dir, "messages", "--type", "SNEI_HEARTBEAT")
        assert [json.loads(line)["sender"] for line in r.stdout.splitlines()] == ["A"]

        # Stations of the radio world, by hand (no daemon runs: their drivers' events reach nobody).
        phone = "02:aa:00:00:00:08"
        assert lab_cli(lab_dir, "world", "add", phone, "--btm", "reject", "--rssi", "-70",
                       "--at", "B:wlan1=-45", "--at", "C=-50").returncode == 0
        r = lab_cli(lab_dir, "world", "join", phone)
        assert (r.returncode, r.stdout) == (0, f"{phone} on B wlan1\n"), r.stderr
        r = lab_cli(lab_dir, "world", "show")
        assert r.stdout == f"{phone}  herd     btm=reject beacon=answer on B wlan1  blocked: -\n"
        r = lab_cli(lab_dir, "world", "timeline", phone)
        assert [line.split()[2] for line in r.stdout.splitlines()] == ["add", "join"]
        r = lab_cli(lab_dir, "world", "check")
        assert r.stdout.splitlines()[0] == "longest block of a station on every BSS of its ESS: 0 s (limit 27 s)"
        path = [{"at": 0, "rssi_at": {"B": {"wlan1": -45}}}, {"at": 0.2, "rssi_at": {"B": {"wlan1": -75}}}]
        r = lab_cli(lab_dir, "world", "walk", phone, json.dumps(path), "--step", "0.1")
        assert (r.returncode, r.stdout) == (0, f"{phone} walks its path\n"), r.stderr
        lab.wait_for(lambda: not lab.world.pending(phone))
        assert lab.world.timeline(phone)[-1]["heard"] == [["B", "wlan1", -75]]
        picture = lab_dir / "world-picture.svg"
        r = lab_cli(lab_dir, "picture", "--out", str(picture))
        assert (r.returncode, r.stdout) == (0, f"{picture}\n"), r.stderr
        rows = [g for g in ElementTree.parse(picture).getroot().iter("{http://www.w3.org/2000/svg}g")
                if g.get("class") == "row"]
        assert [g.get("data-station") for g in rows] == [phone]
        # The operator's front end runs inside the node and its exit status is the command's.
        r = lab_cli(lab_dir, "cli", "A", "help")
        assert (r.returncode, r.stderr) == (1, "steer_cli.sh: bandherd is not running\n")

        # A mistake ends in one line that says what is wrong (status 1; 2 for a malformed command
        # line, which argparse explains in two), and changes nothing.
        for args, status, says in [
                (["send", "Z", "SAP_INFO", "{}"], 1, "no node 'Z'"),
                (["send", "B", "SAP_INFO", "{"], 1, "not JSON: "),
                (["inject", "A", "STA_JUMP", ""], 1, "unknown event 'STA_JUMP'"),
                (["inject", "A", "8", "0xzz"], 1, "the payload '0xzz' is not hex"),
                (["sta", "A", "join", STA, "--bss", "7"], 1, "node A has no BSS 7"),
                (["driver", "A", "--fail", "bogus_call"], 1, "unknown Wi-Fi call 'bogus_call'"),
                (["driver", "A", "--fail", "kick_sta=x"], 1, "--fail kick_sta=x: the result after '=' must be a whole"),
                (["relay", "drop", "SNEI_HEARTBEAT_TYPO"], 1, "unknown message type SNEI_HEARTBEAT_TYPO"),
                (["relay", "delay", "abc"], 1, "a delay is a number of seconds from 0, not 'abc'"),
                (["relay", "loss", "2"], 1, "a loss is a fraction from 0 to 1, not '2'"),
                (["relay", "heal", "now"], 2, "unrecognized arguments: now"),
                (["world", "join", "02:aa:00:00:00:99"], 1, "the world has no station 02:aa:00:00:00:99"),
                (["world", "join", phone, "A"], 1, "world join: give a NODE and a VAP, or neither"),
                (["world", "add", STA, "--at", "A:nosuch=-60"], 1, "node A has no VAP 'nosuch'"),
                (["world", "add", STA, "--btm", "maybe"], 2, "invalid choice: 'maybe'"),
                (["world", "rssi", phone, "-60", "A", "nosuch"], 1, "node A has no VAP 'nosuch'"),
                (["world", "walk", phone, "[]"], 1, "a path is a non-empty list of points"),
                (["world", "radio", "A", "r5", "--load", "30"], 1, "the daemon of A has not added radio r5")]:
            r = lab_cli(lab_dir, *args)
            assert (r.returncode, r.stdout) == (status, ""), (args, r)
            assert says in r.stderr.splitlines()[-1] and (status == 2 or r.stderr.count("\n") == 1), (args, r.stderr)
        assert lab.relay.faults() == {"drop_all": False, "drop_types": [], "delay": 0.0, "delay_types": [],
                                      "groups": None, "loss": 0.0}
        assert lab.driver("A").call_results == {} and lab.world.where(phone) == ("B", "wlan1")
        # A reader that stops reading (`nodes --json | head`) ends the command quietly, as SIGPIPE would.
        read_end, write_end = os.pipe()
        os.close(read_end)
        with os.fdopen(write_end, "w") as closed:
            r = subprocess.run([sys.executable, "-m", "lab", "--dir", str(lab_dir), "nodes", "--json"], cwd=REPO,
                               stdout=closed, stderr=subprocess.PIPE, text=True, timeout=60)
        assert (r.returncode, r.stderr) == (141, "")
    finally:
        nl.close()
        steer.close()


def test_a_daemon_runs_in_its_node_with_the_driver_double(bandherd, lab, lab_dir):
    d = lab.start_daemon("A")
    lab.wait_log("A", r"bandherd is ready\.")
    node_dir = lab_dir / "nodes" / "A"
    # Its /var is the node's directory and it lives in the node's namespaces.
    assert (node_dir / "run" / "bandherd.pid").read_text() == str(d.pid)
    assert os.readlink(f"/proc/{d.pid}/ns/net") == os.readlink(f"/proc/{lab.ns.holders['A'].pid}/ns/net")
    assert lab.wait_for(lambda: lab.listening("A", "/var/steer_socket"), 10.0)
    assert not lab.listening("B") and not lab.listening("A", "/var/weft_socket")
    ping = lab.driver("A").records(kind="netlink", event="MAPS_EV_PING")
    assert ping and ping[0]["nlmsg_pid"] == 3333
    assert lab.driver("A").records(kind="event", event="MAPS_EV_PONG")
    with pytest.raises(LabError, match="already running"):
        lab.start_daemon("A")
    assert [n["daemon"] for n in lab.nodes()] == ["running", "not started", "not started"]
    assert lab.stop_daemon("A", signal.SIGTERM) == 0
    assert lab.nodes()[0]["daemon"] == "exited 0"
    assert re.search(r"receive signal 15$", lab.log("A"), re.M)
    # Started again, and stopped from the command line with another signal.
    lab.start_daemon("A")
    lab.wait_log("A", r"(?s)signal 15.*bandherd is ready\.")
    r = lab_cli(lab_dir, "stop", "A", "--signal", "INT")
    assert r.returncode == 0 and r.stdout == "bandherd of A: exited 0\n", r.stdout + r.stderr
    assert re.search(r"receive signal 2$", lab.log("A"), re.M)


def test_a_failed_bring_up_leaves_nothing_running(lab_dir, monkeypatch):
    made = []
    real_add_node = netns.Namespaces.add_node

    def add_node(self, node, node_dir):
        if made:
            raise netns.NamespaceError("no room for a second node")
        real_add_node(self, node, node_dir)
        made.extend([self.host.pid, self.holders[node.name].pid])

    monkeypatch.setattr(netns.Namespaces, "add_node", add_node)
    lab = Lab()
    with pytest.raises(netns.NamespaceError, match="no room"):
        lab.up(TWO, lab_dir)
    assert len(made) == 2 and not any(netns._alive(p) for p in made)
    assert not (lab_dir / "pids.json").exists() and not (lab_dir / "controller.pid").exists()
    assert [p for p in lab_dir.rglob("*") if p.is_socket()] == []


def test_up_in_the_background_then_down(lab_dir, tmp_path):
    bad = tmp_path / "bad.json"
    bad.write_text('{"nodes": [{"name": "A", "id": "02:00:00:00:0a:00"}]}')
    long_dir = lab_dir / ("x" * 80)        # its nodes' socket paths would not fit in 107 bytes
    for where, args, says in [
            (lab_dir, ["up", str(bad)], "exactly one node must be the portal"),
            (lab_dir, ["up", str(TWO), "--set", "bandherd.log_levl=6"],
             "unknown config key 'bandherd.log_levl' (did you mean 'bandherd.log_level'?)"),
            (long_dir, ["up", str(TWO)], f"the lab directory {long_dir} is too long"),
            (long_dir, ["nodes"], f"the lab directory {long_dir} is too long")]:
        r = lab_cli(where, *args)
        assert r.returncode == 1 and says in r.stderr and "Traceback" not in r.stderr, (args, r.stderr)
    assert not long_dir.exists() and not (lab_dir / "controller.pid").exists()
    (lab_dir / "notes.txt").write_text("mine\n")
    with pytest.raises(LabError, match=r"not a lab's \(notes.txt\)"):
        Lab().up(TWO, lab_dir)
    (lab_dir / "notes.txt").unlink()

    r = lab_cli(lab_dir, "up", str(TWO), "--no-daemons", "--set", "bandherd.log_level=6")
    assert r.returncode == 0, r.stdout + r.stderr
    assert f"lab up in {lab_dir}" in r.stdout
    controller = int((lab_dir / "controller.pid").read_text())
    assert "bandherd.log_level=6\n" in (lab_dir / "nodes" / "B" / "bandherd.conf").read_text()
    r = lab_cli(lab_dir, "up", str(TWO))
    assert r.returncode == 1 and "already runs" in r.stderr
    r = lab_cli(lab_dir, "exec", "B", "ip", "-br", "addr", "show", "br0")
    assert r.returncode == 0 and "169.254.100.2/24" in r.stdout
    assert lab_cli(lab_dir, "send", "B", "SAP_INFO", '{"hopcont": 1}').returncode == 0
    r = lab_cli(lab_dir, "down")
    assert r.returncode == 0 and f"controller {controller} went down" in r.stdout
    assert not netns._alive(controller)
    assert not (lab_dir / "pids.json").exists() and not (lab_dir / "controller.pid").exists()
    assert [p for p in lab_dir.rglob("*") if p.is_socket()] == []
    assert "lab down" in (lab_dir / "controller.log").read_text()
    # Without a controller, what the lab recorded.
    r = lab_cli(lab_dir, "messages", "--type", "SAP_INFO")
    assert r.returncode == 0, r.stderr
    (sap,) = [json.loads(line) for line in r.stdout.splitlines()]
    assert (sap["sender"], sap["body"], list(sap["undelivered"])) == ("lab", {"hopcont": 1}, ["B"])


def test_up_names_each_node_whose_daemon_did_not_start(bandherd, lab_dir, tmp_path):
    disabled = json.loads(TWO.read_text())
    disabled["nodes"][1]["config"]["bandherd.enable"] = 0
    (tmp_path / "disabled.json").write_text(json.dumps(disabled))
    for topology, binary, failed in [
            (TWO, "/bin/false", {"A": "its daemon exited 1; its log is empty",
                                 "B": "its daemon exited 1; its log is empty"}),
            # B waits out its restart delay before it exits; its fatal line tells at once.
            (tmp_path / "disabled.json", bandherd,
             {"B": "its daemon stopped on a fatal error (it exits after its restart delay); "
                   "its log: fatal main: mib 'bandherd.enable' is not 1."})]:
        r = lab_cli(lab_dir, "up", str(topology), env={**os.environ, "BANDHERD_BIN": str(binary)})
        try:
            assert r.returncode == 1, r.stdout + r.stderr
            assert f"lab up in {lab_dir}" in r.stdout
            said = dict(re.findall(r"^lab: (\w+) did not start: (.*)$", r.stderr, re.M))
            assert said == failed, r.stderr
            assert "the lab keeps running" in r.stderr
        finally:
            assert lab_cli(lab_dir, "down").returncode == 0


@pytest.mark.lasts(65)     # the demo scenario's 60 s, and the mesh forming before it
def test_demo_tells_each_steer_as_it_happens_and_draws_the_picture(bandherd, lab_dir):
    r = lab_cli(lab_dir, "demo", timeout=180)
    assert r.returncode == 0, r.stdout + r.stderr
    out = r.stdout
    told = [line.split(" s  ", 1)[1] for line in out.splitlines() if re.match(r"^ +-?\d+\.\d s  ", line)]
    for words in ("A moves laptop to A 5 GHz with a BSS transition request (its signal on 2.4 GHz is strong: up to 5 GHz)",
                  "laptop is now on A 5 GHz", "phone is now on B 5 GHz",
                  "A moves camera to B 5 GHz by Backoff: blocked on every other BSS of the mesh, then disconnected",
                  "camera is now on B 5 GHz", "B's 5 GHz radio is overloaded: it refuses new stations",
                  "B 5 GHz turns latecomer away", "latecomer joins B 2.4 GHz instead",
                  "stream1 is now on B 2.4 GHz", "stream2 is now on B 2.4 GHz",
                  "B's 5 GHz radio is no longer overloaded: new stations are welcome again"):
        assert any(line.startswith(words) for line in told), (words, out)
    assert "steering: 5/5 steers succeeded: BTM 4/4 (HIGH_RSSI 1/1, LOW_RSSI 1/1, OVERLOAD 2/2), " \
           "Backoff 1/1 (LOW_RSSI 1/1)" in out, out
    picture = Path(re.search(r"^== the picture \(open it in a browser\): (\S+)$", out, re.M).group(1))
    rows = [t.text for t in ElementTree.parse(picture).iter("{http://www.w3.org/2000/svg}text")]
    assert {"laptop", "phone", "camera", "stream1", "stream2", "stream3", "latecomer"} <= set(rows)

def test_each_command_is_served_by_the_controller_or_run_by_the_command_line():
    from lab import __main__ as cli, commands
    typed = {c.name for c in commands.COMMANDS if c.typed}
    assert {c.name for c in commands.COMMANDS if (c.serve is None) == (c.run is None)} == set()
    assert {"up", "down", "demo", "cli", "world add", "world check", "relay partition", "nodes"} <= typed
    assert cli.parser().parse_args(["world", "join", "02:aa:00:00:00:01", "A", "wlan0"]).command.name == "world join"
    readme = (REPO / "lab" / "README.md").read_text()
    assert {name for name in typed if f"| `{name}" not in readme and f"/ `{name}" not in readme} == set()
    lab = Lab()
    with pytest.raises(LabError, match="unknown command 'serve_down'"):
        lab.control({"cmd": "serve_down"})
    with pytest.raises(LabError, match="runs in the command line"):
        lab.control({"cmd": "up"})
    with pytest.raises(LabError, match="the lab is not up"):
        lab.control({"cmd": "nodes"})
