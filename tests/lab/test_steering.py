"""Steering by hand in a three-node mesh of real daemons, driven through the operator's command
FIFO (tools/steer_cli.sh in a node) and observed on the driver doubles, the mesh relay and the
steering log. The configurable times are short: BTM and Backoff give up after 7 s, the neighbours
have 3 s to answer, a first short prohibition lasts 4 s."""

import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import pytest

from lab.controller import Lab
from lab.sandbox import REPO

pytestmark = pytest.mark.lasts(50)

TOPOLOGY = REPO / "lab" / "topologies" / "three-node.json"
SETTINGS = {
    "bandherd.log_level": 5,
    "bandherd.btm_timeout": 7,
    "bandherd.boff_timeout": 7,
    "bandherd.msg_sync_timeout": 3,
    "bandherd.ph_short_factor": 4,
}
BTM, HT = 8, 1
A_24, A_5, B_5, C_5 = "02:00:00:00:0a:01", "02:00:00:00:0a:02", "02:00:00:00:0b:02", "02:00:00:00:0c:02"
BLOCKED, DEFAULT = "MAPS_BLOCK_BSS", "MAPS_BLOCK_DEFAULT"


@pytest.fixture(scope="module")
def lab(bandherd, steering_report):
    lab_dir = tempfile.mkdtemp(prefix="bh-", dir="/tmp")
    lab = Lab(bandherd)
    try:
        lab.up(TOPOLOGY, lab_dir, SETTINGS)
        for name in ("A", "B", "C"):
            lab.start_daemon(name)
        for name in ("A", "B", "C"):  # every node knows both others
            lab.wait_for(lambda n=name: len(re.findall(r"neighbor \S+ is online", lab.log(n))) >= 2, 40.0)
        yield lab
    finally:
        steering_report(lab)
        lab.down()
        shutil.rmtree(lab_dir, ignore_errors=True)


def mac(n):
    return f"02:aa:00:00:01:{n:02x}"


def join(lab, node, sta, bss, caps=BTM | HT, rssi=-60):
    lab.driver(node).sta_event("join", sta, bss, rssi=rssi, caps=caps, active=0)
    lab.wait_log(node, re.escape(sta) + r" associate bss%d" % bss)


def block(lab, node, sta):
    entry = lab.driver(node).state()["sta"].get(sta)
    return entry and (entry["mode"], entry["block_bss"])


def steer_log(lab, node):
    path = Path(lab.node_dir(node)) / "run" / "steer.log"
    return path.read_text() if path.exists() else ""


def station(lab, n, btm="obey", caps=BTM | HT, node="A", vap="wlan0", **fields):
    """A world station associated to `node`'s `vap`."""
    sta = mac(n)
    lab.world.add(sta, btm=btm, caps=caps, **fields)
    lab.world.associate(sta, node, vap)
    lab.wait_log(node, re.escape(sta) + r" associate bss")
    for other in {"A", "B", "C"} - {node}:
        lab.wait_log(other, re.escape(sta) + r" associate node")
    return sta


def whats(lab, sta):
    """What the station did (its blocks and settings aside)."""
    return [r["what"] for r in lab.world.timeline(sta) if r["what"] not in ("add", "set", "block", "unblock")]


def settle(lab, sta, where):
    lab.wait_for(lambda: lab.world.where(sta) == where, 20.0)
    for n in ("A", "B", "C"):  # every block lifted
        lab.wait_for(lambda n=n: block(lab, n, sta) in (None, (DEFAULT, 0)), 20.0)


def steers_of(lab, sta):
    """The steers of one station as the lab's steering summary tells them."""
    return [(s["node"], s["mechanism"], s["reason"], s["outcome"], s["ended_on"]) for s in lab.summary()["steers"]
            if s["mac"] == sta]


def requests(lab, node, sta):
    return [c for c in lab.driver(node).calls("bss_trans_req") if c["args"]["sta"] == sta]


