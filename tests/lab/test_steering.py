"""Steering by hand in a three-node mesh of real daemons, driven through the
operator's command FIFO (tools/steer_cli.sh inside a node) and observed on the
driver doubles (requests, kicks, block records), the mesh relay and the
steering log. The station's side is played here with driver events: it
answers the BSS transition request, leaves, is refused, joins.

The configurable times are short: BTM and Backoff give up after 7 s, the
neighbours have 3 s to answer, a first short prohibition lasts 4 s.
"""

import re
import subprocess
import sys
import time
from pathlib import Path

import pytest

from lab.controller import Lab
from lab.driver import EV

REPO = Path(__file__).resolve().parents[2]
TOPOLOGY = REPO / "lab" / "topologies" / "three-node.json"
CLI = str(REPO / "tools" / "steer_cli.sh")
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
def lab(bandherd):
    import tempfile
    lab = Lab(bandherd)
    try:
        lab.up(TOPOLOGY, tempfile.mkdtemp(prefix="bh-", dir="/tmp"), SETTINGS)
        for name in ("A", "B", "C"):
            lab.start_daemon(name)
        for name in ("A", "B", "C"):  # every node knows both others
            lab.wait_for(lambda n=name: len(re.findall(r"neighbor \S+ is online", lab.log(n))) >= 2, 40.0)
        yield lab
    finally:
        lab.down()


def cli(lab, node, *args):
    p = lab.run(node, ["sh", CLI, *args], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    out, _ = p.communicate(timeout=30)
    return p.returncode, out.decode()


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


def test_btm_within_a_node_moves_an_obeying_station_with_one_request(lab):
    sta = mac(1)
    join(lab, "A", sta, 1)
    assert cli(lab, "A", "act", "-t", sta, A_5) == (0, "")
    a = lab.driver("A")
    lab.wait_for(lambda: a.calls("bss_trans_req"))  # after every neighbour said it is ready
    ready = lab.relay.messages(type="SBTM_READY")
    assert {m["sender"] for m in ready if m["body"]["sta"] == sta} == {"B", "C"}
    assert [c["args"] for c in a.calls("bss_trans_req")] == [{"sta": sta, "target": A_5, "channel": "36"}]
    # The station obeys: it accepts, leaves 2.4 GHz and joins 5 GHz.
    a.inject(EV["BSS_TRANS"], bytes.fromhex(sta.replace(":", "")) + bytes([1, 0]))
    join(lab, "A", sta, 2)
    lab.wait_for(lambda: "[steer result]" in steer_log(lab, "A"))
    log = steer_log(lab, "A")
    for record in (f"[steer trigger] from CMD, sta {sta} steer to bss {A_5}",
                   f"[steer btm] BTM Steering for {sta} status = 0(accept)",
                   f"[steer result] sta {sta} steer to bss {A_5} SUCCESS"):
        assert record in log
    assert block(lab, "A", sta) == (DEFAULT, 0)
    finish = [m for m in lab.relay.messages(type="SBTM_FINISH") if m["body"]["sta"] == sta]
    assert [m["body"]["success"] for m in finish] == [1]


def test_backoff_across_nodes_blocks_everywhere_but_the_target_until_the_station_arrives(lab):
    sta = mac(2)
    join(lab, "A", sta, 1, caps=HT)  # no BTM: only blocking and kicking move it
    for n in ("B", "C"):
        lab.wait_log(n, re.escape(sta) + r" associate node")
    assert cli(lab, "A", "act", sta, B_5) == (0, "")
    lab.wait_for(lambda: any(c["args"]["mac"] == sta for c in lab.driver("A").calls("kick_sta")))
    assert block(lab, "A", sta) == (BLOCKED, 0b110)   # both BSSes of A
    assert block(lab, "B", sta) == (BLOCKED, 0b010)   # B's 2.4 GHz, not the target
    assert block(lab, "C", sta) == (BLOCKED, 0b110)
    assert not [c for c in lab.driver("A").calls("bss_trans_req") if c["args"]["sta"] == sta]
    # Kicked, refused on A's 5 GHz on the way, it arrives on B.
    lab.driver("A").sta_event("leave", sta, 1, rssi=-60)
    lab.driver("A").inject(EV["REJECT"], bytes.fromhex(sta.replace(":", "")) + bytes([2, 1, 0xc4]))
    join(lab, "B", sta, 2, caps=HT)
    for n in ("A", "C"):
        lab.wait_for(lambda n=n: block(lab, n, sta) == (DEFAULT, 0))
    lab.wait_log("A", r"Backoff Steer " + re.escape(sta) + " to BSS " + re.escape(B_5) + " success")


def test_rejection_prohibits_the_target_for_the_short_time_then_backoff_takes_over(lab):
    sta = mac(3)
    join(lab, "A", sta, 1)
    assert cli(lab, "A", "act", "-t", sta, A_5)[0] == 0
    a = lab.driver("A")
    lab.wait_for(lambda: any(c["args"]["sta"] == sta for c in a.calls("bss_trans_req")))
    a.inject(EV["BSS_TRANS"], bytes.fromhex(sta.replace(":", "")) + bytes([1, 7]))
    lab.wait_for(lambda: f"[steer result] sta {sta} steer to bss {A_5} FAIL" in steer_log(lab, "A"))
    rc, out = cli(lab, "A", "allow", sta, A_5)
    assert (rc, out) == (0, "sact_allowed: Yes\nsbtm_allowed: No\nsboff_allowed: Yes\n")
    lab.wait_for(lambda: "sbtm_allowed: Yes" in cli(lab, "A", "allow", sta, A_5)[1], 8.0)
    # Steered again through the action layer: rejected again, then moved by Backoff.
    assert cli(lab, "A", "act", sta, A_5) == (0, "")
    lab.wait_for(lambda: len([c for c in a.calls("bss_trans_req") if c["args"]["sta"] == sta]) == 2)
    a.inject(EV["BSS_TRANS"], bytes.fromhex(sta.replace(":", "")) + bytes([1, 7]))
    lab.wait_for(lambda: any(c["args"]["mac"] == sta for c in a.calls("kick_sta")))
    lab.driver("A").sta_event("leave", sta, 1, rssi=-60)
    join(lab, "A", sta, 2)
    lab.wait_log("A", r"Backoff Steering for " + re.escape(sta) + " success")
    lab.wait_for(lambda: block(lab, "B", sta) == (DEFAULT, 0) and block(lab, "A", sta) == (DEFAULT, 0))


def test_an_ignored_request_times_out_and_falls_back(lab):
    sta = mac(4)
    join(lab, "A", sta, 1)
    started = time.monotonic()
    assert cli(lab, "A", "act", sta, A_5)[0] == 0
    a = lab.driver("A")
    lab.wait_for(lambda: any(c["args"]["mac"] == sta for c in a.calls("kick_sta")), 15.0)
    assert time.monotonic() - started >= 3  # the station had its time to move (7 - 3 s)
    lab.wait_log("A", re.escape(sta) + " has never left, abort steering")
    lab.driver("A").sta_event("leave", sta, 1, rssi=-60)
    join(lab, "A", sta, 2)
    lab.wait_log("A", r"Backoff Steering for " + re.escape(sta) + " success")


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
    (["pt", "add", mac(1)], "error: 'pt' is not supported yet\n"),
    (["ns", mac(1)], "error: 'ns' is not supported yet\n"),
    (["ol"], "error: 'ol' is not supported yet\n"),
    (["nosuch"], "error: unsupported command 'nosuch'\n"),
]


