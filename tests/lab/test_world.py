"""The radio world against the driver doubles' real sockets, without daemons: the test sends what
a daemon sends (MAPS commands and Wi-Fi calls over each node's uwb socket) and reads what the
drivers send back on each node's netlink end, and the stations' timelines."""

import threading
import time
from xml.etree import ElementTree

import pytest

from lab import daemonlog, summary, svg
from lab.loop import Loop
from lab.sandbox import REPO
from lab.world import check_timeline, path_at
from lab import topology
from standins import (BLOCK_BSS, BLOCK_DEFAULT, BLOCK_DISABLE, daemon_start, mac_bytes, set_config, set_radio,
                      set_sta, stand_in_lab, steer_maps, uwb)

THREE = REPO / "lab" / "topologies" / "three-node.json"
A_24, A_5, B_24, B_5, C_24, C_5 = (f"02:00:00:00:0{n}:0{b}" for n in "abc" for b in "12")
HT, RRM, BTM = 1, 4, 8
SVG = "{http://www.w3.org/2000/svg}"
FULL = HT | 2 | RRM | BTM
BAND_ACCEPT, BAND_BLOCK, BAND_BLOCK_RSSI = 0, 1, 2
FAST = {"answer_delay": 0.05, "move_delay": 0.1, "return_after": 0.3, "retry_after": 0.2, "status_interval": 0}


@pytest.fixture(scope="module")
def air():
    """A three-node lab without namespaces: drivers, world, and a stand-in daemon on every node."""
    with stand_in_lab(THREE, "ABC") as air:
        yield air


@pytest.fixture(autouse=True)
def gone_afterwards(air):
    """Each test's stations leave at its end: the next test's counts start at zero."""
    yield
    for st in air[0].world.show():
        if st["where"] or st["out_for"] is not None:
            air[0].world.leave(st["mac"])


def station(lab, n, where=("A", "wlan0"), **settings):
    mac = f"02:aa:00:00:07:{n:02x}"
    lab.world.add(mac, **{**FAST, **settings})
    if where:
        assert lab.world.associate(mac, *where) == where
    return mac


def steps(lab, mac):
    """What happened to a station since it was defined: (what, node, vap or status) per record."""
    return [(r["what"], r.get("node"), r.get("vap", r.get("status"))) for r in lab.world.timeline(mac)
            if r["what"] not in ("add", "block", "unblock")]


def events(lab, sink, mac, n, *names):
    """The first `n` events about a station at a node (waiting for them)."""
    lab.wait_for(lambda: len(sink.of(mac, *names)) >= n, 10.0)
    return [(name, {k: v for k, v in f.items() if k not in ("mac", "caps")}) for name, f in sink.of(mac, *names)]


def settled(lab, mac):
    lab.wait_for(lambda: not lab.world.pending(mac), 10.0)


JOIN_A = ("join", "A", "wlan0")
BTM_CASES = [
    # btm, caps, what the station does after the request (from A's 2.4 GHz BSS to B's 5 GHz BSS),
    # and the response A's driver passes on
    ("obey", FULL, [("btm_response", "A", 0), ("leave", "A", "wlan0"), ("join", "B", "wlan1")], 0),
    ("reject", FULL, [("btm_response", "A", 1)], 1),
    ("ignore", FULL, [("btm_ignored", "A", None)], None),
    ("obey", HT | RRM, [("btm_ignored", "A", None)], None),
    ("sticky", FULL, [("btm_response", "A", 0), ("leave", "A", "wlan0"), ("join", "B", "wlan1"),
                      ("leave", "B", "wlan1"), ("join", "A", "wlan0")], 0),
]


@pytest.mark.parametrize("n, btm, caps, then, status", [(i, *c) for i, c in enumerate(BTM_CASES, 1)],
                         ids=["obey", "reject", "ignore", "no-btm", "sticky"])