def test_btm_within_a_node_moves_an_obeying_station_with_one_request(lab):
    sta = station(lab, 1)
    assert lab.cli("A", "act", "-t", sta, A_5) == (0, "")
    settle(lab, sta, ("A", "wlan1"))
    ready = lab.relay.messages(type="SBTM_READY")
    assert {m["sender"] for m in ready if m["body"]["sta"] == sta} == {"B", "C"}
    assert [c["args"] for c in requests(lab, "A", sta)] == [{"sta": sta, "target": A_5, "channel": "36"}]
    assert whats(lab, sta) == ["join", "btm_request", "btm_response", "leave", "join"]
    lab.wait_for(lambda: "[steer result]" in steer_log(lab, "A"))
    log = steer_log(lab, "A")
    for record in (f"[steer trigger] from CMD, sta {sta} steer to bss {A_5}",
                   f"[steer btm] BTM Steering for {sta} status = 0(accept)",
                   f"[steer result] sta {sta} steer to bss {A_5} SUCCESS"):
        assert record in log
    assert steers_of(lab, sta) == [("A", "BTM", "CMD", "success", ["A", "wlan1"])]


def test_btm_across_nodes_hands_the_station_to_the_target_node(lab):
    sta = station(lab, 2)
    assert lab.cli("A", "act", "-t", sta, B_5) == (0, "")
    settle(lab, sta, ("B", "wlan1"))
    lab.wait_log("A", r"BTM steer " + re.escape(sta) + " to BSS " + re.escape(B_5) + " success, notified by")
    finish = [m for m in lab.relay.messages(type="SBTM_FINISH") if m["body"]["sta"] == sta]
    assert [(m["sender"], m["body"]["success"]) for m in finish] == [("B", 1)]
    starts = [m for m in lab.relay.messages(type="SBTM_START") if m["body"]["sta"] == sta]
    assert len(starts) == 1 and starts[0]["t"] < finish[0]["t"]


def test_a_station_without_btm_is_blocked_everywhere_but_the_target_and_kicked(lab):
    sta = station(lab, 3, caps=HT)
    assert lab.cli("A", "act", sta, B_5) == (0, "")
    settle(lab, sta, ("B", "wlan1"))
    assert not requests(lab, "A", sta)
    sets = {n: [(c["fields"]["mode"], c["fields"]["block_bss"]) for c in lab.driver(n).commands("SET_STA")
                if c["fields"]["mac"] == sta] for n in ("A", "B", "C")}
    assert (BLOCKED, 0b110) in sets["A"] and (BLOCKED, 0b010) in sets["B"] and (BLOCKED, 0b110) in sets["C"]
    timeline = whats(lab, sta)
    assert timeline[:3] == ["join", "kicked", "leave"] and timeline[-1] == "join"
    # Why, the command channel's result tells: it comes once the station is on the target.
    lab.wait_for(lambda: steers_of(lab, sta) == [("A", "Backoff", "CMD", "success", ["B", "wlan1"])])
    assert "refused" in timeline  # on A and on B's 2.4 GHz, on its way
    assert lab.driver("A").records(kind="event", event="MAPS_EV_REJECT")


def test_a_rejecting_station_is_prohibited_for_the_short_time_then_moved_by_backoff(lab):
    sta = station(lab, 4, btm="reject")
    assert lab.cli("A", "act", "-t", sta, A_5)[0] == 0
    lab.wait_for(lambda: f"[steer result] sta {sta} steer to bss {A_5} FAIL" in steer_log(lab, "A"))
    assert "btm_response" in whats(lab, sta) and lab.world.where(sta) == ("A", "wlan0")
    assert lab.cli("A", "allow", sta, A_5) == (0, "sact_allowed: Yes\nsbtm_allowed: No\nsboff_allowed: Yes\n")
    lab.wait_for(lambda: "sbtm_allowed: Yes" in lab.cli("A", "allow", sta, A_5)[1], 8.0)
    assert lab.cli("A", "act", sta, A_5) == (0, "")  # rejected again, then Backoff
    settle(lab, sta, ("A", "wlan1"))
    assert whats(lab, sta).count("btm_response") == 2 and "kicked" in whats(lab, sta)


def test_an_ignoring_station_times_out_and_falls_back(lab):
    sta = station(lab, 5, btm="ignore")
    started = time.monotonic()
    assert lab.cli("A", "act", sta, A_5)[0] == 0
    settle(lab, sta, ("A", "wlan1"))
    assert time.monotonic() - started >= 3  # the station had its time to move (7 - 3 s)
    lab.wait_log("A", re.escape(sta) + " has never left, abort steering")
    assert whats(lab, sta)[:3] == ["join", "btm_request", "btm_ignored"]