def test_every_command_error_is_one_line_and_a_failure(lab):
    for args, text in COMMAND_ERRORS:
        assert cli(lab, "A", *args) == (1, text), args
    assert "ready to block" not in lab.log("B")  # nothing was started by them


def test_command_channel_edges(lab):
    rc, out = cli(lab, "A", "help")
    assert rc == 0 and out.startswith("Avaliable commands:\n\nddbg <0  ..  3>") and out.endswith(
        "        CHAN        Channel that the prefered BSS working on\n")
    rc, out = cli(lab, "A", "sta", "-l")
    assert rc == 0 and "sbtm/state: idle" in out and out.rstrip().endswith("recorded sta count: 4")
    # Separators: several blanks and tabs; 126 bytes run, 127 do not; 17 words run as 15.
    assert cli(lab, "A", "log", "\t-l", "  4") == (0, "")
    cmd = "log -l 4" + " " * 118
    assert len(cmd) == 126 and cli(lab, "A", cmd) == (0, "")
    assert cli(lab, "A", cmd + " ") == (1, "error: the command is too long (more then 127)\n")
    rc, out = cli(lab, "A", "sta", *["-l"] * 16)
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
    rc, out = cli(lab, "A", "sta", "-l")
    assert rc == 0 and len(out) > 65536 and out.count("sbtm/state:") == 104


def test_the_lab_command_line_runs_the_front_end_in_a_node(lab):
    p = subprocess.run([sys.executable, "-m", "lab", "--dir", str(lab.dir), "cli", "B", "allow", mac(1)],
                       cwd=REPO, capture_output=True, text=True, timeout=60)
    # B knows the station from the mesh only, not its capabilities: no BTM there.
    assert (p.returncode, p.stdout) == (0, "sact_allowed: Yes\nsbtm_allowed: No\nsboff_allowed: Yes\n")


def test_without_a_daemon_the_front_end_says_so(lab):
    lab.stop_daemon("C")
    started = time.monotonic()
    rc, out = cli(lab, "C", "help")
    assert (rc, out) == (1, "steer_cli.sh: bandherd is not running\n")
    assert time.monotonic() - started < 5