def test_a_station_answers_a_bss_transition_request_as_its_behaviour_says(air, n, btm, caps, then, status):
    lab, sinks = air
    mac = station(lab, n, btm=btm, caps=caps)
    assert uwb(lab.node_dir("A"), f"bss_trans_req wlan0 {mac} {B_5} 44") == "0"
    settled(lab, mac)
    assert steps(lab, mac) == [JOIN_A, ("btm_request", "A", None)] + then
    if status is None:
        assert sinks["A"].of(mac, "bss_trans") == []
    else:
        assert events(lab, sinks["A"], mac, 1, "bss_trans") == [("bss_trans", {"bss": 1, "status": status})]
    # Each node's driver reported the station's joins and leaves there: BSS index, RSSI, stations on it.
    index = {"wlan0": 1, "wlan1": 2}
    for node in "AB":
        wanted = [(what, {"bss": index[vap], "rssi": -60, "sta_num": int(what == "join")})
                  for what, at, vap in [JOIN_A] + then if what in ("join", "leave") and at == node]
        assert events(lab, sinks[node], mac, len(wanted), "join", "leave") == wanted, node


def test_a_kicked_station_goes_to_the_strongest_bss_that_lets_it_in_until_the_driver_gives_up(air):
    lab, sinks = air
    for n, max_cnt in ((10, None), (11, 3)):
        daemon_start(lab, "C")
        if max_cnt:
            set_config(lab, "C", max_cnt)
        # C's 5 GHz BSS is the strongest, but C blocks the station on both its BSSes; B's is next.
        mac = station(lab, n, rssi=-70, rssi_at={"C": {"wlan1": -40}, "B": {"wlan1": -50}, "A": {"wlan0": -60}})
        set_sta(lab, "C", mac, BLOCK_BSS, 0b110)
        node, vap = "A", "wlan0"
        while (node, vap) != ("C", "wlan1"):
            assert uwb(lab.node_dir(node), f"kick_sta {vap} {mac}") == "0"
            settled(lab, mac)
            node, vap = lab.world.where(mac)
        refusals = [f["count"] for _, f in events(lab, sinks["C"], mac, max_cnt or 2, "reject")]
        assert refusals == list(range(1, (max_cnt or 2) + 1))
        assert events(lab, sinks["C"], mac, 1, "reject")[0] == ("reject", {"bss": 2, "count": 1, "rssi": -40})
        moves = [s for s in steps(lab, mac) if s[0] in ("join", "refused")]
        assert moves == [JOIN_A] + [("refused", "C", "wlan1"), ("join", "B", "wlan1")] * len(refusals) \
            + [("join", "C", "wlan1")]
        assert lab.world.timeline(mac)[-1]["given_up_after"] == len(refusals)


RADIO_CASES = [
    # radio mode of B's 5 GHz radio (mode, upper, lower), the station's block mode and bits, its RSSI
    # there, and whether B lets it in
    ((BAND_BLOCK, 0, 0), None, -60, False),
    ((BAND_BLOCK, 0, 0), (BLOCK_DISABLE, 0), -60, True),
    ((BAND_BLOCK, 0, 0), (BLOCK_BSS, 0b010), -60, True),       # blocked on the 2.4 GHz BSS only
    ((BAND_ACCEPT, 0, 0), (BLOCK_BSS, 0b100), -60, False),
    ((BAND_BLOCK_RSSI, 0, -65), None, -60, False),            # no upper end: the strong are refused
    ((BAND_BLOCK_RSSI, 0, -65), None, -70, True),
    ((BAND_BLOCK_RSSI, -70, -100), None, -80, False),
    ((BAND_BLOCK_RSSI, -70, -100), None, -60, True),
    ((BAND_BLOCK_RSSI, -70, -100), (BLOCK_DISABLE, 0), -80, True),
]


@pytest.mark.parametrize("n, radio, block, rssi, admitted", [(20 + i, *c) for i, c in enumerate(RADIO_CASES)])
def test_a_driver_refuses_by_the_station_block_else_by_its_radio_mode(air, n, radio, block, rssi, admitted):
    lab, sinks = air
    mac = station(lab, n, where=None, rssi=rssi)
    set_radio(lab, "B", 2, *radio)
    if block:
        set_sta(lab, "B", mac, *block)
    try:
        assert (lab.world.associate(mac, "B", "wlan1") is not None) == admitted
        # What B's driver sent first: the join, or the refusal (MAPS_EV_REJECT) of the first attempt.
        first = events(lab, sinks["B"], mac, 1, "reject", "join")[0]
        assert first == (("join", {"bss": 2, "rssi": rssi, "sta_num": 1}) if admitted
                         else ("reject", {"bss": 2, "count": 1, "rssi": rssi}))
    finally:
        lab.world.leave(mac)
        set_radio(lab, "B", 2, BAND_ACCEPT)


