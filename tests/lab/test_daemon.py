"""Real daemons in a lab mesh: the driver handshakes at start-up, the ways
start-up fails, mesh messages between nodes, and the clean-up at exit.

One lab holds every case; the failing daemons all wait out their 15-second
restart delay at the same time.
"""

import re
import signal
import subprocess
import time

import pytest

from lab.controller import Lab
from lab.driver import EV

pytestmark = pytest.mark.lasts(20)

FATAL_DELAY = 15


def node(name, index, vaps=1, v11=1, portal=False, level=4):
    """A node with a 2.4 GHz radio and `vaps` VAPs on it, all in one ESS."""
    vap_list = [{"ifname": f"wl{i}", "mib": f"wlan{i}", "radio": "r2", "ssid": "herd",
                 "bssid": f"02:00:00:00:{index:02x}:{i + 1:02x}", "sta_max": 32, "11k": 1, "11v": v11}
                for i in range(vaps)]
    return {
        "name": name, "id": f"02:00:00:00:{index:02x}:00", "portal": portal,
        "radios": [{"name": "r2", "band": "2G", "channels": [1, 6, 11], "channel": 6}] if vaps else [],
        "vaps": vap_list,
        "config": {"bandherd.enable": 1, "bandherd.log_time": 0, "bandherd.log_level": level,
                   "bandherd.ess": ",".join(v["mib"] for v in vap_list)},
    }


TOPOLOGY = {"nodes": [
    node("A", 0x0a, vaps=2, portal=True, level=6),
    node("B", 0x0b, vaps=2, level=6),
    node("badver", 0x11),
    node("nopong", 0x12),
    node("twice", 0x13),
    node("novap", 0x14, vaps=0),
    node("no11v", 0x15, v11=0),
]}
FAILING = ["badver", "nopong", "novap", "no11v"]


