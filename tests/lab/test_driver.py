"""The driver double, seen from a stand-in daemon: the netlink datagrams and the Wi-Fi library lines."""

import json
import socket
import struct

import pytest

from lab import topology
from lab.driver import DriverDouble
from lab.journal import Journal
from lab.sandbox import wait_until
from standins import NLMSG, NetlinkEnd, event_message, ping_message, uwb

TOPO = {"nodes": [
    {"name": "P", "id": "02:00:00:00:01:00", "portal": True,
     "radios": [{"name": "r5", "band": "5L", "channels": [36, 40], "channel": 40}],
     "vaps": [{"ifname": "ap5", "mib": "wifi1", "radio": "r5", "ssid": "up", "bssid": "02:00:00:00:01:05"}]},
    {"name": "N", "id": "02:00:00:00:02:00",
     "radios": [{"name": "r2", "band": "2G", "channels": [1, 6, 11], "channel": 6},
                {"name": "r5", "band": "5H", "channels": [36, 149, 153], "channel": 149, "bandwidth": 40}],
     "vaps": [{"ifname": "ap2", "mib": "wifi0", "radio": "r2", "ssid": "my herd", "bssid": "02:00:00:00:02:02",
               "sta_max": 16, "11k": 0, "11v": 1},
              {"ifname": "ap5", "mib": "wifi1", "radio": "r5", "ssid": "", "bssid": "02:00:00:00:02:05"}],
     "backhaul": {"ifname": "sta5", "mib": "wifi1-sta", "channel": 149, "uplink": "P",
                  "rate": 780, "rssi": -61, "hops": 2}}]}

STA = "02:aa:bb:cc:dd:01"


@pytest.fixture
def node_dir(lab_dir):
    return lab_dir / "nodes" / "N"


@pytest.fixture
def driver(node_dir, loop):
    node = topology.parse(TOPO).node("N")
    drv = DriverDouble(node, node_dir, loop, Journal(node_dir / "driver.jsonl"))
    loop.call(drv.start)
    yield drv
    loop.call(drv.stop)
    drv.journal.close()


@pytest.fixture
def daemon_nl(node_dir, driver):
    end = NetlinkEnd(node_dir)
    yield end
    end.close()


def journal_lines(node_dir):
    return [json.loads(line) for line in (node_dir / "driver.jsonl").read_text().splitlines()]


# -- netlink ---------------------------------------------------------------------------

def test_the_netlink_ping_is_answered_as_told_and_what_is_no_maps_message_only_recorded(node_dir, driver, daemon_nl):
    daemon_nl.send(ping_message())
    assert daemon_nl.recv() == NLMSG.pack(36, 0, 0, 0, 0) + b"steerin" + bytes([1]) + b"MAPS_API_V2\0"
    driver.pong_version = "MAPS_API_V1"
    daemon_nl.send(ping_message())
    assert daemon_nl.recv() == event_message(1, b"MAPS_API_V1\0")
    driver.pong_version = None
    daemon_nl.send(ping_message())
    daemon_nl.send(NLMSG.pack(24, 0, 0, 0, 3333) + b"steerOut")
    daemon_nl.send(b"\x10\x00\x00")
    # The double answers a ping as it records it: once the last message is recorded, no answer came.
    assert wait_until(lambda: len(driver.records(kind="netlink")) == 5, 10.0)
    with pytest.raises(socket.timeout):
        daemon_nl.recv(0.1)
    assert [(r.get("event"), r.get("nlmsg_pid"), r.get("error")) for r in driver.records(kind="netlink")] == [
        ("MAPS_EV_PING", 3333, None)] * 3 + [("116", 3333, "wrong magic"), (None, None, "too short")]
    assert [r["fields"] for r in driver.records(kind="event")] == [{"version": "MAPS_API_V2"},
                                                                   {"version": "MAPS_API_V1"}]
    assert wait_until(lambda: [r["kind"] for r in journal_lines(node_dir)][:2] == ["netlink", "event"], 10.0)