def test_a_station_blocked_everywhere_is_locked_out_and_measured(air):
    lab, sinks = air
    mac = station(lab, 30, where=("B", "wlan0"))
    for node in "ABC":
        set_config(lab, node, 50)       # the drivers refuse it for as long as the test wants
        set_sta(lab, node, mac, BLOCK_BSS, 0b110)
    assert uwb(lab.node_dir("B"), f"kick_sta wlan0 {mac}") == "0"
    lab.wait_for(lambda: [s[0] for s in steps(lab, mac)].count("locked_out") >= 3)
    assert {(s[1], s[2]) for s in steps(lab, mac) if s[0] == "refused"} == {
        (n, v) for n in "ABC" for v in ("wlan0", "wlan1")}
    out = check_timeline(lab.world.timeline(), lab.topology, limit=0.3)
    assert out["problems"] == [f"{mac} was blocked on every BSS of its ESS for "
                               f"{out['blocked_everywhere'][mac]:.1f} s (limit 0.3 s)"]
    assert out["blocked_everywhere"][mac] >= 0.4 and out["lockouts"][mac][-1] >= 0.4   # two retries at least
    set_sta(lab, "A", mac, BLOCK_DEFAULT)
    lab.wait_for(lambda: lab.world.where(mac) is not None)
    blocked, out_for = lab.check()["blocked_everywhere"][mac], lab.world.lockouts(mac)
    assert lab.world.where(mac) in (("A", "wlan0"), ("A", "wlan1"))
    assert out_for == [lab.world.timeline(mac)[-1]["out_for"]] and min(out_for[0], blocked) >= 0.4
    # Within the configured limit (the Backoff time-out, 25 s by default, plus 2 s) nothing is wrong.
    assert lab.check()["limit"] == 27 and lab.check()["problems"] == []
    assert lab.check(since=lab.world.timeline(mac)[-1]["mono"])["blocked_everywhere"] == {mac: 0.0}


def test_the_check_counts_only_blocks_on_every_bss_of_an_ess_on_every_node():
    topo = topology.load(THREE)

    def block(node, mono, mac, vaps=()):
        return {"kind": "world", "what": "block" if vaps else "unblock", "node": node, "mono": mono, "mac": mac,
                "vaps": list(vaps)}

    x, y, z = "02:aa:00:00:00:01", "02:aa:00:00:00:02", "02:aa:00:00:00:03"
    both = ("wlan0", "wlan1")
    records = [
        block("A", 10, x, both), block("B", 11, x, both), block("C", 12, x, both),   # x blocked from 12 ...
        block("A", 20, x),                                                            # ... to 20
        block("C", 30, x, both), block("A", 31, x, both), block("B", 33, x),          # 2 s more
        block("A", 10, y, both), block("B", 10, y, ["wlan0"]), block("C", 10, y, both),   # B lets y in on 5 GHz
        block("A", 10, z, both),                                                      # z: one node only
        {"kind": "world", "what": "leave", "lost": True, "mac": z, "mono": 40, "node": "A"},
    ]
    out = check_timeline(records, topo, limit=5, now=45)
    assert out["blocked_everywhere"] == {x: 8} and out["problems"] == [f"{x} was blocked on every BSS of its ESS "
                                                                       "for 8.0 s (limit 5 s)"]
    assert out["lockouts"] == {z: [5]}
    assert check_timeline(records, topo, limit=5, since=15, now=45)["blocked_everywhere"] == {x: 5}


BEACON_CASES = [
    # behaviour, caps, channel and SSID asked for: the reports (BSSID, channel, RCPI) A's driver passes on
    ("answer", FULL, 44, "herd", [(B_5, 44, -45)]),
    ("answer", FULL, 36, "herd", [(C_5, 36, -50), (A_5, 36, -70)]),
    ("answer", FULL, 0, "", [(B_5, 44, -45), (C_5, 36, -50)] + [(b, ch, -70) for b, ch in
                                                                 ((A_24, 6), (A_5, 36), (B_24, 1), (C_24, 11))]),
    ("answer", FULL, 44, "other", []),
    ("rcpi", FULL, 44, "herd", [(B_5, 44, 2 * (-45 + 110) - 256)]),     # true RCPI 130, a signed byte
    ("ignore", FULL, 44, "herd", None),
    ("answer", HT | BTM, 44, "herd", None),                             # no 802.11k
]