@pytest.fixture(scope="module")
def lab(bandherd, tmp_path_factory):
    lab = Lab(bandherd)
    lab.up(TOPOLOGY, tmp_path_factory.mktemp("lab"))
    try:
        lab.driver("badver").pong_version = "MAPS_API_V3"
        lab.driver("nopong").pong_version = None
        lab.started = time.monotonic()
        for name in ["A", "B", "twice"] + FAILING:
            lab.start_daemon(name)
        lab.wait_log("twice", r"bandherd is ready\.")
        lab.second = lab.run("twice", [lab.binary], env={"BANDHERD_CONF": "/var/bandherd.conf"},
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        yield lab
    finally:
        lab.down()


def lines(lab, name, pattern):
    return re.findall(pattern, lab.log(name), re.M)


def test_start_up_proves_both_driver_directions_then_configures_the_driver(lab):
    lab.wait_log("A", r"^info main:\d+, bandherd is ready\.$")
    drv = lab.driver("A")
    pings = drv.records(kind="netlink", dir="in")
    assert [r.get("event") for r in pings][:1] == ["MAPS_EV_PING"], pings
    names = [r["cmd"] for r in drv.commands()]
    # The ioctl ping first, then the driver forgets what an earlier run set,
    # then radios and BSSes are configured.
    assert names[:2] == ["MAPS_CMD_PING", "MAPS_CMD_CLEAN"], names
    assert names.count("MAPS_CMD_ADD_RADIO") == 2
    assert names.count("MAPS_CMD_SET_BSS") == 2
    assert re.search(r"receive reponse via netlink\. version 'MAPS_API_V2'", lab.log("A"))


def test_wrong_api_version_stops_start_up(lab):
    assert lab.wait_daemon("badver", FATAL_DELAY + 20) == 1
    assert lines(lab, "badver", r"^fatal sdrv_pong_handler:\d+, API version doesn't match\. "
                                r"bandherd use version 'MAPS_API_V2', but driver provides 'MAPS_API_V3'$")
    assert "bandherd will exit after 15 seconds" in lab.log("badver")


def test_missing_pong_stops_start_up_after_five_seconds(lab):
    assert lab.wait_daemon("nopong", 5 + FATAL_DELAY + 20) == 1
    assert lines(lab, "nopong", r"^fatal sdrv_pong_timeout:\d+, waitting for response from driver timeout\.$")
    # The time-out and then the restart delay.
    assert time.monotonic() - lab.started >= 5 + FATAL_DELAY


def test_node_without_vaps_stops_start_up(lab):
    assert lab.wait_daemon("novap", FATAL_DELAY + 20) == 1
    assert lines(lab, "novap", r"^fatal sdrv_init:\d+, can't find any VAP$")


def test_vap_without_bss_transition_stops_start_up(lab):
    assert lab.wait_daemon("no11v", FATAL_DELAY + 20) == 1
    assert lines(lab, "no11v", r"^fatal sven_prepare_vap:\d+, wlan0 : 11v is not enable, please enable it$")
    # It never got as far as configuring a BSS.
    assert not lab.driver("no11v").commands("SET_BSS")


def test_second_daemon_in_a_node_is_refused(lab):
    second = lab.second
    out, _ = second.communicate(timeout=FATAL_DELAY + 20)
    assert second.returncode == 1
    assert re.search(r"^fatal sdrv_init_nl:\d+, netlink bind failed, another instance may be running\.$",
                     out.decode(), re.M), out.decode()
    # The first one runs on.
    assert lab.daemon("twice").returncode is None


def test_broadcast_is_dispatched_on_the_others_and_dropped_by_its_sender(lab):
    a_id, b_id = "02:00:00:00:0a:00", "02:00:00:00:0b:00"
    lab.wait_log("B", rf"receive message from {a_id} to ff:ff:ff:ff:ff:ff, type 'SNEI_HEARTBEAT'", timeout=15)
    beat = next(m for m in lab.relay.messages(type="SNEI_HEARTBEAT") if m["sa"] == a_id)
    # The mesh daemon hands a broadcast to every node, the sender included...
    assert set(beat["delivered"]) >= {"A", "B"}
    # ...and the sender drops its own.
    assert not re.search(rf"receive message from {a_id}", lab.log("A"))
    lab.wait_log("B", r"neighbor 02:00:00:00:0a:00 is online", timeout=10)
    lab.wait_log("A", rf"neighbor {b_id} is online", timeout=15)


# Input from the driver or the mesh that breaks what the daemon relies on:
# each is logged and dropped, and the daemon serves on (the next station's
# join is announced to the mesh).
A_ID, B_ID = "02:00:00:00:0a:00", "02:00:00:00:0b:00"


def heartbeat_of_a(**changes):
    body = {"is_mpp": 1, "link_rate2mpp": 999999, "hop": 0, "ess": [{"essid": "herd", "index": 0}],
            "radio": [{"work_band": 2, "channel": 6, "load": 0, "sta_num": 0}],
            "bss": [{"bssid": "02:00:00:00:0a:01", "sta_num": 0, "sta_max": 32, "radio": 1, "ess": 0,
                     "ifname": "wlan0"}]}
    body.update(changes)
    return {k: v for k, v in body.items() if v is not None}


BAD_INPUTS = [
    ("band event of a new station, then its join",
     lambda lab: lab.driver("B").sta_event("band", "02:5e:00:00:00:01", 1),
     "02:5e:00:00:00:01", r"error ssta_join_handler:\d+, 'org_bss' is not satisfied"),
    ("status event on a BSS that is not ours, then the join",
     lambda lab: lab.driver("B").sta_event("status", "02:5e:00:00:00:02", 32),
     "02:5e:00:00:00:02", r"error ssta_join_handler:\d+, 'org_bss' is not satisfied"),
    ("a pong nobody waits for",
     lambda lab: lab.inject("B", EV["PONG"], b"MAPS_API_V2\0"),
     None, r"error sdrv_pong_handler:\d+, 's_ping_timer' is not satisfied"),
    ("an empty pong",
     lambda lab: lab.inject("B", EV["PONG"], b""),
     None, r"error sdrv_pong_handler:\d+, 'size' is not satisfied"),
    ("radio status of a radio not in use",
     lambda lab: lab.driver("B").radio_status(3, 36, load=10),
     None, r"error sap_radio_handler:\d+, radio3 is not in use, status dropped"),
    ("radio status with channel 0",
     lambda lab: lab.driver("B").radio_status(1, 0, load=10),
     None, r"error sap_radio_handler:\d+, radio1 reports channel 0 band 0x2, status dropped"),
    ("a heartbeat without its radio list",
     lambda lab: lab.send("A", "B", "SNEI_HEARTBEAT", heartbeat_of_a(radio=None)),
     None, rf"info snei_del:\d+, neighbor {A_ID} is offline"),
    ("a heartbeat with a malformed BSSID and rates at their extremes",
     lambda lab: lab.send("A", "B", "SNEI_HEARTBEAT", heartbeat_of_a(
         link_rate2mpp=2147483647, hop=2147483647,
         bss=[dict(heartbeat_of_a()["bss"][0], bssid="aa:bb:zz:00:00:00")])),
     None, r"error smsg_get_mac:\d+, scan mac failed, 'aa:bb:zz:00:00:00'"),
    ("an association announcement without its station",
     lambda lab: lab.send("A", "B", "SSTA_ASSOCIATE", {"associated": 1, "bss": 1}),
     None, rf"info ssta_msg_handler:\d+, 00:00:00:00:00:00 associate node {A_ID} bss1"),
]


def test_input_that_breaks_the_model_is_dropped_and_the_daemon_serves_on(lab):
    lab.wait_log("B", rf"neighbor {A_ID} is online", timeout=15)
    drv = lab.driver("B")

    def announced(sta):
        return [m for m in lab.relay.messages(type="SSTA_ASSOCIATE")
                if m["sa"] == B_ID and m["body"]["sta"] == sta and m["body"]["associated"] == 1]

    def seen(error):
        return len(re.findall(error, lab.log("B"), re.M)) if error else 0

    for n, (what, bad, sta, error) in enumerate(BAD_INPUTS):
        before = seen(error)
        bad(lab)
        # The station itself, or a new one, joins and is announced to the mesh.
        joiner = sta or f"02:5f:00:00:00:{n:02x}"
        drv.sta_event("join", joiner, 2, rssi=-55)
        lab.wait_for(lambda: announced(joiner) and (not error or seen(error) > before), 10)
        assert lab.daemon("B").returncode is None, what
    assert "Assertion failed" not in lab.log("B")


def test_sigterm_cleans_the_driver_and_says_goodbye(lab):
    lab.wait_log("A", r"bandherd is ready\.")
    before = len(lab.driver("A").commands("CLEAN"))
    assert lab.stop_daemon("A", signal.SIGTERM) == 0
    cleans = lab.driver("A").commands("CLEAN")
    assert len(cleans) == before + 1
    lab.wait_for(lambda: any(m["sa"] == A_ID for m in lab.relay.messages(type="SNEI_EXIT")), 10)
    lab.wait_log("B", r"neighbor 02:00:00:00:0a:00 is offline", timeout=10)