def test_a_sticky_station_that_returns_is_not_steered_back_and_forth(lab):
    sta = station(lab, 6, btm="sticky")
    assert lab.cli("A", "act", sta, A_5)[0] == 0  # the action layer keeps the session
    lab.wait_for(lambda: whats(lab, sta).count("join") == 3, 20.0)  # there and back
    assert lab.world.where(sta) == ("A", "wlan0")
    lab.wait_log("A", re.escape(sta) + " roams back to the previous serving bss " + re.escape(A_24))
    lab.wait_log("A", "forbid to steer " + re.escape(sta) + " to " + re.escape(A_5))
    # The controller asks before it steers; the operator sees the same answer.
    assert lab.cli("A", "allow", sta, A_5)[1].startswith("sact_allowed: No\n")
    lab.wait_for(lambda: lab.cli("A", "allow", sta, A_5)[1].startswith("sact_allowed: Yes\n"), 8.0)


def test_faults_end_every_steer_by_its_time_outs(lab):
    limit = SETTINGS["bandherd.boff_timeout"] + 2
    # A partition during the handshake: A goes on alone after the sync time-out.
    sta = station(lab, 7, caps=HT)
    lab.relay.partition(["A"], ["B", "C"])
    try:
        assert lab.cli("A", "act", sta, A_5) == (0, "")
        lab.wait_log("A", "sync for " + re.escape(sta) + " timeout")
        lab.wait_for(lambda: lab.world.where(sta) == ("A", "wlan1"), 20.0)
    finally:
        lab.relay.heal()
    # 30 % of the mesh messages lost: a BTM steer and a Backoff steer still end.
    lossy = [station(lab, 8), station(lab, 9, caps=HT)]
    lab.relay.loss(0.3)
    try:
        for sta in lossy:
            assert lab.cli("A", "act", sta, B_5) == (0, "")
        for sta in lossy:
            lab.wait_for(lambda sta=sta: "[steer result] sta " + sta in steer_log(lab, "A")
                         or re.search(r"Backoff Steer(ing)? (for )?" + re.escape(sta), lab.log("A"))
                         or "re-association timeout" in lab.log("A"), 30.0)
    finally:
        lab.relay.loss(0)
    # C killed in the middle of a steer to it: every node lets the station go by its time-outs.
    dead = station(lab, 10, caps=HT)
    assert lab.cli("A", "act", dead, C_5) == (0, "")
    lab.stop_daemon("C", signal.SIGKILL)
    lab.wait_for(lambda: "kicked" in whats(lab, dead) and lab.world.where(dead) is not None, 20.0)
    for n in ("A", "B"):
        lab.wait_for(lambda n=n: block(lab, n, dead) in (None, (DEFAULT, 0), ("MAPS_BLOCK_DISBALE", 0)), 20.0)
    for sta in [mac(n) for n in range(1, 11)]:
        lab.wait_for(lambda sta=sta: lab.world.where(sta) is not None, 20.0)  # nobody is left out
    blocked = lab.check()["blocked_everywhere"]
    assert max(blocked.values(), default=0) <= limit, blocked
    lab.start_daemon("C")
    lab.wait_log("C", r"bandherd is ready\.")


COMMAND_ERRORS = [
    (["ddbg"], "error: need 1 argument!\n"),
    (["sta", "-x"], "error: invalid option '-x'\n"),
    (["sta", "zz"], "error: invalid mac 'zz'\n"),
    (["sta", "02:aa:00:00:09:09"], "error: sta 02:aa:00:00:09:09 doesn't exist\n"),
    (["log", "-s", "big"], "error: invalid number 'big'\n"),
    (["log", "-l", "loud"], "error: illegal log level 'loud'\n"),
    (["log", "-m", "nosuch", "-l", "4"], "error: set log level of 'nosuch' to info(4) failed\n"),
    (["act"], "error: sta must be specified\n"),
    (["act", mac(1)], "error: bssid must be specified\n"),
    (["act", "nomac", A_5], "error: invalid mac address 'nomac', should be 'xx:xx:xx:xx:xx:xx'\n"),
    (["act", "02:aa:00:00:09:09", A_5], "error: can't find 02:aa:00:00:09:09\n"),
    (["act", mac(1), "02:00:00:00:0f:01"], "error: can't find bssid 02:00:00:00:0f:01\n"),
    (["allow"], "error: invalid argument\n"),
    (["br", mac(1)], "error: need 3 arguments\n"),
    (["br", mac(1), "x" * 33, "6"], f"error: ssid '{'x' * 33}' is too long\n"),
    (["br", mac(1), "herd", "0"], "error: invalid channel '0\n"),
    (["br", "02:aa:00:00:09:09", "herd", "6"], "error: 02:aa:00:00:09:09 doesn't exist\n"),
    (["bt", mac(1)], "error: require 3 arguents\n"),
    (["bt", mac(1), A_24, "x"], "error: invalid channel 'x'\n"),
    (["bt", "02:aa:00:00:09:09", A_24, "6"], "error: 02:aa:00:00:09:09 has not associated to managed bss\n"),
    (["bt", mac(1), "02:00:00:00:0f:01", "6"], "error: can't find bssid 02:00:00:00:0f:01\n"),
    (["pt", "add"], "error: need 2 arguments\n"),
    (["pt", "del", "02:aa:00:00:09:09"], "Failed\n"),
    (["ns"], "error: need 1 argument!\n"),
    (["ns", "02:aa:00:00:09:09"], "error: can't find 02:aa:00:00:09:09\n"),
    (["ns", mac(1)], "Failed\n"),  # no radio measurement capability
    (["nosuch"], "error: unsupported command 'nosuch'\n"),
]