@pytest.mark.parametrize("n, beacon, caps, channel, ssid, reports", [(40 + i, *c) for i, c in enumerate(BEACON_CASES)])
def test_a_station_answers_a_beacon_request_from_what_it_hears(air, n, beacon, caps, channel, ssid, reports):
    lab, sinks = air
    mac = station(lab, n, beacon=beacon, caps=caps, rssi=-70, rssi_at={"B": {"wlan1": -45}, "C": {"wlan1": -50}})
    assert uwb(lab.node_dir("A"), f"beacon_req wlan0 {mac} {channel} {ssid.encode().hex() or '-'}") == "0"
    settled(lab, mac)
    if reports is None:
        assert steps(lab, mac)[-1][0] == "beacon_ignored"
        assert sinks["A"].of(mac, "beacon_rep") == []
        return
    (_, report), = events(lab, sinks["A"], mac, 1, "beacon_rep")
    op_classes = {1: 81, 6: 81, 11: 81, 36: 115, 44: 115}
    assert report == {"bss": 1, "reports": [(b, ch, rcpi, op_classes[ch]) for b, ch, rcpi in reports]}
    assert steps(lab, mac)[-2:] == [("beacon_request", "A", None), ("beacon_report", "A", None)]


def test_the_timeline_has_the_drivers_blocks_and_an_associated_station_reports_steadily(air):
    lab, sinks = air
    mac = station(lab, 50, status_interval=0.1)
    # Through MAPS_CMD_BEACON_REQ and MAPS_CMD_BSS_TRANS as well as through the Wi-Fi calls.
    steer_maps(lab, "A", "wlan0", 12, b"herd".ljust(33, b"\0") + mac_bytes(mac) + bytes([6]))
    set_sta(lab, "B", mac, BLOCK_BSS, 0b100)
    set_sta(lab, "B", mac, BLOCK_DISABLE)
    steer_maps(lab, "A", "wlan0", 11, mac_bytes(mac) + mac_bytes(A_5) + bytes([36]))
    settled(lab, mac)
    recs = [r for r in lab.world.timeline(mac) if r["what"] not in ("add", "beacon_report")]
    assert [(r["what"], r.get("node"), r.get("vaps")) for r in recs] == [
        ("join", "A", None), ("beacon_request", "A", None), ("block", "B", ["wlan1"]), ("unblock", "B", None),
        ("btm_request", "A", None), ("btm_response", "A", None), ("leave", "A", None), ("join", "A", None)]
    assert lab.world.where(mac) == ("A", "wlan1")
    on_5 = lambda: [f for _, f in sinks["A"].of(mac, "status") if f["bss"] == 2]    # noqa: E731
    lab.wait_for(lambda: len(on_5()) >= 3)
    assert {(f["rssi"], f["sta_num"]) for f in on_5()} == {(-60, 1)}


A, B = ("A", "wl5g0"), ("B", "wl5g0")
PATH_CASES = [
    # seconds into the path, and what the station hears then of the BSSes the path names
    (-1, {}),                                         # before the path: nothing from it
    (0, {A: -50, B: -90}),
    (5, {A: -70, B: -70}),                            # half way along both lines
    (7.5, {A: -80, B: -60}),
    (10, {A: -90, B: -50}),
    (11, {A: -90, B: -48}),                           # A held; B on to its point at 20 s; C from 12 s
    (12, {A: -90, B: -46, ("C", "wl2g0"): -40}),
    (16, {A: -90, B: -38, ("C", "wl2g0"): -40}),
    (99, {A: -90, B: -30, ("C", "wl2g0"): -40}),
]


def test_a_path_is_followed_on_straight_lines_between_the_points_that_name_a_bss():
    points = [(0, {A: -50, B: -90}), (10, {A: -90, B: -50}), (12, {("C", "wl2g0"): -40}), (20, {B: -30})]
    assert [path_at(points, at) for at, _ in PATH_CASES] == [heard for _, heard in PATH_CASES]


