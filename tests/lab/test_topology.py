"""Topology files: the shipped ones load, and every kind of mistake is reported clearly."""

import json
import re
from pathlib import Path

import pytest

from lab import topology
from lab.topology import TopologyError

TOPOLOGIES = Path(__file__).resolve().parents[2] / "lab" / "topologies"


def three_node():
    return json.loads((TOPOLOGIES / "three-node.json").read_text())


def test_shipped_topologies_describe_a_portal_and_its_nodes():
    two = topology.load(TOPOLOGIES / "two-node.json")
    three = topology.load(TOPOLOGIES / "three-node.json")
    assert two.names() == ["A", "B"] and three.names() == ["A", "B", "C"]
    assert two.portal.name == "A" and three.portal.name == "A"
    for node in three.nodes:
        assert {r.band for r in node.radios} == {"2G", "5L"}
        assert len(node.vaps) == 2 and all(v.rrm == 1 and v.btm == 1 for v in node.vaps)
        assert len({v.ssid for v in node.vaps}) == 1
        assert node.config["bandherd.enable"] == 1
        assert node.config["bandherd.ess"] == ",".join(v.mib for v in node.vaps)
        # Every node is told who the portal is.
        assert node.config["bandherd.mppmac"] == "02:00:00:00:0a:00"
    c = three.node("C")
    assert c.backhaul is not None and c.backhaul.uplink == "A"
    assert c.config["bandherd.backhaul"] == c.backhaul.mib
    assert c.uplink_ifname == c.backhaul.ifname
    assert three.node("B").backhaul is None and three.node("B").uplink_ifname == "eth0"
    assert [n.address for n in three.nodes] == ["169.254.100.1", "169.254.100.2", "169.254.100.3"]
    six = topology.load(TOPOLOGIES / "six-ghz.json")
    assert [r.band for r in six.node("A").radios] == ["2G", "5L", "6G"] and len(six.node("A").vaps) == 3
    assert six.node("A").config["bandherd.ess"] == "wlan0,wlan1,wlan2"


def test_nodes_and_vaps_are_found_by_any_of_their_names():
    t = topology.load(TOPOLOGIES / "two-node.json")
    assert t.node("02:00:00:00:0b:00") is t.node("B")
    b = t.node("B")
    assert b.vap("wlan1") is b.vap("wl5g0") and b.vap("wl5g0").radio.channel == 44
    assert b.vap("wlan9") is None
    with pytest.raises(KeyError, match="no node 'Z'"):
        t.node("Z")


def test_conf_lines_explicit_keys_and_defaults_derived_from_other_nodes():
    raw = three_node()
    raw["nodes"][1]["config"] = {"bandherd.enable": True, "bandherd.mppmac": "02:00:00:00:0b:00",
                                 "bandherd.rate_factor": -70, "bandherd.ess": "wlan0;wlan1"}
    del raw["nodes"][2]["backhaul"]["uplink_bssid"]
    raw["nodes"][2]["backhaul"].update(uplink="B", channel=44)
    raw["nodes"][0]["radios"][1].update(band="5H", channels=[36, 40, 149, 153], channel=149)  # both 5 GHz halves
    t = topology.parse(raw)
    assert t.node("B").conf_lines() == ("bandherd.enable=1\nbandherd.mppmac=02:00:00:00:0b:00\n"
                                        "bandherd.rate_factor=-70\nbandherd.ess=wlan0;wlan1\n")
    # C's uplink BSSID: its uplink node's BSS on the backhaul's channel.
    assert t.node("C").backhaul.uplink_bssid == "02:00:00:00:0b:02"
    assert t.node("A").radio("r5").channel == 149


def _node(raw, name):
    return next(n for n in raw["nodes"] if n["name"] == name)


def _whole(value):
    """A mutation replacing the whole file's object."""
    return lambda raw: value


def _set(path, value):
    """A mutation setting raw[path...] (node given by name) to value."""
    def mutate(raw):
        obj = _node(raw, path[0])
        for key in path[1:-1]:
            obj = obj[key]
        obj[path[-1]] = value
    return mutate


def _delete(path):
    def mutate(raw):
        obj = _node(raw, path[0])
        for key in path[1:-1]:
            obj = obj[key]
        del obj[path[-1]]
    return mutate