def test_events_carry_their_exact_payload_size_and_fail_without_a_daemon(node_dir, driver):
    with pytest.raises(OSError):
        driver.sta_event("leave", STA, bss_index=1)
    assert driver.records(kind="event")[0]["error"]
    daemon_nl = NetlinkEnd(node_dir)
    try:
        driver.sta_event("join", STA, bss_index=3, bands=2 | 4, caps=1 | 8, rssi=-67, nss=2, load=12,
                         sta_num=5, active=1)
        payload = bytes.fromhex(STA.replace(":", "")) + bytes([3, 0]) + struct.pack("=II", 6, 9) \
            + struct.pack("=bBBBB", -67, 2, 12, 5, 1) + bytes(3)
        assert daemon_nl.recv() == NLMSG.pack(48, 0, 0, 0, 0) + b"steerin" + bytes([2]) + payload
        driver.radio_status(2, 149, load=40, sta_num=7, work_band=8)
        assert daemon_nl.recv() == event_message(9, bytes([2, 149, 40, 7]) + struct.pack("=I", 8))
        driver.inject(10)
        assert daemon_nl.recv() == NLMSG.pack(24, 0, 0, 0, 0) + b"steerin" + bytes([10])
    finally:
        daemon_nl.close()
    sent = driver.records(kind="event")[1:]
    assert sent[0]["fields"] == {"mac": STA, "bss_index": 3, "bands": 6, "caps": 9, "rssi": -67, "nss": 2,
                                 "load": 12, "sta_num": 5, "active": 1}
    assert sent[1]["fields"] == {"radio_index": 2, "channel": 149, "load": 40, "sta_num": 7, "work_band": 8}
    assert sent[2]["event"] == "MAPS_EV_VAP_UPDATE" and "fields" not in sent[2]


# -- Wi-Fi base library ----------------------------------------------------------------

@pytest.mark.parametrize("request_line, answer", [
    ("os_ifname wifi0", "0 ap2"),
    ("os_ifname ap2", "0 ap2"),
    ("os_ifname wifi1-sta", "0 sta5"),
    ("mib_ifname ap5", "0 wifi1"),
    ("mib_ifname wifi1", "0 wifi1"),
    ("mib_ifname sta5", "-1"),
    ("mib_ifname eth0", "-1"),
    ("bssmode wifi0", "0 AP"),
    ("bssmode wifi1-sta", "0 STA"),
    ("ap_cap wifi0", "0 0 1"),
    ("ap_cap ap5", "0 1 1"),
    ("ap_cap sta5", "-1"),
    ("chan_info wifi0", "0 6 20"),
    ("chan_info wifi1", "0 149 40"),
    ("chan_info sta5", "0 149 80"),
    ("channel_list ap2", "0 1,6,11"),
    ("channel_list wifi1", "0 36,149,153"),
    ("channel_list sta5", "0 36,149,153"),
    ("ssid wifi0", "0 " + b"my herd".hex()),
    ("ssid wifi1", "0 -"),
    ("sta_maxnum wifi0", "0 16"),
    ("sta_maxnum wifi1", "0 64"),
    ("bssid sta5", "0 02:00:00:00:01:05"),
    ("bssid wifi1", "0 02:00:00:00:02:05"),
    ("sta_info sta5 02:00:00:00:01:05", "0 -61 780"),
    ("sta_info wifi1-sta 02:00:00:00:01:06", "-1"),
    ("sta_info ap2 " + STA, "-1"),
    ("ssid wifi9", "-1"),
    ("ssid", "-1"),
    ("ssid  wifi0", "-1"),
    ("ssid wifi0 extra", "-1"),
    ("frobnicate wifi0", "-1"),
    ("kick_sta ap2 not-a-mac", "-1"),
])
def test_wifi_calls_are_answered_from_the_topology(node_dir, driver, request_line, answer):
    assert uwb(node_dir, request_line) == answer
    rec = driver.calls()[-1]
    assert rec["request"] == request_line and rec["answer"] == answer