def test_the_loop_held_up_runs_what_fell_due_first_first():
    """A walk's steps are timers: on a busy machine they must still come before a scenario's
    next step, handed to the loop after they were due."""
    loop, held, order = Loop(), threading.Event(), []
    loop.start()
    try:
        loop.call_soon(held.wait)
        loop.call_later(0, order.append, "timer")
        loop.call_later(-1, order.append, "overdue timer")
        loop.call_soon(order.append, "handed over")
        held.set()
        loop.call(lambda: None)
        assert order == ["overdue timer", "timer", "handed over"]
    finally:
        loop.stop()


def test_a_walking_station_is_reported_as_it_goes_and_goes_where_its_path_led(air):
    lab, sinks = air
    mac = station(lab, 60, where=("A", "wlan1"))
    with pytest.raises(ValueError, match="point 2 of the path comes at 0 s, not after"):
        lab.world.walk(mac, [{"at": 0, "rssi_at": {"A": -50}}, {"at": 0, "rssi_at": {"A": -60}}])
    with pytest.raises(ValueError, match="node A has no VAP 'wlan7'"):
        lab.world.walk(mac, [{"at": 0, "rssi_at": {"A": {"wlan7": -50}}}])
    lab.world.walk(mac, [{"at": 0, "rssi_at": {"A": {"wlan1": -50}, "C": -90}},
                         {"at": 1, "rssi_at": {"A": {"wlan1": -90}, "C": -40}}], step=0.2)
    settled(lab, mac)       # the walk is over
    # A's driver reported each change of the RSSI on its own BSS, on the line from -50 to -90.
    heard = [f["rssi"] for _, f in sinks["A"].of(mac, "status")]
    assert heard[0] == -50 and heard[-1] == -90 and len(heard) >= 3
    assert heard == sorted(set(heard), reverse=True)
    # Kicked, it goes to the strongest BSS it hears now: one of C's.
    assert uwb(lab.node_dir("A"), f"kick_sta wlan1 {mac}") == "0"
    settled(lab, mac)
    assert lab.world.where(mac) == ("C", "wlan0")
    assert [r["heard"] for r in lab.world.timeline(mac) if r["what"] == "rssi"][-1] == [
        ["A", "wlan1", -90], ["C", "wlan0", -40], ["C", "wlan1", -40]]