MISTAKES = [
    ("duplicate node name", _set(["B", "name"], "A"), "two nodes are named 'A'"),
    ("node name too long", _set(["B", "name"], "node-thirteen"), "'name' must be 1 to 12 letters"),
    ("node name with a blank", _set(["B", "name"], "B 2"), "'name' must be 1 to 12 letters"),
    ("duplicate node id", _set(["B", "id"], "02:00:00:00:0a:00"), "have the same MAC 02:00:00:00:0a:00"),
    ("BSSID equal to another node's", _set(["C", "vaps", 0, "bssid"], "02:00:00:00:0b:01"),
     "vap 'wl2g0' of node 'C' and vap 'wl2g0' of node 'B' have the same MAC"),
    ("node id that is no MAC", _set(["A", "id"], "02:00:00:00:0a"), "'id' must be a MAC address"),
    ("multicast node id", _set(["A", "id"], "01:00:5e:00:00:01"), "'id' 01:00:5e:00:00:01 is not a unicast"),
    ("the lab's own address", _set(["A", "id"], topology.LAB_ADDRESS), "the lab's own mesh address"),
    ("no portal", _set(["A", "portal"], False), "exactly one node must be the portal"),
    ("two portals", _set(["B", "portal"], True), "not 2 (A, B)"),
    ("portal that is no boolean", _set(["B", "portal"], "yes"), "'portal' must be true or false"),
    ("VAP on no radio", _set(["B", "vaps", 1, "radio"], "r6"), "node 'B' vap 'wl5g0': 'radio' 'r6' is no radio"),
    ("VAP name too long", _set(["B", "vaps", 0, "ifname"], "wl2g0-guest-net0"), "longer than 15 characters"),
    ("VAP named br0", _set(["B", "vaps", 0, "ifname"], "br0"), "'ifname' 'br0' is taken by the lab"),
    ("VAP named like a veth peer", _set(["B", "vaps", 1, "ifname"], "vap-peer0"), "'vap-peer0' is taken by the lab"),
    ("VAP named like the wired uplink", _set(["B", "vaps", 0, "ifname"], "eth0"),
     "the name 'eth0' is used by both vap 'eth0' and the wired backhaul"),
    ("two VAPs with one kernel name", _set(["B", "vaps", 1, "ifname"], "wl2g0"), "the name 'wl2g0' is used by both"),
    ("store name equal to another VAP's kernel name", _set(["B", "vaps", 1, "mib"], "wl2g0"),
     "the name 'wl2g0' is used by both vap 'wl2g0' and vap 'wl5g0'"),
    ("store name with a blank", _set(["B", "vaps", 1, "mib"], "wlan 1"), "'mib' (configuration-store name)"),
    ("SSID too long", _set(["B", "vaps", 1, "ssid"], "x" * 33), "'ssid' must be a text of at most 32 bytes"),
    ("802.11k flag not 0/1", _set(["B", "vaps", 1, "11k"], 2), "'11k' must be an integer from 0 to 1"),
    ("unknown VAP key", _set(["B", "vaps", 1, "11r"], 1), "unknown key '11r'"),
    ("missing BSSID", _delete(["B", "vaps", 1, "bssid"]), "node 'B' vap 'wl5g0': 'bssid' is missing"),
    ("unknown band", _set(["A", "radios", 0, "band"], "2.4G"), "'band' must be one of 2G, 5L, 5H, 6G"),
    ("channel not in the radio's list", _set(["A", "radios", 0, "channel"], 13), "'channel' 13 is not in its 'channels'"),
    ("5 GHz channel on a 2.4 GHz radio", _set(["A", "radios", 0, "channels"], [1, 6, 36]),
     "channels [36] are not 2G channels"),
    ("5L radio on a 5H channel", lambda raw: raw["nodes"][0]["radios"][1].update(channels=[36, 149], channel=149),
     "'channel' 149 is not a 5L channel"),
    ("6 GHz radio whose channels read as 2.4 GHz", _set(["A", "radios", 0, "band"], "6G"),
     "a daemon reads the band of channels [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11] as 2G, not 6G"),
    ("radio load over 100", _set(["A", "radios", 1, "load"], 101), "'load' must be an integer from 0 to 100"),
    ("two radios with one name", _set(["A", "radios", 1, "name"], "r2"), "two radios are named 'r2'"),
    ("address outside the lab's range", _set(["B", "address"], "192.168.1.2"),
     "'address' must be a host address of 169.254.100.0/24"),
    ("two nodes with one address", _set(["B", "address"], "169.254.100.1"), "have the same address 169.254.100.1"),
    ("backhaul to itself", _set(["C", "backhaul", "uplink"], "C"), "'uplink' 'C' must name another node"),
    ("backhaul to an unknown node", _set(["C", "backhaul", "uplink"], "Q"), "'uplink' 'Q' must name another node"),
    ("backhaul without a channel", _delete(["C", "backhaul", "channel"]), "backhaul: 'channel' is missing"),
    ("backhaul name too long", _set(["C", "backhaul", "ifname"], "wl5g-sta-uplink0"), "longer than 15 characters"),
    ("config value over two lines", _set(["B", "config", "bandherd.ess"], "wlan0\nwlan1"),
     "config value of 'bandherd.ess' must be one line"),
    ("config key with '='", _set(["B", "config", "a=b"], 1), "config key 'a=b' cannot be written"),
    ("config key the daemon does not read", _set(["B", "config", "bandherd.max_stas"], 9),
     "node 'B': unknown config key 'bandherd.max_stas' (did you mean 'bandherd.max_sta'?)"),
    ("unknown node key", _set(["B", "radois"], []), "unknown key 'radois'"),
    ("not an object", _whole([]), "must be an object"),
    ("no nodes", _whole({"nodes": []}), "'nodes' must be a non-empty list"),
    ("a node without id", _whole({"nodes": [{"name": "A"}]}), "node 'A': 'id' is missing"),
    ("a node that is no object", _whole({"nodes": [1]}), "node #1: must be an object"),
    ("unknown top-level key", _whole({"nodes": [], "links": []}), "unknown key 'links'"),
]