def test_station_facts_and_forced_failures_are_set_by_the_test(node_dir, driver):
    driver.set_station("wifi0", STA.upper(), -72, 144)
    assert uwb(node_dir, f"sta_info ap2 {STA}") == "0 -72 144"
    driver.call_results["ap_cap"] = -1
    driver.call_results["sta_maxnum"] = 3
    assert uwb(node_dir, "ap_cap wifi1") == "-1"
    assert uwb(node_dir, "sta_maxnum wifi1") == "3"
    assert driver.calls("ap_cap")[-1]["error"] == "refused by the lab"


def test_actions_are_recorded_with_their_arguments_and_applied(node_dir, driver):
    ssid = b"my herd".hex()
    lines = [
        f"kick_sta wifi0 {STA}",
        "set_bssload wifi1 80",
        f"add_rrm_neighbor wifi0 ap5 02:00:00:00:02:05 149 5 {ssid}",
        f"add_rrm_neighbor wifi0 ap2 02:00:00:00:02:02 6 2 {ssid}",
        "del_rrm_neighbor wifi0 02:00:00:00:02:05",
        f"beacon_req ap2 {STA} 36 -",
        f"bss_trans_req wifi0 {STA} 02:00:00:00:01:05 40",
    ]
    for line in lines:
        assert uwb(node_dir, line) == "0", line
    calls = [r for r in driver.calls() if r["call"] != "steer_maps"]
    assert [r["request"] for r in calls] == lines
    assert calls[0]["args"] == {"mac": STA}
    assert calls[6]["args"] == {"sta": STA, "target": "02:00:00:00:01:05", "channel": "40"}
    assert calls == journal_lines(node_dir)
    state = driver.state()
    assert state["bss_load"] == {"ap5": 80}
    assert state["rrm_neighbors"]["ap2"] == {
        "02:00:00:00:02:02": {"ifname": "ap2", "channel": 6, "band": 2, "ssid": "my herd"}}


# -- MAPS commands through steer_maps --------------------------------------------------

def maps(code, payload=b""):
    return (b"steerin" + bytes([code]) + payload).hex()