def test_the_steering_summary_and_the_picture_tell_each_steer_from_the_worlds_records(air):
    lab, _ = air
    since, second = time.monotonic(), int(time.time())
    up = station(lab, 70, btm="obey")                              # on A's 2.4 GHz BSS
    back = station(lab, 71, btm="reject", rssi_at={"B": {"wlan0": -50}})
    plain = station(lab, 72, caps=HT, rssi_at={"B": {"wlan0": -50}})
    for mac in (up, back):
        assert uwb(lab.node_dir("A"), f"bss_trans_req wlan0 {mac} {B_5} 44") == "0"
    settled(lab, back)
    # A falls back to Backoff for `back`: every BSS blocked but B's 5 GHz one, then a kick.
    for node, bits in (("A", 0b110), ("B", 0b010), ("C", 0b110)):
        set_sta(lab, node, back, BLOCK_BSS, bits)
    assert uwb(lab.node_dir("A"), f"kick_sta wlan0 {back}") == "0"
    # And Backoff for `plain`, towards C's 5 GHz BSS, but B and C do not block it: it goes to B.
    blocked = int(time.time())
    set_sta(lab, "A", plain, BLOCK_BSS, 0b110)
    assert uwb(lab.node_dir("A"), f"kick_sta wlan0 {plain}") == "0"
    # The operator's Backoff steer of `forced` to B's 5 GHz BSS: only the command channel's result tells why.
    forced = station(lab, 73, caps=HT)
    for node, bits in (("A", 0b110), ("B", 0b010), ("C", 0b110)):
        set_sta(lab, node, forced, BLOCK_BSS, bits)
    assert uwb(lab.node_dir("A"), f"kick_sta wlan0 {forced}") == "0"
    for mac in (up, back, plain, forced):
        settled(lab, mac)
    logs = {"A": [daemonlog.parse_steer(f"{second} 01/01 00:00:00 sbtm_steer:1, [steer trigger] from {why}, "
                                        f"sta {mac} steer to bss {B_5}") for why, mac in (("HIGH_RSSI", up),
                                                                                          ("CMD", back))]
            + [daemonlog.parse(f"{second} 01/01 00:00:00 debug sctl_low_rssi_event:1, low rssi of {plain}, -80dBm"),
               daemonlog.parse(f"{blocked} 01/01 00:00:00 info sboff_steer:1, try to steer {plain} to {C_5} "
                               "with Backoff, rssi: -80dBm"),
               daemonlog.parse(f"{int(time.time())} 01/01 00:00:00 info scmd_act_result:1, steer {forced} to {B_5} "
                               "success")]}
    found = summary.of_records(lab.world.timeline(), lab.topology, logs, since=since,
                               names={up: "up", back: "back", plain: "plain", forced: "forced"})
    assert [(s["station"], s["node"], s["mechanism"], s["reason"], s["fallback"], s["target_node"], s["target_vap"],
             s["outcome"], s["ended_on"]) for s in found["steers"]] == [
        ("up", "A", "BTM", "HIGH_RSSI", False, "B", "wlan1", "success", ["B", "wlan1"]),
        ("back", "A", "BTM", "CMD", False, "B", "wlan1", "failure", None),
        ("back", "A", "Backoff", "CMD", True, "B", "wlan1", "success", ["B", "wlan1"]),
        ("plain", "A", "Backoff", "LOW_RSSI", False, "C", "wlan1", "failure", ["B", "wlan0"]),
        ("forced", "A", "Backoff", "CMD", False, "B", "wlan1", "success", ["B", "wlan1"])]
    times = [s["time"] for s in found["steers"] if s["time"] is not None]
    assert all(t >= FAST["move_delay"] for t in times)     # each moved only after its move delay
    f = found["figures"]
    assert (f["steers"], f["succeeded_in_all"]) == (5, 3)
    assert f["attempted"] == {"BTM": {"HIGH_RSSI": 1, "CMD": 1}, "Backoff": {"CMD": 2, "LOW_RSSI": 1}}
    assert f["succeeded"] == {"BTM": {"HIGH_RSSI": 1}, "Backoff": {"CMD": 2}}
    assert f["median_time"] == sorted(times)[1]
    assert f["longest_lockout"][0] in ("back", "plain", "forced") and f["longest_lockout"][1] >= FAST["move_delay"]
    assert f["per_band"] == {"2G": 1, "5L": 3} and f["per_node"] == {"A": 0, "B": 4, "C": 0}
    # The picture of the same records: a row per station, its associations and marks.
    names = {up: "up", back: "back", plain: "plain", forced: "forced"}
    recs = [{**r, "station": names[r["mac"]]} for r in lab.world.timeline() if r["mac"] in names]
    root = ElementTree.fromstring(svg.draw(recs, lab.topology, "four steers"))
    rows = {g.get("data-station"): g for g in root.iter(f"{SVG}g") if g.get("class") == "row"}
    assert list(rows) == ["up", "back", "plain", "forced"]

    def drawn(row):
        classes = [g.get("class") for g in row.iter(f"{SVG}g") if g is not row]
        return {c: classes.count(c) for c in classes}, len([x for x in row.iter(f"{SVG}line")
                                                            if x.get("class") == "lockout"])
    bars = {"bar band-2G": 1, "bar band-5L": 1}
    assert {name: drawn(row) for name, row in rows.items()} == {
        "up": ({**bars, "mark btm-request": 1, "mark btm-accept": 1}, 1),
        "back": ({**bars, "mark btm-request": 1, "mark btm-reject": 1, "mark block": 3, "mark kick": 1,
                  "mark refused": 3}, 1),
        "plain": ({"bar band-2G": 2, "mark block": 1, "mark kick": 1}, 1),
        "forced": ({**bars, "mark block": 3, "mark kick": 1, "mark refused": 3}, 1)}
    assert [t.text for t in rows["plain"].iter(f"{SVG}text")][1:] == ["A", "B"]    # each bar names its node
