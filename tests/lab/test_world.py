"""The lab's check that no station stays blocked on every BSS of its ESS."""

from pathlib import Path

from lab import topology as topo_mod
from lab.world import blocked_everywhere

TOPOLOGY = topo_mod.load(Path(__file__).resolve().parents[2] / "lab" / "topologies" / "three-node.json")
INDICES = {n: {"wl2g0": 1, "wl5g0": 2} for n in ("A", "B", "C")}


def set_sta(node, mono, mac, mode, bits=0):
    return {"kind": "maps", "cmd": "MAPS_CMD_SET_STA", "node": node, "mono": mono,
            "fields": {"mac": mac, "mode": mode, "block_bss": bits}}


def test_only_blocks_on_every_bss_of_every_node_count():
    x, y, z = "02:aa:00:00:00:01", "02:aa:00:00:00:02", "02:aa:00:00:00:03"
    records = [
        set_sta("A", 10, x, "MAPS_BLOCK_BSS", 0b110), set_sta("B", 11, x, "MAPS_BLOCK_BSS", 0b110),
        set_sta("C", 12, x, "MAPS_BLOCK_BSS", 0b110),            # x locked out from 12 ...
        set_sta("A", 20, x, "MAPS_BLOCK_DEFAULT"),                # ... to 20
        set_sta("C", 30, x, "MAPS_BLOCK_BSS", 0b110), set_sta("A", 31, x, "MAPS_BLOCK_BSS", 0b110),
        set_sta("B", 33, x, "MAPS_BLOCK_DISBALE"),                # 2 s more: the longest stays 8
        # y: every node blocks it, but B leaves its 5 GHz BSS open
        set_sta("A", 10, y, "MAPS_BLOCK_BSS", 0b110), set_sta("B", 10, y, "MAPS_BLOCK_BSS", 0b010),
        set_sta("C", 10, y, "MAPS_BLOCK_BSS", 0b110),
        set_sta("A", 10, z, "MAPS_BLOCK_BSS", 0b110),             # z: one node only
    ]
    assert blocked_everywhere(records, TOPOLOGY, INDICES) == {x: 8}