def test_maps_commands_are_decoded_recorded_applied_and_echoed(node_dir, driver):
    set_sta = bytes.fromhex(STA.replace(":", "")) + bytes(2) + struct.pack("=II", 1, 0b110)
    set_bss = struct.pack("=B3xI", 2, 0b110)
    add_radio = bytes([1])
    set_radio = struct.pack("=B3xIbbbb", 1, 2, -60, -85, -50, -75)
    bss_trans = bytes.fromhex(STA.replace(":", "")) + bytes.fromhex("020000000105") + bytes([40])
    beacon_req = b"herd".ljust(33, b"\0") + bytes.fromhex(STA.replace(":", "")) + bytes([36])
    conf = struct.pack("=BBBxIBBBxIBB2xIBB2x", 1, 1, 0, 30, 10, 5, 3, 1000, 1, 0, 60, 20, 1)
    for ifname, code, payload in (("ap2", 2, set_sta), ("wifi1", 1, set_bss), ("wifi0", 4, add_radio),
                                  ("wifi0", 5, set_radio), ("wifi0", 11, bss_trans),
                                  ("wifi0", 12, beacon_req), ("wifi0", 3, conf), ("wifi0", 10, bytes([2, 0, 0, 0]))):
        assert uwb(node_dir, f"steer_maps {ifname} {maps(code, payload)}") == "0 " + maps(code, payload)
    fields = {r["cmd"]: r["fields"] for r in driver.commands()}
    assert fields["MAPS_CMD_SET_STA"] == {"mac": STA, "mode": "MAPS_BLOCK_BSS", "block_bss": 6}
    assert fields["MAPS_CMD_SET_BSS"] == {"index": 2, "ess_radios": 6}
    assert fields["MAPS_CMD_SET_RADIO"] == {"index": 1, "mode": "MAPS_BAND_BLOCK_RSSI", "reject_rssi_upper": -60,
                                            "reject_rssi_lower": -85, "monitor_rssi_high": -50,
                                            "monitor_rssi_low": -75}
    assert fields["MAPS_CMD_BSS_TRANS"] == {"sta": STA, "bss": "02:00:00:00:01:05", "channel": 40}
    assert fields["MAPS_CMD_BEACON_REQ"] == {"ssid": "herd", "sta": STA, "channel": 36}
    assert fields["MAPS_CMD_SET_CONFIG"]["probe_age"] == 30
    assert fields["MAPS_CMD_SET_CONFIG"]["active_flow"] == 1000
    assert fields["MAPS_CMD_SET_CONFIG"]["delay_reject_stanum"] == 20
    assert fields["MAPS_CMD_DBG"] == {"level": "MAPS_LOG_DEBUG"}
    state = driver.state()
    assert state["sta"] == {STA: {"mode": "MAPS_BLOCK_BSS", "block_bss": 6}}
    assert state["bss"] == {2: {"ess_radios": 6, "if": "ap5"}}
    assert state["radios"] == {1: ["ap2"]}
    assert state["debug"] == "MAPS_LOG_DEBUG"
    # The file has the same commands, with the raw bytes.
    on_file = [r for r in journal_lines(node_dir) if r["kind"] == "maps"]
    assert [bytes.fromhex(r["hex"])[7] for r in on_file] == [2, 1, 4, 5, 11, 12, 3, 10]
    # CLEAN forgets what the daemon set.
    assert uwb(node_dir, f"steer_maps wifi0 {maps(9)}") == "0 " + maps(9)
    state = driver.state()
    assert state["sta"] == {} and state["bss"] == {} and state["config"] is None


def test_the_maps_ping_pongs_as_told_and_bad_or_refused_buffers_fail(node_dir, driver):
    ping = f"steer_maps wifi0 {maps(0, bytes(4))}"
    assert uwb(node_dir, ping) == "0 " + maps(0, b"pong")
    driver.ping_answer = b"pang"
    assert uwb(node_dir, ping) == "0 " + maps(0, b"pang")
    driver.ping_answer = None
    assert uwb(node_dir, ping) == "-1"
    assert uwb(node_dir, "steer_maps wifi0 " + (b"steerOut" + bytes(4)).hex()) == "-1"
    assert uwb(node_dir, "steer_maps wifi0 " + b"steer".hex()) == "-1"
    assert uwb(node_dir, "steer_maps wifi0 zz") == "-1"
    driver.command_results[2] = -1
    set_sta = bytes.fromhex(STA.replace(":", "")) + bytes(2) + struct.pack("=II", 1, 2)
    assert uwb(node_dir, f"steer_maps wifi0 {maps(2, set_sta)}") == "-1"
    assert driver.state()["sta"] == {}
    assert [(r.get("cmd"), r["result"], r.get("error")) for r in driver.records(kind="maps")] == [
        ("MAPS_CMD_PING", 0, None), ("MAPS_CMD_PING", 0, None), ("MAPS_CMD_PING", -1, "the ping is refused"),
        (None, -1, "wrong magic"), (None, -1, "too short for a MAPS header"),
        ("MAPS_CMD_SET_STA", -1, "refused by the lab")]


def test_a_slow_client_does_not_hold_up_the_others(node_dir, driver):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as slow:
        slow.connect(str(node_dir / "run" / "maps" / "uwb"))
        slow.sendall(b"ssid wi")
        assert uwb(node_dir, "ssid wifi0") == "0 " + b"my herd".hex()
        slow.sendall(b"fi1\n")
        slow.settimeout(2.0)
        assert slow.recv(100) == b"0 -\n"