@pytest.mark.parametrize("mutate, message", [(m, t) for _, m, t in MISTAKES],
                         ids=[name for name, _, _ in MISTAKES])
def test_each_mistake_is_reported_with_where_it_is(mutate, message):
    raw = three_node()
    whole = mutate(raw)
    raw = raw if whole is None else whole
    with pytest.raises(TopologyError) as e:
        topology.parse(raw, "t.json")
    assert message in str(e.value)
    assert str(e.value).startswith("bad topology t.json:\n")


def test_all_mistakes_are_reported_at_once():
    raw = three_node()
    _set(["B", "name"], "A")(raw)
    _set(["C", "vaps", 0, "radio"], "nope")(raw)
    _set(["C", "radios", 0, "load"], -1)(raw)
    with pytest.raises(TopologyError) as e:
        topology.parse(raw)
    assert len(e.value.problems) == 3, e.value.problems


def test_unreadable_files_are_reported(tmp_path):
    with pytest.raises(TopologyError, match="cannot read it"):
        topology.load(tmp_path / "missing.json")
    bad = tmp_path / "bad.json"
    bad.write_text('{"nodes": [}')
    with pytest.raises(TopologyError, match=r"bad topology .*bad.json:\n  not JSON"):
        topology.load(bad)


@pytest.mark.lasts(15)
def test_the_6_ghz_topology_runs_its_daemons_and_its_6_ghz_radio_and_stations(bandherd, lab_dir):
    from lab.controller import Lab
    sta = "02:aa:00:00:06:01"
    with Lab(bandherd) as lab:
        lab.up(TOPOLOGIES / "six-ghz.json", lab_dir)
        lab.driver("A").set_radio_interval(0.5)
        for name in "AB":
            lab.start_node(name)
        for name in "AB":
            lab.wait_log(name, r"bandherd is ready\.")
        a = lab.driver("A")
        six = a.radio_index(lab.node("A").radio("r6"))
        assert sorted(a.state()["radios"]) == [1, 2, 3] and a.state()["radios"][six] == ["wl6g0"]
        # Every VAP of A lists the 6 GHz BSS in its 802.11k neighbour report, on band 6.
        assert {vap: nbrs.get("02:00:00:00:0a:03") for vap, nbrs in a.state()["rrm_neighbors"].items()} == {
            vap: {"ifname": "wl6g0", "channel": 37, "band": 6, "ssid": "herd"} for vap in ("wl2g0", "wl5g0", "wl6g0")}
        # The daemon takes the driver's reports of the 6 GHz radio: A's heartbeat tells B its load.
        radio = {"work_band": 16, "channel": 37, "load": 5, "sta_num": 0}
        lab.wait_for(lambda: any(radio in (m["body"] or {}).get("radio", [])
                                 for m in lab.relay.messages(type="SNEI_HEARTBEAT", sender="A")), 15.0)
        # A 6 GHz station goes to the 6 GHz BSS, where it is heard best, and is announced (A announces
        # stations once it has a neighbour: B's first heartbeat may come after A's).
        lab.wait_log("A", re.escape(lab.node("B").id) + " is online")
        lab.world.add(sta, bands=16 | 14, caps=31, rssi_at={"A": {"wlan2": -40}})
        assert lab.world.associate(sta) == ("A", "wlan2")
        lab.wait_log("A", sta + r" associate bss\d\(wlan2\), capability:0x1f, bands:0x1e")
        lab.wait_log("B", sta + " associate node")
        assert lab.daemon("A").returncode is None and lab.daemon("B").returncode is None