def test_every_command_error_is_one_line_and_a_failure(lab):
    for args, text in COMMAND_ERRORS:
        assert lab.cli("A", *args) == (1, text), args
    assert "ready to block" not in lab.log("B")  # nothing was started by them


def test_beacon_and_transition_requests_by_hand(lab):
    sta = mac(1)  # on A's 5 GHz BSS since the first test
    assert lab.cli("A", "br", sta, "herd", "6") == (0, "")
    assert [c["args"] for c in lab.driver("A").calls("beacon_req")][-1]["sta"] == sta
    assert lab.cli("A", "bt", sta, A_24, "6") == (0, "")
    lab.wait_for(lambda: lab.world.where(sta) == ("A", "wlan0"), 20.0)


def test_command_channel_edges(lab):
    rc, out = lab.cli("A", "help")
    assert rc == 0 and out.startswith("Avaliable commands:\n\nddbg <0  ..  3>") and out.endswith(
        "        CHAN        Channel that the prefered BSS working on\n")
    rc, out = lab.cli("A", "sta", "-l")
    assert rc == 0 and "sbtm/state: idle" in out
    known = int(re.search(r"recorded sta count: (\d+)\n$", out).group(1))
    assert out.count("sbtm/state:") == known
    # Separators: several blanks and tabs; 126 bytes run, 127 do not; 17 words run as 15.
    assert lab.cli("A", "log", "\t-l", "  4") == (0, "")
    cmd = "log -l 4" + " " * 118
    assert len(cmd) == 126 and lab.cli("A", cmd) == (0, "")
    assert lab.cli("A", cmd + " ") == (1, "error: the command is too long (more then 127)\n")
    rc, out = lab.cli("A", "sta", *["-l"] * 16)
    assert out.startswith("error: too many arguments(more then 15)\ncurrent time:")
    # A leading blank makes the first word empty; straight into the FIFO, with
    # nobody reading the output, the answer lands on the daemon's output.
    lab.sh("A", "printf ' help' > /var/run/steer_cmd_input")
    lab.wait_log("A", r"error: unsupported command ''")
    assert (Path(lab.node_dir("A")) / "run" / "steer_cmd_ret").read_text() == "-1"
    # Output larger than a pipe holds arrives whole.
    for i in range(100):  # in tens: the daemon's event socket holds only so many datagrams
        lab.driver("A").sta_event("join", mac(0x40 + i), 1, rssi=-60, caps=BTM | HT)
        if i % 10 == 9:
            lab.wait_log("A", re.escape(mac(0x40 + i)) + " associate bss1")
    rc, out = lab.cli("A", "sta", "-l")
    assert rc == 0 and len(out) > 65536 and out.count("sbtm/state:") == known + 100


def test_the_lab_command_line_runs_the_front_end_in_a_node(lab):
    p = subprocess.run([sys.executable, "-m", "lab", "--dir", str(lab.dir), "cli", "B", "allow", mac(1)],
                       cwd=REPO, capture_output=True, text=True, timeout=60)
    # B knows the station from the mesh only, not its capabilities: no BTM there.
    assert (p.returncode, p.stdout) == (0, "sact_allowed: Yes\nsbtm_allowed: No\nsboff_allowed: Yes\n")


def test_without_a_daemon_the_front_end_says_so(lab):
    lab.stop_daemon("B")
    started = time.monotonic()
    rc, out = lab.cli("B", "help")
    assert (rc, out) == (1, "steer_cli.sh: bandherd is not running\n")
    assert time.monotonic() - started < 5
